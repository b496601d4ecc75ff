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

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
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

std::string result(int error, const std::string& extack = "") {
  return acknowledgement(kAsked, error, NLM_F_CAPPED | NLM_F_ACK_TLVS, extack);
}

/// The end of a dump.
std::string done(int error = 0, uint16_t flags = NLM_F_MULTI, const std::string& extack = "") {
  return message(NLMSG_DONE, flags, kAsked, raw(error) + extack);
}

/// A part of a dump, with one character behind the generic header.
std::string part(char character, uint16_t type = kFamily, uint32_t sequence = kAsked,
                 uint16_t flags = NLM_F_MULTI) {
  return message(type, flags, sequence, generic(14, {character}));
}

const std::string kAck = result(0);
const std::string kBadMessage = attribute(NLMSGERR_ATTR_MSG, "bad");
const std::string kInvalid = result(-EINVAL, kBadMessage + attribute(NLMSGERR_ATTR_OFFS, raw(20U)) +
                                                 attribute(NLMSGERR_ATTR_MISS_TYPE, raw(6U)) +
                                                 attribute(NLMSGERR_ATTR_MISS_NEST, raw(24U)));
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

int transact(int* error = nullptr, const nlmsghdr* request = &kRequest.header,
             int protocol = NETLINK_GENERIC) {
  return corvil_netlink_transact(request, protocol, error);
}

/// The last error: its name; for one of the kernel the offset of the bad attribute, the type of a
/// missing one and the offset of the nest that lacks it; the message.
std::string last_error() {
  const CorvilNetlinkError& last = *corvil_netlink_last_error();
  const char* name = strerrorname_np(last.error);
  const std::string where = std::to_string(last.attribute_offset) + "/" +
                            std::to_string(last.missing_attribute) + "/" +
                            std::to_string(last.missing_nest_offset) + " ";
  return (name != nullptr ? name : std::to_string(last.error)) + " " +
         (last.from_kernel == 1 || where != "0/0/0 " ? where : "") + last.message;
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
    {{{kInvalid}}, true, "", "EINVAL 20/6/24 bad"},
    {{{acknowledgement(kAsked, -EINVAL, 0, kBadMessage)}}, true, "", "EINVAL 0/0/0 "},
    {{{part('a'), done(-ENOMEM, NLM_F_ACK_TLVS, kBadMessage)}}, true, "a", "ENOMEM 0/0/0 bad"},
    {{{""}}, false, "", "ECONNRESET cannot receive the answer: Connection reset by peer", true},
    // What is left of a dump keeps the kernel from starting another one on the socket.
    {{{part('a')}}, true, "a", kNoAnswer, true},
    // A dump that is interrupted is read to its end and asked for again.
    {{{part('a'), done(0, NLM_F_DUMP_INTR)}, {part('b'), done()}}, true, "ab"},
    {std::vector<Answer>(4, {part('a', kFamily, kAsked, NLM_F_DUMP_INTR), done()}), true, "aaaa",
     "EINTR the dump was interrupted by changes 4 times in a row"},
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
        result(1), result(-4096)}) {
    check({{{malformed, kAck}}, true, "", "EBADMSG the answer is malformed", true});
  }
}

TEST(Netlink, SilentPeerTimesOutAndItsLateAnswerIsSkipped) {
  corvil_netlink_set_timeout(200);
  std::string late;
  ScriptedKernel kernel([&](const nlmsghdr& request) {
    late = acknowledgement(request.nlmsg_seq, -EBUSY);
    return Answer{};
  });
  const clock_t start = clock();
  EXPECT_EQ(-1, transact());
  EXPECT_LT(clock() - start, CLOCKS_PER_SEC / 10) << "of computing, instead of waiting";
  EXPECT_EQ(kNoAnswer, last_error());
  kernel.answer_with(script({{late, kInvalid}, {result(-EBUSY)}}));
  int error = 0;
  EXPECT_EQ(-1, transact(&error));
  EXPECT_EQ(-EINVAL, error);
  EXPECT_EQ("EINVAL 20/6/24 bad", last_error());
  EXPECT_EQ(-1, transact());
  EXPECT_EQ("EBUSY 0/0/0 ", last_error()) << "with what was said of another error";

  corvil_netlink_set_timeout(20);
  corvil_netlink_set_trace(nullptr, nullptr);  // No connection is accepted any more.
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(-1, transact());
  }
  EXPECT_TRUE(last_error().starts_with("ETIMEDOUT cannot reach the emulator: ")) << last_error();
}

