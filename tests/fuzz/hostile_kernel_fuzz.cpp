// The library on the reference host, whose kernel answers with anything. Input: a sequence of
// calls, and for every request that they send the datagrams that come back. Whatever they are, each
// call returns, and once the kernel behaves again all goes well from the second call on.

#include <arpa/inet.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sanitizer/msan_interface.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "host_interfaces/corvil_log_services.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "tests/fuzz/require.h"

namespace {

using fuzz::require;

constexpr uint16_t kFamilyId = 0x2a;

std::string as_bytes(const auto& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

std::string padded(std::string bytes) {
  bytes.resize(NLMSG_ALIGN(bytes.size()));
  return bytes;
}

std::string attribute(uint16_t type, const std::string& payload) {
  const nlattr header{static_cast<uint16_t>(NLA_HDRLEN + payload.size()), type};
  return padded(as_bytes(header) + payload);
}

std::string message(uint16_t type, uint16_t flags, uint32_t sequence, const std::string& payload) {
  const auto length = static_cast<uint32_t>(NLMSG_HDRLEN + payload.size());
  return padded(as_bytes(nlmsghdr{length, type, flags, sequence, 0}) + payload);
}

/// The controller's answer to a query for the family.
std::string family(uint32_t sequence, uint16_t id, uint32_t version) {
  return message(GENL_ID_CTRL, 0, sequence,
                 as_bytes(genlmsghdr{CTRL_CMD_NEWFAMILY, 2, 0}) +
                     attribute(CTRL_ATTR_FAMILY_ID, as_bytes(id)) +
                     attribute(CTRL_ATTR_VERSION, as_bytes(version)));
}

std::string acknowledgement(uint32_t sequence, int error, uint16_t flags,
                            const std::string& extended) {
  return message(NLMSG_ERROR, flags, sequence, as_bytes(nlmsgerr{error, {}}) + extended);
}

/// The end of any exchange: a dump takes the second message for it, the others the first.
std::string end(uint32_t sequence) {
  return acknowledgement(sequence, 0, NLM_F_CAPPED, "") +
         message(NLMSG_DONE, NLM_F_MULTI, sequence, as_bytes(int{0}));
}

/// Answers what the trace hook shows before it is sent.
class Kernel {
 public:
  Kernel() {
    const char* temporary = getenv("TMPDIR");
    folder_ = std::string(temporary != nullptr ? temporary : "/tmp") + "/hostile_kernel.XXXXXX";
    require(mkdtemp(folder_.data()) != nullptr);
    const std::string path = folder_ + "/socket";
    sockaddr_un address{AF_UNIX, {}};
    require(path.size() < sizeof(address.sun_path));
    memcpy(address.sun_path, path.c_str(), path.size());
    require(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0);
    require(listen(listener_, 8) == 0);
    setenv("CORVIL_NETLINK_EMULATOR", path.c_str(), 1);
    setenv("CORVIL_NETLINK_TIMEOUT_MS", "1000", 1);
    corvil_netlink_set_trace(trace, this);
  }
  Kernel(const Kernel&) = delete;
  Kernel& operator=(const Kernel&) = delete;
  ~Kernel() {
    unlink((folder_ + "/socket").c_str());
    rmdir(folder_.c_str());
  }

  /// Answers from the input; null: as a kernel should.
  void answer_from(FuzzedDataProvider* input) { input_ = input; }

 private:
  static void trace(CorvilNetlinkDirection direction, const void* bytes, size_t /*length*/,
                    void* context) {
    if (direction == CORVIL_NETLINK_SENT) {
      static_cast<Kernel*>(context)->answer(*static_cast<const nlmsghdr*>(bytes));
    }
  }

  void answer(const nlmsghdr& request) {
    if (const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); peer != -1) {
      close(peer_);
      peer_ = peer;
    }
    if (input_ == nullptr) {
      const bool resolves = request.nlmsg_type == GENL_ID_CTRL;
      const std::string reply =
          resolves ? family(request.nlmsg_seq, kFamilyId, TAVIK_WLAN_FAMILY_VERSION) : "";
      put(reply + end(request.nlmsg_seq));
      return;
    }
    while (input_->ConsumeBool()) {
      std::string datagram;
      do {
        datagram += any_message(request);
      } while (input_->ConsumeBool());
      put(datagram);
    }
    if (input_->ConsumeBool()) {
      put(end(request.nlmsg_seq));
    } else {
      shutdown(peer_, SHUT_WR);
    }
  }

  std::string any_message(const nlmsghdr& request) {
    const auto sequence = request.nlmsg_seq - (input_->ConsumeIntegral<uint8_t>() == 1 ? 1 : 0);
    const auto flags = input_->ConsumeIntegral<uint16_t>();
    switch (input_->ConsumeIntegralInRange(0, 5)) {
      case 0:
        return family(sequence, input_->ConsumeBool() ? kFamilyId : 0,
                      input_->ConsumeIntegralInRange(0U, 2U));
      case 1:
        return acknowledgement(sequence, -input_->ConsumeIntegralInRange(-1, 4096), flags, bytes());
      case 2:
        return message(NLMSG_DONE, flags, sequence, bytes());
      case 3:
        return message(request.nlmsg_type, flags, sequence, bytes());
      case 4:
        return message(request.nlmsg_type, flags, sequence,
                       as_bytes(genlmsghdr{TAVIK_WLAN_CMD_GET_TUPLES, 1, 0}) +
                           attribute(TAVIK_WLAN_ATTR_TUPLES | NLA_F_NESTED, elements()));
      default:
        return bytes();
    }
  }

  std::string elements() {
    std::string list;
    while (input_->ConsumeBool()) {
      list += attribute(TAVIK_WLAN_TUPLE_ELEMENT | NLA_F_NESTED,
                        attribute(TAVIK_WLAN_TUPLE_ATTR, bytes()));
    }
    return list + bytes();
  }

  std::string bytes() { return input_->ConsumeRandomLengthString(64); }

  void put(const std::string& datagram) const {
    send(peer_, datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  const int listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int peer_ = -1;
  std::string folder_;
  FuzzedDataProvider* input_ = nullptr;
};

/// The result of one of the fourteen calls.
int call(unsigned which) {
  constexpr PortDescriptor kPorts[] = {{4, 6, 443}, {6, 17, 4500}};
  const IpsecInfo flow = {{}, htonl(0x1001)};
  const uint16_t port = htons(4500);
  switch (which) {
    case 0:
      return corvil_datapath_proxy_set_config_info("wlan0", "wlan0", "wwan0", kPorts, 2, 1);
    case 1:
      return corvil_datapath_proxy_unset_config_info("wlan0", "wlan0", "wwan0", kPorts, 2, 1);
    case 2:
      return corvil_datapath_proxy_update_config_info(kPorts, 1, kPorts + 1, 1);
    case 3:
      return corvil_datapath_proxy_unset_reverse_dev_mapping(1, "wlan0", "wwan0");
    case 4:
      return corvil_datapath_proxy_flush_config_info();
    case 5:
      return corvil_datapath_proxy_add_ipsec_info(&flow, "192.0.2.1");
    case 6:
      return corvil_datapath_proxy_delete_ipsec_info(&flow, "2001:db8::1");
    case 7:
      return corvil_datapath_proxy_set_udp_encap_port(port);
    case 8:
      return corvil_datapath_proxy_unset_udp_encap_port(port);
    case 9:
      return corvil_datapath_proxy_act_encap_port_pass_through(port);
    case 10:
      return corvil_datapath_proxy_act_encap_port_drop(port);
    case 11:
      return corvil_datapath_proxy_add_ll_dst_addr("10.0.0.1", "10.0.0.2", port, port);
    case 12:
      return corvil_datapath_proxy_flush_ll_dst_addr();
    default:
      return corvil_datapath_proxy_get_port_tuple();
  }
}

}  // namespace

#if __has_feature(memory_sanitizer)
/// libmnl asks for a socket's address. It isn't instrumented, so what it passes seems unset.
extern "C" int getsockname(int fd, sockaddr* address, socklen_t* length) {
  __msan_unpoison(length, sizeof(*length));
  const auto result = static_cast<int>(syscall(SYS_getsockname, fd, address, length));
  __msan_unpoison(address, *length);
  return result;
}
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Kernel kernel;
  corvil_log_set_diagnostic_handler(
      [](const LogSiteDescriptor*, const char*, const char*, void*) {}, nullptr);
  zu_log_mask = ZU_LOG_MASK_DIAGNOSTIC;

  FuzzedDataProvider input(data, size);
  kernel.answer_from(&input);
  for (int calls = 0; calls < 4; ++calls) {
    const int result = call(input.ConsumeIntegralInRange(0U, 13U));
    require(result == 0 || result == -1);
  }
  kernel.answer_from(nullptr);
  call(4);  // Finds what is left of the answers: datagrams, or a connection that was hung up.
  require(call(0) == 0);
  require(call(13) == 0 && corvil_netlink_last_error()->error == 0);
  corvil_port_tree_clear();
  return 0;
}
