#include "tests/fake_host.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fake_host {
namespace {

void log_call(const std::string& name) {
  if (host().on_log_call) {
    host().on_log_call(name);
  }
}

[[gnu::format(printf, 1, 0)]] std::string format_text(const char* format, va_list arguments) {
  char text[2048];
  vsnprintf(text, sizeof(text), format, arguments);
  return text;
}

const char* level_name(uint32_t mask) {
  switch (mask) {
    case 1:
      return "LOW ";
    case 2:
      return "MED ";
    case 4:
      return "HIGH ";
    case 8:
      return "ERR ";
    default:
      return "unknown level ";
  }
}

}  // namespace

Host& host() {
  static Host the_host;
  return the_host;
}

void reset() {
  host() = Host{};
  log_to_file = 0;
  logging_fd = nullptr;
  zu_log_mask = ZU_LOG_MASK_DIAGNOSTIC;
}

std::string hex(const void* bytes, size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i) {
    char digits[4];
    snprintf(digits, sizeof(digits), i % 4 == 0 && i != 0 ? " %02x" : "%02x",
             static_cast<const uint8_t*>(bytes)[i]);
    text += digits;
  }
  return text;
}

}  // namespace fake_host

using fake_host::host;

extern "C" {

uint8_t log_to_file = 0;
FILE* logging_fd = nullptr;
uint32_t zu_log_mask = 0;

int corvil_netlink_query_genl(const char* family_name, uint32_t version, uint16_t* family_id) {
  EXPECT_EQ(*family_id, 0);
  host().events.push_back("resolve " + std::string(family_name) + " " + std::to_string(version));
  if (host().resolve_result != -1) {
    *family_id = host().family_id;
  }
  return host().resolve_result;
}

int corvil_nla_put(nlmsghdr* message, uint16_t type, uint32_t length, const void* payload) {
  const uint32_t start = NLA_ALIGN(message->nlmsg_len);
  const auto capacity = host().live.find(message);
  if (capacity == host().live.end() || start + NLA_HDRLEN + NLA_ALIGN(length) > capacity->second) {
    ADD_FAILURE() << "attribute " << type << " does not fit its request";
    return -1;
  }
  auto* attribute = reinterpret_cast<nlattr*>(reinterpret_cast<char*>(message) + start);
  attribute->nla_len = static_cast<uint16_t>(NLA_HDRLEN + length);
  attribute->nla_type = type;
  if (length != 0) {
    memcpy(attribute + 1, payload, length);
  }
  const uint32_t end = start + NLA_HDRLEN + length;
  message->nlmsg_len = host().unpadded_length ? end : NLA_ALIGN(end);
  return 0;
}

int corvil_netlink_transact(const nlmsghdr* request, int protocol, int* error) {
  EXPECT_EQ(protocol, NETLINK_GENERIC);
  EXPECT_TRUE(error == nullptr || *error == 0);
  host().events.push_back("send " + fake_host::hex(request, request->nlmsg_len) +
                          (error != nullptr ? " error slot" : ""));
  if (host().answers.empty()) {
    return 0;
  }
  const fake_host::Answer answer = host().answers.front();
  host().answers.pop_front();
  if (answer.result == -1 && error != nullptr) {
    *error = answer.error;
  }
  return answer.result;
}

int zu_format_log_msg(char* buffer, size_t size, const char* format, ...) {
  fake_host::log_call("zu_format_log_msg");
  EXPECT_EQ(size, 512U);
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

void msg_sprintf(const LogSiteDescriptor* descriptor, ...) {
  fake_host::log_call("msg_sprintf");
  EXPECT_STREQ(descriptor->format, "%s");
  va_list arguments;
  va_start(arguments, descriptor);
  host().events.push_back(std::string(fake_host::level_name(descriptor->level_mask)) +
                          va_arg(arguments, const char*));
  va_end(arguments);
  host().descriptors.push_back(descriptor);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  fake_host::log_call("__android_log_print");
  va_list arguments;
  va_start(arguments, fmt);
  host().events.push_back("android " + std::to_string(prio) + " " + tag + " " +
                          fake_host::format_text(fmt, arguments));
  va_end(arguments);
  return 1;
}

// The linker sends the calls of these libc functions here (--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker names them.

void* __real_calloc(size_t count, size_t size);
void __real_free(void* memory);

void* __wrap_calloc(size_t count, size_t size) {
  EXPECT_EQ(count, 1U);
  host().events.push_back("calloc " + std::to_string(size));
  if (++host().allocations == host().failing_allocation) {
    return nullptr;
  }
  void* memory = __real_calloc(count, size);
  host().live[memory] = size;
  return memory;
}

void __wrap_free(void* memory) {
  if (host().live.erase(memory) != 0) {
    host().events.emplace_back("free");
  }
  __real_free(memory);
}

int __wrap_gettimeofday(timeval* now, void* zone) {
  fake_host::log_call("gettimeofday");
  EXPECT_EQ(zone, nullptr);
  if (!host().clock_works) {
    return -1;
  }
  now->tv_sec = static_cast<time_t>(host().clock_seconds);
  now->tv_usec = static_cast<suseconds_t>(host().clock_microseconds);
  return 0;
}

int __real_fflush(FILE* stream);

[[gnu::format(printf, 2, 3)]] int __wrap_fprintf(FILE* stream, const char* format, ...) {
  fake_host::log_call("fprintf");
  va_list arguments;
  va_start(arguments, format);
  const int length = vfprintf(stream, format, arguments);
  va_end(arguments);
  return length;
}

int __wrap_fputc(int character, FILE* stream) {
  fake_host::log_call("fputc");
  return putc(character, stream);
}

int __wrap_fflush(FILE* stream) {
  fake_host::log_call("fflush");
  return __real_fflush(stream);
}

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}