TEST(Netlink, TimeOfCallbacksDoesNotCountAndForeignMessagesAddNone) {
  corvil_netlink_set_timeout(200);
  ScriptedKernel kernel(script({{part('a'), part('b'), part('c'), done()}, {part('a'), kForeign}}));
  int parts = 0;
  const auto take_slowly = [](const nlmsghdr*, void* count) {
    usleep(150'000);
    return ++*static_cast<int*>(count);
  };
  EXPECT_EQ(0, corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, take_slowly, &parts, 1));
  EXPECT_EQ(3, parts);
  kernel.babble(kForeign);
  EXPECT_EQ(-1, corvil_netlink_query(&kRequest.header, NETLINK_GENERIC, take_slowly, &parts, 1));
  EXPECT_EQ(kNoAnswer, last_error());
}

TEST(Netlink, FamilyQueryWantsIdAndVersion) {
  const auto look_up = [](const std::string& attributes) {
    ScriptedKernel kernel(script({{message(GENL_ID_CTRL, 0, kAsked, generic(1, attributes))}}));
    uint16_t family = 7;
    corvil_netlink_query_genl("FIFTEEN_LETTERS", 1, &family);
    return std::to_string(family) + " " + last_error();
  };
  const std::string id = attribute(CTRL_ATTR_FAMILY_ID, raw(uint16_t{42}));
  const std::string version = attribute(CTRL_ATTR_VERSION, raw(1U));
  EXPECT_EQ("42 0 ", look_up(id + version));
  EXPECT_EQ("7 EPROTONOSUPPORT netlink family FIFTEEN_LETTERS has version 2, not 1",
            look_up(id + attribute(CTRL_ATTR_VERSION, raw(2U))));
  for (const std::string& lacking : {version, attribute(CTRL_ATTR_FAMILY_ID, "x") + version}) {
    EXPECT_EQ("7 EBADMSG the controller's answer lacks the id of family FIFTEEN_LETTERS",
              look_up(lacking));
  }
  EXPECT_EQ(-1, corvil_netlink_query_genl("SIXTEEN_LETTERS_", 1, nullptr));
  EXPECT_EQ("EINVAL no family name is as long as SIXTEEN_LETTERS_", last_error());
}

