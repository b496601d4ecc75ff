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

/// Bytes of hexadecimal digits and blanks, fields little-endian; S stands for the `sequence`.
std::string bytes(const std::string& text, const std::string& sequence = "") {
  std::string result;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == 'S') {
      result += sequence;
    } else if (text[at] != ' ') {
      result += static_cast<char>(std::stoi(text.substr(at++, 2), nullptr, 16));
    }
  }
  return result;
}

// What a peer answers to one request: datagrams; an empty one is the end of the connection.
using Answer = std::vector<std::string>;
const std::string kAck = "24000000 0200 0001 S 00000000 00000000 14000000 2000 0500 S 00000000";
const std::string kRefusal =
    "44000000 0200 0003 S 00000000 eaffffff 14000000 2000 0500 S 00000000"  // EINVAL, and why
    "0700 0100 62616400 0800 0200 14000000 0800 0500 06000000 0800 0600 18000000";
const std::string kDone = "14000000 0300 0200 S 00000000 00000000";

/// A part of a dump, with one byte of payload.
std::string part(const std::string& byte, const std::string& type_flags_sequence = "2000 0200 S") {
  return "18000000" + type_flags_sequence + "00000000 0e010000" + byte + "000000";
}

/// An emulated kernel that answers what the trace hook shows from a script, and then with kAck.
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

  /// Whether so manieth connection is closed, once its requests, of the length they tell, are read.
  [[nodiscard]] bool is_closed(size_t connection) const {
    std::array<uint32_t, 64> request{};
    ssize_t size = 0;
    while ((size = recv(sockets_[connection], &request, sizeof(request), MSG_DONTWAIT)) > 0) {
      EXPECT_EQ(size, request[0]);
    }
    return size == 0 || errno == ECONNRESET;
  }
  [[nodiscard]] size_t connections() const { return sockets_.size() - 1; }  // The listener.

  /// From now on follows every datagram received.
  void babble(const std::string& datagram) { babble_ = bytes(datagram); }

 private:
  /// Over the newest connection: it was opened before the request is traced.
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
    for (const std::string& datagram : next_ < script_.size() ? script_[next_++] : Answer{kAck}) {
      const std::string raw = bytes(datagram, sequence);
      send(sockets_.back(), raw.data(), raw.size(), MSG_NOSIGNAL);
    }
  }

  const std::vector<Answer> script_;
  sockaddr_un address_{AF_UNIX, {}};
  size_t next_ = 0;
  std::string last_sequence_;
  std::string babble_;
  std::vector<int> sockets_{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  static inline int count_ = 0;
  const std::string path_ = testing::TempDir() + std::to_string(getpid()) + "fake_kernel" +
                            std::to_string(++count_);  // None twice, or connections are kept.
};

