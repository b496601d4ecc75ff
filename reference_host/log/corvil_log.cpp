#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "host_interfaces/corvil_log_services.h"
#include "reference_host/corvil_export.h"
#include "reference_host/log/corvil_log_control.h"

CORVIL_EXPORT constinit uint8_t log_to_file = 0;
CORVIL_EXPORT constinit FILE* logging_fd = nullptr;
CORVIL_EXPORT constinit uint32_t zu_log_mask = 0;

namespace {

/// The most that a pipe takes in one piece, so that lines of several threads do not mix.
constexpr size_t kMaxLine = 4096;

void print_line(const LogSiteDescriptor* /*descriptor*/, const char* line, const char* /*text*/,
                void* /*context*/) {
  fprintf(stderr, "%s\n", line);
}

constinit corvil_log_diagnostic_handler diagnostic_handler = print_line;
constinit void* diagnostic_context = nullptr;

const char* level_name(uint32_t level_mask) {
  switch (level_mask) {
    case LOG_LEVEL_MASK_LOW:
      return "LOW";
    case LOG_LEVEL_MASK_MED:
      return "MED";
    case LOG_LEVEL_MASK_HIGH:
      return "HIGH";
    case LOG_LEVEL_MASK_ERR:
      return "ERR";
    default:
      return "UNKNOWN";
  }
}

/// How many bytes, without the NUL, snprintf() has written to a buffer of `size` bytes.
size_t bytes_written(int result, size_t size) {
  return result < 0 ? 0 : std::min(static_cast<size_t>(result), size - 1);
}

}  // namespace

CORVIL_EXPORT int zu_format_log_msg(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

CORVIL_EXPORT void msg_sprintf(const LogSiteDescriptor* descriptor, ...) {
  char line[kMaxLine];
  const size_t head = bytes_written(
      snprintf(line, sizeof(line), "subsystem %u %s %s:%u: ", unsigned{descriptor->subsystem},
               level_name(descriptor->level_mask), descriptor->file, unsigned{descriptor->line}),
      sizeof(line));

  va_list arguments;
  va_start(arguments, descriptor);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // Callers answer for the format.
  const int text = vsnprintf(line + head, sizeof(line) - head, descriptor->format, arguments);
#pragma GCC diagnostic pop
  va_end(arguments);

  size_t end = head + bytes_written(text, sizeof(line) - head);
  while (end > head && line[end - 1] == '\n') {
    --end;
  }
  line[end] = '\0';
  diagnostic_handler(descriptor, line, line + head, diagnostic_context);
}

CORVIL_EXPORT void corvil_log_set_diagnostic_handler(corvil_log_diagnostic_handler handler,
                                                     void* context) {
  diagnostic_handler = handler != nullptr ? handler : print_line;
  diagnostic_context = context;
}
