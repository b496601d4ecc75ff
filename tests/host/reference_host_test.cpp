// The host's libraries: netlink against a scripted peer and against this machine's kernel, the
// attribute parser on raw bytes, the diagnostic service, the port tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
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

// Netlink messages by the names of their fields. This number of a message stands for the one of the
// request that it answers.
constexpr uint32_t kAsked = 0x3f3f3f3f;
constexpr uint16_t kFamily = 32;

/// The bytes of a value in the machine's order.
template <typename Value>
std::string raw(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

std::string message(uint16_t type, uint16_t flags, const std::string& payload,
                    uint32_t sequence = kAsked) {
  return raw(nlmsghdr{static_cast<uint32_t>(16 + payload.size()), type, flags, sequence, 0}) +
         payload;
}

/// Its length is that of the payload; the padding follows.
std::string attribute(uint16_t type, const std::string& payload) {
  return raw(nlattr{static_cast<uint16_t>(4 + payload.size()), type}) + payload +
         std::string(-payload.size() % 4, '\0');
}

/// NLMSG_ERROR: its number, the header of the request that it is about, and an extack.
std::string result(int number, uint16_t flags = NLM_F_CAPPED, const std::string& extack = "") {
  const nlmsghdr about{20, kFamily, NLM_F_REQUEST | NLM_F_ACK, kAsked, 0};
  return message(NLMSG_ERROR, flags, raw(number) + raw(about) + extack);
}

/// The end of a dump.
std::string done(int number = 0, uint16_t flags = NLM_F_MULTI, const std::string& extack = "") {
  return message(NLMSG_DONE, flags, raw(number) + extack);
}

/// A part of a dump, with one character behind the generic header.
std::string part(char character, uint16_t type = kFamily, uint32_t sequence = kAsked,
                 uint16_t flags = NLM_F_MULTI) {
  return message(type, flags, raw(genlmsghdr{14, 1, 0}) + character + std::string(3, '\0'),
                 sequence);
}

/// A whole datagram that claims to be of another length.
std::string claim(uint32_t length, std::string datagram) {
  return datagram.replace(0, 4, raw(length));
}

// What a peer answers to one request: datagrams; an empty one is the end of the connection.
using Answer = std::vector<std::string>;
const std::string kAck = result(0);
const std::string kBadMessage = attribute(NLMSGERR_ATTR_MSG, "bad");
const std::string kExtack = kBadMessage + attribute(NLMSGERR_ATTR_OFFS, raw(20U)) +
                            attribute(NLMSGERR_ATTR_MISS_TYPE, raw(6U)) +
                            attribute(NLMSGERR_ATTR_MISS_NEST, raw(24U));
const std::string kInvalid = result(-EINVAL, NLM_F_CAPPED | NLM_F_ACK_TLVS, kExtack);
const std::string kForeign = part('X', kFamily, 0);

/// An emulated kernel that answers each request that is traced by the next answer of its script,
/// and with kAck when there is none left.
class FakeKernel {
 public:
  explicit FakeKernel(std::vector<Answer> script = {}, const char* timeout_ms = "5000")
      : script_(std::move(script)) {
    path_.copy(address_.sun_path, sizeof(address_.sun_path) - 1);
    EXPECT_EQ(0, bind(sockets_[0], reinterpret_cast<sockaddr*>(&address_), sizeof(address_)));
    EXPECT_EQ(0, listen(sockets_[0], 8));
    setenv("CORVIL_NETLINK_EMULATOR", path_.c_str(), 1);
    setenv("CORVIL_NETLINK_TIMEOUT_MS", timeout_ms, 1);
    corvil_netlink_set_trace(answer, this);
  }
  ~FakeKernel() {
    corvil_netlink_set_trace(nullptr, nullptr);
    static_cast<void>(is_closed(connections()));
    std::for_each(sockets_.begin(), sockets_.end(), close);
    unlink(path_.c_str());
    unsetenv("CORVIL_NETLINK_EMULATOR");
  }

  void fill_backlog() {
    while (connect(sockets_.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0)),
                   reinterpret_cast<sockaddr*>(&address_), sizeof(address_)) == 0) {
    }
  }

  /// Reads all requests of a connection, each of which must have the length that it claims. Returns
  /// whether the library has closed the connection; the first one is number 1.
  [[nodiscard]] bool is_closed(size_t connection) const {
    std::array<uint32_t, 64> request{};
    ssize_t size = 0;
    while ((size = recv(sockets_[connection], &request, sizeof(request), MSG_DONTWAIT)) > 0) {
      EXPECT_EQ(size, request[0]);
    }
    return size == 0 || errno == ECONNRESET;
  }
  [[nodiscard]] size_t connections() const { return sockets_.size() - 1; }

  /// Sends a datagram after each one that the library has received from now on.
  void babble(const std::string& datagram) { babble_ = datagram; }

 private:
  /// Answers over the newest connection, since a connection is opened before its request is traced.
  static void answer(CorvilNetlinkDirection direction, const void* data, size_t, void* context) {
    auto* kernel = static_cast<FakeKernel*>(context);
    if (direction == CORVIL_NETLINK_SENT) {
      kernel->answer(std::string(&static_cast<const char*>(data)[8], 4));
    } else if (!kernel->babble_.empty()) {
      send(kernel->sockets_.back(), kernel->babble_.data(), kernel->babble_.size(), MSG_NOSIGNAL);
    }
  }
  void answer(const std::string& sequence) {
    EXPECT_NE(std::exchange(last_sequence_, sequence), sequence);
    if (const int peer = accept4(sockets_[0], nullptr, nullptr, SOCK_CLOEXEC); peer != -1) {
      sockets_.push_back(peer);
    }
    for (std::string datagram : next_ < script_.size() ? script_[next_++] : Answer{kAck}) {
      for (size_t at = 0; (at = datagram.find(raw(kAsked))) != std::string::npos;) {
        datagram.replace(at, 4, sequence);
      }
      send(sockets_.back(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
    }
  }

  const std::vector<Answer> script_;
  sockaddr_un address_{AF_UNIX, {}};
  size_t next_ = 0;
  std::string last_sequence_;
  std::string babble_;
  // The listening one, then the connections.
  std::vector<int> sockets_{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  static inline int count_ = 0;
  // Each kernel has a path of its own, because the library keeps its connection to a path.
  const std::string path_ =
      testing::TempDir() + std::to_string(getpid()) + "fake_kernel" + std::to_string(++count_);
};

const struct {
  nlmsghdr header{20, kFamily, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
  genlmsghdr generic{9, 1, 0};
} kRequest;

int transact(int* error = nullptr) {
  return corvil_netlink_transact(&kRequest.header, NETLINK_GENERIC, error);
}

/// The last error: its name; for one of the kernel the offset of the bad attribute, the type of a
/// missing one and the offset of the nest that lacks it; the message.
std::string last_failure() {
  const CorvilNetlinkError& last = *corvil_netlink_last_error();
  const char* name = strerrorname_np(last.error);
  const std::string where = std::to_string(last.attribute_offset) + "/" +
                            std::to_string(last.missing_attribute) + "/" +
                            std::to_string(last.missing_nest_offset) + " ";
  return (name != nullptr ? name : std::to_string(last.error)) + " " +
         (last.from_kernel == 1 || where != "0/0/0 " ? where : "") + last.message;
}
const std::string kNoFailure = "0 ";

/// Collects the first payload byte behind each reply's generic header.
int collect(const nlmsghdr* reply, void* replies) {
  EXPECT_EQ(-1, transact()) << "from inside an exchange";
  EXPECT_EQ("EBUSY an exchange of this thread is in progress", last_failure());
  *static_cast<std::string*>(replies) += reinterpret_cast<const char*>(reply)[20];
  return 1;
}

/// Makes one query and then a request that succeeds, for which a new connection is expected when
/// `connections` is 2.
void query(const std::vector<Answer>& answers, int dump, const std::string& expected,
           const std::string& failure = kNoFailure, size_t connections = 1) {
  SCOPED_TRACE(testing::PrintToString(answers[0][0].substr(0, 80)));
  FakeKernel kernel(answers, failure.starts_with("ETIMEDOUT") ? "200" : "5000");
  std::string replies;
  EXPECT_EQ(failure == kNoFailure ? 0 : -1,
            corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, collect, &replies, dump));
  EXPECT_EQ(failure, last_failure());
  EXPECT_EQ(expected, replies);
  EXPECT_EQ(0, transact());
  EXPECT_EQ(connections, kernel.connections());
  EXPECT_EQ(connections == 2, kernel.is_closed(1));
}

TEST(Netlink, QueriesTakeTheAnswersOfTheirOwn) {
  query({{part('a'), part('b'), kAck, part('X')}}, 0, "ab");
  query({{part('a'), part('X', kFamily + 1) + kForeign + part('b'), kAck + part('c') + done()}}, 1,
        "abc");
  query({{kInvalid}}, 1, "", "EINVAL 20/6/24 bad");
  query({{result(-EINVAL, NLM_F_CAPPED, kExtack)}}, 1, "", "EINVAL 0/0/0 ");
  query({{part('a'), done(-ENOMEM, NLM_F_MULTI | NLM_F_ACK_TLVS, kBadMessage)}}, 1, "a",
        "ENOMEM 0/0/0 bad");
  query({{result(-4095)}}, 1, "", "4095 0/0/0 ");
  query({{""}}, 0, "", "ECONNRESET the peer closed the connection before its answer", 2);
  // What is left of a dump keeps the kernel from starting another one on the socket.
  query({{part('a')}}, 1, "a", "ETIMEDOUT no answer within 200 ms", 2);
}

TEST(Netlink, AnswersThatRepeatTheRequestAreReadBehindIt) {
  const auto repeat = [](uint32_t length, const std::string& rest) {
    return message(NLMSG_ERROR, NLM_F_ACK_TLVS,
                   raw(-EINVAL) + raw(nlmsghdr{length, kFamily, 5, kAsked, 0}) + rest);
  };
  // 18 bytes of a request, padded to 20.
  query({{repeat(18, "\x09\x01pp" + attribute(NLMSGERR_ATTR_OFFS, raw(20U)))}}, 0, "",
        "EINVAL 20/0/0 ");
  query({{repeat(65535, "")}}, 0, "", "EINVAL 0/0/0 ");
}

TEST(Netlink, InterruptedDumpsAreDrainedAndAskedForAgain) {
  query({{part('a'), done(0, NLM_F_MULTI | NLM_F_DUMP_INTR)}, {part('b'), done()}}, 1, "ab");
  const std::string interrupted = part('a', kFamily, kAsked, NLM_F_MULTI | NLM_F_DUMP_INTR);
  query(std::vector<Answer>(4, {interrupted, done()}), 1, "aaaa",
        "EINTR the dump was interrupted by changes 4 times in a row");
}

TEST(Netlink, MalformedAnswersEndTheConnection) {
  for (const std::string& answer :
       {message(NLMSG_DONE, NLM_F_MULTI, "\1\1"), message(NLMSG_ERROR, 0, raw(0)),
        claim(0x80000024, kAck), kAck + '\0', result(1), result(-4096)}) {
    query({{answer, kAck}}, 1, "", "EBADMSG the answer is malformed", 2);
  }
  // The receive buffer takes 128 KiB.
  const auto foreign = [](size_t size) { return message(33, 0, std::string(size - 16, '\0')); };
  query({{foreign(131072), kAck}}, 0, "");
  query({{foreign(131076), kAck}}, 0, "", "EMSGSIZE the answer is longer than the receive buffer",
        2);
}

TEST(Netlink, SilentPeerTimesOutInSpiteOfSignalsAndItsLateAnswerIsSkipped) {
  const std::string late = message(NLMSG_ERROR, NLM_F_CAPPED, raw(-EBUSY) + raw(nlmsghdr{}), 0);
  static_cast<void>(std::signal(SIGALRM, [](int) {}));
  int error = 0;
  for (const useconds_t interval : {0U, 2000U}) {
    ualarm(interval, interval);
    FakeKernel full({}, "50");
    full.fill_backlog();
    EXPECT_EQ(-1, transact());
    EXPECT_TRUE(
        last_failure().starts_with("ETIMEDOUT cannot reach the emulator: Connection timed out: /"));
  }
  FakeKernel kernel({{}, {late, kInvalid}, {kInvalid}, {result(-EBUSY)}}, "200");
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
  const clock_t start = clock();
  EXPECT_EQ(-1, transact(&error));
  EXPECT_LT(clock() - start, CLOCKS_PER_SEC / 10) << "of computing, instead of waiting";
  EXPECT_GE(std::chrono::steady_clock::now(), end);
  ualarm(0, 0);
  EXPECT_EQ("ETIMEDOUT no answer within 200 ms", last_failure());
  EXPECT_EQ(-1, transact(&error));
  EXPECT_EQ(-EINVAL, error);
  EXPECT_EQ("EINVAL 20/6/24 bad", last_failure());
  EXPECT_EQ(1U, kernel.connections());
  EXPECT_EQ(-1, corvil_netlink_query_genl("SIXTEEN_LETTERS_", 1, nullptr));
  EXPECT_EQ("EINVAL no family name is as long as SIXTEEN_LETTERS_", last_failure());
  EXPECT_EQ(-1, transact());
  EXPECT_EQ("EINVAL 20/6/24 bad", last_failure());
  EXPECT_EQ(-1, transact());
  EXPECT_EQ("EBUSY 0/0/0 ", last_failure()) << "with what was said of another error";
}

TEST(Netlink, TimeOfCallbacksDoesNotCountAndForeignMessagesAddNone) {
  int parts = 0;
  const auto take_slowly = [](const nlmsghdr*, void* count) {
    usleep(150'000);
    return ++*static_cast<int*>(count);
  };
  FakeKernel kernel({{part('a'), part('b'), part('c'), done()}}, "200");
  EXPECT_EQ(0, corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, take_slowly, &parts, 1));
  EXPECT_EQ(3, parts);

  FakeKernel babbler({{part('a'), kForeign}}, "200");
  babbler.babble(kForeign);
  EXPECT_EQ(-1, corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, take_slowly, &parts, 1));
  EXPECT_EQ("ETIMEDOUT no answer within 200 ms", last_failure());
  EXPECT_EQ(4, parts);
}

TEST(Netlink, FamilyQueryWantsIdAndVersion) {
  const auto reply = [](const std::string& attributes) {
    return message(GENL_ID_CTRL, 0, raw(genlmsghdr{CTRL_CMD_NEWFAMILY, 2, 0}) + attributes);
  };
  const auto id = [](uint16_t number) { return attribute(CTRL_ATTR_FAMILY_ID, raw(number)); };
  const auto version = [](uint32_t number) { return attribute(CTRL_ATTR_VERSION, raw(number)); };
  const std::string lacks =
      "EBADMSG the controller's answer lacks the id or version of family FIFTEEN_LETTERS";
  uint16_t family = 0;
  for (const auto& [answer, failure] :
       {std::pair{reply(id(42) + version(1)), kNoFailure},
        {reply(id(43) + version(2)),
         "EPROTONOSUPPORT netlink family FIFTEEN_LETTERS has version 2, not 1"},
        {reply(attribute(CTRL_ATTR_FAMILY_ID, "x") + version(1)), lacks},
        {reply(id(43) + attribute(CTRL_ATTR_VERSION, "xyz")), lacks},
        {reply(version(1)), lacks},
        {reply(id(43)), lacks},
        {message(GENL_ID_CTRL, 0, "\1\2"), lacks},
        {kInvalid, "EINVAL 20/6/24 bad"}}) {
    FakeKernel kernel({{answer}});
    EXPECT_EQ(failure == kNoFailure ? 0 : -1,
              corvil_netlink_query_genl("FIFTEEN_LETTERS", 1, &family));
    EXPECT_EQ(failure, last_failure());
    EXPECT_EQ(42, family);
  }
}

TEST(Netlink, TimeoutAndLengthMustMakeSense) {
  std::vector<nlmsghdr> request(65536, {16, 32, NLM_F_REQUEST | NLM_F_ACK, 0, 0});
  for (const char* timeout : {"0", "-1", "0x", ""}) {
    FakeKernel kernel({}, timeout);
    EXPECT_EQ(0, corvil_netlink_transact(request.data(), NETLINK_GENERIC, nullptr)) << timeout;
  }
  FakeKernel kernel;
  for (const auto& [length, failure] :
       {std::pair{15U, "EINVAL the request is shorter than its header"},
        std::pair{1U << 20, "EMSGSIZE cannot send the request: Message too long"}}) {
    request[0].nlmsg_len = length;
    EXPECT_EQ(-1, corvil_netlink_transact(request.data(), NETLINK_GENERIC, nullptr));
    EXPECT_EQ(failure, last_failure());
  }
  setenv("CORVIL_NETLINK_EMULATOR", std::string(108, 'x').c_str(), 1);
  EXPECT_EQ(-1, transact());
  EXPECT_TRUE(last_failure().starts_with("ENAMETOOLONG "));
}

TEST(Netlink, DryRunClearsTheLastError) {
  corvil_netlink_set_dry_run(99);
  EXPECT_EQ(-1, corvil_netlink_query_genl("SIXTEEN_LETTERS_", 1, nullptr));
  EXPECT_EQ(0, transact());
  EXPECT_EQ(kNoFailure, last_failure());
  corvil_netlink_set_dry_run(0);
}

TEST(Netlink, ThreadsAndForksHaveConnectionsOfTheirOwn) {
  FakeKernel kernel;
  EXPECT_EQ(0, transact());
  EXPECT_EXIT(_exit(transact() + transact() + static_cast<int>(kernel.connections())),
              testing::ExitedWithCode(2), "");
  std::thread([] { EXPECT_EQ(0, transact()); }).join();
  EXPECT_EQ(2U, kernel.connections());
}

/// Closes one of the library's descriptors, as a daemon does that closes all, and gives its number
/// to one end of a pair of sockets. Returns the other end.
int reuse(int number) {
  std::array<int, 2> pair{};
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair.data()));
  EXPECT_EQ(number, dup2(pair[0], number));
  close(pair[0]);
  return pair[1];
}

