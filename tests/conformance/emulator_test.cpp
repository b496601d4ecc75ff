// What no other kernel can be told to do: the library survives an emulated one that goes away and
// one with injected faults. And what no other kernel has: files.

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <barrier>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/control.h"
#include "reference_kernel/emulator/emulator.h"
#include "reference_kernel/emulator/unix_socket.h"
#include "tests/support/netlink_bytes.h"

namespace {

using namespace std::string_literals;
using tavik_wlan::FileDescriptor;

/// A socket after `use`, which is bind() or connect(), to a path.
template <typename Use>
FileDescriptor make_socket(Use use, const std::string& path) {
  FileDescriptor made(socket(AF_UNIX, SOCK_SEQPACKET, 0));
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  EXPECT_EQ(use(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0) << path;
  return made;
}

class EmulatorTest : public ::testing::Test {
 protected:
  EmulatorTest() {
    setenv("CORVIL_NETLINK_EMULATOR", path_.c_str(), 1);
    setenv("CORVIL_NETLINK_TIMEOUT_MS", "300", 1);
  }

  const std::string path_ = ::testing::TempDir() + "emulator_test." + std::to_string(getpid());
  std::optional<tavik_wlan::Emulator> emulator_{path_};
};

TEST_F(EmulatorTest, ReplacesAndRemovesNoFileButItsOwn) {
  struct stat file {};
  EXPECT_EQ(lstat(path_.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0600U);
  EXPECT_THROW(tavik_wlan::Emulator{path_}, std::system_error) << "beside a live one";
  std::filesystem::remove(path_);
  std::optional<tavik_wlan::Emulator> successor(path_);
  emulator_.reset();
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  successor.reset();
  EXPECT_FALSE(std::filesystem::exists(path_));
  make_socket(bind, path_);
  successor.emplace(path_);
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0) << "in place of a dead one";
  successor.reset();
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), -1);
  std::ofstream(path_) << "of another program";
  EXPECT_THROW(tavik_wlan::Emulator{path_}, std::system_error);
  EXPECT_TRUE(std::filesystem::remove(path_));
}

TEST_F(EmulatorTest, GivesTheFileOfADeadOneToOneOfItsRivals) {
  const std::string path = path_ + ".dead";
  for (int round = 0; round < 500; ++round) {
    make_socket(bind, path);
    std::array<std::optional<tavik_wlan::Listener>, 4> rivals;
    std::barrier start(rivals.size());
    {
      std::vector<std::jthread> threads;
      threads.reserve(rivals.size());
      for (auto& rival : rivals) {
        threads.emplace_back([&start, &path, &rival] {
          start.arrive_and_wait();
          try {
            rival.emplace(path);
          } catch (const std::system_error&) {
          }
        });
      }
    }
    ASSERT_EQ(std::ranges::count_if(rivals, [](const auto& rival) { return rival.has_value(); }), 1)
        << "in round " << round;
  }
}

TEST_F(EmulatorTest, AnswersEachMessageOfADatagram) {
  using netlink_bytes::generic;
  using netlink_bytes::message;
  using netlink_bytes::raw;
  const std::string silent = message(28, NLM_F_REQUEST, 1, generic(7, "\6\0\5\0\1\2"s));
  const std::string no_request = message(28, NLM_F_ACK, 2, generic(9, ""), 77);
  const std::string unpadded = message(28, NLM_F_REQUEST | NLM_F_ACK, 3, silent.substr(16, 10));
  const FileDescriptor client = make_socket(connect, path_);
  // What follows a length that cannot be is passed over.
  const std::string requests = silent + no_request + unpadded + raw(15) + no_request.substr(4);
  send(client.get(), requests.data(), requests.size(), 0);
  std::string answers(1000, '\0');
  for (const std::string& acknowledged : {no_request, unpadded}) {
    const ssize_t size = recv(client.get(), answers.data(), answers.size(), 0);
    const auto* request = reinterpret_cast<const nlmsghdr*>(acknowledged.data());
    EXPECT_EQ(answers.substr(0, static_cast<size_t>(size)),
              message(NLMSG_ERROR, NLM_F_CAPPED, request->nlmsg_seq,
                      raw(0) + acknowledged.substr(0, 16), request->nlmsg_pid));
  }
  EXPECT_EQ(emulator_->state(), "encap 258\n");
}

TEST_F(EmulatorTest, InjectsFaultsWithoutHarm) {
  const struct {
    const char* faults;
    int error;  // the exchange's, or the kernel's
  } cases[] = {
      {"silent", ETIMEDOUT}, {"delay=20", 0}, {"delay=400", ETIMEDOUT}, {"truncate=18", EBADMSG},
      {"garbage", EBADMSG},  {"stale", 0},    {"family-id=999", 0},     {"absent", ENOENT},
  };
  for (const auto& [faults, error] : cases) {
    SCOPED_TRACE(faults);
    emulator_->inject(faults);
    EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), error == 0 ? 0 : -1);
    EXPECT_EQ(corvil_netlink_last_error()->error, error);
    emulator_->inject(error == 0 ? "interrupt=2" : "interrupt=4");
    EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0) << "only the log tells";
    EXPECT_EQ(corvil_netlink_last_error()->error, error == 0 ? 0 : EINTR);
  }
  emulator_->inject("refuse=2:EPERM");
  for (const int result : {0, -1, 0}) {
    EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), result) << "the second alone is refused";
  }
}

/// The copies that a monitor gets up to one that tells of lost ones or, unless it is to tell, an
/// acknowledgement.
std::vector<tavik_wlan::MonitoredDatagram> next_copies(tavik_wlan::ControlClient& monitor,
                                                       bool tells_lost = false) {
  std::vector<tavik_wlan::MonitoredDatagram> copies;
  bool is_last = false;
  while (!is_last) {
    const auto& copy = copies.emplace_back(monitor.next().value());
    is_last = tells_lost ? copy.lost > 0 : copy.bytes[4] == NLMSG_ERROR;
  }
  return copies;
}

TEST_F(EmulatorTest, ShowsAMonitorWhatItReadsInTime) {
  size_t exchanged = 0;
  corvil_netlink_set_trace([](CorvilNetlinkDirection, const void*, size_t,
                              void* count) { ++*static_cast<size_t*>(count); },
                           &exchanged);
  tavik_wlan::ControlClient monitor(path_, std::chrono::seconds(20));
  monitor.monitor();
  std::vector<PortDescriptor> ports;
  for (uint16_t port = 0; port < 4000; ++port) {
    ports.push_back({4, 6, port});
  }
  for (int i = 0; i < 40; ++i) {  // 64 kB each
    ASSERT_EQ(corvil_datapath_proxy_update_config_info(ports.data(), 4000, nullptr, 0), 0);
  }
  const auto copies = next_copies(monitor, true);
  EXPECT_EQ(copies.size() - 1 + copies.back().lost, exchanged);
  corvil_netlink_set_trace(nullptr, nullptr);
  emulator_->inject("delay=20");
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  const auto later = next_copies(monitor);
  ASSERT_EQ(later.size(), 4U) << "look-up and request with their answers, none of them lost";
  EXPECT_GE(later[3].time - later[0].time, std::chrono::milliseconds(40));
  for (const auto& copy : later) {
    EXPECT_EQ(copy.pid, getpid());
    EXPECT_EQ(copy.port_id, later[0].port_id);
  }
  emulator_.reset();
  EXPECT_FALSE(monitor.next().has_value());
}

}  // namespace
