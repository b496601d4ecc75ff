// datapath_bench: the library beside a client on libmnl, one on libnl and the bare system calls.
// Prints rows of the table whose head is in scripts/bench.sh.
//
//   datapath_bench count UNIT FILE   instructions and heap allocations, under callgrind with FILE
//   datapath_bench calls UNIT        time of whole calls
//   datapath_bench look-up UNIT      time of asking any kernel's controller: half a call
//   datapath_bench emulator PATH     serves the emulator that the others talk to, without any
//   output
#include <dlfcn.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "bench/clients.h"
#include "datapath_proxy/src/datapath_log.h"
#include "reference_kernel/emulator/emulator.h"

namespace bench {
namespace {

/// The ways to do the same.
enum Way : uint8_t { kLibrary, kLibmnl, kLibnl, kFloor, kWays };

using Run = int (*)();  // -1: failed

struct Case {
  const char* name;
  uint32_t size;    // ports or tuples; figures are those of one of them
  Run runs[kWays];  // null where there is none
};

uint32_t listed = 0;  // ports that the case at hand lists
std::string* recorded = nullptr;
size_t allocations = 0;

/// The bytes of the requests that a case sends.
std::string record(const Case& each, Way way) {
  std::string bytes;
  recorded = &bytes;
  null_host = true;
  listed = each.size;
  each.runs[way]();
  null_host = false;
  recorded = nullptr;
  return bytes;
}

/// As many as the family can hold.
const auto kPorts = [] {
  std::vector<PortDescriptor> all(65536);
  for (uint32_t i = 0; i < all.size(); ++i) {
    all[i] = {i % 2 == 0 ? 4U : 6U, i % 4 < 2 ? 6U : 17U, static_cast<uint16_t>(i / 4 + 1)};
  }
  return all;
}();

const PortDescriptor* ports(uint32_t from = 0) { return kPorts.data() + from; }

/// A call by the library and by a generic client, which is to send the same bytes.
template <typename Client>
Case call(const char* name, uint32_t size, Run library, Client /*stateless*/) {
  const Case each{name,
                  size,
                  {library, [] { return Client{}.template operator()<MnlMessage>(); },
                   [] { return Client{}.template operator()<NlMessage>(); }, bare_call}};
  const std::string bytes = record(each, kLibrary);
  if (bytes.empty() || record(each, kLibmnl) != bytes || record(each, kLibnl) != bytes) {
    fprintf(stderr, "datapath_bench: %s: a client sends other bytes\n", name);
    exit(1);
  }
  return each;
}

// What the library is called with, and what a client does instead, its messages being M.
#define CALL_OF(label, size, name, arguments, ...)                        \
  call(                                                                   \
      label, size, [] { return corvil_datapath_proxy_##name arguments; }, \
      []<class M>() -> int { return __VA_ARGS__; })
#define CALL(name, arguments, ...) CALL_OF(#name, 1, name, arguments, __VA_ARGS__)

constexpr Flow kFlow{{{0, 0}, 0x01100000}, "2001:db8::1"};
constexpr Attribute<const char*> kDevice{TAVIK_WLAN_ATTR_DEV, "wlan0"};
constexpr Attribute<const char*> kTo{TAVIK_WLAN_ATTR_FWD_TO, "wlan0"};
constexpr Attribute<const char*> kFrom{TAVIK_WLAN_ATTR_FWD_FROM, "rmnet_data0"};
constexpr Attribute<uint8_t> kSelector{TAVIK_WLAN_ATTR_SELECTOR, 1};
constexpr Attribute<const char*> kSource{TAVIK_WLAN_ATTR_LL_SRC_ADDR, "10.0.0.1"};
constexpr Attribute<const char*> kSink{TAVIK_WLAN_ATTR_LL_DST_ADDR, "10.0.0.2"};
constexpr Attribute<uint16_t> kSourcePort{TAVIK_WLAN_ATTR_LL_SRC_PORT, 0x8813};
constexpr Attribute<uint16_t> kSinkPort{TAVIK_WLAN_ATTR_LL_DST_PORT, 0x8913};
constexpr Attribute<uint16_t> kEncap{TAVIK_WLAN_ATTR_ENCAP_PORT, 0x9411};

Tuples<PortDescriptor> list(uint32_t from = 0) { return {ports(from), listed}; }

Case list_of_ports(const char* label, uint32_t count) {
  return CALL_OF(label, count, update_config_info, (ports(), listed, nullptr, 0),
                 request<M>(TAVIK_WLAN_CMD_ADD_TUPLES, list()));
}

Case set_udp_encap_port() {
  return CALL(set_udp_encap_port, (kEncap.value),
              request<M>(TAVIK_WLAN_CMD_SET_ENCAP_PORT, kEncap));
}

std::vector<Case> request_cases() {
  return {
      CALL(set_config_info,
           (kDevice.value, kTo.value, kFrom.value, ports(), listed, kSelector.value),
           -(request<M>(TAVIK_WLAN_CMD_ADD_TUPLES, list()) ||
             request<M>(TAVIK_WLAN_CMD_ADD_FWD_INFO, kSelector, kTo, kFrom) ||
             request<M>(TAVIK_WLAN_CMD_SET_DEV, kSelector, kDevice))),
      CALL(unset_config_info,
           (kDevice.value, kTo.value, kFrom.value, ports(), listed, kSelector.value),
           -(request<M>(TAVIK_WLAN_CMD_UNSET_DEV, kSelector, kDevice) ||
             request<M>(TAVIK_WLAN_CMD_DEL_FWD_INFO, kSelector, kTo, kFrom) ||
             request<M>(TAVIK_WLAN_CMD_DEL_TUPLES, list()) ||
             request<M>(TAVIK_WLAN_CMD_LL_ADDR_FLUSH))),
      CALL(update_config_info, (ports(), listed, ports(listed), listed),
           -(request<M>(TAVIK_WLAN_CMD_DEL_TUPLES, list(listed)) ||
             request<M>(TAVIK_WLAN_CMD_ADD_TUPLES, list()))),
      CALL(unset_reverse_dev_mapping, (kSelector.value, kTo.value, kFrom.value),
           request<M>(TAVIK_WLAN_CMD_DEL_FWD_INFO, kSelector, kTo, kFrom)),
      CALL(flush_config_info, (), request<M>(TAVIK_WLAN_CMD_RESET)),
      CALL(add_ipsec_info, (&kFlow.info, kFlow.address),
           request<M>(TAVIK_WLAN_CMD_ADD_TUPLES, Tuples<Flow>{&kFlow, 1})),
      CALL(delete_ipsec_info, (&kFlow.info, kFlow.address),
           request<M>(TAVIK_WLAN_CMD_DEL_TUPLES, Tuples<Flow>{&kFlow, 1})),
      set_udp_encap_port(),
      CALL(unset_udp_encap_port, (kEncap.value),
           request<M>(TAVIK_WLAN_CMD_UNSET_ENCAP_PORT, kEncap)),
      CALL(act_encap_port_pass_through, (kEncap.value),
           request<M>(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_PASS_THROUGH, kEncap)),
      CALL(act_encap_port_drop, (kEncap.value),
           request<M>(TAVIK_WLAN_CMD_ENCAP_PORT_ACT_DROP, kEncap)),
      CALL(add_ll_dst_addr, (kSource.value, kSink.value, kSourcePort.value, kSinkPort.value),
           request<M>(TAVIK_WLAN_CMD_LL_ADDR_ADD, kSource, kSink, kSourcePort, kSinkPort)),
      CALL(flush_ll_dst_addr, (), request<M>(TAVIK_WLAN_CMD_LL_ADDR_FLUSH)),
      CALL(get_port_tuple, (), request<M>(TAVIK_WLAN_CMD_GET_TUPLES)),
      list_of_ports("1 port", 1),
      list_of_ports("16 ports, each", 16),
      list_of_ports("256 ports, each", 256),
      list_of_ports("4095 ports, each", CORVIL_DATAPATH_PROXY_MAX_PORTS),
  };
}

const Case kReadBack{
    "60,000 tuples read back, each",
    60000,
    {corvil_datapath_proxy_get_port_tuple, read_back_by_libmnl, nullptr, bare_call}};

int library_look_up() {
  uint16_t family = 0;
  return corvil_netlink_query_genl(family_name, 2, &family);
}

const Case kLookUp{"look-up of a family",
                   1,
                   {library_look_up, MnlMessage::resolve, NlMessage::resolve, bare_look_up}};

int log_statement() {
  DATAPATH_LOG(LOW, "%s(): Value %u\n", listed);
  return 0;
}

const Case kLog{"log statement, sinks off", 1, {log_statement, nullptr, nullptr, nullptr}};
const Case kNothing{"nothing", 1, {[] { return 0; }, nullptr, nullptr, nullptr}};

/// Has the kernel hold as many ports as the case has, and the floor send the request of the case.
void prepare_call(const Case& each) {
  corvil_datapath_proxy_flush_config_info();
  for (uint32_t held = 0, more = 0; held < each.size; held += more) {
    more = std::min(each.size - held, uint32_t{CORVIL_DATAPATH_PROXY_MAX_PORTS});
    corvil_datapath_proxy_update_config_info(ports(held), more, nullptr, 0);
  }
  bare_request = record(each, kLibrary);
  auto* header = reinterpret_cast<nlmsghdr*>(bare_request.data());
  header->nlmsg_type = static_cast<uint16_t>(MnlMessage::resolve());
  header->nlmsg_flags |= each.runs[kLibrary] == kReadBack.runs[kLibrary] ? NLM_F_DUMP : 0;
}

// Measuring

using std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

/// Of each way: a count, or the times of all rounds.
using Samples = std::array<std::vector<double>, kWays>;

void run(const Case& each, size_t way, int times) {
  listed = each.size;
  for (int i = 0; i < times; ++i) {
    if (each.runs[way]() < 0) {
      fprintf(stderr, "datapath_bench: %s failed\n", each.name);
      exit(1);
    }
  }
}

/// Instructions since the counter was reset: callgrind's next dump says.
double counted_instructions(const std::string& file) {
  static int dumps = 0;
  CALLGRIND_DUMP_STATS;
  std::ifstream dump(file + '.' + std::to_string(++dumps));
  for (std::string line; getline(dump, line);) {
    if (line.starts_with("summary: ")) {
      return std::stod(line.substr(strlen("summary: ")));
    }
  }
  return NAN;  // not under callgrind
}

/// Instructions of one run, the loop around it included, and its heap allocations.
std::pair<double, size_t> count(const Case& each, size_t way, const std::string& file) {
  const int times = each.size > 1000 ? 2 : 100;
  run(each, way, 2);
  const size_t before = allocations;
  CALLGRIND_ZERO_STATS;
  run(each, way, times);
  const size_t allocated = allocations - before;
  return {counted_instructions(file) / times, allocated / static_cast<size_t>(times)};
}

/// Time of one run on the clock on the wall, since most of it may be another process's.
Nanoseconds measure(const Case& each, size_t way, int times) {
  const auto start = steady_clock::now();
  run(each, way, times);
  return Nanoseconds(steady_clock::now() - start) / times;
}

double quantile(std::vector<double> values, size_t quarters) {
  std::ranges::sort(values);
  return values[(values.size() - 1) * quarters / 4];
}

/// The middle of the library's ratios to another way, round by round, and the quartiles.
void print_ratio(const std::vector<double>& library, const std::vector<double>& other) {
  std::vector<double> ratios;
  std::ranges::transform(library, other, std::back_inserter(ratios), std::divides<>());
  if (!ratios.empty()) {
    printf(" %.2f", quantile(ratios, 2));
  }
  if (ratios.size() > 1) {
    printf(" [%.2f, %.2f]", quantile(ratios, 1), quantile(ratios, 3));
  }
  printf(" |");
}

void print_row(const Case& each, const char* unit, const Samples& samples,
               const std::string& allocated) {
  printf("| %s | %s |", each.name, unit);
  for (const auto& of_way : samples) {
    const double figure = of_way.empty() ? 0 : quantile(of_way, 2) / each.size;
    printf(of_way.empty() ? " |" : figure < 100 ? " %.1f |" : " %.0f |", figure);
  }
  for (const Way other : {kLibmnl, kLibnl, kFloor}) {
    print_ratio(samples[kLibrary], samples[other]);
  }
  printf(" %s |\n", allocated.c_str());
}

void print_counts(const Case& each, const char* unit, const std::string& file) {
  static const double kLoop = count(kNothing, kLibrary, file).first;
  Samples samples;
  std::string allocated;
  for (const Way way : {kLibrary, kLibmnl, kLibnl}) {
    if (each.runs[way] != nullptr) {
      const auto [instructions, allocated_here] = count(each, way, file);
      samples[way] = {instructions - kLoop};
      allocated += (way == kLibrary ? "" : ", ") + std::to_string(allocated_here);
    }
  }
  print_row(each, unit, samples, allocated);
}

/// A second of rounds, in which each way runs for half a millisecond; another comes first each
/// time.
void print_times(const Case& each, const char* unit) {
  Samples samples;
  run(each, kLibrary, 2);
  const int times = 1 + static_cast<int>(5e5 / measure(each, kLibrary, 1).count());
  const auto end = steady_clock::now() + std::chrono::seconds(1);
  for (size_t round = 0; steady_clock::now() < end; ++round) {
    for (size_t i = 0; i < kWays; ++i) {
      const size_t way = (round + i) % kWays;
      if (each.runs[way] != nullptr) {
        samples[way].push_back(measure(each, way, times).count());
      }
    }
  }
  print_row(each, unit, samples, "");
}

}  // namespace
}  // namespace bench

namespace {

/// The reference host's operation behind the one that takes its place here.
template <typename Operation>
Operation* next(Operation* /*type*/, const char* name) {
  return reinterpret_cast<Operation*>(dlsym(RTLD_NEXT, name));
}

const auto kHostQueryGenl = next(corvil_netlink_query_genl, "corvil_netlink_query_genl");
const auto kHostTransact = next(corvil_netlink_transact, "corvil_netlink_transact");
const auto kHostQuery = next(corvil_netlink_query, "corvil_netlink_query");

int swallow(const nlmsghdr* request) {
  asm volatile("" : : "r"(request) : "memory");
  if (bench::recorded != nullptr) {
    bench::recorded->append(reinterpret_cast<const char*>(request), request->nlmsg_len);
  }
  return 0;
}

}  // namespace

// The program comes before its libraries: what it defines takes the place of theirs.
#pragma GCC visibility push(default)
extern "C" {

int corvil_netlink_query_genl(const char* family_name, uint32_t version, uint16_t* family_id) {
  if (bench::null_host) {
    *family_id = 28;
    return 0;
  }
  return kHostQueryGenl(family_name, version, family_id);
}

int corvil_netlink_transact(const nlmsghdr* request, int protocol, int* error) {
  return bench::null_host ? swallow(request) : kHostTransact(request, protocol, error);
}

int corvil_netlink_query(const nlmsghdr* request, int protocol,
                         corvil_netlink_reply_callback callback, void* context, int dump) {
  return bench::null_host ? swallow(request)
                          : kHostQuery(request, protocol, callback, context, dump);
}

/// Keeps no port that is read back: the host's tree would take most of the time.
int corvil_port_utils_add_port_from_kernel(uint16_t /*port*/, uint8_t /*ip_proto*/,
                                           uint8_t /*trans_proto*/) {
  return 0;
}

// NOLINTBEGIN(bugprone-reserved-identifier): glibc's names.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t nmemb, size_t size);
void* __libc_realloc(void* ptr, size_t size);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(size_t size) {
  ++bench::allocations;
  return __libc_malloc(size);
}

void* calloc(size_t nmemb, size_t size) {
  ++bench::allocations;
  return __libc_calloc(nmemb, size);
}

void* realloc(void* ptr, size_t size) {
  ++bench::allocations;
  return __libc_realloc(ptr, size);
}

}  // extern "C"
#pragma GCC visibility pop

int main(int argc, char** argv) {
  using namespace bench;
  const std::string mode = argc > 2 ? argv[1] : "";
  const char* unit = argc > 2 ? argv[2] : "";
  if (mode == "emulator") {
    const tavik_wlan::Emulator emulator(argv[2]);
    close(STDOUT_FILENO);  // Whoever reads it knows that it is there.
    return pause();
  }
  connect_clients();
  if (mode == "look-up") {
    family_name = "nlctrl";
    print_times(kLookUp, unit);
  } else if (mode == "calls") {
    for (const Case& each :
         {set_udp_encap_port(), list_of_ports("256 ports, each", 256), kReadBack}) {
      prepare_call(each);
      print_times(each, unit);
    }
  } else if (mode == "count" && argc == 4) {
    const std::vector<Case> requests = request_cases();
    null_host = true;
    for (const Case& each : requests) {
      print_counts(each, unit, argv[3]);
    }
    null_host = false;
    prepare_call(kReadBack);
    print_counts(kReadBack, unit, argv[3]);
    print_counts(kLog, unit, argv[3]);
  } else {
    return 1;
  }
  return 0;
}