/// Whether `number` is still open, and nothing was sent through it.
bool untouched(int number, int other_end) {
  char byte = 0;
  return fcntl(number, F_GETFD) == 0 && recv(other_end, &byte, 1, MSG_DONTWAIT) == -1 &&
         errno == EAGAIN;
}

TEST(Netlink, DescriptorsThatTheHostReusesAreLeftAlone) {
  FakeKernel kernel;
  std::array<int, 2> reused{};
  std::array<int, 2> other_ends{};
  std::thread([&] {
    for (size_t i = 0; i < reused.size(); ++i) {
      reused[i] = dup(0);  // The lowest free number, which the connection will get.
      close(reused[i]);
      EXPECT_EQ(0, transact());
      other_ends[i] = reuse(reused[i]);
    }
  }).join();
  EXPECT_EQ(2U, kernel.connections());
  EXPECT_TRUE(untouched(reused[0], other_ends[0])) << "by the next exchange";
  EXPECT_TRUE(untouched(reused[1], other_ends[1])) << "by the end of the thread";
}

bool succeed() { return true; }

/// Expects that a capture fails while the exchanges go on, in a process of its own. `prepare` gets
/// the capture's path; `spoil` runs after the first exchange, `check` after the last one.
template <typename Prepare, typename Spoil = bool (*)(), typename Check = bool (*)()>
void expect_capture_to_fail(const std::string& failure, Prepare prepare, Spoil spoil = succeed,
                            Check check = succeed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [&] {
    alarm(20);
    static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
    static_cast<void>(std::signal(SIGXFSZ, SIG_DFL));
    const std::string path = testing::TempDir() + std::to_string(getpid()) + "capture";
    setenv("CORVIL_NETLINK_PCAP", path.c_str(), 1);
    prepare(path.c_str());
    auto kernel = std::make_unique<FakeKernel>();
    bool succeeds = transact() == 0 && spoil();
    for (int i = 0; i < 50; ++i) {
      succeeds = succeeds && transact() == 0;
    }
    kernel.reset();
    unlink(path.c_str());
    corvil_netlink_check_capture();
    const rlimit no_limit{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &no_limit);
    fputs(last_failure().c_str(), stderr);
    _exit(succeeds && check() ? 0 : 1);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "^" + failure + " cannot write the capture /");
}

