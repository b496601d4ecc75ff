// The host's libraries: netlink against a scripted peer and against this machine's kernel, the
// attribute functions on raw bytes, the diagnostic service, the port tree.
#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
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

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Bytes of hexadecimal digits, blanks between them of no meaning; multi-byte fields as
/// little-endian hosts hold them. S stands for the 4 bytes of a sequence number, O for those of the
/// one before.
std::string bytes(const std::string& text, const std::string& sequence = "",
                  const std::string& old = "") {
  std::string result;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == 'S' || text[at] == 'O') {
      result += text[at] == 'S' ? sequence : old;
    } else if (text[at] != ' ') {
      result += static_cast<char>(std::stoi(text.substr(at++, 2), nullptr, 16));
    }
  }
  return result;
}

// What a peer answers to one request: datagrams, or the end of the connection.
using Answer = std::vector<std::string>;
constexpr const char* kClose = "close";
constexpr const char* kAck = "24000000 0200 0001 S 00000000 00000000 14000000 2000 0500 S 00000000";
constexpr const char* kRefusal =
    "24000000 0200 0001 S 00000000 f0ffffff 14000000 2000 0500 S 00000000";
constexpr const char* kLateRefusal =
    "24000000 0200 0001 O 00000000 f0ffffff 14000000 2000 0500 O 00000000";
constexpr const char* kDone = "14000000 0300 0200 S 00000000 00000000";
constexpr const char* kDoneInterrupted = "14000000 0300 1200 S 00000000 00000000";

/// A part of a dump, with one byte of payload.
std::string part(const std::string& byte, const std::string& type_flags_sequence = "2000 0200 S") {
  return "18000000" + type_flags_sequence + "00000000 0e010000" + byte + "000000";
}

/// Listens as an emulated kernel does and answers from a script; once it has ended, with kAck.
class FakeKernel {
 public:
  struct Seen {
    std::vector<std::string> requests;  // Without their sequence numbers.
    size_t connections = 0;
  };

