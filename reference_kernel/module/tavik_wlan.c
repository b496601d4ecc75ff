// SPDX-License-Identifier: GPL-2.0
/*
 * The generic netlink family TAVIK_WLAN for any Linux kernel, to develop and test against.
 *
 * It keeps the configuration of each network namespace and reports it: the tuples as a dump, and
 * everything as text in /proc/net/tavik_wlan. It steers no traffic.
 */

#include <linux/inet.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/netdevice.h>
#include <linux/proc_fs.h>
#include <linux/rbtree.h>
#include <linux/sched.h>
#include <linux/seq_file.h>
#include <linux/seq_file_net.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <net/genetlink.h>
#include <net/net_namespace.h>
#include <net/netns/generic.h>
#include <net/sock.h>

#include "kernel_interface/tavik_wlan.h"
#include "reference_kernel/tavik_wlan_limits.h"

/*
 * The keys of what is held. memcmp() of their bytes, with the padding of names, orders them as they
 * are listed.
 */

struct tavik_wlan_tuple {
	u8 ip_proto;
	u8 trans_proto;
	__be32 key; /* the SPI when trans_proto is ESP, otherwise the port and two zero bytes */
} __packed;

struct tavik_wlan_forwarding {
	u8 selector;
	char from[TAVIK_WLAN_MAX_NAME + 1];
	char to[TAVIK_WLAN_MAX_NAME + 1];
} __packed;

struct tavik_wlan_address {
	u8 ip_proto;
	u8 bytes[16]; /* IPv4 has the first four */
} __packed;

struct tavik_wlan_flow {
	struct tavik_wlan_address source;
	struct tavik_wlan_address destination;
	__be16 source_port;
	__be16 destination_port;
} __packed;

/* A set of keys of one size, ordered as memcmp() orders them. */
struct tavik_wlan_set {
	struct rb_root root;
	size_t key_size;
	u32 count;
	u32 limit;
};

struct tavik_wlan_entry {
	struct rb_node node;
	u8 key[];
};

/* What a network namespace holds. */
struct tavik_wlan_net {
	struct mutex lock; /* of all that follows */
	struct tavik_wlan_set tuples;
	struct tavik_wlan_set forwardings;
	struct tavik_wlan_set flows;
	char devices[U8_MAX + 1][TAVIK_WLAN_MAX_NAME + 1]; /* by selector; empty: not set */
	const char *encap_action; /* as it is listed; NULL: no encapsulation port is set */
	__be16 encap_port;
	u32 tuples_generation; /* changes with the tuples, is never 0 */
};

static unsigned int tavik_wlan_net_id __read_mostly;
static struct genl_family tavik_wlan_family;

static struct tavik_wlan_net *tavik_wlan_net(struct net *net)
{
	return net_generic(net, tavik_wlan_net_id);
}

/* Sets */

static struct tavik_wlan_entry *entry_of(struct rb_node *node)
{
	return rb_entry_safe(node, struct tavik_wlan_entry, node);
}

/* The first entry whose key is not below @key, or NULL. */
static struct tavik_wlan_entry *set_lower_bound(const struct tavik_wlan_set *set, const void *key)
{
	struct rb_node *node = set->root.rb_node;
	struct tavik_wlan_entry *found = NULL;

	while (node) {
		struct tavik_wlan_entry *entry = entry_of(node);

		if (memcmp(entry->key, key, set->key_size) < 0) {
			node = node->rb_right;
		} else {
			found = entry;
			node = node->rb_left;
		}
	}
	return found;
}

static struct tavik_wlan_entry *set_find(const struct tavik_wlan_set *set, const void *key)
{
	struct tavik_wlan_entry *entry = set_lower_bound(set, key);

	return entry && !memcmp(entry->key, key, set->key_size) ? entry : NULL;
}

/* Inserts @entry, whose key is not in the set yet. */
static void set_insert(struct tavik_wlan_set *set, struct tavik_wlan_entry *entry)
{
	struct rb_node **link = &set->root.rb_node, *parent = NULL;

	while (*link) {
		parent = *link;
		link = memcmp(entry->key, entry_of(parent)->key, set->key_size) < 0
			       ? &parent->rb_left
			       : &parent->rb_right;
	}
	rb_link_node(&entry->node, parent, link);
	rb_insert_color(&entry->node, &set->root);
	set->count++;
}

