#include "tests/support/fake_host.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"

namespace fake_host {
namespace {

// What the library has flushed to the log file.
char* file_text = nullptr;
size_t file_size = 0;

void record(const std::string& line) { host().transcript += replace(line, "\n", "\\n") + '\n'; }

template <typename Value>
Value next(std::deque<Value>& values) {
  Value value{};
  if (!values.empty()) {
    value = values.front();
    values.pop_front();
  }
  return value;
}

/// The bytes of a message in hexadecimal digits, with a blank between groups of four.
std::string hex(const nlmsghdr* message) {
  std::string text;
  for (uint32_t i = 0; i < message->nlmsg_len; ++i) {
    char digits[4];
    snprintf(digits, sizeof(digits), i % 4 == 0 && i != 0 ? " %02x" : "%02x",
             reinterpret_cast<const uint8_t*>(message)[i]);
    text += digits;
  }
  return text;
}

/// The name of a level, which is one bit.
std::string level_name(uint32_t mask) {
  constexpr std::array<const char*, 4> kNames = {"LOW ", "MED ", "HIGH ", "ERR "};
  return kNames.at(static_cast<size_t>(std::countr_zero(mask)));
}

}  // namespace

Host& host() {
  static Host the_host;
  return the_host;
}

std::string replace(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
  return text;
}

void reset() {
  host() = Host{};
  if (file_text != nullptr) {
    fclose(logging_fd);
    free(file_text);
    file_text = nullptr;
  }
  log_to_file = 0;
  logging_fd = nullptr;
  zu_log_mask = ZU_LOG_MASK_DIAGNOSTIC;
}

void open_log_file() {
  log_to_file = 1;
  logging_fd = open_memstream(&file_text, &file_size);
  fflush(logging_fd);
}

std::string log_file() { return {file_text, file_size}; }

}  // namespace fake_host

using fake_host::host;
using fake_host::record;

extern "C" {

uint8_t log_to_file = 0;
FILE* logging_fd = nullptr;
uint32_t zu_log_mask = 0;

int corvil_netlink_query_genl(const char* family_name, uint32_t version, uint16_t* family_id) {
  EXPECT_EQ(*family_id, 0);
  record("resolve " + std::string(family_name) + " " + std::to_string(version));
  if (--host().failing_resolution == 0) {
    return -1;
  }
  *family_id = 0x2a;
  return 0;
}

int corvil_nla_put(nlmsghdr* message, uint16_t type, uint32_t length, const void* payload) {
  const uint32_t start = NLA_ALIGN(message->nlmsg_len);
  const uint32_t end = start + NLA_HDRLEN + NLA_ALIGN(length);
  if (end > host().live[message]) {
    ADD_FAILURE() << "attribute " << type << " does not fit its request";
    return -1;
  }
  auto* attribute = reinterpret_cast<nlattr*>(reinterpret_cast<char*>(message) + start);
  attribute->nla_len = static_cast<uint16_t>(NLA_HDRLEN + length);
  attribute->nla_type = type;
  if (length != 0) {
    memcpy(attribute + 1, payload, length);
  }
  message->nlmsg_len = end;
  return 0;
}

int corvil_netlink_transact(const nlmsghdr* request, int protocol, int* error) {
  EXPECT_EQ(protocol, NETLINK_GENERIC);
  EXPECT_TRUE(error == nullptr || *error == 0);
  record("send " + fake_host::hex(request) + (error != nullptr ? " error slot" : ""));
  const fake_host::Answer answer = fake_host::next(host().answers);
  if (answer.result == -1 && error != nullptr) {
    *error = answer.error;
  }
  return answer.result;
}

int corvil_netlink_query(const nlmsghdr* request, int protocol,
                         corvil_netlink_reply_callback callback, void* context, int dump) {
  EXPECT_EQ(protocol, NETLINK_GENERIC);
  EXPECT_EQ(context, nullptr);
  EXPECT_EQ(dump, 1);
  record("query " + fake_host::hex(request));
  for (const std::vector<uint8_t>& reply : host().replies) {
    const auto* message = reply.empty() ? nullptr : reply.data();
    const int result = callback(reinterpret_cast<const nlmsghdr*>(message), nullptr);
    record("reply " + std::to_string(result));
  }
  return fake_host::next(host().answers).result;
}

int corvil_nla_parse(const nlattr* first, const nlattr** table, uint32_t length,
                     uint16_t max_type) {
  EXPECT_NE(first, nullptr);
  std::fill_n(table, max_type + 1, nullptr);
  const auto* start = reinterpret_cast<const uint8_t*>(first);
  for (uint32_t at = 0; at + NLA_HDRLEN <= length;) {
    const auto* attribute = reinterpret_cast<const nlattr*>(start + at);
    // Like a host that trusts the kernel, it lets an attribute claim more than there is.
    if (attribute->nla_len < NLA_HDRLEN) {
      return -1;
    }
    if (const uint16_t type = attribute->nla_type & NLA_TYPE_MASK; type <= max_type) {
      table[type] = attribute;
    }
    at += NLA_ALIGN(attribute->nla_len);
  }
  return 0;
}

int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto, uint8_t trans_proto) {
  record("port " + std::to_string(port) + " " + std::to_string(ip_proto) + " " +
         std::to_string(trans_proto));
  return fake_host::next(host().port_results);
}

int zu_format_log_msg(char* buffer, size_t size, const char* format, ...) {
  EXPECT_EQ(size, 512U);
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

void msg_sprintf(const LogSiteDescriptor* descriptor, ...) {
  EXPECT_STREQ(descriptor->format, "%s");
  EXPECT_STREQ(descriptor->file, "datapath_proxy/src/corvil_datapath_proxy");
  EXPECT_EQ(descriptor->subsystem, 65);
  va_list arguments;
  va_start(arguments, descriptor);
  record(fake_host::level_name(descriptor->level_mask) + va_arg(arguments, const char*));
  va_end(arguments);
  zu_log_mask = host().next_log_mask.value_or(zu_log_mask);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, fmt);
  vsnprintf(text, sizeof(text), fmt, arguments);
  va_end(arguments);
  record("android " + std::to_string(prio) + " " + tag + " " + text);
  return 1;
}

// The linker sends the calls of these libc functions here (--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier): the linker names them.

void* __real_calloc(size_t count, size_t size);
void __real_free(void* memory);

void* __wrap_calloc(size_t count, size_t size) {
  EXPECT_EQ(count, 1U);
  record("calloc " + std::to_string(size));
  if (--host().failing_allocation == 0) {
    return nullptr;
  }
  void* memory = __real_calloc(count, size);
  host().live[memory] = size;
  return memory;
}

void __wrap_free(void* memory) {
  if (host().live.erase(memory) != 0) {
    record("free");
  }
  __real_free(memory);
}

int __wrap_gettimeofday(timeval* now, void* zone) {
  EXPECT_EQ(zone, nullptr);
  *now = host().clock;
  return 0;
}

// NOLINTEND(bugprone-reserved-identifier)
}
