// The library on the reference host, against the emulated kernel over a real socket.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "datapath_proxy/include/corvil_datapath_proxy.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
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

  static constexpr PortDescriptor kPorts[] = {{4, 6, 443}, {6, 17, 4500}};

  static int set_up() {
    return corvil_datapath_proxy_set_config_info("wlan0", "wlan0", "wwan0", kPorts, 2, 1);
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
  EXPECT_EQ(corvil_datapath_proxy_act_encap_port_drop(htons(4500)), 0);
  EXPECT_EQ(corvil_datapath_proxy_act_encap_port_pass_through(htons(4500)), 0);
  const IpsecInfo flow = {{}, htonl(0x1001)};
  EXPECT_EQ(corvil_datapath_proxy_add_ipsec_info(&flow, "2001:db8::1"), 0);
  for (int i = 0; i < 2; ++i) {  // the second time it is there already
    EXPECT_EQ(corvil_datapath_proxy_add_ll_dst_addr("10.0.0.1", "10.0.0.2", htons(1), htons(2)), 0);
  }
  EXPECT_EQ(emulator_->state(),
            "tuple ipv4 tcp 443\n"
            "tuple ipv6 udp 4500\n"
            "tuple ipv6 esp 0x00001001\n"
            "device 1 wlan0\n"
            "forward 1 wwan0 wlan0\n"
            "encap 4500 pass-through\n"
            "lowlat 10.0.0.1 1 10.0.0.2 2\n");

  EXPECT_EQ(corvil_datapath_proxy_unset_udp_encap_port(htons(500)), -1);
  EXPECT_EQ(corvil_netlink_last_error()->error, ENOENT);
  EXPECT_EQ(corvil_datapath_proxy_unset_udp_encap_port(htons(4500)), 0);
  EXPECT_EQ(corvil_datapath_proxy_delete_ipsec_info(&flow, "::"), 0);
  EXPECT_EQ(corvil_datapath_proxy_flush_ll_dst_addr(), 0);
  EXPECT_EQ(emulator_->state(), kSetUpState);

  // Once more: ports and forwarding pair may be there already, the device may not.
  EXPECT_EQ(set_up(), -1);
  EXPECT_EQ(corvil_netlink_last_error()->error, EEXIST);
  EXPECT_EQ(emulator_->state(), kSetUpState);

  const PortDescriptor other = {4, 17, 53};
  EXPECT_EQ(corvil_datapath_proxy_update_config_info(&other, 1, kPorts, 2), 0);
  EXPECT_EQ(corvil_datapath_proxy_unset_reverse_dev_mapping(1, "wlan0", "wwan0"), 0);
  EXPECT_EQ(emulator_->state(), "tuple ipv4 udp 53\ndevice 1 wlan0\n");
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  EXPECT_EQ(emulator_->state(), "");

  EXPECT_EQ(set_up(), 0);
  EXPECT_EQ(corvil_datapath_proxy_unset_config_info("wlan0", "wlan0", "wwan0", kPorts, 2, 1), 0);
  EXPECT_EQ(emulator_->state(), "");
}

TEST_F(SystemTest, ReadsSixtyThousandTuplesBack) {
  setenv("CORVIL_NETLINK_TIMEOUT_MS", "20000", 1);
  std::vector<PortDescriptor> ports;
  for (uint32_t i = 0; i < 60000; ++i) {
    ports.push_back({i % 2 == 0 ? 4U : 6U, i % 4 < 2 ? 6U : 17U, static_cast<uint16_t>(i / 4)});
    if (ports.size() == 4000) {
      ASSERT_EQ(corvil_datapath_proxy_update_config_info(ports.data(), 4000, nullptr, 0), 0);
      ports.clear();
    }
  }
  corvil_port_tree_clear();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
  // A fraction of a second; the rest is for sanitizers and busy machines.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(corvil_port_tree_count(), 60000U);

  emulator_->misbehave({.interrupted_dumps = 2});
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
  EXPECT_EQ(corvil_netlink_last_error()->error, 0) << "asked again until the dump was whole";
  emulator_->misbehave({.interrupted_dumps = 100});
  EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0) << "only the log tells";
  EXPECT_EQ(corvil_netlink_last_error()->error, EINTR);
}

TEST_F(SystemTest, ServesEightThreadsAtOnce) {
  setenv("CORVIL_NETLINK_TIMEOUT_MS", "20000", 1);
  std::atomic<bool> resets = false;  // then no other result is sure
  const auto drive = [&](uint32_t selector) {
    const auto expect = [&](int wanted, int result) { EXPECT_TRUE(resets || result == wanted); };
    const std::string device = "wlan" + std::to_string(selector);
    const PortDescriptor port = {4, 6, static_cast<uint16_t>(selector)};
    const PortDescriptor other = {6, 17, static_cast<uint16_t>(selector)};
    const IpsecInfo flow = {{}, htonl(selector)};
    for (int i = 0; i < 20; ++i) {
      expect(0,
             corvil_datapath_proxy_set_config_info(device.c_str(), "a", "b", &port, 1, selector));
      expect(0, corvil_datapath_proxy_add_ipsec_info(&flow, "::"));
      EXPECT_EQ(corvil_datapath_proxy_add_ll_dst_addr("::1", "::2", port.port, 0), 0);
      EXPECT_EQ(corvil_datapath_proxy_get_port_tuple(), 0);
      expect(0, corvil_datapath_proxy_update_config_info(&other, 1, &port, 1));
      expect(0, corvil_datapath_proxy_delete_ipsec_info(&flow, "::"));
      EXPECT_EQ(corvil_datapath_proxy_set_udp_encap_port(port.port), 0);
      // Whose port is set is a matter of luck.
      corvil_datapath_proxy_act_encap_port_drop(port.port);
      corvil_datapath_proxy_act_encap_port_pass_through(port.port);
      corvil_datapath_proxy_unset_udp_encap_port(port.port);
      expect(0, corvil_datapath_proxy_unset_config_info(device.c_str(), "a", "b", &other, 1,
                                                        selector));
      expect(-1, corvil_datapath_proxy_unset_reverse_dev_mapping(selector, "a", "b"));
      EXPECT_EQ(corvil_datapath_proxy_flush_ll_dst_addr(), 0);
      if (resets) {
        EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
      }
    }
  };
  const auto drive_all = [&] {
    std::vector<std::thread> threads;
    for (uint32_t selector = 1; selector <= 8; ++selector) {
      threads.emplace_back(drive, selector);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  };
  drive_all();
  const std::string state = emulator_->state();
  EXPECT_TRUE(state.empty() || state.starts_with("encap ")) << state;
  resets = true;
  drive_all();
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

TEST_F(SystemTest, FailsWithoutAKernelAndFindsItAgain) {
  const auto restart = [this] {
    emulator_ = std::make_unique<tavik_wlan::Emulator>(folder_ + "/kernel");
  };
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
  emulator_.reset();
  restart();
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0) << "the kept socket's peer has gone";
  emulator_.reset();
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), -1);
  restart();
  EXPECT_EQ(corvil_datapath_proxy_flush_config_info(), 0);
}

}  // namespace