/* Adds a copy of @key. -EEXIST when the set has it, -ENOSPC when the set is full, or -ENOMEM. */
static int set_add(struct tavik_wlan_set *set, const void *key)
{
	struct tavik_wlan_entry *entry;

	if (set_find(set, key))
		return -EEXIST;
	if (set->count == set->limit)
		return -ENOSPC;
	entry = kmalloc(struct_size(entry, key, set->key_size), GFP_KERNEL_ACCOUNT);
	if (!entry)
		return -ENOMEM;
	memcpy(entry->key, key, set->key_size);
	set_insert(set, entry);
	return 0;
}

static void set_unlink(struct tavik_wlan_set *set, struct tavik_wlan_entry *entry)
{
	rb_erase(&entry->node, &set->root);
	set->count--;
}

/* Returns whether the set had @key. */
static bool set_delete(struct tavik_wlan_set *set, const void *key)
{
	struct tavik_wlan_entry *entry = set_find(set, key);

	if (!entry)
		return false;
	set_unlink(set, entry);
	kfree(entry);
	return true;
}

static void set_clear(struct tavik_wlan_set *set)
{
	struct tavik_wlan_entry *entry, *next;

	rbtree_postorder_for_each_entry_safe(entry, next, &set->root, node) {
		kfree(entry);
		cond_resched(); /* a full set takes long */
	}
	set->root = RB_ROOT;
	set->count = 0;
}

static void clear_all(struct tavik_wlan_net *tn)
{
	set_clear(&tn->tuples);
	set_clear(&tn->forwardings);
	set_clear(&tn->flows);
	memset(tn->devices, 0, sizeof(tn->devices));
	tn->encap_action = NULL;
}

/* Moves the entries of @from, none of which is in @to yet. */
static void set_move_all(struct tavik_wlan_set *to, struct tavik_wlan_set *from)
{
	struct rb_node *node;

	while ((node = rb_first(&from->root))) {
		set_unlink(from, entry_of(node));
		set_insert(to, entry_of(node));
	}
}

/* Has the extack say why a request is refused. Its value is the error. */
#define REFUSE(extack, attr, err, message)                                                         \
	({                                                                                         \
		NL_SET_ERR_MSG_ATTR(extack, attr, message);                                        \
		(err);                                                                             \
	})

/* Policies: what the attributes of each command must look like. All of them are required. */

static int validate_tuple(const struct nlattr *attr, struct netlink_ext_ack *extack)
{
	const DatapathTuple *tuple = nla_data(attr);

	if (nla_len(attr) != sizeof(*tuple))
		return REFUSE(extack, attr, -EINVAL, "invalid attribute length");
	if (tuple->ip_proto != TAVIK_WLAN_IP_PROTO_IPV4 &&
	    tuple->ip_proto != TAVIK_WLAN_IP_PROTO_IPV6)
		return REFUSE(extack, attr, -EINVAL, "unknown IP version");
	if (tuple->trans_proto != TAVIK_WLAN_TRANS_PROTO_TCP &&
	    tuple->trans_proto != TAVIK_WLAN_TRANS_PROTO_UDP &&
	    tuple->trans_proto != TAVIK_WLAN_TRANS_PROTO_ESP)
		return REFUSE(extack, attr, -EINVAL, "unknown transport protocol");
	if (tuple->reserved[0] || tuple->reserved[1])
		return REFUSE(extack, attr, -EINVAL, "reserved bytes of a tuple are not 0");
	if (tuple->trans_proto != TAVIK_WLAN_TRANS_PROTO_ESP &&
	    be32_to_cpu(tuple->key.spi) & 0xffff)
		return REFUSE(extack, attr, -EINVAL, "bytes after the port of a tuple are not 0");
	return 0;
}

static int validate_name(const struct nlattr *attr, struct netlink_ext_ack *extack)
{
	return dev_valid_name(nla_data(attr))
		       ? 0
		       : REFUSE(extack, attr, -EINVAL, "invalid device name");
}

static bool parse_address(const struct nlattr *attr, struct tavik_wlan_address *address)
{
	const char *text = nla_data(attr), *end;

	memset(address, 0, sizeof(*address));
	address->ip_proto = TAVIK_WLAN_IP_PROTO_IPV4;
	if (in4_pton(text, -1, address->bytes, '\0', &end) && !*end)
		return true;
	address->ip_proto = TAVIK_WLAN_IP_PROTO_IPV6;
	return in6_pton(text, -1, address->bytes, '\0', &end) && !*end;
}

