// datapath_bench UNIT: what the library's calls cost beside the same requests sent by means of
// libmnl and of libnl. Prints the rows of a table whose head is in scripts/bench.sh: instructions
// under callgrind, else nanoseconds.
//
// The other two ways send again what the library has sent in a call: they look the family up, put
// the attributes of each request into a message of its exact size, and wait for the answer. Sockets
// are kept. So they have no argument to check, no size to sum up and nothing to log.
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "host_interfaces/corvil_port_utils.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "tests/support/calls.h"

// Keeps no port that is read back: the host's tree would take most of the time.
extern "C" __attribute__((visibility("default"))) int corvil_port_utils_add_port_from_kernel(
    uint16_t /*port*/, uint8_t /*ip_proto*/, uint8_t /*trans_proto*/) {
  return 0;
}

namespace {

using Run = std::function<int()>;  // -1: failed

constexpr size_t kBufferSize = size_t{128} * 1024;
alignas(nlmsghdr) char buffer[kBufferSize];

/// A socket to the emulator that CORVIL_NETLINK_EMULATOR names, or else to the kernel.
int open_socket() {
  const char* emulator = getenv("CORVIL_NETLINK_EMULATOR");
  if (emulator == nullptr) {
    return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
  }
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  strncpy(address.sun_path, emulator, sizeof(address.sun_path) - 1);
  return connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 ? fd : -1;
}

/// Runs `take` on each attribute from `start` to `end`.
void walk(const void* start, const void* end, auto&& take) {
  const auto* attribute = static_cast<const nlattr*>(start);
  const auto left = [&] {
    return static_cast<int>(static_cast<const char*>(end) -
                            reinterpret_cast<const char*>(attribute));
  };
  for (; mnl_attr_ok(attribute, left()); attribute = mnl_attr_next(attribute)) {
    take(attribute);
  }
}

void walk(const nlmsghdr* message, auto&& take) {
  walk(mnl_nlmsg_get_payload_offset(message, GENL_HDRLEN), mnl_nlmsg_get_payload_tail(message),
       take);
}

void walk(const nlattr* nest, auto&& take) {
  const auto* payload = static_cast<const char*>(mnl_attr_get_payload(nest));
  walk(payload, payload + mnl_attr_get_payload_len(nest), take);
}

/// Puts an attribute, with those inside it, into a message.
void copy(const nlattr* attribute, auto& message) {
  const uint16_t type = mnl_attr_get_type(attribute);
  if ((attribute->nla_type & NLA_F_NESTED) == 0) {
    message.put(type, mnl_attr_get_payload_len(attribute), mnl_attr_get_payload(attribute));
    return;
  }
  nlattr* nest = message.open(type);
  walk(attribute, [&](const nlattr* inside) { copy(inside, message); });
  message.close(nest);
}

const genlmsghdr* generic_header(const nlmsghdr* request) {
  return static_cast<const genlmsghdr*>(mnl_nlmsg_get_payload(request));
}

// By libmnl

class MnlMessage {
 public:
  MnlMessage(uint32_t size, uint16_t type, uint16_t flags, uint8_t command)
      : header_(mnl_nlmsg_put_header(calloc(1, size))) {
    header_->nlmsg_type = type;
    header_->nlmsg_flags = flags;
    auto* generic = static_cast<genlmsghdr*>(mnl_nlmsg_put_extra_header(header_, GENL_HDRLEN));
    generic->cmd = command;
    generic->version = TAVIK_WLAN_FAMILY_VERSION;
  }
  MnlMessage(const MnlMessage&) = delete;
  MnlMessage& operator=(const MnlMessage&) = delete;
  ~MnlMessage() { free(header_); }

  void put(uint16_t type, size_t size, const void* data) {
    mnl_attr_put(header_, type, size, data);
  }
  nlattr* open(uint16_t type) { return mnl_attr_nest_start(header_, type); }
  void close(nlattr* nest) { mnl_attr_nest_end(header_, nest); }

  /// Sends it and takes replies up to the last, or until the callback has what it wants.
  int exchange(mnl_cb_t callback, void* context) {
    static const int fd = open_socket();
    static uint32_t sequence = 0;
    header_->nlmsg_seq = ++sequence;
    ssize_t size = send(fd, header_, header_->nlmsg_len, 0);
    int result = MNL_CB_OK;
    while (size >= 0 && result > MNL_CB_STOP) {
      size = recv(fd, buffer, kBufferSize, 0);
      result = mnl_cb_run(buffer, static_cast<size_t>(size), sequence, 0, callback, context);
    }
    return size < 0 ? -1 : result;
  }

