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
	u8 ip_version;
	u8 trans_proto;
	__be32 key; /* the SPI when trans_proto is ESP, otherwise the port */
} __packed;

struct tavik_wlan_device {
	u8 selector;
	char name[TAVIK_WLAN_MAX_NAME + 1];
} __packed;

struct tavik_wlan_forwarding {
	u8 selector;
	char from[TAVIK_WLAN_MAX_NAME + 1];
	char to[TAVIK_WLAN_MAX_NAME + 1];
} __packed;

struct tavik_wlan_address {
	u8 ip_version;
	u8 bytes[16]; /* IPv4 has the first four */
} __packed;

struct tavik_wlan_flow {
	struct tavik_wlan_address source;
	struct tavik_wlan_address destination;
	__be16 source_port;
	__be16 destination_port;
} __packed;

enum tavik_wlan_encap_action {
	TAVIK_WLAN_ENCAP_NONE,
	TAVIK_WLAN_ENCAP_PASS_THROUGH,
	TAVIK_WLAN_ENCAP_DROP,
};

struct tavik_wlan_encap {
	__be16 port;
	u8 action; /* enum tavik_wlan_encap_action */
} __packed;

/* The sets, in the order in which the text lists them. */
enum tavik_wlan_kind { TUPLES, DEVICES, FORWARDINGS, ENCAPS, FLOWS, KINDS };

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
	struct tavik_wlan_set sets[KINDS];
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

/* The first entry, or NULL. */
static struct tavik_wlan_entry *set_first(const struct tavik_wlan_set *set)
{
	return entry_of(rb_first(&set->root));
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
	int kind;

