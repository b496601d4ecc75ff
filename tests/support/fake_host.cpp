#include "tests/support/fake_host.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <sstream>
#include <vector>

#include "host_interfaces/corvil_port_utils.h"

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

template <typename Value>
Value next(std::deque<Value>& values, Value otherwise) {
  if (values.empty()) {
    return otherwise;
  }
  const Value value = values.front();
  values.pop_front();
  return value;
}

/// Runs the callback on a reply that ends, but for its alignment, right before an unreadable page.
int call_before_unreadable_page(corvil_netlink_reply_callback callback,
                                const std::vector<uint8_t>& reply) {
  if (reply.empty()) {
    return callback(nullptr, nullptr);
  }
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t readable = (reply.size() / page + 1) * page;
  void* pages =
      mmap(nullptr, readable + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  auto* unreadable = static_cast<uint8_t*>(pages) + readable;
  EXPECT_EQ(mprotect(unreadable, page, PROT_NONE), 0);
  uint8_t* start = unreadable - NLMSG_ALIGN(reply.size());
  memcpy(start, reply.data(), reply.size());
  const int result = callback(reinterpret_cast<const nlmsghdr*>(start), nullptr);
  munmap(pages, readable + page);
  return result;
}

/// Of LOG_LEVEL_MASK_LOW to LOG_LEVEL_MASK_ERR, one bit each.
std::string level_name(uint32_t mask) {
  constexpr std::array<const char*, 4> kNames = {"LOW ", "MED ", "HIGH ", "ERR "};
  return std::has_single_bit(mask) ? kNames.at(static_cast<size_t>(std::countr_zero(mask)))
                                   : "several levels ";
}

}  // namespace

Host& host() {
  static Host the_host;
  return the_host;
}

Statements& statements() {
  static Statements all;
  return all;
}

bool silent() { return getenv("FAKE_HOST_SILENT") != nullptr; }

void reset() {
  host() = Host{};
  log_to_file = 0;
  logging_fd = nullptr;
  zu_log_mask = silent() ? 0 : ZU_LOG_MASK_DIAGNOSTIC;
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

std::string permissions_of(const void* address) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    std::istringstream fields(line);
    uintptr_t start = 0;
    uintptr_t end = 0;
    char dash = 0;
    std::string permissions;
    fields >> std::hex >> start >> dash >> end >> permissions;
    const auto wanted = reinterpret_cast<uintptr_t>(address);
    if (start <= wanted && wanted < end) {
      return permissions;
    }
  }
  return "unmapped";
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
  if (++host().resolutions == host().failing_resolution) {
    return -1;
  }
  *family_id = host().family_id;
  return 0;
}

// A fuzz target has the reference host's attribute operations in the place of these two.

[[gnu::weak]] int corvil_nla_put(nlmsghdr* message, uint16_t type, uint32_t length,
                                 const void* payload) {
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
  message->nlmsg_len = start + NLA_HDRLEN + NLA_ALIGN(length);
  return 0;
}

int corvil_netlink_transact(const nlmsghdr* request, int protocol, int* error) {
  EXPECT_EQ(protocol, NETLINK_GENERIC);
  EXPECT_TRUE(error == nullptr || *error == 0);
  host().events.push_back("send " + fake_host::hex(request, request->nlmsg_len) +
                          (error != nullptr ? " error slot" : ""));
  const fake_host::Answer answer = fake_host::next(host().answers, {});
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
  host().events.push_back("query " + fake_host::hex(request, request->nlmsg_len));
  for (const std::vector<uint8_t>& reply : host().replies) {
    const int result = fake_host::call_before_unreadable_page(callback, reply);
    host().events.push_back("reply " + std::to_string(result));
  }
  return fake_host::next(host().answers, {}).result;
}

[[gnu::weak]] int corvil_nla_parse(const nlattr* first, const nlattr** table, uint32_t length,
                                   uint16_t max_type) {
  EXPECT_NE(first, nullptr);
  for (uint16_t type = 0; type <= max_type; ++type) {
    table[type] = nullptr;
  }
  const auto* start = reinterpret_cast<const uint8_t*>(first);
  for (uint32_t at = 0; at + NLA_HDRLEN <= length;) {
    const auto* attribute = reinterpret_cast<const nlattr*>(start + at);
    // Like a host that trusts the kernel, it lets an attribute claim more than there is.
    if (attribute->nla_len < NLA_HDRLEN) {
      return -1;
    }
    const uint16_t type = attribute->nla_type & NLA_TYPE_MASK;
    if (type <= max_type) {
      table[type] = attribute;
    }
    at += NLA_ALIGN(attribute->nla_len);
  }
  return 0;
}

int corvil_port_utils_add_port_from_kernel(uint16_t port, uint8_t ip_proto, uint8_t trans_proto) {
  host().events.push_back("port " + std::to_string(port) + " " + std::to_string(ip_proto) + " " +
                          std::to_string(trans_proto));
  return fake_host::next(host().port_results, 0);
}

int zu_format_log_msg(char* buffer, size_t size, const char* format, ...) {
  fake_host::log_call("zu_format_log_msg");
  EXPECT_EQ(size, 512U);
  host().last_format = format;
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
  host().events.push_back(fake_host::level_name(descriptor->level_mask) +
                          va_arg(arguments, const char*));
  va_end(arguments);
  host().descriptors.push_back(descriptor);
  fake_host::statements()[descriptor].insert(host().last_format);
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
// NOLINTBEGIN(bugprone-reserved-identifier): the linker names them.

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

// NOLINTEND(bugprone-reserved-identifier)
}