static int validate_address(const struct nlattr *attr, struct netlink_ext_ack *extack)
{
	struct tavik_wlan_address address;

	return parse_address(attr, &address) ? 0 : REFUSE(extack, attr, -EINVAL, "invalid address");
}

#define NAME_POLICY NLA_POLICY_VALIDATE_FN(NLA_NUL_STRING, validate_name, TAVIK_WLAN_MAX_NAME)
#define ADDRESS_POLICY                                                                             \
	NLA_POLICY_VALIDATE_FN(NLA_NUL_STRING, validate_address, TAVIK_WLAN_MAX_ADDRESS)

static const struct nla_policy tuple_policy[] = {
	[TAVIK_WLAN_TUPLE_ATTR] = NLA_POLICY_VALIDATE_FN(NLA_BINARY, validate_tuple),
};

static const struct nla_policy element_policy[] = {
	[TAVIK_WLAN_TUPLE_ELEMENT] = NLA_POLICY_NESTED(tuple_policy),
};

static const struct nla_policy tuples_policy[TAVIK_WLAN_ATTR_MAX + 1] = {
	[TAVIK_WLAN_ATTR_TUPLES] = NLA_POLICY_NESTED(element_policy),
};

static const struct nla_policy device_policy[TAVIK_WLAN_ATTR_MAX + 1] = {
	[TAVIK_WLAN_ATTR_DEV] = NAME_POLICY,
	[TAVIK_WLAN_ATTR_SELECTOR] = { .type = NLA_U8 },
};

static const struct nla_policy forwarding_policy[TAVIK_WLAN_ATTR_MAX + 1] = {
	[TAVIK_WLAN_ATTR_FWD_FROM] = NAME_POLICY,
	[TAVIK_WLAN_ATTR_FWD_TO] = NAME_POLICY,
	[TAVIK_WLAN_ATTR_SELECTOR] = { .type = NLA_U8 },
};

static const struct nla_policy encap_policy[TAVIK_WLAN_ATTR_MAX + 1] = {
	[TAVIK_WLAN_ATTR_ENCAP_PORT] = { .type = NLA_BE16 },
};

static const struct nla_policy flow_policy[TAVIK_WLAN_ATTR_MAX + 1] = {
	[TAVIK_WLAN_ATTR_LL_SRC_ADDR] = ADDRESS_POLICY,
	[TAVIK_WLAN_ATTR_LL_DST_ADDR] = ADDRESS_POLICY,
	[TAVIK_WLAN_ATTR_LL_SRC_PORT] = { .type = NLA_BE16 },
	[TAVIK_WLAN_ATTR_LL_DST_PORT] = { .type = NLA_BE16 },
};

static const struct nla_policy empty_policy[TAVIK_WLAN_ATTR_MAX + 1] = {};

/* Commands. Each is called with the lock held and the attributes of its policy present. */

static struct tavik_wlan_tuple tuple_from_wire(const struct nlattr *attr)
{
	const DatapathTuple *wire = nla_data(attr);

	return (struct tavik_wlan_tuple){
		.ip_proto = wire->ip_proto,
		.trans_proto = wire->trans_proto,
		.key = wire->key.spi,
	};
}

/* What the policies cannot check: each element holds exactly one tuple attribute. */
static int check_elements(const struct nlattr *container, struct netlink_ext_ack *extack)
{
	const struct nlattr *element, *attr, *tuple;
	int elements_left, attrs_left;

	nla_for_each_nested(element, container, elements_left) {
		tuple = NULL;
		nla_for_each_nested(attr, element, attrs_left) {
			if (tuple)
				return REFUSE(extack, attr, -EINVAL,
					      "more than one tuple in an element");
			tuple = attr;
		}
		if (!tuple)
			return REFUSE(extack, element, -EINVAL, "no tuple in an element");
	}
	return 0;
}

/* The tuple attribute of an element that check_elements() has passed. */
static const struct nlattr *element_tuple(const struct nlattr *element)
{
	return nla_data(element);
}

static void tuples_changed(struct tavik_wlan_net *tn)
{
	if (!++tn->tuples_generation)
		tn->tuples_generation = 1;
}