const struct {
  nlmsghdr header{20, 32, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
  genlmsghdr generic{9, 1, 0};
} kRequest;

int transact(int* error = nullptr) {
  return corvil_netlink_transact(&kRequest.header, NETLINK_GENERIC, error);
}

/// All that is told of the last failure: errno, then, of the kernel's refusals, offset of the
/// attribute, type and nest of a missing one, and the text.
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

/// Wants the next request to succeed, too; `connections` includes the one for that.
void query(const std::vector<Answer>& answers, int dump, const std::string& expected,
           const std::string& failure = kNoFailure, size_t connections = 1) {
  SCOPED_TRACE(answers[0][0].substr(0, 80));
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
  query({{part("61"), part("62"), kAck, part("58")}}, 0, "ab");
  const std::string others = part("58", "2100 0200 S") + part("59", "2000 0200 00000000");
  query({{part("61"), others + part("62"), kAck + part("63") + kDone}}, 1, "abc");
  query({{kRefusal}}, 1, "", "EINVAL 20/6/24 bad");
  query({{"44000000 0200 0001" + kRefusal.substr(18)}}, 1, "", "EINVAL 0/0/0 ");
  query({{part("61"), "1c000000 0300 0202 S 00000000 f4ffffff 0700 0100 62616400"}}, 1, "a",
        "ENOMEM 0/0/0 bad");
  // Answers that repeat the request, the second one's longer than it is.
  const std::string repeats = "0200 0002 S 00000000 eaffffff ";
  query({{"30000000" + repeats + "12000000 2000 0500 S 00000000 09010000 0800 0200 14000000"}}, 0,
        "", "EINVAL 20/0/0 ");
  query({{"24000000" + repeats + "ffff0000 2000 0500 S 00000000"}}, 0, "", "EINVAL 0/0/0 ");
  // Interrupted dumps are drained and asked for again, up to three times.
  query({{part("61"), "14000000 0300 1200 S 00000000 00000000"}, {part("62"), kDone}}, 1, "ab");
  query(std::vector<Answer>(4, {part("61", "2000 1200 S"), kDone}), 1, "aaaa",
        "EINTR the dump was interrupted by changes 4 times in a row");
  // What is left of a dump keeps the kernel from starting another one on the socket.
  query({{part("61")}}, 1, "a", "ETIMEDOUT no answer within 200 ms", 2);
  // Too short, too long, with a byte too many, with what is neither 0 nor a negative errno.
  const std::string head = kAck.substr(0, 29);
  for (const std::string& answer :
       {std::string("12000000 0300 0200 S 00000000 0000"), "14" + head.substr(2) + "00000000",
        "24000080" + kAck.substr(8), kAck + "00", head + "01000000" + kAck.substr(38),
        head + "00f0ffff" + kAck.substr(38)}) {
    query({{answer, kAck}}, 1, "", "EBADMSG the answer is malformed", 2);
  }
  query({{head + "01f0ffff" + kAck.substr(38)}}, 1, "", "4095 0/0/0 ");
  query({{"00000200 2100 0000 S 00000000" + std::string(262112, '0'), kAck}}, 0, "");
  query({{"04000200 1800 0000 S 00000000" + std::string(262120, '0'), kAck}}, 0, "",
        "EMSGSIZE the answer is longer than the receive buffer", 2);
  query({{""}}, 0, "", "ECONNRESET the peer closed the connection before its answer", 2);
}

TEST(Netlink, SilentPeerTimesOutInSpiteOfSignalsAndItsLateAnswerIsSkipped) {
  const std::string late = "24000000 0200 0001 00000000 00000000 f0ffffff" + kAck.substr(38);
  const std::string bare = "24000000 0200 0001 S 00000000 f0ffffff" + kAck.substr(38);
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
  FakeKernel kernel({{}, {late, kRefusal}, {kRefusal}, {bare}}, "200");
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
  EXPECT_EQ("EBUSY 0/0/0 ", last_failure()) << "for one refusal what was said of another";
}

TEST(Netlink, TimeOfCallbacksDoesNotCountAndForeignMessagesAddNone) {
  int parts = 0;
  const auto take_slowly = [](const nlmsghdr*, void* count) {
    usleep(150'000);
    return ++*static_cast<int*>(count);
  };
  FakeKernel kernel({{part("61"), part("62"), part("63"), kDone}}, "200");
  EXPECT_EQ(0, corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, take_slowly, &parts, 1));
  EXPECT_EQ(3, parts);

  const std::string others = part("58", "2000 0200 00000000");
  FakeKernel babbler({{part("61"), others}}, "200");
  babbler.babble(others);
  EXPECT_EQ(-1, corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, take_slowly, &parts, 1));
  EXPECT_EQ("ETIMEDOUT no answer within 200 ms", last_failure());
  EXPECT_EQ(4, parts);
}

TEST(Netlink, FamilyQueryWantsIdAndVersion) {
  const std::string head = "24000000 1000 0000 S 00000000 01020000";
  const std::string lacks =
      "EBADMSG the controller's answer lacks the id or version of family FIFTEEN_LETTERS";
  uint16_t family = 0;
  for (const auto& [answer, failure] :
       {std::pair{head + "0600 0100 2a000000 0800 0300 01000000", kNoFailure},
        {head + "0600 0100 2b000000 0800 0300 02000000",
         "EPROTONOSUPPORT netlink family FIFTEEN_LETTERS has version 2, not 1"},
        {head + "0500 0100 2b000000 0800 0300 01000000", lacks},
        {head + "0600 0100 2b000000 0700 0300 01000000", lacks},
        {head + "0600 0200 2b000000 0800 0300 01000000", lacks},
        {head + "0600 0100 2b000000 0800 0400 01000000", lacks},
        {"12000000 1000 0000 S 00000000 0102", lacks},
        {kRefusal, "EINVAL 20/6/24 bad"}}) {
    FakeKernel kernel({{answer}});
    EXPECT_EQ(failure == kNoFailure ? 0 : -1,
              corvil_netlink_query_genl("FIFTEEN_LETTERS", 1, &family));
    EXPECT_EQ(failure, last_failure()) << answer;
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

TEST(Netlink, DryRunOnlyShowsRequests) {
  const auto show = [](CorvilNetlinkDirection, const void* data, size_t size, void* shown) {
    *static_cast<std::string*>(shown) = {static_cast<const char*>(data), size};
  };
  std::string shown;
  uint16_t family = 0;
  corvil_netlink_set_dry_run(99);
  EXPECT_EQ(-1, corvil_netlink_query_genl("SIXTEEN_LETTERS_", 1, &family));
  EXPECT_EQ(0, corvil_netlink_query_genl("ANY", 1, &family));
  EXPECT_EQ(99, family);
  EXPECT_EQ(kNoFailure, last_failure());
  EXPECT_EQ(0, transact());
  corvil_netlink_set_trace(show, &shown);
  EXPECT_EQ(0, transact());
  corvil_netlink_set_trace(nullptr, nullptr);
  corvil_netlink_set_dry_run(0);
  EXPECT_EQ(bytes("14000000 2000 0500 00000000 00000000 09010000"), shown);
}

TEST(Netlink, ThreadsAndForksHaveConnectionsOfTheirOwn) {
  FakeKernel kernel;
  EXPECT_EQ(0, transact());
  EXPECT_EXIT(_exit(transact() + transact() + static_cast<int>(kernel.connections())),
              testing::ExitedWithCode(2), "");
  std::thread([] { EXPECT_EQ(0, transact()); }).join();
  EXPECT_EQ(2U, kernel.connections());
}

/// Closes a descriptor unasked, as a daemon does that closes all, and has its number stand for one
/// end of a pair of sockets. Returns the other end.
int reuse(int number) {
  std::array<int, 2> pair{};
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair.data()));
  EXPECT_EQ(number, dup2(pair[0], number));
  close(pair[0]);
  return pair[1];
}