	for (kind = 0; kind < KINDS; kind++)
		set_clear(&tn->sets[kind]);
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

/* Policies: what the attributes of each command must look like. All of them are required. */

static int validate_tuple(const struct nlattr *attr, struct netlink_ext_ack *extack)
{
	const DatapathTuple *tuple = nla_data(attr);

	if (nla_len(attr) != sizeof(*tuple)) {
		NL_SET_ERR_MSG_ATTR(extack, attr, "invalid attribute length");
		return -EINVAL;
	}
	if (tuple->ip_proto != TAVIK_WLAN_IP_PROTO_IPV4 &&
	    tuple->ip_proto != TAVIK_WLAN_IP_PROTO_IPV6) {
		NL_SET_ERR_MSG_ATTR(extack, attr, "unknown IP version");
		return -EINVAL;
	}
	if (tuple->trans_proto != TAVIK_WLAN_TRANS_PROTO_TCP &&
	    tuple->trans_proto != TAVIK_WLAN_TRANS_PROTO_UDP &&
	    tuple->trans_proto != TAVIK_WLAN_TRANS_PROTO_ESP) {
		NL_SET_ERR_MSG_ATTR(extack, attr, "unknown transport protocol");
		return -EINVAL;
	}
	if (tuple->reserved[0] || tuple->reserved[1]) {
		NL_SET_ERR_MSG_ATTR(extack, attr, "reserved bytes of a tuple are not 0");
		return -EINVAL;
	}
	if (tuple->trans_proto != TAVIK_WLAN_TRANS_PROTO_ESP &&
	    be32_to_cpu(tuple->key.spi) & 0xffff) {
		NL_SET_ERR_MSG_ATTR(extack, attr, "bytes after the port of a tuple are not 0");
		return -EINVAL;
	}
	return 0;
}

static int validate_name(const struct nlattr *attr, struct netlink_ext_ack *extack)
{
	if (dev_valid_name(nla_data(attr)))
		return 0;
	NL_SET_ERR_MSG_ATTR(extack, attr, "invalid device name");
	return -EINVAL;
}

static bool parse_address(const struct nlattr *attr, struct tavik_wlan_address *address)
{
	const char *text = nla_data(attr), *end;

	memset(address, 0, sizeof(*address));
	address->ip_version = 4;
	if (in4_pton(text, -1, address->bytes, '\0', &end) && !*end)
		return true;
	address->ip_version = 6;
	return in6_pton(text, -1, address->bytes, '\0', &end) && !*end;
}

static int validate_address(const struct nlattr *attr, struct netlink_ext_ack *extack)
{
	struct tavik_wlan_address address;

	if (parse_address(attr, &address))
		return 0;
	NL_SET_ERR_MSG_ATTR(extack, attr, "invalid address");
	return -EINVAL;
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
	struct tavik_wlan_tuple tuple = {
		.ip_version = wire->ip_proto,
		.trans_proto = wire->trans_proto,
		.key = wire->key.spi,
	};

	if (tuple.trans_proto != TAVIK_WLAN_TRANS_PROTO_ESP)
		tuple.key = cpu_to_be32(be16_to_cpu(wire->key.port));
	return tuple;
}

static DatapathTuple tuple_to_wire(const struct tavik_wlan_tuple *tuple)
{
	DatapathTuple wire = {
		.ip_proto = tuple->ip_version,
		.trans_proto = tuple->trans_proto,
	};

	if (tuple->trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP)
		wire.key.spi = tuple->key;
	else
		wire.key.port = cpu_to_be16(be32_to_cpu(tuple->key));
	return wire;
}

/* What the policies cannot check: each element holds exactly one tuple attribute. */
static int check_elements(const struct nlattr *container, struct netlink_ext_ack *extack)
{
	const struct nlattr *element, *attr, *tuple;
	int elements_left, attrs_left;

	nla_for_each_nested(element, container, elements_left) {
		tuple = NULL;
		nla_for_each_nested(attr, element, attrs_left) {
			if (tuple) {
				NL_SET_ERR_MSG_ATTR(extack, attr,
						    "more than one tuple in an element");
				return -EINVAL;
			}
			tuple = attr;
		}
		if (!tuple) {
			NL_SET_ERR_MSG_ATTR(extack, element, "no tuple in an element");
			return -EINVAL;
		}
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
	struct tavik_wlan_set *tuples = &tn->sets[TUPLES];
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
		NL_SET_ERR_MSG_ATTR(info->extack, container, "too many tuples");
		err = -ENOSPC;
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
		if (!set_find(&tn->sets[TUPLES], &tuple)) {
			NL_SET_ERR_MSG_ATTR(info->extack, element_tuple(element), "no such tuple");
			return -ENOENT;
		}
	}
	nla_for_each_nested(element, container, left) {
		tuple = tuple_from_wire(element_tuple(element));
		/* A tuple that the request lists twice is gone the second time. */
		if (set_delete(&tn->sets[TUPLES], &tuple))
			tuples_changed(tn);
	}
	return 0;
}

static void copy_name(char *name, const struct nlattr *attr)
{
	/* The padding is part of the key. */
	strscpy_pad(name, nla_data(attr), TAVIK_WLAN_MAX_NAME + 1);
}

static struct tavik_wlan_device device_of(struct genl_info *info)
{
	struct tavik_wlan_device device = {
		.selector = nla_get_u8(info->attrs[TAVIK_WLAN_ATTR_SELECTOR]),
	};

	copy_name(device.name, info->attrs[TAVIK_WLAN_ATTR_DEV]);
	return device;
}

/* The one device of a selector, or NULL. */
static const struct tavik_wlan_device *find_device(struct tavik_wlan_net *tn, u8 selector)
{
	const struct tavik_wlan_device first = { .selector = selector };
	const struct tavik_wlan_entry *entry = set_lower_bound(&tn->sets[DEVICES], &first);
	const struct tavik_wlan_device *device = entry ? (const void *)entry->key : NULL;

	return device && device->selector == selector ? device : NULL;
}

static int set_device(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct nlattr *attr = info->attrs[TAVIK_WLAN_ATTR_DEV];
	const struct tavik_wlan_device device = device_of(info);
	const struct tavik_wlan_device *held = find_device(tn, device.selector);

	if (!held)
		return set_add(&tn->sets[DEVICES], &device);
	if (!strcmp(held->name, device.name)) {
		NL_SET_ERR_MSG_ATTR(info->extack, attr, "the device is set already");
		return -EEXIST;
	}
	NL_SET_ERR_MSG_ATTR(info->extack, attr, "another device is set");
	return -EBUSY;
}

static int unset_device(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_device device = device_of(info);

	if (set_delete(&tn->sets[DEVICES], &device))
		return 0;
	NL_SET_ERR_MSG_ATTR(info->extack, info->attrs[TAVIK_WLAN_ATTR_DEV],
			    "the device is not set");
	return -ENOENT;
}

static struct tavik_wlan_forwarding forwarding_of(struct genl_info *info)
{
	struct tavik_wlan_forwarding forwarding = {
		.selector = nla_get_u8(info->attrs[TAVIK_WLAN_ATTR_SELECTOR]),
	};

