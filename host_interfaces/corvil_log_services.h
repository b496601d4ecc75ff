/*
 * The log sinks of the host and their settings, as the data-path library uses them: the file sink,
 * the diagnostic sink (a service of the device) and the Android log. Each log statement of the
 * library goes to those of the three that are switched on.
 *
 * The settings belong to the host. The library reads them afresh at every log statement and never
 * writes them, so a change takes effect at the next statement. A host that closes the log file
 * first sets log_to_file to 0 and makes sure that no call of the library is in progress.
 *
 * Thread-safety: statements of several threads may run at the same time. Only the file sink shares
 * data between them: it converts the time by localtime(), which has one result for the whole
 * process, and writes header, message and newline of a line one after the other without a lock, so
 * the lines of several threads may interleave.
 */
#ifndef HOST_INTERFACES_CORVIL_LOG_SERVICES_H_
#define HOST_INTERFACES_CORVIL_LOG_SERVICES_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* File sink: non-zero asks for it. */
extern uint8_t log_to_file;

/* File sink: the stream of the open log file; null when there is none, which keeps the sink off. */
extern FILE* logging_fd;

/* Switches the other two sinks on: the diagnostic sink and the Android log. Other bits have no
 * effect. */
extern uint32_t zu_log_mask;
#define ZU_LOG_MASK_DIAGNOSTIC UINT32_C(1)
#define ZU_LOG_MASK_ANDROID UINT32_C(2)

/* The levels of log statements, from traces to failures, as LogSiteDescriptor names them. */
#define LOG_LEVEL_MASK_LOW UINT32_C(1)
#define LOG_LEVEL_MASK_MED UINT32_C(2)
#define LOG_LEVEL_MASK_HIGH UINT32_C(4)
#define LOG_LEVEL_MASK_ERR UINT32_C(8)

/*
 * What a log statement tells the diagnostic service about itself. Every statement has one constant
 * of its own, in read-only memory. 16 bytes where pointers have 32 bits.
 */
typedef struct LogSiteDescriptor {
  uint16_t line;       /* source line of the statement */
  uint16_t subsystem;  /* the service's identifier of the statement's subsystem */
  uint32_t level_mask; /* one of LOG_LEVEL_MASK_* */
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