TEST(CaptureDeathTest, FailureIsReportedAndTouchesNothingElse) {
  static int capture = -1;
  static int other = -1;
  const auto make_fifo = [](const char* path) { mkfifo(path, 0600); };
  expect_capture_to_fail("ENXIO", make_fifo);
  const auto make_fifo_of_a_page = [](const char* path) {
    mkfifo(path, 0600);
    other = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    fcntl(other, F_SETPIPE_SZ, 4096);
  };
  expect_capture_to_fail("EAGAIN", make_fifo_of_a_page);
  expect_capture_to_fail("EPIPE", make_fifo_of_a_page, [] { return close(other) == 0; });
  for (const rlim_t size : {10U, 24U, 300U}) {
    expect_capture_to_fail("EFBIG", [size](const char*) {
      const rlimit limit{size, RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &limit);
    });
  }
  expect_capture_to_fail("EBUSY", [](const char* path) {
    other = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    flock(other, LOCK_EX);
  });
  const auto reuse_capture = [] {
    int flags = 0;
    for (capture = 2; flags == -1 || (flags & O_APPEND) == 0; flags = fcntl(capture, F_GETFL)) {
      ++capture;
    }
    other = reuse(capture);
    return true;
  };
  expect_capture_to_fail("EBADF", unlink, reuse_capture, [] { return untouched(capture, other); });
}

