// datapathctl as a person runs it: arguments and input in; output, errors and exit status out.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "datapathctl/message_decoder.h"

namespace {

struct Outcome {
  int status;
  std::string out;
  std::string error;
};

std::string contents(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class DatapathctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string folder = ::testing::TempDir() + "datapathctl_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    folder_ = folder;
    unsetenv("CORVIL_NETLINK_EMULATOR");
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  /// Runs the tool with arguments as a shell reads them.
  [[nodiscard]] Outcome run(const std::string& arguments, const std::string& input = "") const {
    std::ofstream(folder_ + "/input") << input;
    const std::string command =
        "cd " + folder_ + " && timeout 20 " DATAPATHCTL " " + arguments + " <input >out 2>error";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(folder_ + "/out"),
            contents(folder_ + "/error")};
  }

  /// What a shell prints where `datapathctl` is the tool, with times as "T".
  [[nodiscard]] std::string shell(const std::string& script) const {
    const std::string command = "cd " + folder_ +
                                "; datapathctl() { timeout 20 " DATAPATHCTL " \"$@\"; }; (" +
                                script + ") 2>&1 | sed -E 's/[0-9:]{8}\\.[0-9]{6}/T/' >printed";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return contents(folder_ + "/printed");
  }

  /// Starts an emulator, in the folder, with options before its command, that has 64 descriptors
  /// and prints to "served".
  [[nodiscard]] pid_t serve(const std::string& options = "",
                            const std::string& path = "kernel") const {
    const std::string command = "cd " + folder_ + " && ulimit -n 64 && exec " DATAPATHCTL " " +
                                options + " emulator " + path + " >served";
    const pid_t emulator = fork();
    if (emulator == 0) {
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(EXIT_FAILURE);
    }
    for (int i = 0; i < 500 && run("--socket " + path + " state").status != 0; ++i) {
      usleep(10000);
    }
    return emulator;
  }