 private:
  nlmsghdr* header_;
};

void take_tuple(const nlattr* attribute) {
  DatapathTuple tuple;
  if (mnl_attr_get_type(attribute) == TAVIK_WLAN_TUPLE_ATTR &&
      mnl_attr_get_payload_len(attribute) == sizeof(tuple)) {
    memcpy(&tuple, mnl_attr_get_payload(attribute), sizeof(tuple));
    corvil_port_utils_add_port_from_kernel(ntohs(tuple.key.port), tuple.ip_proto,
                                           tuple.trans_proto);
  }
}

int take_tuples(const nlmsghdr* reply, void* /*context*/) {
  walk(reply, [](const nlattr* container) {
    walk(container, [](const nlattr* element) { walk(element, take_tuple); });
  });
  return MNL_CB_OK;
}

int take_family(const nlmsghdr* reply, void* id) {
  walk(reply, [id](const nlattr* attribute) {
    if (mnl_attr_get_type(attribute) == CTRL_ATTR_FAMILY_ID) {
      *static_cast<uint16_t*>(id) = mnl_attr_get_u16(attribute);
    }
  });
  return MNL_CB_STOP;
}

int send_by_libmnl(const nlmsghdr* request) {
  uint16_t family = 0;
  MnlMessage look_up(64, GENL_ID_CTRL, NLM_F_REQUEST, CTRL_CMD_GETFAMILY);
  look_up.put(CTRL_ATTR_FAMILY_NAME, sizeof(TAVIK_WLAN_FAMILY_NAME), TAVIK_WLAN_FAMILY_NAME);
  if (look_up.exchange(take_family, &family) < 0) {
    return -1;
  }
  MnlMessage message(request->nlmsg_len, family, request->nlmsg_flags,
                     generic_header(request)->cmd);
  walk(request, [&](const nlattr* attribute) { copy(attribute, message); });
  return message.exchange(take_tuples, nullptr);
}

// By libnl

struct NlMessage {
  nl_msg* message;
  void put(uint16_t type, uint16_t size, const void* data) { nla_put(message, type, size, data); }
  nlattr* open(uint16_t type) { return nla_nest_start(message, type); }
  void close(nlattr* nest) { nla_nest_end(message, nest); }
};

/// Takes the place of nl_recv(), which insists on a netlink address.
int receive_for_libnl(nl_sock* socket, sockaddr_nl* sender, unsigned char** bytes,
                      ucred** /*credentials*/) {
  *sender = {};
  *bytes = static_cast<unsigned char*>(malloc(kBufferSize));
  return static_cast<int>(recv(nl_socket_get_fd(socket), *bytes, kBufferSize, 0));
}

int send_by_libnl(const nlmsghdr* request) {
  static nl_sock* const kSocket = [] {
    nl_sock* opened = nl_socket_alloc();
    genl_connect(opened);
    nl_socket_modify_cb(
        opened, NL_CB_VALID, NL_CB_CUSTOM,
        [](nl_msg* reply, void* /*context*/) {
          take_tuples(nlmsg_hdr(reply), nullptr);
          return static_cast<int>(NL_OK);
        },
        nullptr);
    if (getenv("CORVIL_NETLINK_EMULATOR") != nullptr) {
      dup2(open_socket(), nl_socket_get_fd(opened));
      nl_cb_overwrite_recv(nl_socket_get_cb(opened), receive_for_libnl);
    }
    return opened;
  }();
  const int family = genl_ctrl_resolve(kSocket, TAVIK_WLAN_FAMILY_NAME);
  NlMessage message{nlmsg_alloc_size(request->nlmsg_len)};
  genlmsg_put(message.message, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, request->nlmsg_flags,
              generic_header(request)->cmd, TAVIK_WLAN_FAMILY_VERSION);
  walk(request, [&](const nlattr* attribute) { copy(attribute, message); });
  return family < 0 ? -1 : nl_send_sync(kSocket, message.message);
}

// Measuring

struct Case {
  const char* name;
  Run prepare;  // what the kernel holds already, after a reset
  Run call;
  uint32_t size = 1;  // in ports or tuples; figures are those of one of them
};

int nothing() { return 0; }

/// All TCP ports over IPv4.
const std::vector<PortDescriptor> kPorts = [] {
  std::vector<PortDescriptor> ports(UINT16_MAX, {4, 6, 0});
  for (size_t i = 0; i < ports.size(); ++i) {
    ports[i].port = static_cast<uint16_t>(i);
  }
  return ports;
}();

int add_ports(uint32_t count) {
  int result = 0;
  for (uint32_t held = 0, more = 0; held < count && result != -1; held += more) {
    more = std::min(count - held, uint32_t{CORVIL_DATAPATH_PROXY_MAX_PORTS});
    result = corvil_datapath_proxy_update_config_info(kPorts.data() + held, more, nullptr, 0);
  }
  return result;
}

const std::vector<Case> kCases = {
    {"set_config_info", nothing, calls::up},
    {"unset_config_info", calls::up, calls::down},
    {"update_config_info", calls::up, calls::update},
    {"unset_reverse_dev_mapping", calls::up, calls::unmap},
    {"flush_config_info", calls::up, calls::reset},
    {"add_ipsec_info", nothing, calls::add_ipsec},
    {"delete_ipsec_info", calls::add_ipsec, calls::delete_ipsec},
    {"each of the encapsulation port's four", calls::set_encap, calls::drop_encap},
    {"add_ll_dst_addr", nothing, calls::add_flow},
    {"flush_ll_dst_addr", calls::add_flow, calls::flush_flows},
    {"get_port_tuple, two tuples", calls::up, calls::get_ports},
    {"256 ports added, each", nothing, [] { return add_ports(256); }, 256},
    {"60,000 tuples read back, each", [] { return add_ports(60000); }, calls::get_ports, 60000},
};

/// Instructions since the last time, where callgrind has collected them into a file.
double collected_instructions(const std::string& file) {
  static int dumps = 0;
  CALLGRIND_DUMP_STATS;
  std::ifstream dump(file + '.' + std::to_string(++dumps));
  for (std::string line; getline(dump, line);) {
    if (line.starts_with("summary: ")) {
      return std::stod(line.substr(strlen("summary: ")));
    }
  }
  return 0;
}

/// The cost of one run: in instructions where callgrind writes to a file, else in nanoseconds, of
/// which it is the median: a process may lose the processor at any time.
double cost(const Case& each, const Run& run, const char* file) {
  using std::chrono::steady_clock;
  const size_t times = each.size > 1000 ? 3 : 21;
  std::vector<double> nanoseconds;
  for (size_t i = 0; i < times; ++i) {
    const bool ready = calls::reset() != -1 && each.prepare() != -1;
    const auto start = steady_clock::now();
    CALLGRIND_TOGGLE_COLLECT;
    const int result = ready ? run() : -1;
    CALLGRIND_TOGGLE_COLLECT;
    nanoseconds.push_back(
        std::chrono::duration<double, std::nano>(steady_clock::now() - start).count());
    if (result == -1) {
      fprintf(stderr, "datapath_bench: %s failed\n", each.name);
      exit(1);
    }
  }
  std::ranges::sort(nanoseconds);
  return file != nullptr ? collected_instructions(file) / static_cast<double>(times)
                         : nanoseconds[times / 2];
}

/// What a call sends, without its look-ups of the family.
std::vector<std::string> requests_of(const Case& each) {
  calls::reset();
  each.prepare();
  std::vector<std::string> requests;
  corvil_netlink_set_trace(
      [](CorvilNetlinkDirection direction, const void* bytes, size_t size, void* list) {
        if (direction == CORVIL_NETLINK_SENT &&
            static_cast<const nlmsghdr*>(bytes)->nlmsg_type != GENL_ID_CTRL) {
          static_cast<std::vector<std::string>*>(list)->emplace_back(
              static_cast<const char*>(bytes), size);
        }
      },
      &requests);
  each.call();
  corvil_netlink_set_trace(nullptr, nullptr);
  return requests;
}

Run send_all(const std::vector<std::string>& requests, int (*send)(const nlmsghdr*)) {
  return [&requests, send] {
    int result = 0;
    for (const std::string& request : requests) {
      result = result == -1 ? -1 : send(reinterpret_cast<const nlmsghdr*>(request.data()));
    }
    return result < 0 ? -1 : 0;
  };
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    return 1;
  }
  const char* file = argc > 2 ? argv[2] : nullptr;
  for (const Case& each : kCases) {
    const std::vector<std::string> requests = requests_of(each);
    const double empty = cost({"nothing", nothing, nothing}, nothing, file);
    const auto cost_of = [&](const Run& run) {
      run();  // The first run opens the socket.
      return (cost(each, run, file) - empty) / each.size;
    };
    const double library = cost_of(each.call);
    const double libmnl = cost_of(send_all(requests, send_by_libmnl));
    const double libnl = cost_of(send_all(requests, send_by_libnl));
    printf("| %s | %s | %.0f | %.0f | %.0f | %.2f | %.2f |\n", each.name, argv[1], library, libmnl,
           libnl, library / libmnl, library / libnl);
  }
  return 0;
}