/// Whether `number` still is open, and nothing was sent through it.
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
      reused[i] = dup(0);  // The next one to be opened has the lowest number that is free.
      close(reused[i]);
      EXPECT_EQ(0, transact());
      other_ends[i] = reuse(reused[i]);
    }
  }).join();
  EXPECT_EQ(2U, kernel.connections());
  EXPECT_TRUE(untouched(reused[0], other_ends[0])) << "by the next exchange";
  EXPECT_TRUE(untouched(reused[1], other_ends[1])) << "by the end of the thread";
}

bool well() { return true; }

/// Has exchanges succeed while their capture fails, in a process of its own. `prepare` gets the
/// capture's path; `spoil` runs behind the first exchange, `check` behind the last.
template <typename Prepare, typename Spoil = bool (*)(), typename Check = bool (*)()>
void expect_capture_to_fail(const std::string& failure, Prepare prepare, Spoil spoil = well,
                            Check check = well) {
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

  // The first query tells the victim's address; a forger with CAP_NET_ADMIN refuses the second.
  const auto forge = [](CorvilNetlinkDirection direction, const void* data, size_t, void* context) {
    const nlmsghdr header = *static_cast<const nlmsghdr*>(data);
    const sockaddr_nl victim{AF_NETLINK, 0, header.nlmsg_pid, 0};
    const std::array<uint32_t, 9> forged{36, NLMSG_ERROR | NLM_F_CAPPED << 16, header.nlmsg_seq, 0,
                                         uint32_t{0} - EXDEV};
    if (direction == CORVIL_NETLINK_SENT) {
      EXPECT_EQ(bytes("03010000"), std::string(static_cast<const char*>(data) + 16, 4));
      send(*static_cast<int*>(context), &forged, sizeof(forged), 0);
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
  // A flood of forged messages leaves no room for the kernel's answer.
  const auto flood = [](CorvilNetlinkDirection direction, const void* data, size_t size, void* to) {
    while (direction == CORVIL_NETLINK_SENT &&
           send(*static_cast<int*>(to), data, size, MSG_DONTWAIT) > 0) {
    }
  };
  setenv("CORVIL_NETLINK_TIMEOUT_MS", "200", 1);
  corvil_netlink_set_trace(flood, &forger);
  if (corvil_netlink_query_genl("nlctrl", 2, &family) == -1) {
    EXPECT_EQ("ENOBUFS an answer was lost: the socket's receive buffer overflowed", last_failure());
  }
  corvil_netlink_set_trace(nullptr, nullptr);
  EXPECT_EQ(0, corvil_netlink_query_genl("nlctrl", 2, &family));
  close(forger);

  // A name without its NUL.
  const std::string bad = bytes("1c000000 1000 0500 00000000 00000000 03010000 0500 0200 61000000");
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
  EXPECT_EQ(bytes("ff000000 0500 0180 61000000 0400 0200 ff"), buffer.substr(16, 17));
  EXPECT_EQ(-1, corvil_nla_put(message, 3, 65532, payload.data()));
  EXPECT_EQ(32U, message->nlmsg_len);
  EXPECT_EQ(0, corvil_nla_put(message, 3, 65531, payload.data()));
  EXPECT_EQ(32U + 65536, message->nlmsg_len);
  EXPECT_EQ(bytes("ffff 0300 78"), buffer.substr(32, 5));
}

TEST(Attributes, ParseStaysInsideTheRun) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  char* unreadable = static_cast<char*>(pages) + page;
  ASSERT_EQ(0, mprotect(unreadable, page, PROT_NONE));
  const std::string run = bytes("0800 0100 01020304  0400 0400  0500 0380 ff000000");
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
  EXPECT_EQ(0, corvil_port_utils_add_port_from_kernel(443, 6, 17));
  for (const uint16_t port : std::array<uint16_t, 3>{65535, 80, 80}) {
    EXPECT_EQ(0, corvil_port_utils_add_port_from_kernel(port, 4, 6));
  }
  EXPECT_EQ(-1, corvil_port_utils_add_port_from_kernel(80, 5, 6));
  std::string listed;
  const auto list = [](const CorvilPort* port, void* context) {
    *static_cast<std::string*>(context) += std::to_string(port->port) + " ";
  };
  corvil_port_tree_visit(list, &listed);
  EXPECT_EQ("80 65535 443 ", listed);
}

}  // namespace
