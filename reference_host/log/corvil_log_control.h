/*
 * Who gets the messages of the reference host's diagnostic service.
 *
 * Environment variables switch the service on in any program, when it loads this library. They
 * count as unset in a process that runs with privileges that its caller lacks (secure_getenv(3)):
 *
 *   CORVIL_LOG        "stderr", or the path of a file to which each message is appended as a line
 *                     that begins with the local time, such as "2026-11-23 17:02:11.123 ". A new
 *                     file is readable by its owner alone (mode 0600). The file is opened for each
 *                     line, so a program that changes its folder needs an absolute path
 *   CORVIL_LOG_LEVEL  the lowest level that is logged: low, med, high, or err, which holds when it
 *                     is unset
 *
 * When the file cannot be opened, or the level is none of these, stderr gets one line that says so
 * and the program goes on without this log.
 */
#ifndef REFERENCE_HOST_LOG_CORVIL_LOG_CONTROL_H_
#define REFERENCE_HOST_LOG_CORVIL_LOG_CONTROL_H_

#include "host_interfaces/corvil_log_services.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Receives one diagnostic message, on the thread that logs it. All arguments but the context are
 * valid during the call only.
 *
 * descriptor  the descriptor of the log statement
 * line        the whole message as one line without a newline, cut to 4095 bytes:
 *             "subsystem 65 ERR path/of/source:120: text"
 * text        the part of that line that begins after the source's name and line
 * context     what the caller of corvil_log_set_diagnostic_handler() passed
 */
typedef void (*corvil_log_diagnostic_handler)(const LogSiteDescriptor* descriptor, const char* line,
                                              const char* text, void* context);

/*
 * Has msg_sprintf() pass its messages to a handler. Null restores the default, which does as
 * CORVIL_LOG says and otherwise prints each message as one line on stderr, in one piece.
 *
 * Not thread-safe: no other thread may be in msg_sprintf().
 */
void corvil_log_set_diagnostic_handler(corvil_log_diagnostic_handler handler, void* context);

#ifdef __cplusplus
}
#endif

#endif /* REFERENCE_HOST_LOG_CORVIL_LOG_CONTROL_H_ */
