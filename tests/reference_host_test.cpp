// The host's libraries: netlink against a scripted peer and against this machine's kernel, the
// attribute functions on raw bytes, the diagnostic service, the port tree.
#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "reference_host/log/corvil_log_control.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"

namespace {

/// Bytes of hexadecimal digits and blanks, fields as little-endian hosts hold them. S stands for
/// the 4 bytes of a sequence number, O for those of the one before.
std::string bytes(const std::string& text, const std::array<std::string, 2>& sequences = {}) {
  std::string result;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == 'S' || text[at] == 'O') {
      result += sequences[text[at] == 'S' ? 0 : 1];
    } else if (text[at] != ' ') {
      result += static_cast<char>(std::stoi(text.substr(at++, 2), nullptr, 16));
    }
  }
  return result;
}

// What a peer answers to one request: datagrams; an empty one is the end of the connection.
using Answer = std::vector<std::string>;
const std::string kAck = "24000000 0200 0001 S 00000000 00000000 14000000 2000 0500 S 00000000";
const std::string kLate = "24000000 0200 0001 O 00000000 f0ffffff 14000000 2000 0500 O 00000000";
const std::string kDone = "14000000 0300 0200 S 00000000 00000000";
const std::string kDoneInterrupted = "14000000 0300 1200 S 00000000 00000000";

/// A part of a dump, with one byte of payload.
std::string part(const std::string& byte, const std::string& type_flags_sequence = "2000 0200 S") {
  return "18000000" + type_flags_sequence + "00000000 0e010000" + byte + "000000";
}

