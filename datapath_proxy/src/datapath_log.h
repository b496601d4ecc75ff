// The log statement of the data-path library: one message to up to three sinks of the host, the
// file sink, the diagnostic sink and the Android log. The host's settings decide at run time which
// of them are on; they are read afresh by every statement and never written here.
#pragma once

#include <android/log.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "host_interfaces/corvil_log_services.h"

// The layout that the diagnostic service reads; 16 bytes where pointers have 32 bits.
static_assert(offsetof(LogSiteDescriptor, line) == 0 &&
              offsetof(LogSiteDescriptor, subsystem) == 2);
static_assert(offsetof(LogSiteDescriptor, level_mask) == 4 &&
              offsetof(LogSiteDescriptor, format) == 8);
static_assert(offsetof(LogSiteDescriptor, file) == 8 + sizeof(void*) &&
              sizeof(LogSiteDescriptor) == 8 + 2 * sizeof(void*));

namespace datapath {

inline constexpr char kSourcePath[] = "datapath_proxy/src/corvil_datapath_proxy";
inline constexpr uint16_t kDiagnosticSubsystem = 65;
inline constexpr size_t kDiagnosticMessageSize = 512;
inline constexpr char kAndroidTag[] = "VX-CORVIL-LIB";

/// The label in the file sink of a level, which is one of LOG_LEVEL_MASK_*.
constexpr const char* level_label(uint32_t level_mask) {
  switch (level_mask) {
    case LOG_LEVEL_MASK_LOW:
      return "LOW";
    case LOG_LEVEL_MASK_MED:
      return "MED";
    case LOG_LEVEL_MASK_HIGH:
      return "HIGH";
    default:
      return "ERR";
  }
}

constexpr android_LogPriority android_priority(uint32_t level_mask) {
  switch (level_mask) {
    case LOG_LEVEL_MASK_LOW:
      return ANDROID_LOG_DEBUG;
    case LOG_LEVEL_MASK_MED:
    case LOG_LEVEL_MASK_HIGH:
      return ANDROID_LOG_INFO;
    default:
      return ANDROID_LOG_ERROR;
  }
}

/// Reads one of the host's settings, which another thread of the host may be changing.
template <typename Setting>
Setting read_setting(const Setting& setting) {
  return __atomic_load_n(&setting, __ATOMIC_RELAXED);
}

// With every sink off a statement makes no call. GCC would not inline the next two everywhere.

[[gnu::always_inline]] inline bool file_sink_on() {
  return read_setting(log_to_file) != 0 && read_setting(logging_fd) != nullptr;
}

[[gnu::always_inline]] inline bool any_sink_on() {
  return (read_setting(zu_log_mask) & (ZU_LOG_MASK_DIAGNOSTIC | ZU_LOG_MASK_ANDROID)) != 0 ||
         file_sink_on();
}

struct Timestamp {
  char text[25];
};

/// The local time of day as "10:15:42.7": the milliseconds carry no leading zeros.
inline Timestamp current_timestamp() {
  Timestamp timestamp{};
  timeval now{};
  char clock[10]{};
  gettimeofday(&now, nullptr);
  if (const tm* local = localtime(&now.tv_sec)) {
    strftime(clock, sizeof(clock), "%T", local);
  }
  snprintf(timestamp.text, sizeof(timestamp.text), "%s.%u", clock,
           static_cast<unsigned>(now.tv_usec / 1000));
  return timestamp;
}

/// Starts a message's line in the file sink: time, place and level. It is cold, so that not every
/// write_log() has a copy of it.
[[gnu::cold]] inline void write_file_header(const LogSiteDescriptor& site, const char* name) {
  const Timestamp timestamp = current_timestamp();
  fprintf(read_setting(logging_fd), "%25s %70s %40s():%3u (%s):", timestamp.text, site.file, name,
          uint32_t{site.line}, level_label(site.level_mask));
}

/// Never called. A log statement names it for the compiler to check its format, which write_log()
/// takes as a mere string.
[[gnu::format(printf, 1, 2)]] int check_format(const char* format, ...);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/// Hands a message to the sinks that are on, each of which formats it for itself. Allocates nothing
/// and ignores what they return.
template <typename... Args>
void write_log(const LogSiteDescriptor& site, const char* name, const char* format, Args... args) {
  if (file_sink_on()) {
    write_file_header(site, name);
    fprintf(read_setting(logging_fd), format, name, args...);
    fputc('\n', read_setting(logging_fd));
    fflush(read_setting(logging_fd));
  }

  uint32_t mask = read_setting(zu_log_mask);
  if ((mask & ZU_LOG_MASK_DIAGNOSTIC) != 0) {
    char message[kDiagnosticMessageSize]{};
    zu_format_log_msg(message, sizeof(message), format, name, args...);
    msg_sprintf(&site, message);
    mask = read_setting(zu_log_mask);
  }
  if ((mask & ZU_LOG_MASK_ANDROID) != 0) {
    __android_log_print(android_priority(site.level_mask), kAndroidTag, format, name, args...);
  }
}

#pragma GCC diagnostic pop

}  // namespace datapath

/// Logs a message at a level (LOW, MED, HIGH or ERR) under a given function name. The format is a
/// literal of printf whose first conversion takes the name; its other arguments follow. While every
/// sink is off, nothing but the settings is read and no argument is evaluated.
#define DATAPATH_LOG_AS(level, name, format, ...)                                             \
  do {                                                                                        \
    static_cast<void>(sizeof(::datapath::check_format(format, name, ##__VA_ARGS__)));         \
    if (::datapath::any_sink_on()) {                                                          \
      static constexpr LogSiteDescriptor kSite = {__LINE__, ::datapath::kDiagnosticSubsystem, \
                                                  LOG_LEVEL_MASK_##level, "%s",               \
                                                  ::datapath::kSourcePath};                   \
      ::datapath::write_log(kSite, name, format, ##__VA_ARGS__);                              \
    }                                                                                         \
  } while (false)

/// Logs a message under the name of the function that the statement stands in.
#define DATAPATH_LOG(level, ...) DATAPATH_LOG_AS(level, __func__, __VA_ARGS__)
