/* Who gets the messages of the reference host's diagnostic service. */
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
 * Has msg_sprintf() pass its messages to a handler. Null restores the default, which prints each
 * message as one line on stderr, in one piece.
 *
 * Not thread-safe: no other thread may be in msg_sprintf().
 */
void corvil_log_set_diagnostic_handler(corvil_log_diagnostic_handler handler, void* context);

#ifdef __cplusplus
}
#endif

#endif /* REFERENCE_HOST_LOG_CORVIL_LOG_CONTROL_H_ */
