/*
 * The host's log settings and diagnostic service, as the data-path library uses them.
 *
 * The settings belong to the host. The library reads them afresh at every log statement and never
 * writes them, so a change takes effect at the next statement. A host that closes the log file
 * first sets log_to_file to 0 and makes sure that no call of the library is in progress.
 */
#ifndef HOST_INTERFACES_CORVIL_LOG_SERVICES_H_
#define HOST_INTERFACES_CORVIL_LOG_SERVICES_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero switches the log file on. */
extern uint8_t log_to_file;

/* The open log file; null when there is none, which keeps the log file off. */
extern FILE* logging_fd;

/* Bit mask of the other two sinks; no other bit has a meaning here. */
extern uint32_t zu_log_mask;
#define ZU_LOG_MASK_DIAGNOSTIC UINT32_C(1)
#define ZU_LOG_MASK_ANDROID UINT32_C(2)

/*
 * What a log statement tells the diagnostic service about itself. One constant of its own for every
 * statement, in read-only memory. 16 bytes where pointers have 32 bits.
 */
typedef struct LogSiteDescriptor {
  uint16_t line;       /* source line of the statement */
  uint16_t subsystem;  /* the service's identifier of the statement's subsystem */
  uint32_t level_mask; /* 1 low, 2 medium, 4 high, 8 error */
  const char* format;  /* NUL-terminated printf format of msg_sprintf()'s further arguments */
  const char* file;    /* NUL-terminated source path */
} LogSiteDescriptor;

/*
 * Formats like snprintf(): at most size bytes, the terminating NUL included. Returns the length
 * that the whole text has, or a negative value on an encoding error. Thread-safe.
 */
int zu_format_log_msg(char* buffer, size_t size, const char* format, ...)
    __attribute__((__format__(__printf__, 3, 4)));

/*
 * Emits one message to the diagnostic service: the descriptor's format applied to the further
 * arguments, with the descriptor's line, subsystem, level mask and file. Both the descriptor and
 * the arguments are read during the call only. Thread-safe.
 */
void msg_sprintf(const LogSiteDescriptor* descriptor, ...);

#ifdef __cplusplus
}
#endif

#endif /* HOST_INTERFACES_CORVIL_LOG_SERVICES_H_ */
