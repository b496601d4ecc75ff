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

struct tavik_wlan_address {
	u8 ip_proto;
	u8 bytes[16]; /* IPv4 has the first four */
} __packed;

/* The kinds of what is held, in the order in which they are listed. */
enum tavik_wlan_kind {
	TAVIK_WLAN_TUPLE,
	TAVIK_WLAN_DEVICE,
	TAVIK_WLAN_FORWARDING,
	TAVIK_WLAN_ENCAP,
	TAVIK_WLAN_FLOW,
	TAVIK_WLAN_KINDS,
};

/* A thing that is held. Unused bytes, those behind names among them, are zero. */
struct tavik_wlan_thing {
	u8 kind;
	union {
		struct {
			u8 ip_proto;
			u8 trans_proto;
			__be32 key; /* the SPI of ESP, otherwise the port and two zero bytes */
		} __packed tuple;
		struct {
			u8 selector;
			char name[TAVIK_WLAN_MAX_NAME + 1];
		} device;
		struct {
			u8 selector;
			char from[TAVIK_WLAN_MAX_NAME + 1];
			char to[TAVIK_WLAN_MAX_NAME + 1];
		} forwarding;
		struct {
			__be16 port;
			const char *action; /* as it is listed */
		} __packed encap;
		struct {
			struct tavik_wlan_address source;
			struct tavik_wlan_address destination;
			__be16 source_port;
			__be16 destination_port;
		} __packed flow;
	};
} __packed;

#define KEY_SIZE(last_member) offsetofend(struct tavik_wlan_thing, last_member)

static const struct {
	size_t key_size; /* of how many first bytes of a thing its key consists */
	u32 limit;	 /* of how many may be held */
	const char *exists;
	const char *full;
} kinds[TAVIK_WLAN_KINDS] = {
	[TAVIK_WLAN_TUPLE] = { KEY_SIZE(tuple), TAVIK_WLAN_MAX_TUPLES },
	[TAVIK_WLAN_DEVICE] = { KEY_SIZE(device.selector), U8_MAX + 1 },
	[TAVIK_WLAN_FORWARDING] = { KEY_SIZE(forwarding), TAVIK_WLAN_MAX_FORWARDINGS,
				    "the forwarding exists already", "too many forwardings" },
	[TAVIK_WLAN_ENCAP] = { KEY_SIZE(kind), 1 },
	[TAVIK_WLAN_FLOW] = { KEY_SIZE(flow), TAVIK_WLAN_MAX_FLOWS, "the flow exists already",
			      "too many flows" },
};

/* Things with different keys, by kind and then in the order of the keys' bytes. */
struct tavik_wlan_set {
	struct rb_root root;
	u32 counts[TAVIK_WLAN_KINDS];
};

struct tavik_wlan_entry {
	struct rb_node node;
	struct tavik_wlan_thing thing;
};