  /// Ends it by SIGTERM; its exit status.
  static int end(pid_t emulator) {
    int status = 0;
    kill(emulator, SIGTERM);
    waitpid(emulator, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string folder_;
};

const std::string kUp = "proxy up wlan0 --from wwan0 --to wlan0 --selector 1 tcp/443 udp6/4500";

const std::string kObjects =
    "proxy, ipsec, encap, lowlat, ports, reset, state, misbehave, batch, emulator, monitor, "
    "decode, version, help, "
    "see datapathctl help";

TEST_F(DatapathctlTest, SaysWhyTheProxyDoesNotComeUpTwice) {
  const Outcome twice = run("--emulate --trace batch -", kUp + "\n# again\n\n" + kUp);
  EXPECT_EQ(twice.status, 2);
  EXPECT_NE(twice.out.find("\n< ERROR EEXIST ADD_FWD_INFO MSG"), std::string::npos) << twice.out;
  EXPECT_EQ(twice.error,
            "datapathctl: standard input:4: proxy up: the kernel refused TAVIK_WLAN SET_DEV: "
            "File exists (EEXIST): the device is set already: DEV \"wlan0\"\n"
            "datapathctl: note: done before: ADD_TUPLES; what takes it back: "
            "proxy update --old tcp/443 udp6/4500\n");
}

TEST_F(DatapathctlTest, TellsWhatStaysBehindAndTakesItBack) {
  // What comes before, a command that fails, the steps done, what takes them back.
  const struct {
    const char* before;
    const char* command;
    const char* done;
    const char* undo;
  } kCases[] = {
      {"proxy up w --from a --to b", "proxy up w --from a --to c --selector 0 tcp/1-3 udp6/9",
       "ADD_TUPLES, ADD_FWD_INFO", "proxy unmap --from a --to c tcp/1-3 udp6/9"},
      {"proxy up w --from a --to b", "proxy up v --from a --to c", "ADD_FWD_INFO",
       "proxy unmap --from a --to c"},
      {"proxy up w --from a --to b", "proxy down w --from a --to c", "UNSET_DEV",
       "proxy up w --from a --to c"},
      {"proxy up w --from a --to b --selector 1", "proxy down w --from a --to b --selector 1 tcp/1",
       "UNSET_DEV, DEL_FWD_INFO, LL_ADDR_FLUSH", "proxy up w --from a --to b --selector 1"},
      {"proxy update --new tcp/1", "proxy unmap --from a --to c tcp/1", "DEL_TUPLES",
       "proxy update --new tcp/1"},
      {"proxy update --new tcp/1\nmisbehave refuse=9:EPERM refuse=2:ENOSPC",
       "proxy update --old tcp/1 --new tcp/2", "DEL_TUPLES", "proxy update --new tcp/1"},
  };
  for (const auto& [before, command, done, undo] : kCases) {
    const Outcome failed = run("--emulate batch -", std::string(before) + "\n" + command);
    const bool flows = std::string(done).ends_with("FLUSH");
    EXPECT_NE(failed.error.find("\ndatapathctl: note: done before: " + std::string(done) +
                                "; what takes it back" + (flows ? ", but for the flows: " : ": ") +
                                undo + "\n"),
              std::string::npos)
        << command << "\n"
        << failed.error;
    const Outcome back = run("--emulate batch --force -", std::string(before) + "\nstate\n" +
                                                              command + "\n" + undo + "\nstate\n");
    const std::string one_state = back.out.substr(0, back.out.size() / 2);
    EXPECT_TRUE(back.out == one_state + one_state || std::string(done) == "UNSET_DEV") << undo;
  }
}

TEST_F(DatapathctlTest, TakesAllDownThatIsThereByForce) {
  const std::string up =
      "proxy up w --from a --to b --selector 1 tcp/1-3\nlowlat add ::1 1 ::2 2\n";
  for (const std::string missing :
       {"", "proxy down w --from a --to b", "proxy unmap --from a --to b --selector 1",
        "proxy update --old tcp/1 tcp/3",
        "proxy down w --from a --to b --selector 1 tcp/1\nlowlat add ::1 1 ::2 2"}) {
    const Outcome down =
        run("--emulate batch --force -", up + missing +
                                             "\nproxy down w --from a --to b --selector 1 "
                                             "tcp/1-3 --force\nstate\n");
    EXPECT_EQ(down.out, "") << missing;
  }
  const Outcome other = run("--emulate --json batch -",
                            "proxy up w --from a --to b tcp/2\n"
                            "proxy down v --from a --to b tcp/1-2 --force\nstate\n");
  EXPECT_EQ(other.status, 0) << other.error;
  EXPECT_NE(other.out.find("\"went_on\":[{\"errno\":\"ENOENT\",\"from_kernel\":true,\"request\":"
                           "\"UNSET_DEV\",\"attribute\":\"DEV\",\"value\":\"v\"},{\"errno\""),
            std::string::npos)
      << other.out;
  EXPECT_NE(other.out.find("\"state\":[{\"device\":{\"selector\":0,\"name\":\"w\"}}]"),
            std::string::npos);
  EXPECT_EQ(run("--emulate --misbehave refuse=2:EPERM proxy down w --from a --to b --force").status,
            2);
  EXPECT_EQ(run("--emulate --misbehave absent proxy down w --from a --to b --force").status, 2);
}

TEST_F(DatapathctlTest, TakesAProxyThroughItsLife) {
  const Outcome outcome = run("--emulate batch " DEMO_BATCH);
  EXPECT_EQ(outcome.status, 0) << outcome.error;
  const std::string ports = "tcp/443\ntcp6/8000\ntcp6/8001\n";
  const std::string up = "device 1 wlan0\nforward 1 wwan0 wlan0\n";
  EXPECT_EQ(outcome.out, "tuple ipv4 tcp 443\ntuple ipv6 udp 4500\n" + up + "tcp/443\nudp6/4500\n" +
                             ports +
                             "tuple ipv4 tcp 443\ntuple ipv6 tcp 8000\ntuple ipv6 tcp 8001\n"
                             "tuple ipv6 esp 0x00001001\n" +
                             up + "encap 4500 pass-through\nlowlat 10.0.0.1 5000 10.0.0.2 5001\n")
      << "and an empty state at the end";
}

TEST_F(DatapathctlTest, ListsWhatTheLastDumpHas) {
  const Outcome again =
      run("--emulate --misbehave interrupt=1 batch -", "ipsec add 0x1001 ::1\nports\n");
  EXPECT_EQ(again.out, "esp6 0x00001001, in the tree as port 0\n");
}

TEST_F(DatapathctlTest, PrintsOneObjectForEachResult) {
  const Outcome outcome =
      run("-j --emulate batch --force -",
          "proxy update --new udp6/53\nip add 0x1001 ::1\nip add 0x10020003 ::1\nports\n"
          "misb none # and on\nreset\nports\nfrob\nproxy up w --from a --to b\nencap set 5\n"
          "lowlat add ::1 1 ::2 2\nstate\nproxy up v --from a --to c\n");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, R"({"command":"proxy update","result":0,"line":1}
{"command":"ipsec add","result":0,"line":2}
{"command":"ipsec add","result":0,"line":3}
{"command":"ports","result":0,"line":4,"ports":[{"ip":6,"transport":"udp","port":53},)"
                         R"({"ip":6,"transport":"esp","spi":4097,"tree_port":0},)"
                         R"({"ip":6,"transport":"esp","spi":268566531,"tree_port":4098}]}
{"command":"misbehave","result":0,"line":5}
{"command":"reset","result":0,"line":6}
{"command":"ports","result":0,"line":7,"ports":[]}
{"command":null,"result":-1,"line":8,"status":1,"reason":"unknown object 'frob'; one of )" +
                             kObjects +
                             R"("}
{"command":"proxy up","result":0,"line":9}
{"command":"encap set","result":0,"line":10}
{"command":"lowlat add","result":0,"line":11}
{"command":"state","result":0,"line":12,"complete":true,"state":[)"
                             R"({"device":{"selector":0,"name":"w"}},)"
                             R"({"forward":{"selector":0,"from":"a","to":"b"}},)"
                             R"({"encap":{"port":5}},{"lowlat":{"source":"::1","source_port":1,)"
                             R"("destination":"::2","destination_port":2}}]}
{"command":"proxy up","result":-1,"line":13,"status":2,"reason":"the kernel refused TAVIK_WLAN )"
                             R"(SET_DEV: Device or resource busy (EBUSY): another device is set: )"
                             R"(DEV \"v\"","errno":"EBUSY","from_kernel":true,)"
                             R"("request":"SET_DEV","attribute":"DEV","value":"v",)"
                             R"("done":["ADD_FWD_INFO"],"undo":"proxy unmap --from a --to c"}
)");
  EXPECT_EQ(run("reset --emulate --json").out, "{\"command\":\"reset\",\"result\":0}\n");
  EXPECT_EQ(run("-jV").out, "{\"command\":\"version\",\"result\":0,\"version\":\"1.0.0\"}\n");
  EXPECT_EQ(run("--timeout 0 -j reset").out,
            "{\"command\":null,\"result\":-1,\"status\":1,\"reason\":\"bad --timeout: '0' is not a "
            "number from 1 to 3600000\"}\n");
}

TEST_F(DatapathctlTest, HelpsOnOneScreen) {
  const Outcome brief = run("--help");
  EXPECT_LE(std::ranges::count(brief.out, '\n'), 24);
  EXPECT_EQ(run("proxy help").out.find("Usage: datapathctl encap"), std::string::npos);
  EXPECT_NE(run("prox help").out.find("Usage: datapathctl proxy unmap"), std::string::npos);
  EXPECT_NE(run("enc drop --help").out.find("Usage: datapathctl encap drop"), std::string::npos);
}

TEST_F(DatapathctlTest, CapturesToStandardOutput) {
  const Outcome outcome = run("--emulate --pcap - --json reset");
  EXPECT_EQ(outcome.error, "{\"command\":\"reset\",\"result\":0}\n");
  EXPECT_TRUE(outcome.out.starts_with("\x4d\x3c\xb2\xa1")) << "the magic number of pcap";
  EXPECT_NE(outcome.out.find("TAVIK_WLAN"), std::string::npos);
}

TEST_F(DatapathctlTest, ShowsInADryRunWhatItDoesNotSend) {
  EXPECT_EQ(shell("datapathctl --dry-run --socket nobody proxy down w --from a --to b tcp/443-448"),
            "> UNSET_DEV SELECTOR 0, DEV \"w\"\n"
            "> DEL_FWD_INFO SELECTOR 0, FWD_TO \"b\", FWD_FROM \"a\"\n"
            "> DEL_TUPLES TUPLES [\"ipv4 tcp 443\",\"ipv4 tcp 444\",\"ipv4 tcp 445\","
            "\"ipv4 tcp 446\",... 6]\n");
  EXPECT_EQ(shell("datapathctl --dry-run --trace=full --hex reset"),
            "> nlctrl GETFAMILY, seq 0, 36 bytes\n    FAMILY_NAME \"TAVIK_WLAN\"\n"
            "    bytes 24000000 10000100 00000000 00000000 03010000 0f000200 54415649 4b5f574c "
            "414e0000\n> TAVIK_WLAN RESET, seq 0, 20 bytes\n"
            "    bytes 14000000 ffff0500 00000000 00000000 09010000\n");
  EXPECT_EQ(shell("datapathctl --dry-run --json --hex ipsec add 0x1001 ::1"),
            R"({"message":"TAVIK_WLAN ADD_TUPLES","attributes":{"TUPLES":)"
            R"([{"ip":6,"transport":"esp","spi":4097}]},"seq":0,"port_id":0,"length":40,)"
            R"("direction":"sent","bytes":"28000000 ffff0500 00000000 00000000 01010000 )"
            R"(14000180 10000180 0c000100 00001001 06320000"})"
            "\n{\"command\":\"ipsec add\",\"result\":0}\n");
  EXPECT_EQ(run("--dry-run batch -", "misbehave silent\nstate\nports\n").out,
            "# misbehave silent\n# state\n# ports\n> GET_TUPLES\n");
}