	copy_name(forwarding.from, info->attrs[TAVIK_WLAN_ATTR_FWD_FROM]);
	copy_name(forwarding.to, info->attrs[TAVIK_WLAN_ATTR_FWD_TO]);
	return forwarding;
}

static int add_forwarding(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_forwarding forwarding = forwarding_of(info);
	const struct nlattr *to = info->attrs[TAVIK_WLAN_ATTR_FWD_TO];
	int err = set_add(&tn->sets[FORWARDINGS], &forwarding);

	if (err == -EEXIST)
		NL_SET_ERR_MSG_ATTR(info->extack, to, "the forwarding exists already");
	else if (err == -ENOSPC)
		NL_SET_ERR_MSG_ATTR(info->extack, to, "too many forwardings");
	return err;
}

static int delete_forwarding(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_forwarding forwarding = forwarding_of(info);

	if (set_delete(&tn->sets[FORWARDINGS], &forwarding))
		return 0;
	NL_SET_ERR_MSG_ATTR(info->extack, info->attrs[TAVIK_WLAN_ATTR_FWD_TO],
			    "no such forwarding");
	return -ENOENT;
}

static int set_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_encap encap = {
		.port = nla_get_be16(info->attrs[TAVIK_WLAN_ATTR_ENCAP_PORT]),
	};
	struct tavik_wlan_entry *held = set_first(&tn->sets[ENCAPS]);

	if (!held)
		return set_add(&tn->sets[ENCAPS], &encap);
	memcpy(held->key, &encap, sizeof(encap)); /* the only one, so the order stays */
	return 0;
}

static int set_encap_action(struct tavik_wlan_net *tn, struct genl_info *info,
			    enum tavik_wlan_encap_action action)
{
	const struct nlattr *attr = info->attrs[TAVIK_WLAN_ATTR_ENCAP_PORT];
	struct tavik_wlan_entry *held = set_first(&tn->sets[ENCAPS]);
	struct tavik_wlan_encap *encap = held ? (void *)held->key : NULL;

	if (!encap || encap->port != nla_get_be16(attr)) {
		NL_SET_ERR_MSG_ATTR(info->extack, attr, "the encapsulation port is not set");
		return -ENOENT;
	}
	encap->action = action;
	return 0;
}

static int unset_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	int err = set_encap_action(tn, info, TAVIK_WLAN_ENCAP_NONE);

	if (!err)
		set_clear(&tn->sets[ENCAPS]);
	return err;
}

static int pass_through_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	return set_encap_action(tn, info, TAVIK_WLAN_ENCAP_PASS_THROUGH);
}

static int drop_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	return set_encap_action(tn, info, TAVIK_WLAN_ENCAP_DROP);
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
	if (flow.source.ip_version != flow.destination.ip_version) {
		NL_SET_ERR_MSG_ATTR(info->extack, destination, "addresses of different families");
		return -EINVAL;
	}
	err = set_add(&tn->sets[FLOWS], &flow);
	if (err == -EEXIST)
		NL_SET_ERR_MSG_ATTR(info->extack, destination, "the flow exists already");
	else if (err == -ENOSPC)
		NL_SET_ERR_MSG_ATTR(info->extack, destination, "too many flows");
	return err;
}

