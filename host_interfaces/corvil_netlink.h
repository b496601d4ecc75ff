/*
 * The netlink operations that the data-path library needs from its host process.
 *
 * Everywhere: int results are -1 on failure and 0 on success unless said otherwise; message and
 * attribute headers are in host byte order. The data-path library treats every result but -1 as
 * success and hands it to its own caller unchanged.
 *
 * Thread-safety: every operation may be called from any number of threads at the same time, each
 * with a message of its own.
 */
#ifndef HOST_INTERFACES_CORVIL_NETLINK_H_
#define HOST_INTERFACES_CORVIL_NETLINK_H_

#include <linux/netlink.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Asks the kernel's generic netlink controller for the numeric id of a family.
 *
 * family_name  NUL-terminated name of the family
 * version      version of the family that the caller speaks
 * family_id    receives the id; untouched on failure
 *
 * Returns -1 when the family is not registered or the controller could not be asked.
 */
int corvil_netlink_query_genl(const char* family_name, uint32_t version, uint16_t* family_id);

/*
 * Appends one attribute to a message, at nlmsg_len rounded up to a multiple of 4: the header
 * (nla_len = 4 + length, nla_type = type unchanged), then the payload. nlmsg_len becomes the end of
 * the attribute, rounded up to a multiple of 4; padding bytes are zero.
 *
 * message  the message; the caller has sized its buffer for the attribute, nothing is checked here
 * type     attribute type in host byte order, NLA_F_NESTED included where wanted
 * length   payload length in bytes, at most 65,531
 * payload  the payload, copied unchanged; may be null when length is 0
 *
 * Returns -1, the message untouched, when the length does not fit the 16 bits of nla_len.
 */
int corvil_nla_put(struct nlmsghdr* message, uint16_t type, uint32_t length, const void* payload);

/*
 * Sends a request, nlmsg_len bytes of it, and waits for the kernel's acknowledgement.
 *
 * request   a complete message with NLM_F_ACK set, which is not changed; what is sent has a
 *           sequence number of the operation's own
 * protocol  netlink protocol, such as NETLINK_GENERIC
 * error     receives the acknowledgement's error as the kernel gave it, a negative errno; untouched
 *           when no acknowledgement with an error came; may be null
 *
 * Returns -1 when the kernel refused the request or the exchange failed.
 */
int corvil_netlink_transact(const struct nlmsghdr* request, int protocol, int* error);

/*
 * Receives one reply message of a query.
 *
 * reply    the message, complete and 4-byte aligned; valid during the call only
 * context  what the caller of corvil_netlink_query() passed
 *
 * Returns 1 on success, 0 otherwise; the query goes on either way. It must not call a netlink
 * operation that exchanges messages.
 */
typedef int (*corvil_netlink_reply_callback)(const struct nlmsghdr* reply, void* context);

/*
 * Sends a request and runs a callback once for every reply message, in the order of arrival, on the
 * calling thread; returns after the last one.
 *
 * request   a complete message, treated as corvil_netlink_transact() does. Without a dump, the
 *           acknowledgement ends the replies if NLM_F_ACK is set, otherwise the first reply does
 * protocol  netlink protocol, such as NETLINK_GENERIC
 * callback  receives the replies, which are the messages of the request's own nlmsg_type; its
 *           result does not end the query
 * context   passed on to the callback; may be null
 * dump      non-zero: ask for a dump (NLM_F_DUMP), of as many replies as the kernel sends
 *
 * A dump that the kernel reports as interrupted by a change is asked for again, so the callback
 * may see an entry more than once.
 *
 * Returns -1 when the kernel refused the request or the exchange failed; the callback has then run
 * for the replies that came before.
 */
int corvil_netlink_query(const struct nlmsghdr* request, int protocol,
                         corvil_netlink_reply_callback callback, void* context, int dump);

/*
 * Indexes a run of attributes by type.
 *
 * first     start of the run, 4-byte aligned; may be null when length is 0
 * table     max_type + 1 entries: receives for every type that occurs a pointer to the header of
 *           its last attribute, null for every other type
 * length    the run's length in bytes
 * max_type  highest type looked at; NLA_F_NESTED and NLA_F_NET_BYTEORDER are masked out before
 *
 * Reads nothing beyond the run: parsing ends at the first attribute whose length is below 4 or
 * exceeds what is left, or at bytes too few for a header. Returns -1 when it ended so; the
 * attributes before that are indexed. The last attribute may lack its padding.
 */
int corvil_nla_parse(const struct nlattr* first, const struct nlattr** table, uint32_t length,
                     uint16_t max_type);

#ifdef __cplusplus
}
#endif

#endif /* HOST_INTERFACES_CORVIL_NETLINK_H_ */