TEST_F(DatapathctlTest, LeavesLookUpsOutOfATraceUnlessTheyFail) {
  const std::string tool = "datapathctl --trace --emulate --misbehave ";
  EXPECT_EQ(shell(tool + "none --time reset"), "T > RESET\nT < ACK RESET\n");
  EXPECT_EQ(shell(tool + "absent reset 2>/dev/null"), "< ERROR ENOENT nlctrl GETFAMILY\n");
}

TEST_F(DatapathctlTest, DecodesACaptureAsItWasTraced) {
  const std::string record =
      "printf 'ipsec add 0x1001 ::1\nports\nencap unset 1\n' | datapathctl --pcap c --emulate "
      "--hex --trace batch - 2>/dev/null | sed '/^[#e]/d' >live; ";
  EXPECT_EQ(shell(record + "datapathctl --hex decode c | sed -E 's/^[0-9:.]+ //' | diff live -; "
                           "datapathctl --hex decode live | diff live -; wc -l <live"),
            "14\n");
  EXPECT_EQ(shell(record + "datapathctl --pcap - decode c 2>/dev/null | cmp c -"), "");
}

TEST_F(DatapathctlTest, MonitorsWhatOthersSayToAnEmulator) {
  // Without --foreground a timeout that is killed sends a SIGCONT, too, and that can keep the
  // search for leaks at the program's end from stopping it.
  EXPECT_EQ(
      shell(
          "timeout --foreground 20 " DATAPATHCTL " emulator k >served & e=$!; "
          "until [ -S k ]; do sleep 0.05; done; "
          "timeout --foreground 20 " DATAPATHCTL " --socket k --pcap c monitor >seen & m=$!; "
          "until [ -s seen ]; do datapathctl --socket k reset; done; datapathctl --socket k reset; "
          "datapathctl --socket k misbehave absent; datapathctl --socket k reset 2>/dev/null; "
          "until grep -q ENOENT seen; do sleep 0.05; done; kill $m; wait $m; echo $?; "
          "tail -n 3 seen | sed -E 's/client [1-9][0-9]* .pid [1-9][0-9]*./C/'; "
          "sed -E 's/client.*\\) //' seen >want; datapathctl decode c | diff - want; "
          "kill $e"),
      "0\nT C > RESET\nT C < ACK RESET\nT C < ERROR ENOENT nlctrl GETFAMILY\n");
}

