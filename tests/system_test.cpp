// The library on the reference host, against the emulated kernel over a real socket.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_kernel/emulator/emulator.h"

namespace {

using tavik_wlan::Misbehaviour;

class SystemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string folder = ::testing::TempDir() + "system_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    folder_ = folder;
    emulator_ = std::make_unique<tavik_wlan::Emulator>(folder_ + "/kernel");
    setenv("CORVIL_NETLINK_EMULATOR", emulator_->path().c_str(), 1);
    setenv("CORVIL_NETLINK_TIMEOUT_MS", "300", 1);
  }

  void TearDown() override {
    emulator_.reset();
    std::filesystem::remove_all(folder_);
  }

  static int set_up() {
    const PortDescriptor ports[] = {{4, 6, 443}, {6, 17, 4500}};
    return corvil_datapath_proxy_set_config_info("wlan0", "wlan0", "wwan0", ports, 2, 1);
  }

  std::string folder_;
  std::unique_ptr<tavik_wlan::Emulator> emulator_;
};

const std::string kSetUpState =
    "tuple ipv4 tcp 443\n"
    "tuple ipv6 udp 4500\n"
    "device 1 wlan0\n"
    "forward 1 wwan0 wlan0\n";

TEST_F(SystemTest, ConfiguresTheKernel) {
  EXPECT_EQ(set_up(), 0);
  EXPECT_EQ(corvil_datapath_proxy_set_udp_encap_port(htons(4500)), 0);
  EXPECT_EQ(emulator_->state(), kSetUpState + "encap 4500\n");

  EXPECT_EQ(corvil_datapath_proxy_unset_udp_encap_port(htons(500)), -1);
  EXPECT_EQ(corvil_netlink_last_error()->error, ENOENT);
  EXPECT_EQ(corvil_datapath_proxy_unset_udp_encap_port(htons(4500)), 0);
  EXPECT_EQ(emulator_->state(), kSetUpState);

  // Once more: ports and forwarding pair may be there already, the device may not.
  EXPECT_EQ(set_up(), -1);
  EXPECT_EQ(corvil_netlink_last_error()->error, EEXIST);
  EXPECT_EQ(emulator_->state(), kSetUpState);

  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  EXPECT_EQ(emulator_->state(), "");
}

TEST_F(SystemTest, SendsAsManyPortsAsOneRequestHolds) {
  std::vector<PortDescriptor> ports(4096);
  for (size_t i = 0; i < ports.size(); ++i) {
    ports[i] = {4, 6, static_cast<uint16_t>(i)};
  }
  const auto set_up_with = [&](uint32_t count) {
    return corvil_datapath_proxy_set_config_info("wlan0", "a", "b", ports.data(), count, 0);
  };
  EXPECT_EQ(set_up_with(4096), -1);
  EXPECT_EQ(emulator_->state(), "");
  EXPECT_EQ(set_up_with(4095), 0);
  const std::string state = emulator_->state();
  EXPECT_EQ(std::count(state.begin(), state.end(), '\n'), 4095 + 2);
}

TEST_F(SystemTest, RefusesNamesThatTheKernelRefuses) {
  const auto set_device = [](const std::string& device) {
    return corvil_datapath_proxy_set_config_info(device.c_str(), "a", "b", nullptr, 0, 0);
  };
  EXPECT_EQ(set_device(std::string(70000, 'x')), -1) << "longer than an attribute";
  EXPECT_EQ(corvil_netlink_last_error()->error, EINVAL);
  EXPECT_EQ(set_device("sixteen_letters_"), -1);
  EXPECT_EQ(set_device(""), -1);
  EXPECT_EQ(set_device("fifteen_letters"), 0);
  EXPECT_EQ(emulator_->state(), "device 0 fifteen_letters\nforward 0 b a\n");
}

TEST_F(SystemTest, SurvivesAMisbehavingKernel) {
  struct Case {
    std::string name;
    Misbehaviour misbehaviour;
    int result;
    int error;  // the exchange's, or the kernel's
  };
  const std::vector<Case> cases = {
      {"never answers", {.silent = true}, -1, ETIMEDOUT},
      {"answers in time", {.delay_ms = 20}, 0, 0},
      {"answers too late", {.delay_ms = 400}, -1, ETIMEDOUT},
      {"cuts its answers", {.truncate = 18}, -1, EBADMSG},
      {"answers with garbage", {.garbage = true}, -1, EBADMSG},
      {"answers another request first", {.stale = true}, 0, 0},
      {"refuses", {.refuse_nth = 1, .refuse_error = EPERM}, -1, EPERM},
      {"has another id for the family", {.family_id = 999}, 0, 0},
      {"lost the family", {.absent = true}, -1, ENOENT},
  };
  for (const Case& misbehaving : cases) {
    SCOPED_TRACE(misbehaving.name);
    ASSERT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
    emulator_->misbehave(misbehaving.misbehaviour);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), misbehaving.result);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(corvil_netlink_last_error()->error, misbehaving.error);
    emulator_->misbehave({});
    EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0) << "the next call is well again";
  }
}

TEST_F(SystemTest, FailsWithoutAKernel) {
  emulator_.reset();
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), -1);
  emulator_ = std::make_unique<tavik_wlan::Emulator>(folder_ + "/kernel");
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
}

}  // namespace