static int add_tuples(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct nlattr *element, *container = info->attrs[TAVIK_WLAN_ATTR_TUPLES];
	struct tavik_wlan_set *tuples = &tn->tuples;
	struct tavik_wlan_set added = {
		.key_size = tuples->key_size,
		.limit = tuples->limit,
	};
	struct tavik_wlan_tuple tuple;
	int left, err;

	err = check_elements(container, info->extack);
	if (err)
		return err;
	nla_for_each_nested(element, container, left) {
		tuple = tuple_from_wire(element_tuple(element));
		if (set_find(tuples, &tuple))
			continue;
		err = set_add(&added, &tuple);
		if (err && err != -EEXIST)
			goto out;
	}
	err = 0;
	if (tuples->count + added.count > tuples->limit) {
		err = REFUSE(info->extack, container, -ENOSPC, "too many tuples");
	} else if (added.count) {
		set_move_all(tuples, &added);
		tuples_changed(tn);
	}
out:
	set_clear(&added);
	return err;
}

static int delete_tuples(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct nlattr *element, *container = info->attrs[TAVIK_WLAN_ATTR_TUPLES];
	struct tavik_wlan_tuple tuple;
	int left, err;

	err = check_elements(container, info->extack);
	if (err)
		return err;
	nla_for_each_nested(element, container, left) {
		tuple = tuple_from_wire(element_tuple(element));
		if (!set_find(&tn->tuples, &tuple))
			return REFUSE(info->extack, element_tuple(element), -ENOENT,
				      "no such tuple");
	}
	nla_for_each_nested(element, container, left) {
		tuple = tuple_from_wire(element_tuple(element));
		/* A tuple that the request lists twice is gone the second time. */
		if (set_delete(&tn->tuples, &tuple))
			tuples_changed(tn);
	}
	return 0;
}

/* The device of the request's selector; empty when none is set. */
static char *device_of(struct tavik_wlan_net *tn, struct genl_info *info)
{
	return tn->devices[nla_get_u8(info->attrs[TAVIK_WLAN_ATTR_SELECTOR])];
}

static int set_device(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct nlattr *attr = info->attrs[TAVIK_WLAN_ATTR_DEV];
	char *device = device_of(tn, info);

	if (!strcmp(device, nla_data(attr)))
		return REFUSE(info->extack, attr, -EEXIST, "the device is set already");
	if (*device)
		return REFUSE(info->extack, attr, -EBUSY, "another device is set");
	strscpy(device, nla_data(attr), sizeof(tn->devices[0]));
	return 0;
}

static int unset_device(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct nlattr *attr = info->attrs[TAVIK_WLAN_ATTR_DEV];
	char *device = device_of(tn, info);

	if (strcmp(device, nla_data(attr)))
		return REFUSE(info->extack, attr, -ENOENT, "the device is not set");
	*device = '\0';
	return 0;
}

static struct tavik_wlan_forwarding forwarding_of(struct genl_info *info)
{
	struct tavik_wlan_forwarding forwarding = {
		.selector = nla_get_u8(info->attrs[TAVIK_WLAN_ATTR_SELECTOR]),
	};

	/* The padding is part of the key. */
	strscpy_pad(forwarding.from, nla_data(info->attrs[TAVIK_WLAN_ATTR_FWD_FROM]),
		    sizeof(forwarding.from));
	strscpy_pad(forwarding.to, nla_data(info->attrs[TAVIK_WLAN_ATTR_FWD_TO]),
		    sizeof(forwarding.to));
	return forwarding;
}

static int add_forwarding(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_forwarding forwarding = forwarding_of(info);
	const struct nlattr *to = info->attrs[TAVIK_WLAN_ATTR_FWD_TO];
	int err = set_add(&tn->forwardings, &forwarding);

	if (err == -EEXIST)
		NL_SET_ERR_MSG_ATTR(info->extack, to, "the forwarding exists already");
	else if (err == -ENOSPC)
		NL_SET_ERR_MSG_ATTR(info->extack, to, "too many forwardings");
	return err;
}

static int delete_forwarding(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_forwarding forwarding = forwarding_of(info);

	return set_delete(&tn->forwardings, &forwarding)
		       ? 0
		       : REFUSE(info->extack, info->attrs[TAVIK_WLAN_ATTR_FWD_TO], -ENOENT,
				"no such forwarding");
}

static int set_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	tn->encap_port = nla_get_be16(info->attrs[TAVIK_WLAN_ATTR_ENCAP_PORT]);
	tn->encap_action = "";
	return 0;
}