/* What a network namespace holds. */
struct tavik_wlan_net {
	struct mutex lock; /* of all that follows */
	struct tavik_wlan_set held;
	u32 tuples_generation; /* changes with the tuples, begins at 1 */
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

/* Compares keys. */
static int compare(const struct tavik_wlan_thing *a, const struct tavik_wlan_thing *b)
{
	return a->kind == b->kind ? memcmp(a, b, kinds[a->kind].key_size) : a->kind - b->kind;
}

/* The first entry whose key is not below that of @thing, or NULL. */
static struct tavik_wlan_entry *set_lower_bound(const struct tavik_wlan_set *set,
						const struct tavik_wlan_thing *thing)
{
	struct rb_node *node = set->root.rb_node;
	struct tavik_wlan_entry *found = NULL;

	while (node) {
		struct tavik_wlan_entry *entry = entry_of(node);

		if (compare(&entry->thing, thing) < 0) {
			node = node->rb_right;
		} else {
			found = entry;
			node = node->rb_left;
		}
	}
	return found;
}

/* The entry with the key of @thing, or NULL. */
static struct tavik_wlan_entry *set_find(const struct tavik_wlan_set *set,
					 const struct tavik_wlan_thing *thing)
{
	struct tavik_wlan_entry *entry = set_lower_bound(set, thing);

	return entry && !compare(&entry->thing, thing) ? entry : NULL;
}

/* Inserts @entry, whose key is not in the set yet. */
static void set_insert(struct tavik_wlan_set *set, struct tavik_wlan_entry *entry)
{
	struct rb_node **link = &set->root.rb_node, *parent = NULL;

	while (*link) {
		parent = *link;
		link = compare(&entry->thing, &entry_of(parent)->thing) < 0 ? &parent->rb_left
									    : &parent->rb_right;
	}
	rb_link_node(&entry->node, parent, link);
	rb_insert_color(&entry->node, &set->root);
	set->counts[entry->thing.kind]++;
}

/* Adds a copy of @thing. -EEXIST, -ENOSPC when there are enough of its kind, or -ENOMEM. */
static int set_add(struct tavik_wlan_set *set, const struct tavik_wlan_thing *thing)
{
	struct tavik_wlan_entry *entry;

	if (set_find(set, thing))
		return -EEXIST;
	if (set->counts[thing->kind] == kinds[thing->kind].limit)
		return -ENOSPC;
	entry = kmalloc(sizeof(*entry), GFP_KERNEL_ACCOUNT);
	if (!entry)
		return -ENOMEM;
	entry->thing = *thing;
	set_insert(set, entry);
	return 0;
}

/* Removes @entry where it is not NULL, and returns whether that is so. */
static bool set_remove(struct tavik_wlan_set *set, struct tavik_wlan_entry *entry)
{
	if (!entry)
		return false;
	rb_erase(&entry->node, &set->root);
	set->counts[entry->thing.kind]--;
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
	memset(set, 0, sizeof(*set));
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
	if (dev_valid_name(nla_data(attr)))
		return 0;
	return REFUSE(extack, attr, -EINVAL, "invalid device name");
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

/* Reads an element. What the policies cannot check: it holds exactly one tuple. */
static int read_tuple(const struct nlattr *element, struct tavik_wlan_thing *tuple,
		      struct netlink_ext_ack *extack)
{
	const struct nlattr *attr = nla_data(element);
	const DatapathTuple *wire = nla_data(attr);
	int left = nla_len(element);

	if (!left)
		return REFUSE(extack, element, -EINVAL, "no tuple in an element");
	attr = nla_next(attr, &left);
	if (left)
		return REFUSE(extack, attr, -EINVAL, "more than one tuple in an element");
	*tuple = (struct tavik_wlan_thing){
		.kind = TAVIK_WLAN_TUPLE,
		.tuple = { wire->ip_proto, wire->trans_proto, wire->key.spi },
	};
	return 0;
}

static int add_tuples(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct nlattr *element, *container = info->attrs[TAVIK_WLAN_ATTR_TUPLES];
	struct tavik_wlan_entry *entry, *next;
	struct tavik_wlan_set added = {};
	struct tavik_wlan_thing tuple;
	int left, err = 0;

	nla_for_each_nested(element, container, left) {
		err = read_tuple(element, &tuple, info->extack);
		if (!err && !set_find(&tn->held, &tuple) && !set_find(&added, &tuple))
			err = set_add(&added, &tuple);
		if (err)
			goto out;
	}
	if (tn->held.counts[TAVIK_WLAN_TUPLE] + added.counts[TAVIK_WLAN_TUPLE] >
	    TAVIK_WLAN_MAX_TUPLES) {
		err = REFUSE(info->extack, container, -ENOSPC, "too many tuples");
		goto out;
	}
	/* In this order nothing looks at an entry's place in its old tree again. */
	rbtree_postorder_for_each_entry_safe(entry, next, &added.root, node)
		set_insert(&tn->held, entry);
	tn->tuples_generation += added.counts[TAVIK_WLAN_TUPLE];
	return 0;
out:
	set_clear(&added);
	return err;
}

static int delete_tuples(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct nlattr *element, *container = info->attrs[TAVIK_WLAN_ATTR_TUPLES];
	struct tavik_wlan_thing tuple;
	int left, err;

	nla_for_each_nested(element, container, left) {
		err = read_tuple(element, &tuple, info->extack);
		if (err)
			return err;
		if (!set_find(&tn->held, &tuple))
			return REFUSE(info->extack, nla_data(element), -ENOENT, "no such tuple");
	}
	nla_for_each_nested(element, container, left) {
		read_tuple(element, &tuple, info->extack);
		/* A tuple that the request lists twice is gone the second time. */
		if (set_remove(&tn->held, set_find(&tn->held, &tuple)))
			tn->tuples_generation++;
	}
	return 0;
}

static struct tavik_wlan_thing device_of(struct genl_info *info)
{
	struct tavik_wlan_thing device = {
		.kind = TAVIK_WLAN_DEVICE,
		.device.selector = nla_get_u8(info->attrs[TAVIK_WLAN_ATTR_SELECTOR]),
	};

	strscpy(device.device.name, nla_data(info->attrs[TAVIK_WLAN_ATTR_DEV]),
		sizeof(device.device.name));
	return device;
}

static int set_device(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_thing device = device_of(info);
	const struct tavik_wlan_entry *held = set_find(&tn->held, &device);
	const struct nlattr *attr = info->attrs[TAVIK_WLAN_ATTR_DEV];

	if (!held)
		return set_add(&tn->held, &device);
	if (strcmp(held->thing.device.name, device.device.name))
		return REFUSE(info->extack, attr, -EBUSY, "another device is set");
	return REFUSE(info->extack, attr, -EEXIST, "the device is set already");
}

static int unset_device(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_thing device = device_of(info);
	struct tavik_wlan_entry *held = set_find(&tn->held, &device);

	if (!held || strcmp(held->thing.device.name, device.device.name))
		return REFUSE(info->extack, info->attrs[TAVIK_WLAN_ATTR_DEV], -ENOENT,
			      "the device is not set");
	set_remove(&tn->held, held);
	return 0;
}

static struct tavik_wlan_thing forwarding_of(struct genl_info *info)
{
	struct tavik_wlan_thing forwarding = {
		.kind = TAVIK_WLAN_FORWARDING,
		.forwarding.selector = nla_get_u8(info->attrs[TAVIK_WLAN_ATTR_SELECTOR]),
	};

	strscpy(forwarding.forwarding.from, nla_data(info->attrs[TAVIK_WLAN_ATTR_FWD_FROM]),
		sizeof(forwarding.forwarding.from));
	strscpy(forwarding.forwarding.to, nla_data(info->attrs[TAVIK_WLAN_ATTR_FWD_TO]),
		sizeof(forwarding.forwarding.to));
	return forwarding;
}

/* Adds a thing that @attr names the last part of. */
static int add(struct tavik_wlan_net *tn, const struct tavik_wlan_thing *thing,
	       struct netlink_ext_ack *extack, const struct nlattr *attr)
{
	int err = set_add(&tn->held, thing);

	if (err == -EEXIST)
		extack->_msg = kinds[thing->kind].exists;
	else if (err == -ENOSPC)
		extack->_msg = kinds[thing->kind].full;
	NL_SET_BAD_ATTR(extack, attr);
	return err;
}

static int add_forwarding(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_thing forwarding = forwarding_of(info);

	return add(tn, &forwarding, info->extack, info->attrs[TAVIK_WLAN_ATTR_FWD_TO]);
}

static int delete_forwarding(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_thing forwarding = forwarding_of(info);

	if (set_remove(&tn->held, set_find(&tn->held, &forwarding)))
		return 0;
	return REFUSE(info->extack, info->attrs[TAVIK_WLAN_ATTR_FWD_TO], -ENOENT,
		      "no such forwarding");
}

/* Sets or unsets the encapsulation port, or chooses what happens to its packets. */
static int change_encap_port(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct nlattr *attr = info->attrs[TAVIK_WLAN_ATTR_ENCAP_PORT];
	const u8 command = info->genlhdr->cmd;
	const bool sets = command == TAVIK_WLAN_CMD_SET_ENCAP_PORT;
	const char *action =
		command == TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP ? " drop" : " pass-through";
	const struct tavik_wlan_thing encap = {
		.kind = TAVIK_WLAN_ENCAP,
		.encap = { nla_get_be16(attr), sets ? "" : action },
	};
	struct tavik_wlan_entry *held = set_find(&tn->held, &encap);

	if (!sets && (!held || held->thing.encap.port != encap.encap.port))
		return REFUSE(info->extack, attr, -ENOENT, "the encapsulation port is not set");
	if (!held)
		return set_add(&tn->held, &encap);
	if (command == TAVIK_WLAN_CMD_UNSET_ENCAP_PORT)
		set_remove(&tn->held, held);
	else
		held->thing = encap;
	return 0;
}

static int add_flow(struct tavik_wlan_net *tn, struct genl_info *info)
{
	struct tavik_wlan_thing flow = {
		.kind = TAVIK_WLAN_FLOW,
		.flow.source_port = nla_get_be16(info->attrs[TAVIK_WLAN_ATTR_LL_SRC_PORT]),
		.flow.destination_port = nla_get_be16(info->attrs[TAVIK_WLAN_ATTR_LL_DST_PORT]),
	};
	const struct nlattr *destination = info->attrs[TAVIK_WLAN_ATTR_LL_DST_ADDR];

	parse_address(info->attrs[TAVIK_WLAN_ATTR_LL_SRC_ADDR], &flow.flow.source);
	parse_address(destination, &flow.flow.destination);
	if (flow.flow.source.ip_proto != flow.flow.destination.ip_proto)
		return REFUSE(info->extack, destination, -EINVAL,
			      "addresses of different families");
	return add(tn, &flow, info->extack, destination);
}

static int flush_flows(struct tavik_wlan_net *tn, struct genl_info *info)
{
	const struct tavik_wlan_thing first = { .kind = TAVIK_WLAN_FLOW };

	while (tn->held.counts[TAVIK_WLAN_FLOW])
		set_remove(&tn->held, set_lower_bound(&tn->held, &first));
	return 0;
}

static int reset(struct tavik_wlan_net *tn, struct genl_info *info)
{
	set_clear(&tn->held);
	tn->tuples_generation++;
	return 0;
}

/* The dump of the tuples */

/* A dump continues at the first tuple not below the one that the callback's context keeps. */
static_assert(sizeof(struct tavik_wlan_thing) <= sizeof_field(struct netlink_callback, ctx));

static int put_tuple(struct sk_buff *skb, const struct tavik_wlan_thing *thing)
{
	const struct {
		struct nlattr header;
		DatapathTuple wire;
	} element = {
		.header = { sizeof(element), TAVIK_WLAN_TUPLE_ATTR },
		.wire = { .key.spi = thing->tuple.key,
			  .ip_proto = thing->tuple.ip_proto,
			  .trans_proto = thing->tuple.trans_proto },
	};

	return nla_put(skb, TAVIK_WLAN_TUPLE_ELEMENT | NLA_F_NESTED, sizeof(element), &element);
}

static bool is_tuple(const struct tavik_wlan_entry *entry)
{
	return entry && entry->thing.kind == TAVIK_WLAN_TUPLE;
}

/* Puts one message with the tuples from *@entry on that fit, and moves *@entry behind them. */
static int put_message(struct sk_buff *skb, struct netlink_callback *cb,
		       struct tavik_wlan_entry **entry)
{
	void *header = genlmsg_put(skb, NETLINK_CB(cb->skb).portid, cb->nlh->nlmsg_seq,
				   &tavik_wlan_family, NLM_F_MULTI, TAVIK_WLAN_CMD_GET_TUPLES);
	struct nlattr *container;
	int left = TAVIK_WLAN_TUPLES_PER_MESSAGE;

	if (!header)
		return -EMSGSIZE;
	genl_dump_check_consistent(cb, header);
	container = nla_nest_start(skb, TAVIK_WLAN_ATTR_TUPLES);
	if (!container)
		return -EMSGSIZE;
	for (; is_tuple(*entry) && left && !put_tuple(skb, &(*entry)->thing); left--)
		*entry = entry_of(rb_next(&(*entry)->node));
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
	struct tavik_wlan_thing *next = (void *)cb->ctx;
	struct tavik_wlan_entry *entry;
	int err = 0;

	mutex_lock(&tn->lock);
	cb->seq = tn->tuples_generation;
	entry = set_lower_bound(&tn->held, next);
	if (is_tuple(entry))
		err = put_message(skb, cb, &entry);
	if (!err && is_tuple(entry)) {
		*next = entry->thing;
		err = skb->len;
	}
	mutex_unlock(&tn->lock);
	return err;
}

/* The family */

/* By command. The dump has nothing to apply. */
static const struct {
	const struct nla_policy *policy;
	int (*apply)(struct tavik_wlan_net *tn, struct genl_info *info);
} commands[] = {
	[TAVIK_WLAN_CMD_ADD_TUPLES] = { tuples_policy, add_tuples },
	[TAVIK_WLAN_CMD_DEL_TUPLES] = { tuples_policy, delete_tuples },
	[TAVIK_WLAN_CMD_SET_DEV] = { device_policy, set_device },
	[TAVIK_WLAN_CMD_UNSET_DEV] = { device_policy, unset_device },
	[TAVIK_WLAN_CMD_ADD_FWD_INFO] = { forwarding_policy, add_forwarding },
	[TAVIK_WLAN_CMD_DEL_FWD_INFO] = { forwarding_policy, delete_forwarding },
	[TAVIK_WLAN_CMD_SET_ENCAP_PORT] = { encap_policy, change_encap_port },
	[TAVIK_WLAN_CMD_UNSET_ENCAP_PORT] = { encap_policy, change_encap_port },
	[TAVIK_WLAN_CMD_RESET] = { empty_policy, reset },
	[TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH] = { encap_policy, change_encap_port },
	[TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP] = { encap_policy, change_encap_port },
	[TAVIK_WLAN_CMD_LL_ADDR_ADD] = { flow_policy, add_flow },
	[TAVIK_WLAN_CMD_LL_ADDR_FLUSH] = { empty_policy, flush_flows },
	[TAVIK_WLAN_CMD_GET_TUPLES] = { empty_policy },
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

	err = require_attributes(commands[command].policy, info);
	if (err)
		return err;
	mutex_lock(&tn->lock);
	err = commands[command].apply(tn, info);
	mutex_unlock(&tn->lock);
	return err;
}

/* The commands, from 1 on. */
static struct genl_ops operations[ARRAY_SIZE(commands) - 1] __ro_after_init;

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

static void show_address(struct seq_file *seq, const struct tavik_wlan_address *address, u16 port)
{
	if (address->ip_proto == TAVIK_WLAN_IP_PROTO_IPV4)
		seq_printf(seq, " %pI4 %u", address->bytes, port);
	else
		seq_printf(seq, " %pI6c %u", address->bytes, port);
}

static int reader_show(struct seq_file *seq, void *entry)
{
	const struct tavik_wlan_thing *thing = &((struct tavik_wlan_entry *)entry)->thing;
	u32 spi;

	switch (thing->kind) {
	case TAVIK_WLAN_TUPLE:
		spi = be32_to_cpu(thing->tuple.key);
		seq_printf(seq, "tuple ipv%u ", thing->tuple.ip_proto);
		if (thing->tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_ESP)
			seq_printf(seq, "esp 0x%08x\n", spi);
		else if (thing->tuple.trans_proto == TAVIK_WLAN_TRANS_PROTO_TCP)
			seq_printf(seq, "tcp %u\n", spi >> 16);
		else
			seq_printf(seq, "udp %u\n", spi >> 16);
		break;
	case TAVIK_WLAN_DEVICE:
		seq_printf(seq, "device %u %s\n", thing->device.selector, thing->device.name);
		break;
	case TAVIK_WLAN_FORWARDING:
		seq_printf(seq, "forward %u %s %s\n", thing->forwarding.selector,
			   thing->forwarding.from, thing->forwarding.to);
		break;
	case TAVIK_WLAN_ENCAP:
		seq_printf(seq, "encap %u%s\n", be16_to_cpu(thing->encap.port),
			   thing->encap.action);
		break;
	case TAVIK_WLAN_FLOW:
		seq_puts(seq, "lowlat");
		show_address(seq, &thing->flow.source, be16_to_cpu(thing->flow.source_port));
		show_address(seq, &thing->flow.destination,
			     be16_to_cpu(thing->flow.destination_port));
		seq_putc(seq, '\n');
		break;
	}
	return 0;
}

/*
 * A reader of the text. It holds the lock only while it fills one buffer. A thing that stays is
 * read once, one that is added or removed meanwhile may be read or not.
 */
struct tavik_wlan_reader {
	struct seq_net_private net;   /* seq_file_net() expects it first */
	struct tavik_wlan_thing next; /* to be shown; may be gone by then */
};

static void *reader_start(struct seq_file *seq, loff_t *position)
{
	struct tavik_wlan_net *tn = tavik_wlan_net(seq_file_net(seq));
	struct tavik_wlan_reader *reader = seq->private;

	mutex_lock(&tn->lock);
	if (*position == 0)
		memset(&reader->next, 0, sizeof(reader->next));
	return set_lower_bound(&tn->held, &reader->next);
}

static void *reader_next(struct seq_file *seq, void *shown, loff_t *position)
{
	struct tavik_wlan_reader *reader = seq->private;
	struct tavik_wlan_entry *entry = shown;

	++*position;
	entry = entry_of(rb_next(&entry->node));
	if (entry)
		reader->next = entry->thing;
	else
		reader->next.kind = TAVIK_WLAN_KINDS; /* behind all */
	return entry;
}

static void reader_stop(struct seq_file *seq, void *entry)
{
	mutex_unlock(&tavik_wlan_net(seq_file_net(seq))->lock);
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
	if (!proc_create_net("tavik_wlan", 0444, net->proc_net, &reader_operations,
			     sizeof(struct tavik_wlan_reader)))
		return -ENOMEM;
	return 0;
}

static void __net_exit tavik_wlan_net_exit(struct net *net)
{
	remove_proc_entry("tavik_wlan", net->proc_net);
	set_clear(&tavik_wlan_net(net)->held);
}

static struct pernet_operations tavik_wlan_net_ops = {
	.init = tavik_wlan_net_init,
	.exit = tavik_wlan_net_exit,
	.id = &tavik_wlan_net_id,
	.size = sizeof(struct tavik_wlan_net),
};

static int __init tavik_wlan_init(void)
{
	u8 command;
	int err;

	for (command = 1; command < ARRAY_SIZE(commands); command++) {
		struct genl_ops *operation = &operations[command - 1];

		operation->cmd = command;
		operation->policy = commands[command].policy;
		if (commands[command].apply) {
			operation->doit = configure;
			operation->flags = GENL_UNS_ADMIN_PERM;
		} else {
			operation->dumpit = dump_tuples;
		}
	}
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