TEST(Netlink, RealKernelIsBelievedAndNobodyElse) {
  int forger = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
  if (forger == -1) {
    GTEST_SKIP() << "no netlink sockets here";
  }
  uint16_t family = 0;
  EXPECT_EQ(0, corvil_netlink_query_genl("nlctrl", 2, &family));
  EXPECT_EQ(GENL_ID_CTRL, family);
  EXPECT_EQ(0, corvil_netlink_check_capture());

  // The first answer has the library's address. A forger with CAP_NET_ADMIN answers the second
  // query before the kernel does.
  const auto forge = [](CorvilNetlinkDirection direction, const void* data, size_t, void* context) {
    const nlmsghdr header = *static_cast<const nlmsghdr*>(data);
    const sockaddr_nl victim{AF_NETLINK, 0, header.nlmsg_pid, 0};
    const std::string forged =
        message(NLMSG_ERROR, NLM_F_CAPPED, raw(-EXDEV) + raw(nlmsghdr{}), header.nlmsg_seq);
    if (direction == CORVIL_NETLINK_SENT) {
      EXPECT_EQ(CTRL_CMD_GETFAMILY, static_cast<const char*>(data)[16]);
      EXPECT_EQ(1, static_cast<const char*>(data)[17]) << "is the version";
      send(*static_cast<int*>(context), forged.data(), forged.size(), 0);
    } else {
      EXPECT_NE(0, header.nlmsg_flags & NLM_F_CAPPED);
      const auto* address = reinterpret_cast<const sockaddr*>(&victim);
      static_cast<void>(connect(*static_cast<int*>(context), address, sizeof(victim)));
    }
  };
  corvil_netlink_set_trace(forge, &forger);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(-1, corvil_netlink_query_genl("NO_SUCH_FAMILY", 1, &family));
    EXPECT_EQ("ENOENT 0/0/0 netlink family NO_SUCH_FAMILY is not available", last_failure());
  }
  corvil_netlink_set_trace(nullptr, nullptr);
  EXPECT_EQ(0, corvil_netlink_query_genl("nlctrl", 2, &family));
  close(forger);

  const std::string bad = message(GENL_ID_CTRL, NLM_F_REQUEST | NLM_F_ACK,
                                  raw(genlmsghdr{CTRL_CMD_GETFAMILY, 1, 0}) +
                                      attribute(CTRL_ATTR_FAMILY_NAME, "name without its NUL"));
  EXPECT_EQ(-1, corvil_netlink_transact(reinterpret_cast<const nlmsghdr*>(bad.data()),
                                        NETLINK_GENERIC, nullptr));
  EXPECT_EQ("EINVAL 20/0/0 Attribute failed policy validation", last_failure());
  EXPECT_EQ(-1, corvil_netlink_transact(&kRequest.header, 99, nullptr));
  EXPECT_EQ("EPROTONOSUPPORT cannot open a socket of netlink protocol 99: Protocol not supported",
            last_failure());
}