static int set_encap_action(struct tavik_wlan_net *tn, struct genl_info *info, const char *action)
{
	const struct nlattr *attr = info->attrs[TAVIK_WLAN_ATTR_ENCAP_PORT];

	if (!tn->encap_action || tn->encap_port != nla_get_be16(attr))
		return REFUSE(info->extack, attr, -ENOENT, "the encapsulation port is not set");
	tn->encap_action = action;
	return 0;
}

static int unset_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	return set_encap_action(tn, info, NULL);
}

static int pass_through_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	return set_encap_action(tn, info, " pass-through");
}

static int drop_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	return set_encap_action(tn, info, " drop");
}

static int add_flow(struct tavik_wlan_net *tn, struct genl_info *info)
{
	struct tavik_wlan_flow flow = {
		.source_port = nla_get_be16(info->attrs[TAVIK_WLAN_ATTR_LL_SRC_PORT]),
		.destination_port = nla_get_be16(info->attrs[TAVIK_WLAN_ATTR_LL_DST_PORT]),
	};
	const struct nlattr *destination = info->attrs[TAVIK_WLAN_ATTR_LL_DST_ADDR];
	int err;

	parse_address(info->attrs[TAVIK_WLAN_ATTR_LL_SRC_ADDR], &flow.source);
	parse_address(destination, &flow.destination);
	if (flow.source.ip_proto != flow.destination.ip_proto)
		return REFUSE(info->extack, destination, -EINVAL,
			      "addresses of different families");
	err = set_add(&tn->flows, &flow);
	if (err == -EEXIST)
		NL_SET_ERR_MSG_ATTR(info->extack, destination, "the flow exists already");
	else if (err == -ENOSPC)
		NL_SET_ERR_MSG_ATTR(info->extack, destination, "too many flows");
	return err;
}

static int flush_flows(struct tavik_wlan_net *tn, struct genl_info *info)
{
	set_clear(&tn->flows);
	return 0;
}

static int reset(struct tavik_wlan_net *tn, struct genl_info *info)
{
	clear_all(tn);
	tuples_changed(tn);
	return 0;
}

/* The dump of the tuples */

/* Where a dump continues. Kept in the callback's context from one part to the next. */
struct tavik_wlan_cursor {
	struct tavik_wlan_tuple next; /* may be gone by then: the first one not below it is meant */
};
static_assert(sizeof(struct tavik_wlan_cursor) <= sizeof_field(struct netlink_callback, ctx));

static int put_tuple(struct sk_buff *skb, const struct tavik_wlan_tuple *tuple)
{
	struct nlattr *element = nla_nest_start(skb, TAVIK_WLAN_TUPLE_ELEMENT);
	const DatapathTuple wire = {
		.key.spi = tuple->key,
		.ip_proto = tuple->ip_proto,
		.trans_proto = tuple->trans_proto,
	};

	if (!element)
		return -EMSGSIZE;
	if (nla_put(skb, TAVIK_WLAN_TUPLE_ATTR, sizeof(wire), &wire)) {
		nla_nest_cancel(skb, element);
		return -EMSGSIZE;
	}
	nla_nest_end(skb, element);
	return 0;
}

/* Puts one message with the tuples from *@entry on that fit, and moves *@entry behind them. */
static int put_message(struct sk_buff *skb, struct netlink_callback *cb,
		       struct tavik_wlan_entry **entry)
{
	struct nlattr *container;
	void *header;
	int count;

	header = genlmsg_put(skb, NETLINK_CB(cb->skb).portid, cb->nlh->nlmsg_seq,
			     &tavik_wlan_family, NLM_F_MULTI, TAVIK_WLAN_CMD_GET_TUPLES);
	if (!header)
		return -EMSGSIZE;
	genl_dump_check_consistent(cb, header);
	container = nla_nest_start(skb, TAVIK_WLAN_ATTR_TUPLES);
	for (count = 0; *entry && count < TAVIK_WLAN_TUPLES_PER_MESSAGE; count++) {
		if (!container || put_tuple(skb, (const void *)(*entry)->key))
			break;
		*entry = entry_of(rb_next(&(*entry)->node));
	}
	if (!count) {
		genlmsg_cancel(skb, header);
		return -EMSGSIZE;
	}
	nla_nest_end(skb, container);
	genlmsg_end(skb, header);
	return 0;
}

