/* Who gets the messages of the reference host's diagnostic service. */
#ifndef REFERENCE_HOST_LOG_CORVIL_LOG_CONTROL_H_
#define REFERENCE_HOST_LOG_CORVIL_LOG_CONTROL_H_

#include "host_interfaces/corvil_log_services.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Gets one diagnostic message, on the thread that logs it. Everything is valid during the call
 * only.
 *
 * descriptor  of the statement
 * line        the whole message as one line without a newline, cut to 4095 bytes:
 *             "subsystem 65 ERR path/of/source:120: text"
 * text        where the text begins in it
 * context     what the caller of corvil_log_set_diagnostic_handler() passed
 */
typedef void (*corvil_log_diagnostic_handler)(const LogSiteDescriptor* descriptor, const char* line,
                                              const char* text, void* context);

/*
 * Has msg_sprintf() hand its messages to a handler; null: print each as one line on stderr, in one
 * piece, as it does from the start.
 *
 * Not thread-safe: no message may be on its way.
 */
void corvil_log_set_diagnostic_handler(corvil_log_diagnostic_handler handler, void* context);

#ifdef __cplusplus
}
#endif

#endif /* REFERENCE_HOST_LOG_CORVIL_LOG_CONTROL_H_ */
