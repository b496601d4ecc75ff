// What others say to the family and hear from it.

#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include "datapathctl/operations.h"
#include "datapathctl/trace.h"
#include "host_interfaces/corvil_netlink.h"
#include "kernel_interface/tavik_wlan.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/control.h"
#include "reference_kernel/emulator/emulator.h"
#include "reference_kernel/emulator/unix_socket.h"

namespace datapathctl {
namespace {

using tavik_wlan::FileDescriptor;

/// More than a datagram of netlink has.
constexpr size_t kLongest = size_t{1} << 18;

/// The controller's group of those whom it tells of families that come and go. It is always there.
constexpr int kNotifications = GENL_ID_CTRL;

constexpr char kCapabilities[] =
    "it takes CAP_NET_ADMIN and CAP_NET_RAW in the user namespace of the network namespace";

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// The request that makes or removes a device of kind nlmon, which is up from the start.
struct DeviceRequest {
  nlmsghdr header{};
  ifinfomsg device{};
  nlattr name_header{.nla_len = sizeof(nlattr) + IFNAMSIZ, .nla_type = IFLA_IFNAME};
  char name[IFNAMSIZ]{};
  nlattr info_header{.nla_len = 2 * sizeof(nlattr) + 8, .nla_type = IFLA_LINKINFO | NLA_F_NESTED};
  nlattr kind_header{.nla_len = sizeof(nlattr) + 6, .nla_type = IFLA_INFO_KIND};
  char kind[8] = "nlmon";
};

/// A device of the kernel that gets a copy of each netlink message of the network namespace, for as
/// long as this is there.
class MonitorDevice {
 public:
  /// Tells by make() whether there is one.
  MonitorDevice() { snprintf(request_.name, sizeof(request_.name), "nlmon-%d", getpid()); }
  MonitorDevice(const MonitorDevice&) = delete;
  MonitorDevice& operator=(const MonitorDevice&) = delete;
  ~MonitorDevice() {
    if (is_made_) {
      transact(RTM_DELLINK, 0);
    }
  }

  Result make() {
    request_.device.ifi_flags = request_.device.ifi_change = IFF_UP;
    is_made_ = transact(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL) == 0;
    if (is_made_) {
      return {};
    }
    const int error = corvil_netlink_last_error()->error;
    return error == EOPNOTSUPP
               ? failure("the kernel has no devices of kind nlmon", "is the module nlmon there?")
               : failure("cannot make a device of kind nlmon: " +
                             std::generic_category().message(error),
                         error == EPERM ? kCapabilities : "");
  }

  [[nodiscard]] int index() const { return static_cast<int>(if_nametoindex(request_.name)); }

 private:
  int transact(uint16_t type, int flags) {
    request_.header.nlmsg_len = sizeof(request_);
    request_.header.nlmsg_type = type;
    request_.header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    return corvil_netlink_transact(&request_.header, NETLINK_ROUTE, nullptr);
  }