/*
 * Puts one part of the dump. A tuple that stays is in the dump once. One that is added or removed
 * meanwhile may be in it or not; the generation then marks the dump as interrupted.
 */
static int dump_tuples(struct sk_buff *skb, struct netlink_callback *cb)
{
	struct tavik_wlan_net *tn = tavik_wlan_net(sock_net(cb->skb->sk));
	struct tavik_wlan_cursor *cursor = (void *)cb->ctx;
	struct tavik_wlan_entry *entry;
	int err = 0;

	mutex_lock(&tn->lock);
	cb->seq = tn->tuples_generation;
	entry = set_lower_bound(&tn->tuples, &cursor->next);
	if (entry)
		err = put_message(skb, cb, &entry);
	if (!err && entry) {
		memcpy(&cursor->next, entry->key, sizeof(cursor->next));
		err = skb->len;
	}
	mutex_unlock(&tn->lock);
	return err;
}

/* The family */

static int configure(struct sk_buff *skb, struct genl_info *info);

#define CONFIGURE(command, its_policy)                                                             \
	[(command)-1] = { .cmd = (command),                                                        \
			  .doit = configure,                                                       \
			  .flags = GENL_UNS_ADMIN_PERM,                                            \
			  .policy = (its_policy),                                                  \
			  .maxattr = TAVIK_WLAN_ATTR_MAX }

static const struct genl_ops operations[] = {
	CONFIGURE(TAVIK_WLAN_CMD_ADD_TUPLES, tuples_policy),
	CONFIGURE(TAVIK_WLAN_CMD_DEL_TUPLES, tuples_policy),
	CONFIGURE(TAVIK_WLAN_CMD_SET_DEV, device_policy),
	CONFIGURE(TAVIK_WLAN_CMD_UNSET_DEV, device_policy),
	CONFIGURE(TAVIK_WLAN_CMD_ADD_FWD_INFO, forwarding_policy),
	CONFIGURE(TAVIK_WLAN_CMD_DEL_FWD_INFO, forwarding_policy),
	CONFIGURE(TAVIK_WLAN_CMD_SET_ENCAP_PORT, encap_policy),
	CONFIGURE(TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, encap_policy),
	CONFIGURE(TAVIK_WLAN_CMD_RESET, empty_policy),
	CONFIGURE(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH, encap_policy),
	CONFIGURE(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP, encap_policy),
	CONFIGURE(TAVIK_WLAN_CMD_LL_ADDR_ADD, flow_policy),
	CONFIGURE(TAVIK_WLAN_CMD_LL_ADDR_FLUSH, empty_policy),
	[TAVIK_WLAN_CMD_GET_TUPLES - 1] = { .cmd = TAVIK_WLAN_CMD_GET_TUPLES,
					    .dumpit = dump_tuples,
					    .policy = empty_policy,
					    .maxattr = TAVIK_WLAN_ATTR_MAX },
};

static int (*const apply[])(struct tavik_wlan_net *tn, struct genl_info *info) = {
	[TAVIK_WLAN_CMD_ADD_TUPLES] = add_tuples,
	[TAVIK_WLAN_CMD_DEL_TUPLES] = delete_tuples,
	[TAVIK_WLAN_CMD_SET_DEV] = set_device,
	[TAVIK_WLAN_CMD_UNSET_DEV] = unset_device,
	[TAVIK_WLAN_CMD_ADD_FWD_INFO] = add_forwarding,
	[TAVIK_WLAN_CMD_DEL_FWD_INFO] = delete_forwarding,
	[TAVIK_WLAN_CMD_SET_ENCAP_PORT] = set_encap_port,
	[TAVIK_WLAN_CMD_UNSET_ENCAP_PORT] = unset_encap_port,
	[TAVIK_WLAN_CMD_RESET] = reset,
	[TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH] = pass_through_encap_port,
	[TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP] = drop_encap_port,
	[TAVIK_WLAN_CMD_LL_ADDR_ADD] = add_flow,
	[TAVIK_WLAN_CMD_LL_ADDR_FLUSH] = flush_flows,
};

static int require_attributes(const struct nla_policy *policy, struct genl_info *info)
{
	int type;

	for (type = 1; type <= TAVIK_WLAN_ATTR_MAX; type++) {
		if (policy[type].type != NLA_UNSPEC && !info->attrs[type]) {
			NL_SET_ERR_MSG(info->extack, "missing attribute");
			NL_SET_ERR_ATTR_MISS(info->extack, NULL, type);
			return -EINVAL;
		}
	}
	return 0;
}