TEST(Netlink, RequestsAndSettingsMustMakeSense) {
  ScriptedKernel kernel(script());
  for (const uint32_t length : {15, 131073}) {
    const nlmsghdr request{length, kFamily, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
    EXPECT_EQ(-1, transact(nullptr, &request));
    EXPECT_EQ("EMSGSIZE a request has at least 16 and at most 131072 bytes, not " +
                  std::to_string(length),
              last_error());
  }
  EXPECT_EQ(0, transact());
  EXPECT_EQ(-1, corvil_netlink_open_capture("/dev/null")) << "behind an exchange";
  EXPECT_EQ("EALREADY cannot write the capture /dev/null: Operation already in progress",
            last_error());
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
  corvil_netlink_set_dry_run(99);
  EXPECT_EQ(0, transact());
  EXPECT_EQ(kNoError, last_error());
  corvil_netlink_set_dry_run(0);
  const std::string long_path(108, 'x');
  corvil_netlink_set_emulator(long_path.c_str());
  EXPECT_EQ(-1, transact());
  EXPECT_TRUE(last_error().starts_with("ENAMETOOLONG ")) << last_error();
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
    int number = dup(0);  // The lowest free number, which the connection will get.
    int end = -1;
    close(number);
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
    {"EBADF", [](const char* /*path*/) {},
     [] {
       do {
         ++file;
       } while (fcntl(file, F_GETFL) == -1 || (fcntl(file, F_GETFL) & O_APPEND) == 0);
       other_end = reuse(file);
     }},
};

[[noreturn]] void fail_to_capture(const CaptureCase& capture) {
  alarm(20);
  static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
  static_cast<void>(std::signal(SIGXFSZ, SIG_DFL));
  const std::string path = testing::TempDir() + std::to_string(getpid()) + "capture";
  setenv("CORVIL_NETLINK_PCAP", path.c_str(), 1);
  capture.prepare(path.c_str());
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

/// Answers the requests of the library's socket before the kernel does, once it has seen an answer,
/// which bears that socket's address. It takes CAP_NET_ADMIN.
void forge(CorvilNetlinkDirection direction, const void* bytes, size_t /*length*/, void* socket) {
  const nlmsghdr header = *static_cast<const nlmsghdr*>(bytes);
  const int forger = *static_cast<int*>(socket);
  if (direction == CORVIL_NETLINK_SENT) {
    const std::string forged = acknowledgement(header.nlmsg_seq, -EXDEV, NLM_F_CAPPED);
    send(forger, forged.data(), forged.size(), 0);
  } else {
    const sockaddr_nl victim{AF_NETLINK, 0, header.nlmsg_pid, 0};
    static_cast<void>(connect(forger, reinterpret_cast<const sockaddr*>(&victim), sizeof(victim)));
  }
}

TEST(Netlink, RealKernelIsBelievedAndNobodyElse) {
  int forger = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
  if (forger == -1) {
    GTEST_SKIP() << "no netlink sockets here";
  }
  corvil_netlink_set_trace(forge, &forger);
  uint16_t family = 0;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(-1, corvil_netlink_query_genl("NO_SUCH_FAMILY", 1, &family));
    EXPECT_EQ("ENOENT 0/0/0 netlink family NO_SUCH_FAMILY is not available", last_error());
  }
  corvil_netlink_set_trace(nullptr, nullptr);
  close(forger);
  EXPECT_EQ(0, corvil_netlink_query_genl("nlctrl", 2, &family));
  EXPECT_EQ(GENL_ID_CTRL, family);
  const std::string bad = message(
      GENL_ID_CTRL, NLM_F_REQUEST | NLM_F_ACK, 0,
      generic(CTRL_CMD_GETFAMILY, attribute(CTRL_ATTR_FAMILY_NAME, "a name without its NUL")));
  EXPECT_EQ(-1, transact(nullptr, reinterpret_cast<const nlmsghdr*>(bad.data())));
  EXPECT_EQ("EINVAL 20/0/0 Attribute failed policy validation", last_error());
  EXPECT_EQ(-1, transact(nullptr, &kRequest.header, 99));
  EXPECT_EQ("EPROTONOSUPPORT cannot open a socket of netlink protocol 99: Protocol not supported",
            last_error());
}

TEST(Attributes, StayInsideTheirLimits) {
  const std::string payload(65532, 'x');
  std::vector<char> buffer(66000, '\xff');
  auto* message = new (buffer.data()) nlmsghdr{17, 0, 0, 0, 0};
  EXPECT_EQ(0, corvil_nla_put(message, 0x8001, 1, "a"));
  EXPECT_EQ(0, corvil_nla_put(message, 2, 0, nullptr));
  EXPECT_EQ(-1, corvil_nla_put(message, 3, 65532, payload.data()));
  EXPECT_EQ(32U, message->nlmsg_len);
  EXPECT_EQ(std::string("\xff\0\0\0", 4) + attribute(0x8001, "a") + attribute(2, "") + '\xff',
            std::string(&buffer[16], 17));
  EXPECT_EQ(0, corvil_nla_put(message, 3, 65531, payload.data()));

  const auto* first = reinterpret_cast<const nlattr*>(&buffer[20]);
  std::array<const nlattr*, 3> table{first, nullptr, nullptr};
  EXPECT_EQ(0, corvil_nla_parse(first, table.data(), 12, 2));
  EXPECT_EQ(table, (std::array<const nlattr*, 3>{nullptr, first, first + 2}));
  EXPECT_EQ(0, corvil_nla_parse(first, table.data(), 12 + 65535, 2))
      << "with a type of no interest";
  EXPECT_EQ(-1, corvil_nla_parse(first, table.data(), 11, 2)) << "bytes too few for a header";
  EXPECT_EQ(-1, corvil_nla_parse(first, table.data(), 12 + 65534, 2)) << "an attribute that is cut";
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
  std::string line;
  std::getline(log, line);
  EXPECT_EQ("was there", line);
  for (const char* text :
       {"subsystem 65 LOW a.cpp:1: trace", "subsystem 65 ERR a.cpp:2: 100% -1"}) {
    std::getline(log, line);
    EXPECT_EQ(text, line.substr(std::min(line.size(), strlen("2026-11-23 17:02:11.123 "))));
  }
  unlink(path.c_str());
}

TEST(PortTree, HoldsKnownPortsOnceAndInOrder) {
  const CorvilPort ports[] = {{443, 6, 6}, {53, 4, 17}, {65535, 4, 6}, {80, 4, 6}, {80, 4, 6}};
  for (const auto& [port, ip_proto, trans_proto] : ports) {
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
