// The host's libraries: netlink against a scripted peer and against this machine's kernel, the
// attribute parser on raw bytes, the diagnostic service, the port tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host_interfaces/corvil_log_services.h"
#include "host_interfaces/corvil_netlink.h"
#include "host_interfaces/corvil_port_utils.h"
#include "reference_host/netlink/corvil_netlink_control.h"
#include "reference_host/port_utils/corvil_port_tree.h"
#include "tests/support/netlink_bytes.h"
#include "tests/support/scripted_kernel.h"

namespace {

using namespace netlink_bytes;

/// In an answer it stands for the sequence number of the request.
constexpr uint32_t kAsked = 0x3f3f3f3f;
constexpr uint16_t kFamily = 32;

/// The datagrams that answer one request.
using Answer = std::vector<std::string>;

std::string result(int error) { return acknowledgement(kAsked, error, NLM_F_CAPPED); }

/// The end of a dump.
std::string done(int error = 0, uint16_t flags = NLM_F_MULTI, const std::string& extack = "") {
  return message(NLMSG_DONE, flags, kAsked, raw(error) + extack);
}

/// A part of a dump, with one character behind the generic header.
std::string part(char character, uint16_t type = kFamily, uint32_t sequence = kAsked) {
  return message(type, NLM_F_MULTI, sequence, generic(14, {character}));
}

const std::string kAck = result(0);
const std::string kForeign = part('X', kFamily, 0);

/// Gives one answer after the other, and then accepts every request.
ScriptedKernel::Script script(std::vector<Answer> answers = {}) {
  return [answers = std::move(answers), next = size_t{0}](const nlmsghdr& request) mutable {
    Answer answer = next < answers.size() ? answers[next++] : Answer{kAck};
    for (std::string& datagram : answer) {
      for (size_t at = 0; (at = datagram.find(raw(kAsked))) != std::string::npos;) {
        datagram.replace(at, 4, raw(request.nlmsg_seq));
      }
    }
    return answer;
  };
}

const struct {
  nlmsghdr header{20, kFamily, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
  genlmsghdr generic{9, 1, 0};
} kRequest;

int transact(const nlmsghdr* request = &kRequest.header, int protocol = NETLINK_GENERIC) {
  return corvil_netlink_transact(request, protocol, nullptr);
}

/// The last error: its name and its message.
std::string last_error() {
  const CorvilNetlinkError& last = *corvil_netlink_last_error();
  return strerrorname_np(last.error) + std::string(" ") + last.message;
}
const std::string kNoError = "0 ";
const std::string kNoAnswer = "ETIMEDOUT no answer within 200 ms";

/// Collects the first payload byte behind each reply's generic header.
int collect(const nlmsghdr* reply, void* replies) {
  *static_cast<std::string*>(replies) += reinterpret_cast<const char*>(reply)[20];
  return 1;
}

/// What the answers to a query, and to its repetitions, come to.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order that a row reads best
const struct QueryCase {
  std::vector<Answer> answers;
  bool dump;
  std::string replies;
  std::string error = kNoError;
  bool reconnects = false;  // The next request needs a new connection.
} kQueries[] = {
    {{{part('a'), part('b'), kAck, part('X')}}, false, "ab"},
    {{{part('a'), part('X', 33) + kForeign + part('b'), kAck + part('c') + done()}}, true, "abc"},
    {{{result(-EINVAL)}}, true, "", "EINVAL "},
    {{{part('a'), done(-ENOMEM, NLM_F_ACK_TLVS, text(NLMSGERR_ATTR_MSG, "bad"))}},
     true,
     "a",
     "ENOMEM bad"},
    {{{""}}, false, "", "ECONNRESET cannot receive the answer: Connection reset by peer", true},
    // What is left of a dump keeps the kernel from starting another one on the socket.
    {{{part('a')}}, true, "a", kNoAnswer, true},
    // A dump that is interrupted is read to its end and asked for again.
    {{{part('a'), done(0, NLM_F_DUMP_INTR)}, {part('b'), done()}}, true, "ab"},
};

void check(const QueryCase& query) {
  SCOPED_TRACE(testing::PrintToString(query.answers[0][0].substr(0, 80)));
  corvil_netlink_set_timeout(query.error == kNoAnswer ? 200 : 5000);
  ScriptedKernel kernel(script(query.answers));
  std::string replies;
  EXPECT_EQ(query.error == kNoError ? 0 : -1,
            corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, collect, &replies, query.dump));
  EXPECT_EQ(query.error, last_error());
  EXPECT_EQ(query.replies, replies);
  EXPECT_EQ(0, transact());
  EXPECT_EQ(query.reconnects ? 2 : 1, kernel.connections());
}

TEST(Netlink, QueriesTakeTheirOwnAnswers) {
  for (const QueryCase& query : kQueries) {
    check(query);
  }
  for (const std::string& malformed :
       {message(NLMSG_DONE, NLM_F_MULTI, kAsked, raw(uint16_t{0})),
        message(NLMSG_ERROR, 0, kAsked, raw(0)), raw(0x80000024U) + kAck.substr(4), kForeign + '\0',
        result(1)}) {
    check({{{malformed, kAck}}, true, "", "EBADMSG the answer is malformed", true});
  }
}

TEST(Netlink, WaitsNoLongerThanTheTimeOut) {
  corvil_netlink_set_timeout(200);
  ScriptedKernel kernel(script({{}, {part('a'), part('b'), part('c'), done()}}));
  const clock_t start = clock();
  EXPECT_EQ(-1, transact());
  EXPECT_LT(clock() - start, CLOCKS_PER_SEC / 10) << "of computing, instead of waiting";
  EXPECT_EQ(kNoAnswer, last_error());
  int parts = 0;
  const auto take_slowly = [](const nlmsghdr*, void* count) {
    usleep(150'000);
    return ++*static_cast<int*>(count);
  };
  EXPECT_EQ(0, corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, take_slowly, &parts, 1));
  EXPECT_EQ(3, parts) << "The time of callbacks does not count.";

  corvil_netlink_set_timeout(20);
  corvil_netlink_set_trace(nullptr, nullptr);  // No connection is accepted any more.
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(-1, transact());
  }
  EXPECT_TRUE(last_error().starts_with("ETIMEDOUT cannot reach the emulator: ")) << last_error();
}