static int configure(struct sk_buff *skb, struct genl_info *info)
{
	struct tavik_wlan_net *tn = tavik_wlan_net(genl_info_net(info));
	u8 command = info->genlhdr->cmd;
	int err;

	err = require_attributes(operations[command - 1].policy, info);
	if (err)
		return err;
	mutex_lock(&tn->lock);
	err = apply[command](tn, info);
	mutex_unlock(&tn->lock);
	return err;
}

static struct genl_family tavik_wlan_family __ro_after_init = {
	.name = TAVIK_WLAN_FAMILY_NAME,
	.version = TAVIK_WLAN_FAMILY_VERSION,
	.maxattr = TAVIK_WLAN_ATTR_MAX,
	.ops = operations,
	.n_ops = ARRAY_SIZE(operations),
	.netnsok = true,
	.parallel_ops = true, /* each namespace has a lock of its own */
	.module = THIS_MODULE,
};

/* /proc/net/tavik_wlan */

static void show_tuple(struct seq_file *seq, const void *key)
{
	const struct tavik_wlan_tuple *tuple = key;
	const u32 spi = be32_to_cpu(tuple->key);

	seq_printf(seq, "tuple ipv%u ", tuple->ip_proto);
	if (tuple->trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP)
		seq_printf(seq, "esp 0x%08x\n", spi);
	else
		seq_printf(seq, "%s %u\n",
			   tuple->trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP ? "tcp" : "udp",
			   spi >> 16);
}

static void show_forwarding(struct seq_file *seq, const void *key)
{
	const struct tavik_wlan_forwarding *forwarding = key;

	seq_printf(seq, "forward %u %s %s\n", forwarding->selector, forwarding->from,
		   forwarding->to);
}

static void show_address(struct seq_file *seq, const struct tavik_wlan_address *address, u16 port)
{
	if (address->ip_proto == TAVIK_WLAN_IP_PROTO_IPV4)
		seq_printf(seq, " %pI4 %u", address->bytes, port);
	else
		seq_printf(seq, " %pI6c %u", address->bytes, port);
}

static void show_flow(struct seq_file *seq, const void *key)
{
	const struct tavik_wlan_flow *flow = key;

	seq_puts(seq, "lowlat");
	show_address(seq, &flow->source, be16_to_cpu(flow->source_port));
	show_address(seq, &flow->destination, be16_to_cpu(flow->destination_port));
	seq_putc(seq, '\n');
}

static void show_devices(struct seq_file *seq, const void *net)
{
	const struct tavik_wlan_net *tn = net;
	int selector;

	for (selector = 0; selector <= U8_MAX; selector++) {
		if (*tn->devices[selector])
			seq_printf(seq, "device %u %s\n", selector, tn->devices[selector]);
	}
}

static void show_encap(struct seq_file *seq, const void *net)
{
	const struct tavik_wlan_net *tn = net;

	if (tn->encap_action)
		seq_printf(seq, "encap %u%s\n", be16_to_cpu(tn->encap_port), tn->encap_action);
}

/* The parts of the text: a set is shown key by key, what is not a set at one go. */
static const struct {
	size_t set; /* its offset; 0: not a set */
	void (*show)(struct seq_file *seq, const void *key_or_net);
} parts[] = {
	{ offsetof(struct tavik_wlan_net, tuples), show_tuple },
	{ 0, show_devices },
	{ offsetof(struct tavik_wlan_net, forwardings), show_forwarding },
	{ 0, show_encap },
	{ offsetof(struct tavik_wlan_net, flows), show_flow },
};

/*
 * A reader of the text. It holds the lock only while it fills one buffer. A key that stays is read
 * once, one that is added or removed meanwhile may be read or not.
 */
struct tavik_wlan_reader {
	struct seq_net_private net;		/* seq_file_net() expects it first */
	unsigned int part;			/* that is shown next */
	u8 key[sizeof(struct tavik_wlan_flow)]; /* that is shown next; may be gone by then */
};
static_assert(sizeof(struct tavik_wlan_flow) >= sizeof(struct tavik_wlan_forwarding));

static const struct tavik_wlan_set *reader_set(struct seq_file *seq)
{
	const struct tavik_wlan_reader *reader = seq->private;
	const size_t set = parts[reader->part].set;

	return set ? (void *)tavik_wlan_net(seq_file_net(seq)) + set : NULL;
}

