// datapath_bench: the time that the library's calls take on an emulated kernel, with and without a
// log file, beside the same requests sent by clients written on libmnl and on libnl.
//
// The clients send again what the library has sent in a call, the look-ups of the family included:
// they put the attributes of each request into a message, and wait for the answer. Sockets are
// kept. So they have no argument to check, no size to sum up and nothing to log.
#include <libmnl/libmnl.h>
#include <linux/genetlink.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_port_utils.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/emulator.h"
#include "tests/support/calls.h"

// Keeps no port that is read back: the host's tree would take most of the time.
extern "C" __attribute__((visibility("default"))) int corvil_port_utils_add_port_from_kernel(
    uint16_t /*port*/, uint8_t /*ip_proto*/, uint8_t /*trans_proto*/) {
  return 0;
}

namespace {

constexpr size_t kBufferSize = size_t{128} * 1024;
alignas(nlmsghdr) char sent[kBufferSize];
alignas(nlmsghdr) char received[kBufferSize];

int connect_to_emulator() {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const std::string path = corvil_netlink_emulator();
  sockaddr_un address{AF_UNIX, {}};
  path.copy(&address.sun_path[1], path.size() - 1, 1);  // It is an abstract one.
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  return connect(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 ? fd : -1;
}

/// Puts an attribute, with those inside it, into the client's message that `context` points at.
template <typename Message>
int copy(const nlattr* attribute, void* context) {
  auto* message = static_cast<Message*>(context);
  const uint16_t type = mnl_attr_get_type(attribute);
  if ((attribute->nla_type & NLA_F_NESTED) == 0) {
    message->put(type, mnl_attr_get_payload_len(attribute), mnl_attr_get_payload(attribute));
    return MNL_CB_OK;
  }
  nlattr* nest = message->open(type);
  mnl_attr_parse_nested(attribute, copy<Message>, context);
  message->close(nest);
  return MNL_CB_OK;
}

/// Takes the ports of a reply, which are the innermost attributes.
int take_port(const nlattr* attribute, void* context) {
  if ((attribute->nla_type & NLA_F_NESTED) != 0) {
    return mnl_attr_parse_nested(attribute, take_port, context);
  }
  DatapathTuple tuple;
  memcpy(&tuple, mnl_attr_get_payload(attribute), sizeof(tuple));
  corvil_port_utils_add_port_from_kernel(ntohs(tuple.key.port), tuple.ip_proto, tuple.trans_proto);
  return MNL_CB_OK;
}

int take_ports(const nlmsghdr* reply, void* context) {
  return mnl_attr_parse(reply, GENL_HDRLEN, take_port, context);
}

// By libmnl

struct MnlMessage {
  void put(uint16_t type, size_t size, const void* data) { mnl_attr_put(header, type, size, data); }
  nlattr* open(uint16_t type) { return mnl_attr_nest_start(header, type); }
  void close(nlattr* nest) { mnl_attr_nest_end(header, nest); }

  /// Sends it and takes replies up to the last, or until the callback has what it wants.
  int exchange(mnl_cb_t callback, void* context) {
    static const int fd = connect_to_emulator();
    static uint32_t sequence = 0;
    header->nlmsg_seq = ++sequence;
    ssize_t size = send(fd, header, header->nlmsg_len, 0);
    int result = MNL_CB_OK;
    while (size >= 0 && result > MNL_CB_STOP) {
      size = recv(fd, received, kBufferSize, 0);
      result = mnl_cb_run(received, static_cast<size_t>(size), sequence, 0, callback, context);
    }
    return size < 0 ? -1 : result;
  }

  nlmsghdr* header = mnl_nlmsg_put_header(sent);
};

int take_family(const nlmsghdr* reply, void* id) {
  const auto take = [](const nlattr* attribute, void* found) {
    if (mnl_attr_get_type(attribute) == CTRL_ATTR_FAMILY_ID) {
      *static_cast<uint16_t*>(found) = mnl_attr_get_u16(attribute);
    }
    return MNL_CB_OK;
  };
  return std::min(mnl_attr_parse(reply, GENL_HDRLEN, take, id), MNL_CB_STOP);
}

int send_by_libmnl(const nlmsghdr* request) {
  static uint16_t family = 0;
  const bool is_look_up = request->nlmsg_type == GENL_ID_CTRL;
  MnlMessage message;
  message.header->nlmsg_type = is_look_up ? GENL_ID_CTRL : family;
  message.header->nlmsg_flags = request->nlmsg_flags;
  memcpy(mnl_nlmsg_put_extra_header(message.header, GENL_HDRLEN), mnl_nlmsg_get_payload(request),
         GENL_HDRLEN);
  mnl_attr_parse(request, GENL_HDRLEN, copy<MnlMessage>, &message);
  return message.exchange(is_look_up ? take_family : take_ports, &family);
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

nl_sock* open_by_libnl() {
  nl_sock* opened = nl_socket_alloc();
  genl_connect(opened);
  dup2(connect_to_emulator(), nl_socket_get_fd(opened));
  nl_cb_overwrite_recv(nl_socket_get_cb(opened), receive_for_libnl);
  const auto take = [](nl_msg* reply, void* context) {
    take_ports(nlmsg_hdr(reply), context);
    return static_cast<int>(NL_OK);
  };
  nl_socket_modify_cb(opened, NL_CB_VALID, NL_CB_CUSTOM, take, nullptr);
  return opened;
}

int send_by_libnl(const nlmsghdr* request) {
  static nl_sock* const kSocket = open_by_libnl();
  static int family = 0;
  if (request->nlmsg_type == GENL_ID_CTRL) {
    return family = genl_ctrl_resolve(kSocket, TAVIK_WLAN_FAMILY_NAME);
  }
  NlMessage message{nlmsg_alloc_size(request->nlmsg_len)};
  genlmsg_put(message.message, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, request->nlmsg_flags,
              static_cast<const genlmsghdr*>(mnl_nlmsg_get_payload(request))->cmd,
              TAVIK_WLAN_FAMILY_VERSION);
  mnl_attr_parse(request, GENL_HDRLEN, copy<NlMessage>, &message);
  return nl_send_sync(kSocket, message.message);
}

// Measuring

constexpr size_t kPortCount = 4000;

int add_ports() {
  static const std::vector<PortDescriptor> kPorts = [] {
    std::vector<PortDescriptor> ports;
    for (uint16_t port = 0; port < kPortCount; ++port) {
      ports.push_back({4, 6, port});
    }
    return ports;
  }();
  return corvil_datapath_proxy_update_config_info(kPorts.data(), kPortCount, nullptr, 0);
}

const struct Case {
  const char* name;
  int (*prepare)();  // what the kernel holds already, after a reset
  int (*call)();
} kCases[] = {
    {"add_ll_dst_addr", calls::reset, calls::add_flow},
    {"set_config_info", calls::reset, calls::up},
    {"update_config_info, 4,000 ports", calls::reset, add_ports},
    {"get_port_tuple, 4,000 ports", add_ports, calls::get_ports},
};

/// What a call sends.
std::vector<std::string> requests_of(const Case& each) {
  std::vector<std::string> requests;
  calls::reset();
  each.prepare();
  corvil_netlink_set_trace(
      [](CorvilNetlinkDirection direction, const void* bytes, size_t size, void* list) {
        if (direction == CORVIL_NETLINK_SENT) {
          static_cast<std::vector<std::string>*>(list)->emplace_back(
              static_cast<const char*>(bytes), size);
        }
      },
      &requests);
  each.call();
  corvil_netlink_set_trace(nullptr, nullptr);
  return requests;
}

int send_all(const std::vector<std::string>& requests, int (*send)(const nlmsghdr*)) {
  const auto fails = [&](const std::string& request) {
    return send(reinterpret_cast<const nlmsghdr*>(request.data())) < 0;
  };
  return std::ranges::any_of(requests, fails) ? -1 : 0;
}

/// Prints the median time of each way in microseconds. They take turns, for the machine's pace
/// changes.
void measure(const Case& each) {
  const std::vector<std::string> requests = requests_of(each);
  const std::function<int()> ways[] = {each.call, each.call,
                                       [&] { return send_all(requests, send_by_libmnl); },
                                       [&] { return send_all(requests, send_by_libnl); }};
  std::vector<double> times[std::size(ways)];
  for (int round = 0; round < 101; ++round) {
    for (size_t way = 0; way < std::size(ways); ++way) {
      bool succeeds = calls::reset() == 0 && each.prepare() == 0;
      log_to_file = way == 1;
      const auto start = std::chrono::steady_clock::now();
      succeeds = ways[way]() == 0 && succeeds;
      const std::chrono::duration<double, std::micro> time =
          std::chrono::steady_clock::now() - start;
      log_to_file = 0;
      if (!succeeds) {
        fprintf(stderr, "datapath_bench: %s failed\n", each.name);
        exit(EXIT_FAILURE);
      }
      times[way].push_back(time.count());
    }
  }
  printf("| %s |", each.name);
  for (auto& of_way : times) {
    std::ranges::sort(of_way);
    printf(" %.0f |", of_way[of_way.size() / 2]);
  }
  printf("\n");
}

}  // namespace

int main() {
  const tavik_wlan::Emulator emulator("@datapath_bench." + std::to_string(getpid()));
  corvil_netlink_set_emulator(emulator.path().c_str());
  logging_fd = fopen("/dev/null", "w");
  printf(
      "| microseconds | library | with a log file | libmnl | libnl |\n|---|---:|---:|---:|---:|\n");
  for (const Case& each : kCases) {
    measure(each);
  }
  return 0;
}