  FakeKernel() : path_(testing::TempDir() + "fake_kernel." + std::to_string(getpid())) {
    sockaddr_un address{AF_UNIX, {}};
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    EXPECT_EQ(0, listen(listener, 8));
    polled_ = {{listener, POLLIN, 0}};
    setenv("CORVIL_NETLINK_EMULATOR", path_.c_str(), 1);
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

  FakeKernel(const FakeKernel&) = delete;
  FakeKernel& operator=(const FakeKernel&) = delete;

  void answer(const std::vector<Answer>& answers) {
    const std::lock_guard lock(mutex_);
    script_.insert(script_.end(), answers.begin(), answers.end());
  }

  /// Also waits until the answer under way is given.
  Seen seen() {
    const std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  void serve() {
    while (poll(polled_.data(), polled_.size(), -1) > 0 && (polled_[0].revents & POLLHUP) == 0) {
      const std::lock_guard lock(mutex_);
      std::erase_if(polled_, [this](const pollfd& polled) {
        return &polled != polled_.data() && polled.revents != 0 && !serve_one(polled.fd);
      });
      if (polled_[0].revents != 0) {
        polled_.push_back({accept4(polled_[0].fd, nullptr, nullptr, SOCK_CLOEXEC), POLLIN, 0});
        ++seen_.connections;
      }
    }
  }

  /// Closes the connection where it returns false.
  bool serve_one(int peer) {
    std::array<char, 256> request{};
    const ssize_t size = recv(peer, request.data(), request.size(), 0);
    Answer answer{kClose};
    if (size > 12) {
      old_ = std::exchange(sequence_, std::string(&request[8], 4));
      seen_.requests.push_back(std::string(request.data(), static_cast<size_t>(size)).erase(8, 4));
      answer = script_.empty() ? Answer{kAck} : script_.front();
      script_.erase(script_.begin(), script_.begin() + (script_.empty() ? 0 : 1));
    }
    for (const std::string& datagram : answer) {
      if (datagram == kClose) {
        close(peer);
        return false;
      }
      const std::string raw = bytes(datagram, sequence_, old_);
      send(peer, raw.data(), raw.size(), MSG_NOSIGNAL);
    }
    return true;
  }

  std::string path_;
  std::vector<pollfd> polled_;  // The listener, then the connections.
  std::mutex mutex_;
  std::vector<Answer> script_;
  Seen seen_;
  std::string sequence_ = "none";
  std::string old_;
  std::thread thread_;
};

/// A generic netlink request of family 32, command 9.
struct Request {
  nlmsghdr header{20, 32, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
  genlmsghdr generic{9, 1, 0};
};

constexpr int kUntouched = 77;

int transact(int* error = nullptr) {
  const Request request;
  return corvil_netlink_transact(&request.header, NETLINK_GENERIC, error);
}

/// Runs a query; collects the first payload byte behind each reply's generic header.
int query(int dump, std::string* replies) {
  const Request request;
  const auto collect = [](const nlmsghdr* reply, void* context) {
    *static_cast<std::string*>(context) += reinterpret_cast<const char*>(reply)[20];
    return 1;
  };
  return corvil_netlink_query(&request.header, NETLINK_GENERIC, collect, replies, dump);
}

class Netlink : public testing::Test {
 protected:
  void SetUp() override { setenv("CORVIL_NETLINK_TIMEOUT_MS", "5000", 1); }

  static void expect_last_error(int error, int from_kernel, const std::string& message) {
    const CorvilNetlinkError* last = corvil_netlink_last_error();
    EXPECT_EQ(error, last->error);
    EXPECT_EQ(from_kernel, last->from_kernel);
    EXPECT_EQ(message, last->message);
  }
};

TEST_F(Netlink, EmulatorOutOfReachIsNamed) {
  setenv("CORVIL_NETLINK_EMULATOR", "/nonexistent/socket", 1);
  EXPECT_EQ(-1, transact());
  expect_last_error(ENOENT, 0,
                    "cannot reach the emulator: No such file or directory: /nonexistent/socket");
  setenv("CORVIL_NETLINK_EMULATOR", std::string(108, 'p').c_str(), 1);
  EXPECT_EQ(-1, transact());
  EXPECT_EQ(ENAMETOOLONG, corvil_netlink_last_error()->error);
}

TEST_F(Netlink, RefusalsReachSlotAndLastError) {
  struct Case {
    const char* length;
    const char* flags;
    const char* repeated_length;
    const char* rest;
    uint32_t attribute_offset;
    uint32_t missing_attribute;
    const char* message;
  };
  const std::array<Case, 7> cases{{
      {"24000000", "0001", "14000000", "", 0, 0, ""},
      // All that is read of an extended acknowledgement: text, offset, missing type.
      {"40000000", "0003", "14000000",
       "0c00 0100 62616420 6e6f2e00  0800 0200 14000000  0800 0500 06000000", 20, 6, "bad no."},
      // Behind a request of 21 bytes; behind one that cannot be.
      {"3c000000", "0002", "15000000", "09010000 ff000000  0800 0200 14000000  0700 0100 62616400",
       20, 0, "bad"},
      {"2c000000", "0002", "ffffffff", "0800 0100 62616400", 0, 0, ""},
      {"2c000000", "0002", "00000000", "0800 0100 62616400", 0, 0, ""},
      // Text without its NUL and an attribute that runs out; numbers too short.
      {"34000000", "0003", "14000000", "0600 0100 6e6f 0000  0900 0200 14000000", 0, 0, "no"},
      {"34000000", "0003", "14000000", "0600 0200 1400 0000  0600 0500 0600 0000", 0, 0, ""},
  }};
  FakeKernel kernel;
  for (const Case& refusal : cases) {
    SCOPED_TRACE(refusal.rest);
    kernel.answer({{refusal.length + std::string("0200") + refusal.flags + "S 00000000 eaffffff" +
                    refusal.repeated_length + "2000 0500 S 00000000" + refusal.rest}});
    int error = kUntouched;
    EXPECT_EQ(-1, transact(&error));
    EXPECT_EQ(-EINVAL, error);
    expect_last_error(EINVAL, 1, refusal.message);
    EXPECT_EQ(refusal.attribute_offset, corvil_netlink_last_error()->attribute_offset);
    EXPECT_EQ(refusal.missing_attribute, corvil_netlink_last_error()->missing_attribute);
  }
  EXPECT_EQ(0, transact());
  expect_last_error(0, 0, "");
  EXPECT_EQ(1U, kernel.seen().connections);
}

// Whatever an answer leaves unread must not answer the next request.
TEST_F(Netlink, UnusableAnswersFailAtOnceAndEndTheConnection) {
  const std::array<std::pair<Answer, int>, 8> cases{{
      {{"04000200 1800 0000 S 00000000" + std::string(262120, '0'), kAck}, EMSGSIZE},
      {{"ff", kAck}, EBADMSG},
      {{"28000000 0200 0001 S 00000000 00000000 14000000 2000 0500 S 00000000", kAck}, EBADMSG},
      {{"24000080 0200 0001 S 00000000 00000000 14000000 2000 0500 S 00000000", kAck}, EBADMSG},
      {{"14000000 0200 0001 S 00000000 00000000", kAck}, EBADMSG},
      {{std::string(kAck) + "0f000000 0200 0001", kAck}, EBADMSG},
      {{"24000000 0200 0001 S 00000000 00000080 14000000 2000 0500 S 00000000", kAck}, EBADMSG},
      {{kClose}, ECONNRESET},
  }};
  FakeKernel kernel;
  size_t connections = 0;
  for (const auto& [answer, expected] : cases) {
    SCOPED_TRACE(answer[0]);
    kernel.answer({answer, {kRefusal}});
    int error = kUntouched;
    EXPECT_EQ(-1, transact(&error));
    EXPECT_EQ(kUntouched, error);
    EXPECT_EQ(expected, corvil_netlink_last_error()->error);
    EXPECT_EQ(-1, transact(&error));
    EXPECT_EQ(-EBUSY, error);
    EXPECT_EQ(++connections + 1, kernel.seen().connections);
  }
}

TEST_F(Netlink, PeerThatWentBetweenRequestsIsReachedAgain) {
  FakeKernel kernel;
  kernel.answer({{kAck, kClose}});
  EXPECT_EQ(0, transact());
  EXPECT_EQ(1U, kernel.seen().connections);  // Also waits until the peer has closed.
  EXPECT_EQ(0, transact());
  EXPECT_EQ(2U, kernel.seen().connections);
}

volatile std::sig_atomic_t alarms = 0;

TEST_F(Netlink, SilentPeerTimesOutInSpiteOfSignalsAndItsLateAnswerIsSkipped) {
  struct sigaction on_alarm {};
  on_alarm.sa_handler = [](int) { alarms = alarms + 1; };  // Without SA_RESTART.
  sigaction(SIGALRM, &on_alarm, nullptr);
  const itimerval storm{{0, 2000}, {0, 2000}};
  const itimerval calm{};
  FakeKernel kernel;
  EXPECT_EQ(0, transact());
  kernel.answer({{kLateRefusal}, {kLateRefusal, kAck}});

  setenv("CORVIL_NETLINK_TIMEOUT_MS", "200", 1);
  int error = kUntouched;
  setitimer(ITIMER_REAL, &storm, nullptr);
  const auto start = steady_clock::now();
  EXPECT_EQ(-1, transact(&error));
  const auto elapsed = steady_clock::now() - start;
  setitimer(ITIMER_REAL, &calm, nullptr);
  EXPECT_GT(alarms, 10);
  EXPECT_GE(elapsed, milliseconds(200));
  EXPECT_LT(elapsed, milliseconds(2000));
  expect_last_error(ETIMEDOUT, 0, "no answer within 200 ms");

  SetUp();
  EXPECT_EQ(0, transact(&error));
  EXPECT_EQ(kUntouched, error);
  EXPECT_EQ(1U, kernel.seen().connections);
}

TEST_F(Netlink, QueriesDeliverEveryReplyOfTheirOwn) {
  FakeKernel kernel;
  const std::string foreign = part("58", "2100 0200 S");
  const std::string late = part("59", "2000 0200 O");
  kernel.answer({{part("61") + part("62"), foreign + part("63"), late, part("64") + kDone},
                 {part("65"), kAck, part("58")},
                 {kAck, part("66"), kDone}});
  std::string replies;
  EXPECT_EQ(0, query(1, &replies));
  EXPECT_EQ(0, query(0, &replies));
  EXPECT_EQ(0, query(1, &replies));
  EXPECT_EQ("abcdef", replies);
  EXPECT_EQ(bytes("14000000 2000 0503 00000000 09010000"), kernel.seen().requests[0]);
  EXPECT_EQ(bytes("14000000 2000 0500 00000000 09010000"), kernel.seen().requests[1]);
}

TEST_F(Netlink, RefusedDumpsTellTheKernelsReason) {
  FakeKernel kernel;
  kernel.answer({{part("61"), "1c000000 0300 0202 S 00000000 f4ffffff 0800 0100 62616400"},
                 {kRefusal},
                 {"10000000 0300 0200 S 00000000"}});
  std::string replies;
  EXPECT_EQ(-1, query(1, &replies));
  expect_last_error(ENOMEM, 1, "bad");
  EXPECT_EQ("a", replies);
  EXPECT_EQ(-1, query(1, &replies));
  expect_last_error(EBUSY, 1, "");
  EXPECT_EQ(-1, query(1, &replies));
  expect_last_error(EBADMSG, 0, "the answer is malformed");
}

TEST_F(Netlink, InterruptedDumpsAreDrainedAndAskedForAgain) {
  FakeKernel kernel;
  kernel.answer({{part("61", "2000 1200 S"), part("62"), kDone}, {part("63"), kDone}});
  std::string replies;
  EXPECT_EQ(0, query(1, &replies));
  EXPECT_EQ("abc", replies);
  kernel.answer(std::vector<Answer>(4, {part("64"), kDoneInterrupted}));
  EXPECT_EQ(-1, query(1, &replies));
  EXPECT_EQ("abcdddd", replies);
  expect_last_error(EINTR, 0, "the dump was interrupted by changes 4 times in a row");
}

// What is left of a dump keeps the kernel from starting another one on the socket.
TEST_F(Netlink, AbandonedDumpEndsTheConnection) {
  FakeKernel kernel;
  kernel.answer({{part("61")}});
  setenv("CORVIL_NETLINK_TIMEOUT_MS", "20", 1);
  std::string replies;
  EXPECT_EQ(-1, query(1, &replies));
  EXPECT_EQ(ETIMEDOUT, corvil_netlink_last_error()->error);
  SetUp();
  EXPECT_EQ(0, transact());
  EXPECT_EQ(2U, kernel.seen().connections);
}

TEST_F(Netlink, ExchangeFromInsideACallbackIsRefused) {
  FakeKernel kernel;
  kernel.answer({{part("61"), kDone}});
  int calls = 0;
  const auto reenter = [](const nlmsghdr* /*reply*/, void* context) {
    EXPECT_EQ(-1, transact());
    EXPECT_EQ(EBUSY, corvil_netlink_last_error()->error);
    return ++*static_cast<int*>(context);
  };
  const Request request;
  EXPECT_EQ(0, corvil_netlink_query(&request.header, NETLINK_GENERIC, reenter, &calls, 1));
  EXPECT_EQ(1, calls);
  EXPECT_EQ(1U, kernel.seen().requests.size());
}

TEST_F(Netlink, FamilyQueryWantsIdAndVersion) {
  const std::string head = "1000 0000 S 00000000 01020000";
  const std::string id = "0600 0100 2a00 0000";
  const std::string version = "0800 0300 01000000";
  FakeKernel kernel;
  kernel.answer({
      {"24000000" + head + id + version, kAck},
      {"24000000" + head + id + "0800 0300 02000000", kAck},
      {"1c000000" + head + version, kAck},
      {"24000000" + head + "0500 0100 2a000000" + version, kAck},
      {"10000000 1000 0000 S 00000000", kAck},
      {"24000000 0200 0001 S 00000000 feffffff 14000000 1000 0500 S 00000000"},
  });
  uint16_t family = 0;
  EXPECT_EQ(0, corvil_netlink_query_genl("FIFTEEN_LETTERS", 1, &family));
  EXPECT_EQ(42, family);
  EXPECT_EQ(bytes("28000000 1000 0500 00000000 03010000 1400 0200") + "FIFTEEN_LETTERS" + '\0',
            kernel.seen().requests[0]);
  EXPECT_EQ(-1, corvil_netlink_query_genl("FAM", 1, &family));
  expect_last_error(EPROTONOSUPPORT, 0, "netlink family FAM has version 2, not 1");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(-1, corvil_netlink_query_genl("FAM", 1, &family));
    EXPECT_EQ(EBADMSG, corvil_netlink_last_error()->error);
  }
  EXPECT_EQ(-1, corvil_netlink_query_genl("FAM", 1, &family));
  expect_last_error(ENOENT, 1, "netlink family FAM is not available");
  EXPECT_EQ(-1, corvil_netlink_query_genl("SIXTEEN__LETTERS", 1, &family));
  EXPECT_EQ(EINVAL, corvil_netlink_last_error()->error);
  EXPECT_EQ(42, family);
}

TEST_F(Netlink, ThreadsAndForksHaveConnectionsOfTheirOwn) {
  FakeKernel kernel;
  EXPECT_EQ(0, transact());
  const pid_t child = fork();
  if (child == 0) {
    _exit(-transact());
  }
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ(2U, kernel.seen().connections);

  std::vector<std::thread> threads(4);
  for (std::thread& thread : threads) {
    thread = std::thread([] {
      for (int n = 0; n < 50; ++n) {
        EXPECT_EQ(0, transact());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(0, transact());
  EXPECT_EQ(6U, kernel.seen().connections);
}

// The machine's own kernel.
class RealNetlink : public Netlink {
 protected:
  void SetUp() override {
    Netlink::SetUp();
    unsetenv("CORVIL_NETLINK_EMULATOR");
    const int probe = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (probe == -1) {
      GTEST_SKIP() << "no netlink sockets here: " << strerror(errno);
    }
    close(probe);
  }

  /// Asks for a family that is unknown, while up to `wanted` refusals with another error, numbered
  /// as the request is, arrive from another socket. Returns the last error.
  int query_with_forged_refusals(int wanted) {
    wanted_ = wanted;
    const auto forge = [](CorvilNetlinkDirection direction, const void* data, size_t /*length*/,
                          void* self) {
      if (direction == CORVIL_NETLINK_SENT) {
        static_cast<RealNetlink*>(self)->forge_refusals(*static_cast<const nlmsghdr*>(data));
      }
    };
    corvil_netlink_set_trace(forge, this);
    uint16_t family = 0;
    EXPECT_EQ(-1, corvil_netlink_query_genl("NO_SUCH_FAMILY", 1, &family));
    corvil_netlink_set_trace(nullptr, nullptr);
    return corvil_netlink_last_error()->error;
  }

  void forge_refusals(const nlmsghdr& request) {
    struct {
      nlmsghdr header;
      nlmsgerr refusal;
    } forged{{sizeof(forged), NLMSG_ERROR, 0, request.nlmsg_seq, 0}, {-EXDEV, request}};
    const int forger = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    for (int fd = 0; fd < forger; ++fd) {
      sockaddr_nl victim{};
      socklen_t size = sizeof(victim);
      getsockname(fd, reinterpret_cast<sockaddr*>(&victim), &size);
      while (victim.nl_family == AF_NETLINK && forged_ < wanted_ &&
             sendto(forger, &forged, sizeof(forged), MSG_DONTWAIT,
                    reinterpret_cast<const sockaddr*>(&victim), sizeof(victim)) != -1) {
        ++forged_;
      }
    }
    close(forger);
  }

  int wanted_ = 0;
  int forged_ = 0;
};

TEST_F(RealNetlink, ControllerKnowsItselfAndNoUnknownFamily) {
  uint16_t family = 0;
  uint32_t version = 1;
  while (version < 9 && corvil_netlink_query_genl("nlctrl", version, &family) == -1) {
    EXPECT_EQ(EPROTONOSUPPORT, corvil_netlink_last_error()->error);
    ++version;
  }
  EXPECT_EQ(GENL_ID_CTRL, family);
  EXPECT_EQ(-1, corvil_netlink_query_genl("NO_SUCH_FAMILY", 1, &family));
  expect_last_error(ENOENT, 1, "netlink family NO_SUCH_FAMILY is not available");
}

TEST_F(RealNetlink, OtherSendersAreNotBelievedAndTheirFloodIsSurvived) {
  const int error = query_with_forged_refusals(1);
  if (forged_ == 0) {
    GTEST_SKIP() << "forging needs CAP_NET_ADMIN";
  }
  EXPECT_EQ(ENOENT, error);
  setenv("CORVIL_NETLINK_TIMEOUT_MS", "100", 1);
  EXPECT_EQ(ENOBUFS, query_with_forged_refusals(1000000));
  EXPECT_LT(forged_, 1000000);
  EXPECT_EQ(ENOENT, query_with_forged_refusals(0));
}

TEST(Attributes, PutAppendsAligned) {
  alignas(nlmsghdr) std::array<char, 70000> buffer;
  buffer.fill('U');
  auto* message = reinterpret_cast<nlmsghdr*>(buffer.data());
  message->nlmsg_len = 17;
  EXPECT_EQ(0, corvil_nla_put(message, 0x8001, 0, nullptr));
  EXPECT_EQ(0, corvil_nla_put(message, 6, 1, "\x07"));
  EXPECT_EQ(0, corvil_nla_put(message, 2, 6, "wlan0"));
  EXPECT_EQ(44U, message->nlmsg_len);
  EXPECT_EQ(bytes("55000000 0400 0180 0500 0600 07000000 0a00 0200 776c616e 30000000 55555555"),
            std::string(&buffer[16], 32));

  const std::string payload(65532, 'x');
  EXPECT_EQ(-1, corvil_nla_put(message, 3, 65532, payload.data()));
  EXPECT_EQ(44U, message->nlmsg_len);
  EXPECT_EQ("UUUU", std::string(&buffer[44], 4));
  EXPECT_EQ(0, corvil_nla_put(message, 3, 65531, payload.data()));
  EXPECT_EQ(44U + 65536U, message->nlmsg_len);
  EXPECT_EQ(bytes("ffff 0300"), std::string(&buffer[44], 4));
}

TEST(Attributes, ParseStaysInsideTheRun) {
  struct Case {
    const char* run;
    int result;
    std::vector<std::ptrdiff_t> offsets;  // By type, 0 to 3; -1: null.
  };
  const std::array<Case, 12> cases{{
      {"", 0, {-1, -1, -1, -1}},
      {"0800 0100 01020304  0500 0380 ff000000", 0, {-1, 0, -1, 8}},
      {"0400 0100  0500 0140 ff", 0, {-1, 4, -1, -1}},
      {"0400 0000  0400 0400  0400 02c0", 0, {0, -1, 8, -1}},
      {"0600 0100 0102", 0, {-1, 0, -1, -1}},
      {"0400 0100  0000 0200 00000000", -1, {-1, 0, -1, -1}},
      {"0400 0100  0300 0200", -1, {-1, 0, -1, -1}},
      {"0400 0100  0900 0200 00000000", -1, {-1, 0, -1, -1}},
      {"0400 0100  ffff 0200", -1, {-1, 0, -1, -1}},
      {"0400 0100  0400 02", -1, {-1, 0, -1, -1}},
      {"0400 0100  04", -1, {-1, 0, -1, -1}},
      {"0400", -1, {-1, -1, -1, -1}},
  }};
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, pages);
  char* unreadable = static_cast<char*>(pages) + page;
  ASSERT_EQ(0, mprotect(unreadable, page, PROT_NONE));
  for (const Case& parse : cases) {
    SCOPED_TRACE(parse.run);
    const std::string run = bytes(parse.run);
    char* start = unreadable - (run.size() + 3) / 4 * 4;
    run.copy(start, run.size());
    const auto* first = reinterpret_cast<const nlattr*>(run.empty() ? nullptr : start);
    const nlattr stray{};
    std::array<const nlattr*, 5> table{&stray, &stray, &stray, &stray, &stray};
    EXPECT_EQ(parse.result,
              corvil_nla_parse(first, table.data(), static_cast<uint32_t>(run.size()), 3));
    for (size_t type = 0; type < parse.offsets.size(); ++type) {
      const auto* found = reinterpret_cast<const char*>(table[type]);
      EXPECT_EQ(parse.offsets[type], found == nullptr ? -1 : found - start);
    }
    EXPECT_EQ(&stray, table[4]);
  }
  munmap(pages, 2 * page);
}

TEST(Log, DiagnosticMessageIsOneLine) {
  std::vector<std::pair<std::string, std::string>> seen;
  const auto collect = [](const LogSiteDescriptor* /*site*/, const char* line, const char* text,
                          void* context) {
    static_cast<decltype(seen)*>(context)->emplace_back(line, text);
  };
  corvil_log_set_diagnostic_handler(collect, &seen);
  const LogSiteDescriptor error{120, 65, 8, "%s %d", "src/a.cpp"};
  const LogSiteDescriptor low{7, 65, 1, "%s", "src/b.cpp"};
  const LogSiteDescriptor unknown{8, 3, 6, "\n", "src/c.cpp"};
  msg_sprintf(&error, "text", -1);
  msg_sprintf(&low, "100%\n\n");
  msg_sprintf(&unknown);
  msg_sprintf(&low, std::string(5000, 'x').c_str());
  corvil_log_set_diagnostic_handler(nullptr, nullptr);
  const std::string head = "subsystem 65 LOW src/b.cpp:7: ";
  const std::string cut(4095 - head.size(), 'x');
  EXPECT_EQ((decltype(seen){{"subsystem 65 ERR src/a.cpp:120: text -1", "text -1"},
                            {head + "100%", "100%"},
                            {"subsystem 3 UNKNOWN src/c.cpp:8: ", ""},
                            {head + cut, cut}}),
            seen);
}

TEST(PortTree, HoldsKnownPortsOnceAndInOrder) {
  corvil_port_tree_clear();
  const std::array<CorvilPort, 6> known{
      {{443, 6, 6}, {65535, 4, 17}, {443, 4, 6}, {80, 4, 6}, {443, 4, 6}, {0, 6, 50}}};
  for (const CorvilPort& port : known) {
    EXPECT_EQ(0,
              corvil_port_utils_add_port_from_kernel(port.port, port.ip_proto, port.trans_proto));
  }
  EXPECT_EQ(-1, corvil_port_utils_add_port_from_kernel(80, 5, 6));
  EXPECT_EQ(-1, corvil_port_utils_add_port_from_kernel(80, 4, 1));
  EXPECT_EQ(5U, corvil_port_tree_count());

  std::string listed;
  const auto list = [](const CorvilPort* port, void* context) {
    *static_cast<std::string*>(context) += std::to_string(port->ip_proto) + "/" +
                                           std::to_string(port->trans_proto) + "/" +
                                           std::to_string(port->port) + " ";
  };
  corvil_port_tree_visit(list, &listed);
  EXPECT_EQ("4/6/80 4/6/443 4/17/65535 6/6/443 6/50/0 ", listed);
}

}  // namespace