TEST_F(DatapathctlTest, ReadsTheWordsOfABatch) {
  const Outcome quoted =
      run("--emulate batch -", " encap \t\"set\" '4500'\r\nlowlat add '' 1 ::1 2 # '\n");
  EXPECT_TRUE(quoted.error.ends_with(": invalid address: LL_SRC_ADDR \"\"\n")) << quoted.error;
  EXPECT_EQ(run("--emulate batch -", "encap set 5#6 # a comment\n").error,
            "datapathctl: standard input:1: encap set: bad PORT: '5#6' is not a number from 0 to "
            "65535\n");
  EXPECT_EQ(
      run("--emulate batch --force -", "encap drop 1\nbatch x\nencap set 5 -j\nstate\n").error,
      "datapathctl: standard input:1: encap drop: the kernel refused TAVIK_WLAN "
      "ENCAP_PORT_ACT_DROP: No such file or directory (ENOENT): the encapsulation port is not "
      "set: ENCAP_PORT 1\n"
      "datapathctl: standard input:2: batch: not in a batch\n"
      "datapathctl: standard input:3: encap set: not understood: -j; options of datapathctl "
      "stand on its command line\n");
}

TEST_F(DatapathctlTest, EscapesWhatIsNoText) {
  const std::string up = "proxy up w\x1b\xff --from a --to b\n";
  const Outcome text = run("--emulate --trace batch -", up + "state\n" + up);
  EXPECT_TRUE(text.out.starts_with("# proxy up w\\x1b\\xff --from a")) << text.out;
  EXPECT_NE(text.out.find(", DEV \"w\\x1b\\xff\"\n"), std::string::npos);
  EXPECT_NE(text.out.find("device 0 w\\x1b\\xff\n"), std::string::npos);
  EXPECT_TRUE(text.error.ends_with("is set already: DEV \"w\\x1b\\xff\"\n")) << text.error;
  const Outcome json = run("--emulate --json --trace=full batch -", up + "state\n" + up);
  EXPECT_NE(json.out.find("{\"selector\":0,\"name\":\"w\\u001b\\ufffd\"}"), std::string::npos);
  EXPECT_NE(json.out.find("\"value\":\"w\\u001b\\ufffd\"}"), std::string::npos) << json.out;
  ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  EXPECT_EQ(datapathctl::printable("\n\x7f w\xc3\xa4 \xc2\x9b"), "\\x0a\\x7f w\xc3\xa4 \\xc2\\x9b");
}