TEST(Attributes, PutAlignsPadsAndRefusesWhatIsTooLong) {
  std::string buffer(66000, '\xff');
  const std::string payload(65532, 'x');
  auto* message = new (buffer.data()) nlmsghdr{17, 0, 0, 0, 0};
  EXPECT_EQ(0, corvil_nla_put(message, 0x8001, 1, "a"));
  EXPECT_EQ(0, corvil_nla_put(message, 2, 0, nullptr));
  const std::array<uint8_t, 17> expected{0xff, 0, 0, 0,     // The byte that was there, padded.
                                         5,    0, 1, 0x80,  // Length, type.
                                         'a',  0, 0, 0,     // Payload, padded.
                                         4,    0, 2, 0,     // Length, type.
                                         0xff};             // Nothing more was written.
  EXPECT_EQ(raw(expected), buffer.substr(16, 17));
  EXPECT_EQ(-1, corvil_nla_put(message, 3, 65532, payload.data()));
  EXPECT_EQ(32U, message->nlmsg_len);
  EXPECT_EQ(0, corvil_nla_put(message, 3, 65531, payload.data()));
  EXPECT_EQ(32U + 65536, message->nlmsg_len);
  EXPECT_EQ(raw(std::array<uint8_t, 5>{0xff, 0xff, 3, 0, 'x'}), buffer.substr(32, 5));
}