TEST(Netlink, FamilyQueryWantsIdAndVersion) {
  const std::string id = attribute(CTRL_ATTR_FAMILY_ID, raw(uint16_t{42}));
  const std::string version = attribute(CTRL_ATTR_VERSION, raw(1U));
  for (const auto& [attributes, outcome] :
       {std::pair<std::string, std::string>{id + version, "42 0 "},
        {id + attribute(CTRL_ATTR_VERSION, raw(2U)),
         "7 EPROTONOSUPPORT netlink family FIFTEEN_LETTERS has version 2, not 1"},
        {attribute(CTRL_ATTR_FAMILY_ID, "x") + version,
         "7 EBADMSG the controller's answer lacks the id of family FIFTEEN_LETTERS"}}) {
    ScriptedKernel kernel(script({{message(GENL_ID_CTRL, 0, kAsked, generic(1, attributes))}}));
    uint16_t family = 7;
    corvil_netlink_query_genl("FIFTEEN_LETTERS", 1, &family);
    EXPECT_EQ(outcome, std::to_string(family) + " " + last_error());
  }
  EXPECT_EQ(-1, corvil_netlink_query_genl("SIXTEEN_LETTERS_", 1, nullptr));
  EXPECT_EQ("EINVAL no family name is as long as SIXTEEN_LETTERS_", last_error());
}