TEST_F(DatapathctlTest, WritesTheLogsThatAreAskedFor) {
  std::ofstream(folder_ + "/log") << "kept\n";
  const Outcome outcome = run("--emulate --log-file log --log-diag --log-android reset");
  EXPECT_EQ(outcome.status, 0) << outcome.error;
  EXPECT_TRUE(contents(folder_ + "/log").starts_with("kept\n"));
  EXPECT_NE(contents(folder_ + "/log").find("flush_config_info(): Resetting datapath state\n\n"),
            std::string::npos);
  EXPECT_NE(outcome.error.find("subsystem 65 HIGH datapath_proxy/src/corvil_datapath_proxy:"),
            std::string::npos);
  EXPECT_NE(outcome.error.find("VX-CORVIL-LIB"), std::string::npos);
}

TEST_F(DatapathctlTest, SaysInOneLineWhatIsWrong) {
  const struct {
    const char* arguments;
    int status;
    std::string error;
  } kCases[] = {
      // Usage.
      {"", 1, "no object; one of " + kObjects},
      {"p", 1, "ambiguous object 'p'; one of proxy, ports, see datapathctl help"},
      {"--frob reset", 1, "unknown option '--frob', see datapathctl help"},
      {"prox frob", 1,
       "unknown verb 'frob'; one of up, down, update, unmap, see datapathctl proxy help"},
      {"reset frob", 1, "reset: not understood: frob"},
      {"--emulate proxy up wlan0 --from a --to b tcp/65536", 1,
       "proxy up: bad port in 'tcp/65536': '65536' is not a number from 0 to 65535"},
      {"--emulate proxy up wlan0 --from a --to b sctp/1", 1,
       "proxy up: bad port 'sctp/1': it reads tcp/443, udp/53, tcp6/443 or udp6/4500"},
      {"proxy up w --from a --to b tcp/1-4000 udp/0-95", 1,
       "proxy up: too many ports: a list holds at most 4095"},
      {"proxy update", 1, "proxy update: no ports: it takes --old, --new or both"},
      {"ipsec add 1 banana", 1, "ipsec add: ADDRESS: 'banana' is no IP address"},
      {"reset --hex", 1, "reset: --hex has no messages to show; it goes with --trace or --dry-run"},
      {"--trace=frob reset", 1, "--trace: 'frob' is neither compact nor full"},
      {"--socket x state --emulate", 1, "state: --emulate excludes --socket"},
      {"--pcap '' reset", 1, "--pcap: the path is empty"},
      {"--dry-run misbehave frob", 1,
       "misbehave: WORD: bad misbehaviour 'frob': one of none, silent, delay=MS, truncate=BYTES, "
       "garbage, "
       "stale, refuse=N:ERRNO, interrupt=DUMPS, family-id=ID, absent"},
      {"--misbehave silent reset", 1, "reset: --misbehave is for an emulator that is started here"},
      // What is not there, and what can't be written or read.
      {"--socket nonexistent reset", 2,
       "reset: cannot reach the emulator: No such file or directory: nonexistent\n"
       "datapathctl: hint: is 'datapathctl emulator nonexistent' running?"},
      {"--emulate monitor", 1, "monitor: it watches a kernel, or the emulator of --socket"},
      {"--socket nonexistent monitor", 2,
       "monitor: cannot ask the emulator at nonexistent: No such file or directory\n"
       "datapathctl: hint: is 'datapathctl emulator nonexistent' running?"},
      {"decode nonexistent", 1, "decode: cannot read nonexistent"},
      {"decode /", 1, "decode: cannot read /"},
      {"decode -", 1, "decode: standard input: nothing of TAVIK_WLAN in it"},
      {"batch nonexistent", 1, "batch: cannot read the batch nonexistent"},
      {"batch /", 1, "batch: cannot read the batch /"},
      {"batch - <&-", 1, "batch: cannot read the batch from standard input"},
      {"--emulate --log-file /nonexistent/x reset", 1,
       "reset: cannot write the log file /nonexistent/x: No such file or directory"},
      {"--emulate --log-file /dev/full reset", 2, "reset: cannot write the log file /dev/full"},
      {"--emulate --pcap /nonexistent/x reset", 2,
       "reset: cannot write the capture /nonexistent/x: No such file or directory"},
      {"--emulate --json reset >/dev/full", 2, "cannot write the output"},
      // What the library, the exchange or the kernel finds wrong.
      {"--emulate --misbehave silent --timeout 050 reset", 2, "reset: no answer within 50 ms"},
      {"--emulate --misbehave absent reset", 2,
       "reset: the kernel has no family TAVIK_WLAN\n"
       "datapathctl: hint: is the module tavik_wlan loaded?"},
      {"--emulate --misbehave refuse=1:EAGAIN ports", 2,
       "ports: the kernel refused TAVIK_WLAN GET_TUPLES: Resource temporarily unavailable "
       "(EAGAIN): refused on demand"},
  };
  for (const auto& [arguments, status, error] : kCases) {
    const Outcome outcome = run(arguments + std::string(" 2>error; exit $?; :"));
    EXPECT_EQ(outcome.status, status) << arguments;
    EXPECT_EQ(outcome.error, "datapathctl: " + error + "\n") << arguments;
  }
  EXPECT_EQ(run("--emulate --log-file - reset >/dev/full; exit $?; :").status, 2);
  const Outcome library = run("--library nonexistent.so --emulate reset");
  EXPECT_EQ(library.status, 1);
  EXPECT_TRUE(
      library.error.starts_with("datapathctl: reset: cannot load the library: nonexistent.so: "));
}

