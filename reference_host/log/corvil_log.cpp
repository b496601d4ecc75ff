#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "host_interfaces/corvil_log_services.h"
#include "reference_host/corvil_export.h"
#include "reference_host/log/corvil_log_control.h"

CORVIL_EXPORT constinit uint8_t log_to_file = 0;
CORVIL_EXPORT constinit FILE* logging_fd = nullptr;
CORVIL_EXPORT constinit uint32_t zu_log_mask = 0;

namespace {

/// The most that a pipe takes in one piece, so that lines of several threads do not mix.
constexpr size_t kMaxLine = 4096;

constexpr struct Level {
  uint32_t mask;  // Of a higher level it is the greater number.
  const char* name;
} kLevels[] = {
    {LOG_LEVEL_MASK_LOW, "LOW"},
    {LOG_LEVEL_MASK_MED, "MED"},
    {LOG_LEVEL_MASK_HIGH, "HIGH"},
    {LOG_LEVEL_MASK_ERR, "ERR"},
};

// What the environment asks of the default handler.
constinit uint32_t lowest_level = 0;
constinit char file_path[PATH_MAX] = "";  // empty: stderr

/// Neither waits for the reader of a FIFO. Returns a descriptor, or -1 with errno.
int open_file() {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  return open(file_path, kFlags, S_IRUSR | S_IWUSR);
}

/// Opens the file for each line, since a daemon may close all descriptors of its process, and
/// another program may move the file away.
void append_line(const char* line) {
  timespec now{};
  tm parts{};
  clock_gettime(CLOCK_REALTIME, &now);
  localtime_r(&now.tv_sec, &parts);
  char record[kMaxLine + sizeof("2026-01-01 00:00:00.000 \n")];
  size_t size = strftime(record, sizeof(record), "%F %T", &parts);
  size += static_cast<size_t>(
      snprintf(record + size, sizeof(record) - size, ".%03ld %s\n", now.tv_nsec / 1'000'000, line));
  const int fd = open_file();
  [[maybe_unused]] const ssize_t written = write(fd, record, size);
  close(fd);
}

void print_line(const LogSiteDescriptor* descriptor, const char* line, const char* /*text*/,
                void* /*context*/) {
  if (descriptor->level_mask < lowest_level) {
    return;
  }
  if (file_path[0] != '\0') {
    append_line(line);
  } else {
    fprintf(stderr, "%s\n", line);
  }
}

constinit corvil_log_diagnostic_handler diagnostic_handler = print_line;
constinit void* diagnostic_context = nullptr;

/// Has messages logged as CORVIL_LOG and CORVIL_LOG_LEVEL say.
[[gnu::constructor]] void read_environment() {
  const char* target = secure_getenv("CORVIL_LOG");
  const char* level = secure_getenv("CORVIL_LOG_LEVEL");
  if (target == nullptr || target[0] == '\0') {
    return;
  }
  const auto* found = std::end(kLevels) - 1;
  if (level != nullptr && level[0] != '\0') {
    found = std::ranges::find_if(
        kLevels, [&](const Level& its) { return strcasecmp(its.name, level) == 0; });
  }
  if (found == std::end(kLevels)) {
    fprintf(stderr, "CORVIL_LOG_LEVEL: no log, since '%s' is not low, med, high or err\n", level);
    return;
  }
  if (strcmp(target, "stderr") != 0) {
    snprintf(file_path, sizeof(file_path), "%s", target);
    const int fd = open_file();
    if (fd == -1) {
      fprintf(stderr, "CORVIL_LOG: no log, since %s cannot be written: %m\n", target);
      file_path[0] = '\0';
      return;
    }
    close(fd);
  }
  lowest_level = found->mask;
  zu_log_mask |= ZU_LOG_MASK_DIAGNOSTIC;
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
  const auto* level = std::ranges::find(kLevels, descriptor->level_mask, &Level::mask);
  const char* name = level != std::end(kLevels) ? level->name : "UNKNOWN";
  char line[kMaxLine];
  snprintf(line, sizeof(line), "subsystem %u %s %s:%u: ", unsigned{descriptor->subsystem}, name,
           descriptor->file, unsigned{descriptor->line});
  char* text = line + strlen(line);

  va_list arguments;
  va_start(arguments, descriptor);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // Callers answer for the format.
  vsnprintf(text, static_cast<size_t>(std::end(line) - text), descriptor->format, arguments);
#pragma GCC diagnostic pop
  va_end(arguments);

  char* end = text + strlen(text);
  while (end > text && end[-1] == '\n') {
    *--end = '\0';
  }
  diagnostic_handler(descriptor, line, text, diagnostic_context);
}

CORVIL_EXPORT void corvil_log_set_diagnostic_handler(corvil_log_diagnostic_handler handler,
                                                     void* context) {
  diagnostic_handler = handler != nullptr ? handler : print_line;
  diagnostic_context = context;
}