/* Moves the reader to @entry, or without one to the beginning of the next part. */
static void *reader_move(struct seq_file *seq, struct tavik_wlan_entry *entry)
{
	struct tavik_wlan_reader *reader = seq->private;

	while (!entry && ++reader->part < ARRAY_SIZE(parts)) {
		if (!reader_set(seq))
			return SEQ_START_TOKEN;
		entry = entry_of(rb_first(&reader_set(seq)->root));
	}
	if (entry)
		memcpy(reader->key, entry->key, reader_set(seq)->key_size);
	return entry;
}

static void *reader_start(struct seq_file *seq, loff_t *position)
{
	struct tavik_wlan_reader *reader = seq->private;

	mutex_lock(&tavik_wlan_net(seq_file_net(seq))->lock);
	if (*position == 0) {
		reader->part = 0;
		memset(reader->key, 0, sizeof(reader->key));
	}
	if (reader->part == ARRAY_SIZE(parts))
		return NULL;
	if (!reader_set(seq))
		return SEQ_START_TOKEN;
	return reader_move(seq, set_lower_bound(reader_set(seq), reader->key));
}

static void *reader_next(struct seq_file *seq, void *shown, loff_t *position)
{
	struct tavik_wlan_entry *entry = shown == SEQ_START_TOKEN ? NULL : shown;

	++*position;
	return reader_move(seq, entry ? entry_of(rb_next(&entry->node)) : NULL);
}

static void reader_stop(struct seq_file *seq, void *entry)
{
	mutex_unlock(&tavik_wlan_net(seq_file_net(seq))->lock);
}

static int reader_show(struct seq_file *seq, void *entry)
{
	const struct tavik_wlan_reader *reader = seq->private;
	const void *shown = entry == SEQ_START_TOKEN ? (void *)tavik_wlan_net(seq_file_net(seq))
						     : ((struct tavik_wlan_entry *)entry)->key;

	parts[reader->part].show(seq, shown);
	return 0;
}

static const struct seq_operations reader_operations = {
	.start = reader_start,
	.next = reader_next,
	.stop = reader_stop,
	.show = reader_show,
};

/* Network namespaces and the module */

static int __net_init tavik_wlan_net_init(struct net *net)
{
	struct tavik_wlan_net *tn = tavik_wlan_net(net);

	mutex_init(&tn->lock);
	tn->tuples_generation = 1;
	tn->tuples.key_size = sizeof(struct tavik_wlan_tuple);
	tn->tuples.limit = TAVIK_WLAN_MAX_TUPLES;
	tn->forwardings.key_size = sizeof(struct tavik_wlan_forwarding);
	tn->forwardings.limit = TAVIK_WLAN_MAX_FORWARDINGS;
	tn->flows.key_size = sizeof(struct tavik_wlan_flow);
	tn->flows.limit = TAVIK_WLAN_MAX_FLOWS;
	if (!proc_create_net("tavik_wlan", 0444, net->proc_net, &reader_operations,
			     sizeof(struct tavik_wlan_reader)))
		return -ENOMEM;
	return 0;
}

static void __net_exit tavik_wlan_net_exit(struct net *net)
{
	remove_proc_entry("tavik_wlan", net->proc_net);
	clear_all(tavik_wlan_net(net));
}

static struct pernet_operations tavik_wlan_net_ops = {
	.init = tavik_wlan_net_init,
	.exit = tavik_wlan_net_exit,
	.id = &tavik_wlan_net_id,
	.size = sizeof(struct tavik_wlan_net),
};

static int __init tavik_wlan_init(void)
{
	int err;

	err = register_pernet_subsys(&tavik_wlan_net_ops);
	if (err)
		return err;
	err = genl_register_family(&tavik_wlan_family);
	if (err)
		unregister_pernet_subsys(&tavik_wlan_net_ops);
	return err;
}
module_init(tavik_wlan_init);

static void __exit tavik_wlan_exit(void)
{
	genl_unregister_family(&tavik_wlan_family);
	unregister_pernet_subsys(&tavik_wlan_net_ops);
}
module_exit(tavik_wlan_exit);

MODULE_DESCRIPTION("Family TAVIK_WLAN that keeps what it is told and steers no traffic");
MODULE_LICENSE("GPL");
MODULE_ALIAS_GENL_FAMILY(TAVIK_WLAN_FAMILY_NAME);