TEST_F(DatapathctlTest, ServesAnEmulatorForOthers) {
  const pid_t emulator = serve();
  sockaddr_un address{AF_UNIX, {}};
  (folder_ + "/kernel").copy(address.sun_path, sizeof(address.sun_path) - 1);
  std::array<int, 100> idle{};  // more than the emulator has descriptors for
  for (int& client : idle) {
    client = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }
  EXPECT_EQ(run("--socket kernel encap set 4500").status, 0);
  EXPECT_EQ(run("--socket kernel state").out, "encap 4500\n");
  EXPECT_EQ(run("emulator kernel").status, 2) << "a second one at the same place";
  EXPECT_EQ(run("--socket kernel misbehave refuse=1:EPERM").status, 0);
  EXPECT_EQ(run("--socket kernel reset").status, 2);
  EXPECT_EQ(run("--socket kernel encap unset 1").status, 2);
  EXPECT_EQ(run("--socket kernel misbehave absent").status, 0);
  EXPECT_EQ(run("--socket kernel reset").status, 2);
  kill(emulator, SIGSTOP);
  EXPECT_EQ(run("--socket kernel --timeout 50 state").error,
            "datapathctl: state: cannot ask the emulator at kernel: Connection timed out\n");
  kill(emulator, SIGCONT);
  EXPECT_EQ(end(emulator), 0);
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/kernel"));
  const std::string served = contents(folder_ + "/served");
  EXPECT_TRUE(served.starts_with("serving TAVIK_WLAN at kernel\n")) << served;
  for (const char* said : {") > SET_ENCAP_PORT ENCAP_PORT 4500\n", ") < ACK SET_ENCAP_PORT\n",
                           ") < ERROR EPERM RESET MSG \"refused on demand\"\n",
                           " MSG \"the encapsulation port is not set\", ENCAP_PORT 1\n",
                           ") < ERROR ENOENT nlctrl GETFAMILY\n"}) {
    EXPECT_NE(served.find(said), std::string::npos) << said << "is not in:\n" << served;
  }
  std::ranges::for_each(idle, close);
}