  DeviceRequest request_;
  bool is_made_ = false;
};

/// Has a packet socket get all that goes through a device.
void bind_to(const FileDescriptor& packets, int device) {
  // Enough for a burst of long dumps; where it is refused, the usual size has to do.
  const int size = 1 << 23;
  setsockopt(packets.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = device;
  if (bind(packets.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == -1) {
    fail("cannot watch the device of kind nlmon");
  }
}

/// A member of the controller's group. The kernel copies what the controller tells its group only
/// where the group has a member.
FileDescriptor join_notifications() {
  FileDescriptor socket(
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_GENERIC));
  // Without a port id, which this gives it, a socket gets nothing that is sent to a group.
  const sockaddr_nl address{.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = 0, .nl_groups = 0};
  if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
    fail("cannot watch the controller");
  }
  setsockopt(socket.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &kNotifications,
             sizeof(kNotifications));
  return socket;
}

/// An eventfd that becomes readable when SIGINT or SIGTERM comes.
int ended = -1;

/// Has SIGINT and SIGTERM end read_until_signal(), and a write that waits for a reader: each second
/// anew, for the write may begin, or go on, only after the signal. alarm(0) puts an end to that.
void catch_signals() {
  ended = eventfd(0, EFD_CLOEXEC);
  struct sigaction action {};
  action.sa_handler = [](int) {
    eventfd_write(ended, 1);
    alarm(1);
  };
  for (const int signal : {SIGINT, SIGTERM, SIGALRM}) {
    sigaction(signal, &action, nullptr);
  }
}

/// Calls `read` whenever there is something to read, until it returns false, output can't be
/// written, or a signal comes.
void read_until_signal(int fd, const std::function<bool()>& read) {
  std::array<pollfd, 2> awaited{{{ended, POLLIN, 0}, {fd, POLLIN, 0}}};
  while (awaited[0].revents == 0 && std::cout) {
    if (poll(awaited.data(), awaited.size(), -1) == -1) {
      continue;  // interrupted
    }
    if (awaited[1].revents != 0 && !read()) {
      return;
    }
  }
}

void tell_lost(uint64_t count) {
  if (count > 0) {
    std::cerr << "datapathctl: " << count << " messages were lost: they came too fast\n";
  }
}

/// Shows the generic netlink messages that wait at a packet socket.
void show_packets(const FileDescriptor& packets, std::vector<uint8_t>* buffer, Viewer* viewer) {
  sockaddr_ll from{};
  socklen_t size = sizeof(from);
  for (ssize_t length = 0; (length = recvfrom(packets.get(), buffer->data(), buffer->size(), 0,
                                              reinterpret_cast<sockaddr*>(&from), &size)) >= 0;) {
    if (from.sll_protocol == htons(NETLINK_GENERIC)) {
      viewer->show(std::span(*buffer).first(static_cast<size_t>(length)),
                   {.time = std::chrono::system_clock::now()});
    }
  }
  tpacket_stats statistics{};
  size = sizeof(statistics);
  getsockopt(packets.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &size);
  tell_lost(statistics.tp_drops);
}

Result monitor_kernel(const Settings& settings, uint16_t family_id) {
  // Of protocol 0, it gets nothing before it is bound.
  const FileDescriptor packets(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!packets.is_open()) {
    return failure("cannot open a packet socket: " + std::generic_category().message(errno),
                   errno == EPERM ? kCapabilities : "");
  }
  const FileDescriptor notifications = join_notifications();
  Viewer viewer(settings, family_id);
  MonitorDevice device;
  if (Result made = device.make(); !made.ok()) {
    return made;
  }
  bind_to(packets, device.index());
  std::vector<uint8_t> buffer(kLongest);
  read_until_signal(packets.get(), [&] {
    show_packets(packets, &buffer, &viewer);
    // What came here came there, too; this only keeps the socket from filling up.
    while (recv(notifications.get(), buffer.data(), buffer.size(), 0) >= 0) {
    }
    return true;
  });
  return {};
}

Result monitor_emulator(const Settings& settings, const std::string& path, uint16_t family_id) {
  return ask_emulator(path, [&](tavik_wlan::ControlClient& client) {
    client.monitor();
    Viewer viewer(settings, family_id);
    bool is_served = true;
    read_until_signal(client.fd(), [&] {
      const std::optional<tavik_wlan::MonitoredDatagram> copy = client.next();
      is_served = copy.has_value();
      if (is_served) {
        tell_lost(copy->lost);
        viewer.show(copy->bytes, {.time = copy->time, .client = copy->port_id, .pid = copy->pid});
      }
      return is_served;
    });
    return is_served ? Result{} : failure("the emulator has ended: " + path);
  });
}

}  // namespace

Result run_monitor(Session& session, const Command&) {
  const Settings& settings = session.settings();
  if (settings.emulate || settings.dry_run) {
    return usage_error("it watches a kernel, or the emulator of --socket");
  }
  catch_signals();
  corvil_netlink_set_timeout(settings.timeout_ms);
  if (!settings.socket.empty()) {
    corvil_netlink_set_emulator(settings.socket.c_str());
  }
  // Where there is no family yet, its id is learnt when it comes.
  uint16_t family_id = 0;
  corvil_netlink_query_genl(TAVIK_WLAN_FAMILY_NAME, TAVIK_WLAN_FAMILY_VERSION, &family_id);
  const std::string emulator = corvil_netlink_emulator();
  Result result = emulator.empty() ? monitor_kernel(settings, family_id)
                                   : monitor_emulator(settings, emulator, family_id);
  alarm(0);
  return result;
}

Result run_emulator(Session& session, const Command& command) {
  const Settings& settings = session.settings();
  catch_signals();
  tavik_wlan::Emulator emulator(command.path);
  emulator.inject(settings.faults);
  std::cout << (settings.json ? json_text({{"serving", command.path}})
                              : "serving TAVIK_WLAN at " + printable(command.path))
            << std::endl;
  Result result = monitor_emulator(settings, command.path, tavik_wlan::kFamilyId);
  // Where output can't be written it serves on.
  for (pollfd signal{.fd = ended, .events = POLLIN, .revents = 0}; poll(&signal, 1, -1) == -1;) {
  }
  alarm(0);
  return result;
}

}  // namespace datapathctl