static int flush_flows(struct tavik_wlan_net *tn, struct genl_info *info)
{
	set_clear(&tn->sets[FLOWS]);
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

static int put_element(struct sk_buff *skb, const struct tavik_wlan_tuple *tuple)
{
	struct nlattr *element = nla_nest_start(skb, TAVIK_WLAN_TUPLE_ELEMENT);
	const DatapathTuple wire = tuple_to_wire(tuple);

	if (!element)
		return -EMSGSIZE;
	if (nla_put(skb, TAVIK_WLAN_TUPLE_ATTR, sizeof(wire), &wire)) {
		nla_nest_cancel(skb, element);
		return -EMSGSIZE;
	}
	nla_nest_end(skb, element);
	return 0;
}

/* Puts as many tuples, from @entry on, as fit. Returns the first that does not fit, or NULL. */
static const struct tavik_wlan_entry *put_elements(struct sk_buff *skb,
						   const struct tavik_wlan_entry *entry)
{
	int count;

	for (count = 0; entry && count < TAVIK_WLAN_TUPLES_PER_MESSAGE; count++) {
		if (put_element(skb, (const void *)entry->key))
			break;
		entry = entry_of(rb_next(&entry->node));
	}
	return entry;
}

/* Puts one message with tuples from @first on. *@next is the first that did not fit, or NULL. */
static int put_message(struct sk_buff *skb, struct netlink_callback *cb,
		       const struct tavik_wlan_entry *first, const struct tavik_wlan_entry **next)
{
	struct nlattr *container;
	void *header;

	header = genlmsg_put(skb, NETLINK_CB(cb->skb).portid, cb->nlh->nlmsg_seq,
			     &tavik_wlan_family, NLM_F_MULTI, TAVIK_WLAN_CMD_GET_TUPLES);
	if (!header)
		return -EMSGSIZE;
	genl_dump_check_consistent(cb, header);
	container = nla_nest_start(skb, TAVIK_WLAN_ATTR_TUPLES);
	if (!container)
		goto cancel;
	*next = put_elements(skb, first);
	if (*next == first)
		goto cancel;
	nla_nest_end(skb, container);
	genlmsg_end(skb, header);
	return 0;
cancel:
	genlmsg_cancel(skb, header);
	return -EMSGSIZE;
}

/*
 * Puts one part of the dump. A tuple that stays is in the dump once. One that is added or removed
 * meanwhile may be in it or not; the generation then marks the dump as interrupted.
 */
static int dump_tuples(struct sk_buff *skb, struct netlink_callback *cb)
{
	struct tavik_wlan_net *tn = tavik_wlan_net(sock_net(cb->skb->sk));
	struct tavik_wlan_cursor *cursor = (void *)cb->ctx;
	const struct tavik_wlan_entry *first, *next = NULL;
	int err = 0;

	mutex_lock(&tn->lock);
	cb->seq = tn->tuples_generation;
	first = set_lower_bound(&tn->sets[TUPLES], &cursor->next);
	if (first)
		err = put_message(skb, cb, first, &next);
	if (next) {
		memcpy(&cursor->next, next->key, sizeof(cursor->next));
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

	seq_printf(seq, "tuple ipv%u ", tuple->ip_version);
	if (tuple->trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP)
		seq_printf(seq, "esp 0x%08x\n", be32_to_cpu(tuple->key));
	else
		seq_printf(seq, "%s %u\n",
			   tuple->trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP ? "tcp" : "udp",
			   be32_to_cpu(tuple->key));
}

static void show_device(struct seq_file *seq, const void *key)
{
	const struct tavik_wlan_device *device = key;

	seq_printf(seq, "device %u %s\n", device->selector, device->name);
}

static void show_forwarding(struct seq_file *seq, const void *key)
{
	const struct tavik_wlan_forwarding *forwarding = key;

	seq_printf(seq, "forward %u %s %s\n", forwarding->selector, forwarding->from,
		   forwarding->to);
}

static void show_encap(struct seq_file *seq, const void *key)
{
	static const char *const actions[] = {
		[TAVIK_WLAN_ENCAP_NONE] = "",
		[TAVIK_WLAN_ENCAP_PASS_THROUGH] = " pass-through",
		[TAVIK_WLAN_ENCAP_DROP] = " drop",
	};
	const struct tavik_wlan_encap *encap = key;

	seq_printf(seq, "encap %u%s\n", be16_to_cpu(encap->port), actions[encap->action]);
}

static void show_address(struct seq_file *seq, const struct tavik_wlan_address *address, u16 port)
{
	if (address->ip_version == 4)
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

static const struct {
	size_t key_size;
	u32 limit;
	void (*show)(struct seq_file *seq, const void *key);
} kinds[KINDS] = {
	[TUPLES] = { sizeof(struct tavik_wlan_tuple), TAVIK_WLAN_MAX_TUPLES, show_tuple },
	[DEVICES] = { sizeof(struct tavik_wlan_device), U8_MAX + 1, show_device },
	[FORWARDINGS] = { sizeof(struct tavik_wlan_forwarding), TAVIK_WLAN_MAX_FORWARDINGS,
			  show_forwarding },
	[ENCAPS] = { sizeof(struct tavik_wlan_encap), 1, show_encap },
	[FLOWS] = { sizeof(struct tavik_wlan_flow), TAVIK_WLAN_MAX_FLOWS, show_flow },
};

/*
 * A reader of the text. It holds the lock only while it fills one buffer. An entry that stays is
 * read once, one that is added or removed meanwhile may be read or not.
 */
struct tavik_wlan_reader {
	struct seq_net_private net;		/* seq_file_net() expects it first */
	unsigned int kind;			/* of the next entry */
	u8 key[sizeof(struct tavik_wlan_flow)]; /* of the next entry, which may be gone by then */
};
static_assert(sizeof(struct tavik_wlan_flow) >= sizeof(struct tavik_wlan_forwarding));

/* Moves the reader to @entry, or without one to the first entry of the kinds that follow. */
static void *reader_move(struct seq_file *seq, struct tavik_wlan_entry *entry)
{
	const struct tavik_wlan_net *tn = tavik_wlan_net(seq_file_net(seq));
	struct tavik_wlan_reader *reader = seq->private;

	while (!entry && reader->kind < KINDS - 1)
		entry = set_first(&tn->sets[++reader->kind]);
	if (entry)
		memcpy(reader->key, entry->key, kinds[reader->kind].key_size);
	else
		reader->kind = KINDS;
	return entry;
}

static void *reader_start(struct seq_file *seq, loff_t *position)
{
	struct tavik_wlan_net *tn = tavik_wlan_net(seq_file_net(seq));
	struct tavik_wlan_reader *reader = seq->private;

	mutex_lock(&tn->lock);
	if (*position == 0) {
		reader->kind = 0;
		memset(reader->key, 0, sizeof(reader->key));
	}
	if (reader->kind == KINDS)
		return NULL;
	return reader_move(seq, set_lower_bound(&tn->sets[reader->kind], reader->key));
}

static void *reader_next(struct seq_file *seq, void *entry, loff_t *position)
{
	++*position;
	return reader_move(seq, entry_of(rb_next(&((struct tavik_wlan_entry *)entry)->node)));
}

static void reader_stop(struct seq_file *seq, void *entry)
{
	mutex_unlock(&tavik_wlan_net(seq_file_net(seq))->lock);
}

static int reader_show(struct seq_file *seq, void *entry)
{
	const struct tavik_wlan_reader *reader = seq->private;

	kinds[reader->kind].show(seq, ((struct tavik_wlan_entry *)entry)->key);
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
	int kind;

	mutex_init(&tn->lock);
	tn->tuples_generation = 1;
	for (kind = 0; kind < KINDS; kind++) {
		tn->sets[kind].key_size = kinds[kind].key_size;
		tn->sets[kind].limit = kinds[kind].limit;
	}
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