TEST(Netlink, RequestsAndSettingsMustMakeSense) {
  ScriptedKernel kernel(script());
  const nlmsghdr too_long{131073, kFamily, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
  EXPECT_EQ(-1, transact(&too_long));
  EXPECT_TRUE(last_error().starts_with("EMSGSIZE a request has ")) << last_error();
  EXPECT_EQ(0, transact());
  corvil_netlink_set_timeout(0);
  for (const std::string timeout : {"0", "5x", "2147483648"}) {
    setenv("CORVIL_NETLINK_TIMEOUT_MS", timeout.c_str(), 1);
    ScriptedKernel unreached(script());
    EXPECT_EQ(-1, transact());
    EXPECT_EQ("EINVAL CORVIL_NETLINK_TIMEOUT_MS: '" + timeout +
                  "' is not a positive number of milliseconds",
              last_error());
  }
  setenv("CORVIL_NETLINK_TIMEOUT_MS", "", 1);
  EXPECT_EQ(3000, corvil_netlink_timeout());
  const std::string long_path(108, 'x');
  corvil_netlink_set_emulator(long_path.c_str());
  EXPECT_EQ(-1, transact());
  EXPECT_TRUE(last_error().starts_with("ENAMETOOLONG ")) << last_error();
}

/// The number that the next descriptor will get.
int lowest_free() {
  const int number = dup(0);
  close(number);
  return number;
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

TEST(Netlink, ThreadsAndForksHaveConnectionsOfTheirOwnThatTheHostMayClose) {
  ScriptedKernel kernel(script());
  EXPECT_EQ(0, transact());
  EXPECT_EXIT(_exit(transact() + kernel.connections()), testing::ExitedWithCode(2), "");
  for (const bool exchanges_again : {true, false}) {
    const int number = lowest_free();
    int end = -1;
    std::thread([&] {
      EXPECT_EQ(0, transact());
      end = reuse(number);
      EXPECT_EQ(0, exchanges_again ? transact() : 0);
    }).join();
    EXPECT_TRUE(untouched(number, end)) << exchanges_again;
  }
  EXPECT_EQ(4, kernel.connections());
}

int file = -1;       // the reader of a FIFO, or what the host has opened in place of a capture
int other_end = -1;  // of the latter

/// How a capture fails while the exchanges go on.
const struct CaptureCase {
  const char* error;
  void (*prepare)(const char* path);
  void (*spoil)() = [] {};  // between two exchanges
} kCaptures[] = {
    {"ENXIO", [](const char* path) { mkfifo(path, 0600); }},
    {"EPIPE",
     [](const char* path) {
       mkfifo(path, 0600);
       file = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
     },
     [] { close(file); }},
    {"EFBIG",
     [](const char* /*path*/) {
       const rlimit header_alone{24, RLIM_INFINITY};
       setrlimit(RLIMIT_FSIZE, &header_alone);
     }},
    {"EBUSY",
     [](const char* path) { flock(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600), LOCK_EX); }},
    {"EBADF", [](const char* /*path*/) { file = lowest_free(); }, [] { other_end = reuse(file); }},
};

[[noreturn]] void fail_to_capture(const CaptureCase& capture) {
  alarm(20);
  static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
  static_cast<void>(std::signal(SIGXFSZ, SIG_DFL));
  const std::string path = testing::TempDir() + std::to_string(getpid()) + "capture";
  capture.prepare(path.c_str());
  corvil_netlink_open_capture(path.c_str());
  ScriptedKernel kernel(script());
  int result = transact();
  capture.spoil();
  result += transact();
  unlink(path.c_str());
  corvil_netlink_check_capture();
  const rlimit no_limit{RLIM_INFINITY, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &no_limit);
  fputs(last_error().c_str(), stderr);
  _exit(result == 0 && (other_end == -1 || untouched(file, other_end)) ? 0 : 1);
}

TEST(CaptureDeathTest, FailureIsReportedAndTouchesNothingElse) {
  for (const CaptureCase& capture : kCaptures) {
    EXPECT_EXIT(fail_to_capture(capture), testing::ExitedWithCode(0),
                std::string("^") + capture.error + " cannot write the capture /");
  }
}

/// Sends what the kernel has answered to the library's socket once more.
void forge(CorvilNetlinkDirection direction, const void* bytes, size_t length, void* socket) {
  const sockaddr_nl victim{AF_NETLINK, 0, static_cast<const nlmsghdr*>(bytes)->nlmsg_pid, 0};
  if (direction == CORVIL_NETLINK_RECEIVED) {
    EXPECT_EQ(-1, sendto(*static_cast<int*>(socket), bytes, length, 0,
                         reinterpret_cast<const sockaddr*>(&victim), sizeof(victim)));
  }
}

TEST(Netlink, RealKernelIsBelievedAndNobodyElse) {
  int forger = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
  if (forger == -1) {
    GTEST_SKIP() << "no netlink sockets here";
  }
  corvil_netlink_set_trace(forge, &forger);
  uint16_t family = 0;
  EXPECT_EQ(-1, corvil_netlink_query_genl("NO_SUCH_FAMILY", 1, &family));
  EXPECT_EQ("ENOENT netlink family NO_SUCH_FAMILY is not available", last_error());
  corvil_netlink_set_trace(nullptr, nullptr);
  close(forger);
  EXPECT_EQ(0, corvil_netlink_query_genl("nlctrl", 2, &family));
  EXPECT_EQ(GENL_ID_CTRL, family);
  const std::string bad = message(
      GENL_ID_CTRL, NLM_F_REQUEST | NLM_F_ACK, 0,
      generic(CTRL_CMD_GETFAMILY, attribute(CTRL_ATTR_FAMILY_NAME, "a name without its NUL")));
  EXPECT_EQ(-1, transact(reinterpret_cast<const nlmsghdr*>(bad.data())));
  EXPECT_EQ("EINVAL Attribute failed policy validation", last_error());
  EXPECT_EQ(20U, corvil_netlink_last_error()->attribute_offset);
  EXPECT_EQ(-1, transact(&kRequest.header, 99));
  EXPECT_EQ("EPROTONOSUPPORT cannot open a socket of netlink protocol 99: Protocol not supported",
            last_error());
}

TEST(Attributes, StayInsideTheirLimits) {
  std::vector<char> buffer(64, '\xff');
  auto* message = new (buffer.data()) nlmsghdr{17, 0, 0, 0, 0};
  EXPECT_EQ(0, corvil_nla_put(message, 0x8001, 1, "a"));
  EXPECT_EQ(0, corvil_nla_put(message, 2, 0, nullptr));
  EXPECT_EQ(-1, corvil_nla_put(message, 3, 65532, buffer.data()));
  EXPECT_EQ(32U, message->nlmsg_len);
  EXPECT_EQ(std::string("\xff\0\0\0", 4) + attribute(0x8001, "a") + attribute(2, "") + '\xff',
            std::string(&buffer[16], 17));

  const auto* first = reinterpret_cast<const nlattr*>(&buffer[20]);
  std::array<const nlattr*, 3> table{first, nullptr, nullptr};
  EXPECT_EQ(0, corvil_nla_parse(first, table.data(), 12, 2));
  EXPECT_EQ(table, (std::array<const nlattr*, 3>{nullptr, first, first + 2}));
  EXPECT_EQ(0, corvil_nla_parse(first, table.data(), 5, 0)) << "without padding";
  EXPECT_EQ(-1, corvil_nla_parse(first, table.data(), 11, 0)) << "bytes too few for a header";
  EXPECT_EQ(-1, corvil_nla_parse(first, table.data(), 4, 0)) << "an attribute that is cut";
}

/// Logs what the environment asks for, and ends the process.
[[noreturn]] void log_and_exit() {
  const LogSiteDescriptor low{1, 65, LOG_LEVEL_MASK_LOW, "trace", "a.cpp"};
  const LogSiteDescriptor failure{2, 65, LOG_LEVEL_MASK_ERR, "%s %d\n\n", "a.cpp"};
  if ((zu_log_mask & ZU_LOG_MASK_DIAGNOSTIC) != 0) {
    msg_sprintf(&low);
    msg_sprintf(&failure, "100%", -1);
  }
  _exit(0);
}

TEST(LogDeathTest, EnvironmentSwitchesItOn) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // The library reads it when it is loaded.
  const std::string path = testing::TempDir() + "reference_host_test.log";
  std::ofstream(path) << "was there\n";
  for (const auto& [target, level, printed] :
       {std::array<std::string, 3>{"", "low", "^$"},
        {"stderr", "", "^subsystem 65 ERR a.cpp:2: 100% -1\n$"},
        {"stderr", "LOW", "^subsystem 65 LOW a.cpp:1: trace\nsubsystem 65 ERR .*\n$"},
        {"/nonexistent/log", "",
         "^CORVIL_LOG: no log, since /nonexistent/log cannot be written: .*\n$"},
        {"stderr", "info", "^CORVIL_LOG_LEVEL: no log, since 'info' is not low, .* or err\n$"},
        {path, "low", "^$"}}) {
    setenv("CORVIL_LOG", target.c_str(), 1);
    setenv("CORVIL_LOG_LEVEL", level.c_str(), 1);
    EXPECT_EXIT(log_and_exit(), testing::ExitedWithCode(0), printed);
  }
  std::ifstream log(path);
  const std::string lines(std::istreambuf_iterator<char>(log), {});
  const std::string time = "....-..-.. ..:..:..[.]... subsystem 65 ";
  const testing::Matcher<std::string> expected = testing::MatchesRegex(
      "was there\n" + time + "LOW a.cpp:1: trace\n" + time + "ERR a.cpp:2: 100% -1\n");
  EXPECT_TRUE(expected.Matches(lines)) << lines;
  unlink(path.c_str());
}

TEST(PortTree, HoldsKnownPortsOnceAndInOrder) {
  for (const auto& [port, ip_proto, trans_proto] :
       {CorvilPort{443, 6, 6}, {53, 4, 17}, {65535, 4, 6}, {80, 4, 6}, {80, 4, 6}}) {
    EXPECT_EQ(0, corvil_port_utils_add_port_from_kernel(port, ip_proto, trans_proto));
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
