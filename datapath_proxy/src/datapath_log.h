// The log statement of the data-path library: one message to up to three sinks of the host, the log
// file, the diagnostic service and the Android log. The host's settings decide at run time which of
// them are on; they are read afresh by every statement and never written here.
#ifndef DATAPATH_PROXY_SRC_DATAPATH_LOG_H_
#define DATAPATH_PROXY_SRC_DATAPATH_LOG_H_

#include <android/log.h>
#include <sys/time.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <type_traits>

#include "host_interfaces/corvil_log_services.h"

static_assert(sizeof(void*) != 4 || sizeof(LogSiteDescriptor) == 16);

namespace datapath {

inline constexpr char kSourcePath[] = "datapath_proxy/src/corvil_datapath_proxy";
inline constexpr char kDiagnosticFormat[] = "%s";
inline constexpr uint16_t kDiagnosticSubsystem = 65;
inline constexpr size_t kDiagnosticMessageSize = 512;
inline constexpr char kAndroidTag[] = "VX-CORVIL-LIB";

/// A printf format whose conversions were checked at compile time: a "%s" for the function name,
/// then one for each of Args. Only literals convert to it, so a format may be kept as data and
/// handed on without losing the check. Knows %s (const char*), %d (int32_t), %u and %x (uint32_t).
template <typename... Args>
class LogFormat {
 public:
  consteval LogFormat(const char* text) : text_(text) {
    const char* rest = text;
    const bool matches = (takes<const char*>(&rest) && ... && takes<Args>(&rest));
    if (!matches || next_conversion(&rest) != '\0') {
      conversions_do_not_match_arguments();
    }
  }

  [[nodiscard]] constexpr const char* text() const { return text_; }

 private:
  static void conversions_do_not_match_arguments();  // Not constexpr: a call ends the compilation.

  static constexpr char next_conversion(const char** text) {
    while (**text != '\0' && *(*text)++ != '%') {
    }
    while (**text >= '0' && **text <= '9') {
      ++*text;
    }
    return **text;
  }

  template <typename Arg>
  static constexpr bool takes(const char** text) {
    const char conversion = next_conversion(text);
    if constexpr (std::is_same_v<Arg, const char*>) {
      return conversion == 's';
    } else if constexpr (std::is_same_v<Arg, int32_t>) {
      return conversion == 'd';
    } else {
      static_assert(std::is_same_v<Arg, uint32_t>);
      return conversion == 'u' || conversion == 'x';
    }
  }

  const char* text_;
};

enum class LogLevel : uint8_t { LOW, MED, HIGH, ERR };

struct LogLevelTraits {
  /// Timestamp, source path, function name, source line.
  LogFormat<const char*, const char*, uint32_t> file_header;
  uint32_t diagnostic_mask;
  int android_priority;
};

/// Indexed by LogLevel.
inline constexpr std::array<LogLevelTraits, 4> kLogLevels = {{
    {"%25s %70s %40s():%3u (LOW):", 1, ANDROID_LOG_DEBUG},
    {"%25s %70s %40s():%3u (MED):", 2, ANDROID_LOG_INFO},
    {"%25s %70s %40s():%3u (HIGH):", 4, ANDROID_LOG_INFO},
    {"%25s %70s %40s():%3u (ERR):", 8, ANDROID_LOG_ERROR},
}};

constexpr const LogLevelTraits& traits(LogLevel level) {
  return kLogLevels[static_cast<size_t>(level)];
}

// What a statement does while every sink is off is inlined even where the rest is built for size.

/// Reads one of the host's settings, which another thread of the host may be changing.
template <typename Setting>
[[gnu::always_inline]] inline Setting read_setting(const Setting& setting) {
  return __atomic_load_n(&setting, __ATOMIC_RELAXED);
}

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

// Every format reaches its sink through LogFormat, which has checked it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/// Starts a message's line in the log file; returns whether that sink is on.
[[gnu::noinline, gnu::cold]] inline bool begin_file_line(LogLevel level,
                                                         const LogSiteDescriptor& site,
                                                         const char* name) {
  if (!file_sink_on()) {
    return false;
  }
  const Timestamp timestamp = current_timestamp();
  fprintf(read_setting(logging_fd), traits(level).file_header.text(), timestamp.text, site.file,
          name, uint32_t{site.line});
  return true;
}

[[gnu::noinline, gnu::cold]] inline void end_file_line() {
  fputc('\n', read_setting(logging_fd));
  fflush(read_setting(logging_fd));
}

/// Hands a message to the sinks that are on, each of which formats it for itself. Allocates nothing
/// and ignores what they return.
template <typename... Args>
[[gnu::noinline, gnu::cold]] void write_log(LogLevel level, const LogSiteDescriptor& site,
                                            const char* name, const char* format, Args... args) {
  if (begin_file_line(level, site, name)) {
    fprintf(read_setting(logging_fd), format, name, args...);
    end_file_line();
  }

  uint32_t mask = read_setting(zu_log_mask);
  if ((mask & ZU_LOG_MASK_DIAGNOSTIC) != 0) {
    char message[kDiagnosticMessageSize]{};
    zu_format_log_msg(message, sizeof(message), format, name, args...);
    msg_sprintf(&site, message);
    mask = read_setting(zu_log_mask);
  }
  if ((mask & ZU_LOG_MASK_ANDROID) != 0) {
    __android_log_print(traits(level).android_priority, kAndroidTag, format, name, args...);
  }
}

// A conversion of a signed value takes an unsigned argument of the same value as well.
inline const char* as_passed(const char* argument) { return argument; }
inline uint32_t as_passed(uint32_t argument) { return argument; }
inline uint32_t as_passed(int32_t argument) { return static_cast<uint32_t>(argument); }

/// The body of DATAPATH_LOG: checks the format, and lets messages that differ in the sign of their
/// arguments, none of which is negative, share their code.
template <typename... Args>
[[gnu::always_inline]] inline void log_message(LogLevel level, const LogSiteDescriptor& site,
                                               const char* name,
                                               LogFormat<std::type_identity_t<Args>...> format,
                                               Args... args) {
  write_log(level, site, name, format.text(), as_passed(args)...);
}

#pragma GCC diagnostic pop

}  // namespace datapath

/// Logs a message at a level (LOW, MED, HIGH or ERR) under a given function name: the name, then a
/// LogFormat, then the format's arguments after the name. While every sink is off, nothing but the
/// settings is read and no argument is evaluated.
#define DATAPATH_LOG_AS(level, name, ...)                                             \
  do {                                                                                \
    if (::datapath::any_sink_on()) {                                                  \
      static constexpr LogSiteDescriptor kSite = {                                    \
          __LINE__, ::datapath::kDiagnosticSubsystem,                                 \
          ::datapath::traits(::datapath::LogLevel::level).diagnostic_mask,            \
          ::datapath::kDiagnosticFormat, ::datapath::kSourcePath};                    \
      ::datapath::log_message(::datapath::LogLevel::level, kSite, name, __VA_ARGS__); \
    }                                                                                 \
  } while (false)

/// Logs a message under the name of the function that the statement stands in.
#define DATAPATH_LOG(level, ...) DATAPATH_LOG_AS(level, __func__, __VA_ARGS__)

#endif  // DATAPATH_PROXY_SRC_DATAPATH_LOG_H_
