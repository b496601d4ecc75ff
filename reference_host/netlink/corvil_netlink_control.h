/*
 * What tools ask of the netlink library beyond the operations of host_interfaces/corvil_netlink.h:
 * the reason of a failure and a look at every message.
 *
 * Environment variables steer the library, unless the process runs with privileges that its caller
 * lacks (secure_getenv(3)): then they count as unset. Two are read afresh by every exchange:
 *
 *   CORVIL_NETLINK_EMULATOR    path of the AF_UNIX SOCK_SEQPACKET socket of an emulated kernel, to
 *                              which all requests go instead; one packet is one netlink datagram
 *   CORVIL_NETLINK_TIMEOUT_MS  how long an exchange waits for the connection, for room to send, for
 *                              the first message of the answer and for each further reply, in
 *                              milliseconds; a positive integer, anything else counts as unset:
 *                              3000. Messages that are no answer do not extend it, and the time
 *                              that a callback takes does not count
 *
 * One is read once, by the first exchange of the process:
 *
 *   CORVIL_NETLINK_PCAP        path of a capture file that is made anew and gets every message sent
 *                              and received: a pcap file of link type NETLINK (253) whose packets
 *                              are of type 4 when sent and 0 when received. A new file is its
 *                              owner's alone (mode 0600), one that exists is cut and keeps its
 *                              mode; a symbolic link is followed, so name no path in a folder in
 *                              which others can write. One process at a time, with the children
 *                              that it forks, has the file: another one gets no capture (EBUSY).
 *                              A FIFO must have its reader, and ends the capture when it is full
 *                              (EAGAIN). Exchanges go on as without it where it can't be written,
 *                              nor does it raise SIGPIPE or SIGXFSZ; see
 *                              corvil_netlink_check_capture().
 *
 * The environment must not be changed while any thread is in an operation.
 *
 * A host may close the library's descriptors between its calls, as a daemon does that closes all:
 * the next exchange connects anew, the capture ends (EBADF), and what has their numbers by then is
 * left alone.
 */
#ifndef REFERENCE_HOST_NETLINK_CORVIL_NETLINK_CONTROL_H_
#define REFERENCE_HOST_NETLINK_CORVIL_NETLINK_CONTROL_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CORVIL_NETLINK_MESSAGE_SIZE 256

/* How the last exchange of a thread ended. Everything is 0 and empty after a success. */
typedef struct CorvilNetlinkError {
  int error;                 /* a positive errno */
  int from_kernel;           /* 1: the kernel refused the request; 0: the exchange failed */
  uint32_t attribute_offset; /* bytes from the start of the request to the bad attribute; 0: none */
  uint32_t missing_attribute;   /* type of the attribute that the kernel missed; 0: none */
  uint32_t missing_nest_offset; /* bytes to the container that lacks it; 0: the request does */
  char message[CORVIL_NETLINK_MESSAGE_SIZE]; /* NUL-terminated, cut where too long; the kernel's own
                                                (empty when it gave none), or what failed here */
} CorvilNetlinkError;

/*
 * Returns how the calling thread's last query_genl, transact or query ended; never null. Valid
 * until the thread ends, and rewritten by its next exchange. Thread-safe.
 */
const CorvilNetlinkError* corvil_netlink_last_error(void);

/* Forgets how the calling thread's last exchange ended, as if it had succeeded. Thread-safe. */
void corvil_netlink_clear_last_error(void);

typedef enum CorvilNetlinkDirection {
  CORVIL_NETLINK_SENT = 0,
  CORVIL_NETLINK_RECEIVED = 1,
} CorvilNetlinkDirection;

/*
 * Sees one message just before it is sent, or one datagram just received, before any check of it.
 *
 * bytes    4-byte aligned; valid during the call only
 * length   in bytes; of a truncated datagram, what is left of it
 * context  what the caller of corvil_netlink_set_trace() passed
 *
 * It runs on the thread of the exchange and must not call a netlink operation that exchanges
 * messages.
 */
typedef void (*corvil_netlink_trace_callback)(CorvilNetlinkDirection direction, const void* bytes,
                                              size_t length, void* context);

/*
 * Sets the trace callback of the whole process; null switches tracing off.
 *
 * Not thread-safe: no other thread may be in a netlink operation.
 */
void corvil_netlink_set_trace(corvil_netlink_trace_callback callback, void* context);

/*
 * Has every request of the process shown to the trace callback, with sequence number 0, instead of
 * sent: it succeeds without a reply, and nothing is opened.
 *
 * family_id  what corvil_netlink_query_genl() finds for any family then; 0 ends the dry run
 *
 * Not thread-safe: no other thread may be in a netlink operation.
 */
void corvil_netlink_set_dry_run(uint16_t family_id);

/*
 * Starts the capture that CORVIL_NETLINK_PCAP asks for, unless an exchange has done so already.
 * Returns 0, also when none is asked for; -1 with the last error recorded when the file can't be
 * written: it misses messages then, and gets no more. Thread-safe.
 */
int corvil_netlink_check_capture(void);

#ifdef __cplusplus
}
#endif

#endif /* REFERENCE_HOST_NETLINK_CORVIL_NETLINK_CONTROL_H_ */
