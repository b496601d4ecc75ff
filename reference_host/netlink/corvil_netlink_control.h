/*
 * What tools ask of the netlink library beyond the operations of host_interfaces/corvil_netlink.h:
 * the reason of a failure, a look at every message, and a dry run.
 *
 * Environment variables steer the library; a host may make the settings itself by the functions
 * below. They count as unset in a process that runs with privileges that its caller lacks
 * (secure_getenv(3)), and must not be changed while any thread is in an operation.
 *
 *   CORVIL_NETLINK_EMULATOR    path of the AF_UNIX SOCK_SEQPACKET socket of an emulated kernel, to
 *                              which all requests go instead; one packet is one netlink datagram.
 *                              "@name" is the abstract socket of that name, "./@name" a file
 *   CORVIL_NETLINK_TIMEOUT_MS  how long an exchange waits for the connection, for room to send, for
 *                              the first message of the answer and for each further reply: a
 *                              positive number of milliseconds; 3000 when it is unset or empty.
 *                              With anything else every exchange fails (EINVAL). Messages that are
 *                              no answer do not extend the time, and what a callback takes of it
 *                              does not count
 *   CORVIL_NETLINK_PCAP        path of a capture file, which gets every message sent and received:
 *                              a pcap file of link type NETLINK (253) whose packets are of type 4
 *                              when sent and 0 when received. A new file is readable by its owner
 *                              alone (mode 0600); one that exists is emptied and keeps its mode. A
 *                              symbolic link is followed, so name no path in a folder in which
 *                              others can write. One process, with the children that it forks, has
 *                              the file at a time; another one gets no capture (EBUSY). A FIFO
 *                              needs a reader from the start, and ends the capture when it is full
 *                              (EAGAIN). "-" is standard output, which may keep an exchange
 *                              waiting. A capture that fails ends, without SIGPIPE or SIGXFSZ, and
 *                              the exchanges go on without it
 *
 * Every exchange reads the first two afresh, and the first exchange of the process the third.
 *
 * Thread-safety: while a function with "set" in its name runs, no other thread may be in a netlink
 * operation. All other functions are thread-safe.
 *
 * A host may close all its descriptors between its calls, the library's included, as daemons do.
 * The next exchange then connects anew, the capture ends (EBADF), and files of the host that have
 * got the same numbers are left alone.
 */
#ifndef REFERENCE_HOST_NETLINK_CORVIL_NETLINK_CONTROL_H_
#define REFERENCE_HOST_NETLINK_CORVIL_NETLINK_CONTROL_H_

#include <stddef.h>
#include <stdint.h>
#include <time.h>

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
 * until the thread ends, and rewritten by its next exchange.
 */
const CorvilNetlinkError* corvil_netlink_last_error(void);

/* Forgets how the calling thread's last exchange ended, as if it had succeeded. */
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

/* Sets the trace callback of the whole process; null switches tracing off. */
void corvil_netlink_set_trace(corvil_netlink_trace_callback callback, void* context);

/*
 * Starts or ends a dry run of the whole process. In a dry run no request is sent and no socket is
 * opened: each request is shown to the trace callback and the capture, with sequence number 0, and
 * succeeds without a reply.
 *
 * family_id  the id that corvil_netlink_query_genl() finds for any family; 0 ends the dry run
 */
void corvil_netlink_set_dry_run(uint16_t family_id);

/*
 * Sets the path of the emulated kernel, as of CORVIL_NETLINK_EMULATOR, which is kept and not
 * copied. "": requests go to the kernel; null: the environment says where.
 */
void corvil_netlink_set_emulator(const char* path);

/* Returns the path of the emulated kernel that requests go to; "": they go to the kernel. */
const char* corvil_netlink_emulator(void);

/* Sets how many milliseconds exchanges wait; 0: the environment says. */
void corvil_netlink_set_timeout(int milliseconds);

/*
 * Returns how long exchanges wait, in milliseconds, or -1 with the last error recorded (EINVAL)
 * when CORVIL_NETLINK_TIMEOUT_MS is no positive number.
 */
int corvil_netlink_timeout(void);

/*
 * Starts the capture, in place of the process's first exchange: at a path, or where the environment
 * says. Without effect when it has been started, or when it was settled that there is none.
 *
 * Returns 0, also without a capture, or -1 with the last error recorded when the capture has
 * failed: it then lacks messages and gets no more.
 */
int corvil_netlink_open_capture(const char* path);
int corvil_netlink_check_capture(void);

/*
 * Writes a message that others have exchanged to the capture, if there is one. Returns as
 * corvil_netlink_check_capture() does.
 *
 * protocol  netlink protocol, such as NETLINK_GENERIC
 * time      the packet's; null: now
 */
int corvil_netlink_capture(CorvilNetlinkDirection direction, int protocol, const void* bytes,
                           size_t length, const struct timespec* time);

#ifdef __cplusplus
}
#endif

#endif /* REFERENCE_HOST_NETLINK_CORVIL_NETLINK_CONTROL_H_ */