TEST_F(DatapathctlTest, ServesItsOwnUserAndRootAtAnAbstractAddress) {
  const std::string path = "@datapathctl-test-" + std::to_string(getpid());
  const pid_t emulator = serve("--json", path);
  EXPECT_EQ(run("--socket " + path + " encap drop 4500").status, 2);
  EXPECT_EQ(run("emulator " + path).status, 2) << "a second one at the same place";
  EXPECT_EQ(run("--socket " + path.substr(0, path.size() - 1) + " reset").status, 2);
  if (geteuid() == 0) {
    const std::string stranger = "setpriv --reuid 65534 --clear-groups " DATAPATHCTL " --socket ";
    EXPECT_NE(std::system((stranger + path + " reset 2>/dev/null").c_str()), 0);
  }
  EXPECT_EQ(end(emulator), 0);
  std::ifstream served(folder_ + "/served");
  std::string line;
  EXPECT_TRUE(std::getline(served, line));
  EXPECT_EQ(nlohmann::json::parse(line)["serving"], path);
  EXPECT_TRUE(std::getline(served, line));
  EXPECT_EQ(nlohmann::json::parse(line)["attributes"]["ENCAP_PORT"], 4500);
}

TEST_F(DatapathctlTest, EndsInOrderWhateverTheKernelAnswers) {
  for (const char* fault : {"silent", "delay=110", "truncate=9", "truncate=40", "garbage",
                            "refuse=3:EPERM", "interrupt=4", "family-id=99", "absent"}) {
    for (const std::string command :
         {"--trace=full --hex reset", "--json --trace ports", "batch input"}) {
      const Outcome outcome = run("--emulate --timeout 100 --misbehave " + std::string(fault) +
                                      " --misbehave stale " + command,
                                  kUp);
      EXPECT_TRUE(outcome.status == 0 || outcome.status == 2) << fault << ", " << command;
      EXPECT_LE(std::ranges::count(outcome.error, '\n'), 3) << outcome.error;
    }
  }
}

TEST_F(DatapathctlTest, ServesOnWhenNobodyReadsItsOutput) {
  std::string many;
  for (int i = 0; i < 2000; ++i) {
    many += "encap set 4500\n";  // two lines of 60 bytes each
  }
  ASSERT_EQ(mkfifo((folder_ + "/served").c_str(), S_IRUSR | S_IWUSR), 0);
  const int output = open((folder_ + "/served").c_str(), O_RDWR | O_CLOEXEC);
  const pid_t emulator = serve();
  EXPECT_EQ(run("--socket kernel batch -", many).status, 0);
  EXPECT_EQ(end(emulator), 2) << "for the lines that nobody read";
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/kernel"));
  close(output);
}

}  // namespace