TEST(Attributes, ParseStaysInsideTheRun) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  char* unreadable = static_cast<char*>(pages) + page;
  ASSERT_EQ(0, mprotect(unreadable, page, PROT_NONE));
  const std::string run = attribute(1, "abcd") + attribute(4, "") + attribute(0x8003, "x");
  char* start = unreadable - run.size();
  run.copy(start, run.size());
  const auto* first = reinterpret_cast<const nlattr*>(start);
  std::array<const nlattr*, 5> table{first, nullptr, first, nullptr, first};
  EXPECT_EQ(0, corvil_nla_parse(first, table.data(), 20, 3));
  EXPECT_EQ(table, (std::array<const nlattr*, 5>{nullptr, first, nullptr, first + 3, first}));
  EXPECT_EQ(-1, corvil_nla_parse(first, table.data(), 13, 3));
  start[12] = 9;  // One more than there is.
  EXPECT_EQ(-1, corvil_nla_parse(first, table.data(), 20, 3));
  munmap(pages, 2 * page);
}

TEST(Log, DiagnosticMessageIsOneLine) {
  std::string seen;
  const auto see = [](const LogSiteDescriptor*, const char* line, const char*, void* context) {
    *static_cast<std::string*>(context) = line;
  };
  corvil_log_set_diagnostic_handler(see, &seen);
  const LogSiteDescriptor site{120, 65, 8, "%s %d\n\n", "a.cpp"};
  msg_sprintf(&site, "100%", -1);
  corvil_log_set_diagnostic_handler(nullptr, nullptr);
  EXPECT_EQ("subsystem 65 ERR a.cpp:120: 100% -1", seen);
}

TEST(PortTree, HoldsKnownPortsOnceAndInOrder) {
  EXPECT_EQ(0, corvil_port_utils_add_port_from_kernel(443, 6, 6));
  EXPECT_EQ(0, corvil_port_utils_add_port_from_kernel(53, 4, 17));
  for (const uint16_t port : std::array<uint16_t, 3>{65535, 80, 80}) {
    EXPECT_EQ(0, corvil_port_utils_add_port_from_kernel(port, 4, 6));
  }
  EXPECT_EQ(-1, corvil_port_utils_add_port_from_kernel(80, 5, 6));
  std::string listed;
  const auto list = [](const CorvilPort* port, void* context) {
    *static_cast<std::string*>(context) += std::to_string(port->port) + " ";
  };
  corvil_port_tree_visit(list, &listed);
  EXPECT_EQ("80 65535 53 443 ", listed);
}

}  // namespace