/// Listens as an emulated kernel does and answers from a script; once it has ended, with kAck.
class FakeKernel {
 public:
  explicit FakeKernel(std::vector<Answer> script = {}, const char* timeout_ms = "5000")
      : script_(std::move(script)) {
    sockaddr_un address{AF_UNIX, {}};
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(0, bind(polled_[0].fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    EXPECT_EQ(0, listen(polled_[0].fd, 8));
    setenv("CORVIL_NETLINK_EMULATOR", path_.c_str(), 1);
    setenv("CORVIL_NETLINK_TIMEOUT_MS", timeout_ms, 1);
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeKernel() {
    shutdown(polled_[0].fd, SHUT_RDWR);
    thread_.join();
    for (const pollfd& polled : polled_) {
      close(polled.fd);
    }
    unlink(path_.c_str());
    unsetenv("CORVIL_NETLINK_EMULATOR");
  }

  [[nodiscard]] int connections() const { return connections_; }

 private:
  void serve() {
    // A signal ends poll() with no events.
    while (poll(polled_.data(), polled_.size(), -1) != 0 && (polled_[0].revents & POLLHUP) == 0) {
      for (size_t i = 1; i < polled_.size(); ++i) {
        if (polled_[i].revents != 0 && !serve_one(polled_[i].fd)) {
          close(std::exchange(polled_[i].fd, -1));  // poll() passes over it.
        }
      }
      if (polled_[0].revents != 0) {
        polled_.push_back({accept4(polled_[0].fd, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
        ++connections_;
      }
    }
  }

  /// Returns false when the connection is to end.
  bool serve_one(int peer) {
    std::array<char, 256> request{};
    if (recv(peer, request.data(), request.size(), 0) < NLMSG_HDRLEN) {
      return false;
    }
    sequences_[1] = std::exchange(sequences_[0], std::string(&request[8], 4));
    for (const std::string& datagram : next_ < script_.size() ? script_[next_++] : Answer{kAck}) {
      const std::string raw = bytes(datagram, sequences_);
      if (raw.empty() || send(peer, raw.data(), raw.size(), MSG_NOSIGNAL) == -1) {
        return false;
      }
    }
    return true;
  }

  const std::string path_ = testing::TempDir() + "fake_kernel." + std::to_string(getpid());
  // The listener, then the connections.
  std::vector<pollfd> polled_{{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), POLLIN, 0}};
  std::atomic<int> connections_ = 0;
  const std::vector<Answer> script_;
  size_t next_ = 0;
  std::array<std::string, 2> sequences_{"none"};  // The last one and the one before.
  std::thread thread_;
};

struct Request {
  nlmsghdr header{20, 32, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
  genlmsghdr generic{9, 1, 0};
};
const Request kRequest;

int transact(int* error = nullptr) {
  return corvil_netlink_transact(&kRequest.header, NETLINK_GENERIC, error);
}

int last_error() { return corvil_netlink_last_error()->error; }

/// What else is known: whether it is the kernel's, attribute offset, missing type and text.
std::string last_details() {
  const CorvilNetlinkError* last = corvil_netlink_last_error();
  return std::to_string(last->from_kernel) + " " + std::to_string(last->attribute_offset) + " " +
         std::to_string(last->missing_attribute) + " " + last->message;
}

/// Collects the first payload byte behind each reply's generic header.
int collect(const nlmsghdr* reply, void* replies) {
  EXPECT_EQ(-1, transact()) << "from inside an exchange";
  EXPECT_EQ(EBUSY, last_error());
  *static_cast<std::string*>(replies) += reinterpret_cast<const char*>(reply)[20];
  return 1;
}

TEST(Netlink, RefusalsReachSlotAndLastError) {
  const std::string plain = "S 00000000 eaffffff 14000000 2000 0500 S 00000000";
  const std::vector<std::pair<std::string, std::string>> cases{
      {"24000000 0200 0001" + plain, "1 0 0 "},
      // All that is read of an extended acknowledgement: text, offset, missing type.
      {"3c000000 0200 0003" + plain + "0700 0100 62616400 0800 0200 14000000 0800 0500 06000000",
       "1 20 6 bad"},
      // Text without its NUL, a number that is too short, an attribute that runs out.
      {"3c000000 0200 0003" + plain + "0600 0100 6e6f0000 0600 0200 14000000 0900 0500 06000000",
       "1 0 0 no"},
      // Behind the whole of a request, as it says; behind one that cannot be.
      {"30000000 0200 0002" + plain + "09010000 0700 0100 62616400", "1 0 0 bad"},
      {"2c000000 0200 0002 S 00000000 eaffffff ffffffff 2000 0500 S 00000000 0700 0100 62616400",
       "1 0 0 "},
  };
  for (const auto& [answer, details] : cases) {
    const FakeKernel kernel({{answer}});
    int error = 0;
    EXPECT_EQ(-1, transact(&error));
    EXPECT_EQ(-EINVAL, error);
    EXPECT_EQ(details, last_details());
    EXPECT_EQ(0, transact());
    EXPECT_EQ("0 0 0 ", last_details());
    EXPECT_EQ(1, kernel.connections());
  }
}

// Whatever an answer leaves unread must neither answer the next request nor stand in its way.
TEST(Netlink, QueriesDeliverEveryReplyOfTheirOwn) {
  struct Case {
    std::vector<Answer> answers;
    int dump;
    int error;
    std::string replies;
    int connections;  // With that of a transaction afterwards.
  };
  const std::string foreign = part("58", "2100 0200 S");
  const std::string late = part("59", "2000 0200 O");
  const std::vector<Case> cases{
      {{{part("61"), kAck, part("58")}}, 0, 0, "a", 1},
      {{{part("61"), foreign + part("62"), late, part("63") + kDone}}, 1, 0, "abc", 1},
      {{{kAck, part("61"), kDone}}, 1, 0, "a", 1},
      {{{"24000000 0200 0001 S 00000000 f0ffffff" + kAck.substr(38)}}, 1, EBUSY, "", 1},
      {{{part("61"), "1c000000 03000202S 00000000 f4ffffff 07000100 62616400"}}, 1, ENOMEM, "a", 1},
      // Interrupted dumps are drained and asked for again, up to three times.
      {{{part("61"), kDoneInterrupted}, {part("62"), kDone}}, 1, 0, "ab", 1},
      {std::vector<Answer>(4, {part("61", "2000 1200 S"), kDone}), 1, EINTR, "aaaa", 1},
      // What is left of a dump keeps the kernel from starting another one on the socket.
      {{{part("61")}}, 1, ETIMEDOUT, "a", 2},
      {{{"14000000 0200 0001 S 00000000 00000000", kAck}}, 0, EBADMSG, "", 2},
      {{{"24000080" + kAck.substr(8), kAck}}, 0, EBADMSG, "", 2},
      {{{kAck + "0f000000 0200 0001", kAck}}, 0, EBADMSG, "", 2},
      {{{"24000000 0200 0001 S 00000000 00000080" + kAck.substr(38), kAck}}, 0, EBADMSG, "", 2},
      {{{"04000200 1800 0000 S 00000000" + std::string(262120, '0'), kAck}}, 0, EMSGSIZE, "", 2},
      {{{""}}, 0, ECONNRESET, "", 2},
  };
  for (const auto& [answers, dump, error, expected, connections] : cases) {
    SCOPED_TRACE(answers[0][0].substr(0, 80));
    const FakeKernel kernel(answers, error == ETIMEDOUT ? "200" : "5000");
    std::string replies;
    EXPECT_EQ(error == 0 ? 0 : -1,
              corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, collect, &replies, dump));
    EXPECT_EQ(error, last_error());
    EXPECT_EQ(expected, replies);
    EXPECT_EQ(error == ENOMEM, last_details() == "1 0 0 bad");
    EXPECT_EQ(0, transact());
    EXPECT_EQ(connections, kernel.connections());
  }
}

TEST(Netlink, SilentPeerTimesOutInSpiteOfSignalsAndItsLateAnswerIsSkipped) {
  const FakeKernel kernel({{}, {kLate, kAck}}, "200");
  static_cast<void>(std::signal(SIGALRM, [](int) {}));
  int error = 0;
  ualarm(2000, 2000);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, transact(&error));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  ualarm(0, 0);
  EXPECT_EQ(ETIMEDOUT, last_error());
  EXPECT_EQ(0, transact(&error));
  EXPECT_EQ(0, error);
  EXPECT_EQ(1, kernel.connections());
}

TEST(Netlink, FamilyQueryWantsIdAndVersion) {
  const std::string head = "1000 0000 S 00000000 01020000";
  const std::vector<std::pair<std::string, int>> cases{
      {"24000000" + head + "0600 0100 2a000000 0800 0300 01000000", 0},
      {"24000000" + head + "0600 0100 2a000000 0800 0300 02000000", EPROTONOSUPPORT},
      {"24000000" + head + "0500 0100 2a000000 0800 0300 01000000", EBADMSG},
      {"10000000 1000 0000 S 00000000", EBADMSG},
  };
  uint16_t family = 0;
  for (const auto& [reply, error] : cases) {
    const FakeKernel kernel({{reply, kAck}});
    EXPECT_EQ(error == 0 ? 0 : -1, corvil_netlink_query_genl("FIFTEEN_LETTERS", 1, &family));
    EXPECT_EQ(error, last_error()) << reply;
    EXPECT_EQ(42, family);
  }
  EXPECT_EQ(-1, corvil_netlink_query_genl("SIXTEEN__LETTERS", 1, &family));
  EXPECT_EQ(EINVAL, last_error());
}

TEST(Netlink, ThreadsAndForksHaveConnectionsOfTheirOwn) {
  const FakeKernel kernel;
  EXPECT_EQ(0, transact());
  EXPECT_EXIT(_exit(-transact()), testing::ExitedWithCode(0), "");
  std::thread other([] { EXPECT_EQ(0, transact()); });
  EXPECT_EQ(0, transact());
  other.join();
  EXPECT_EQ(3, kernel.connections());
}

TEST(Netlink, RealKernelIsBelievedAndNobodyElse) {
  int forger = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
  if (forger == -1) {
    GTEST_SKIP() << "no netlink sockets here";
  }
  const Request get_families{{20, GENL_ID_CTRL, NLM_F_REQUEST, 0, 0}, {CTRL_CMD_GETFAMILY, 1, 0}};
  std::string replies;
  EXPECT_EQ(0, corvil_netlink_query(&get_families.header, NETLINK_GENERIC, collect, &replies, 1));
  EXPECT_LT(0U, replies.size());
  uint16_t family = 0;
  EXPECT_EQ(0, corvil_netlink_query_genl("nlctrl", 2, &family));
  EXPECT_EQ(GENL_ID_CTRL, family);

  // The first query tells the victim's address; a forger with CAP_NET_ADMIN refuses the second.
  const auto forge = [](CorvilNetlinkDirection direction, const void* data, size_t, void* context) {
    const nlmsghdr header = *static_cast<const nlmsghdr*>(data);
    if (direction == CORVIL_NETLINK_RECEIVED) {
      const sockaddr_nl victim{AF_NETLINK, 0, header.nlmsg_pid, 0};
      const auto* address = reinterpret_cast<const sockaddr*>(&victim);
      static_cast<void>(connect(*static_cast<int*>(context), address, sizeof(victim)));
      return;
    }
    const std::array<uint32_t, 9> forged{36, NLMSG_ERROR, header.nlmsg_seq, 0, uint32_t{0} - EXDEV};
    send(*static_cast<int*>(context), &forged, sizeof(forged), 0);
  };
  corvil_netlink_set_trace(forge, &forger);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(-1, corvil_netlink_query_genl("NO_SUCH_FAMILY", 1, &family));
    EXPECT_EQ(ENOENT, last_error());
    EXPECT_EQ("1 0 0 netlink family NO_SUCH_FAMILY is not available", last_details());
  }
  corvil_netlink_set_trace(nullptr, nullptr);
  close(forger);
}

TEST(Attributes, PutAppendsAligned) {
  alignas(nlmsghdr) std::array<char, 70000> buffer;
  buffer.fill('U');
  auto* message = reinterpret_cast<nlmsghdr*>(buffer.data());
  message->nlmsg_len = 17;
  EXPECT_EQ(0, corvil_nla_put(message, 0x8001, 0, nullptr));
  EXPECT_EQ(0, corvil_nla_put(message, 2, 6, "wlan0"));
  EXPECT_EQ(-1, corvil_nla_put(message, 3, 65532, buffer.data()));
  EXPECT_EQ(36U, message->nlmsg_len);
  EXPECT_EQ(bytes("55000000 0400 0180 0a00 0200 776c616e 30000000 55555555"),
            std::string(&buffer[16], 24));
}

TEST(Attributes, ParseStaysInsideTheRun) {
  struct Case {
    std::string run;
    int result;
    std::array<std::ptrdiff_t, 4> offsets;  // By type; -1: null.
  };
  const std::vector<Case> cases{
      {"", 0, {-1, -1, -1, -1}},
      {"0800 0100 01020304  0500 0380 ff000000", 0, {-1, 0, -1, 8}},
      {"0400 0000  0400 0400  0400 0140  0500 01c0 ff", 0, {0, 12, -1, -1}},
      {"0400 0100  0000 0200 00000000", -1, {-1, 0, -1, -1}},
      {"0400 0100  0900 0200 00000000", -1, {-1, 0, -1, -1}},
      {"0400 0100  0400", -1, {-1, 0, -1, -1}},
  };
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  char* unreadable = static_cast<char*>(pages) + page;
  ASSERT_EQ(0, mprotect(unreadable, page, PROT_NONE));
  for (const Case& parse : cases) {
    SCOPED_TRACE(parse.run);
    const std::string run = bytes(parse.run);
    char* start = unreadable - (run.size() + 3) / 4 * 4;
    run.copy(start, run.size());
    const nlattr stray{};
    std::array<const nlattr*, 5> table{&stray, &stray, &stray, &stray, &stray};
    EXPECT_EQ(parse.result, corvil_nla_parse(reinterpret_cast<const nlattr*>(start), table.data(),
                                             static_cast<uint32_t>(run.size()), 3));
    for (size_t type = 0; type < parse.offsets.size(); ++type) {
      const auto* found = reinterpret_cast<const char*>(table[type]);
      EXPECT_EQ(parse.offsets[type], found == nullptr ? -1 : found - start);
    }
    EXPECT_EQ(&stray, table[4]);
  }
  munmap(pages, 2 * page);
}

TEST(Log, DiagnosticMessageIsOneLine) {
  std::string seen;
  const auto add = [](const LogSiteDescriptor*, const char* line, const char*, void* context) {
    *static_cast<std::string*>(context) += std::string(line) + "|";
  };
  corvil_log_set_diagnostic_handler(add, &seen);
  const LogSiteDescriptor error{120, 65, 8, "%s %d\n\n", "a.cpp"};
  msg_sprintf(&error, "100%", -1);
  msg_sprintf(&error, std::string(5000, 'x').c_str(), 0);
  corvil_log_set_diagnostic_handler(nullptr, nullptr);
  const std::string head = "subsystem 65 ERR a.cpp:120: ";
  EXPECT_EQ(head + "100% -1|" + head + std::string(4095 - head.size(), 'x') + "|", seen);
}

TEST(PortTree, HoldsKnownPortsOnceAndInOrder) {
  EXPECT_EQ(0, corvil_port_utils_add_port_from_kernel(443, 6, 17));
  for (const uint16_t port : std::array<uint16_t, 3>{65535, 80, 80}) {
    EXPECT_EQ(0, corvil_port_utils_add_port_from_kernel(port, 4, 6));
  }
  EXPECT_EQ(-1, corvil_port_utils_add_port_from_kernel(80, 5, 6));
  EXPECT_EQ(-1, corvil_port_utils_add_port_from_kernel(80, 4, 1));
  std::string listed;
  const auto list = [](const CorvilPort* port, void* context) {
    *static_cast<std::string*>(context) += std::to_string(port->port) + " ";
  };
  corvil_port_tree_visit(list, &listed);
  EXPECT_EQ("80 65535 443 ", listed);
}

}  // namespace
