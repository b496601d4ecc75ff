// The log statement alone: which sinks it reaches, with what, in which order.

#include "datapath_proxy/src/datapath_log.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/fake_host.h"

namespace {

using fake_host::host;

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    fake_host::reset();
    zu_log_mask = 0;
  }
  void TearDown() override { fake_host::reset(); }
};

void log_each_level() {
#line 7
  DATAPATH_LOG(LOW, "%s(): low %d", 1);
#line 70
  DATAPATH_LOG(MED, "%s(): med %s\n", "two");
#line 700
  DATAPATH_LOG(HIGH, "%s(): high %u\n", uint32_t{3});
#line 7000
  DATAPATH_LOG_AS(ERR, "a_name", "%s(): err 0x%x", uint32_t{255});
}
#line 42 "tests/library/log_test.cpp"

TEST_F(LogTest, SwitchedOffItReadsTheSettingsAndNothingElse) {
  int evaluated = 0;
  for (const auto& [mask, to_file, stream] :
       {std::tuple{0U, 0, stderr}, {4U, 1, nullptr}, {0xfffffffcU, 0, nullptr}}) {
    zu_log_mask = mask;
    log_to_file = static_cast<uint8_t>(to_file);
    logging_fd = stream;
    DATAPATH_LOG(ERR, "%s(): %d", ++evaluated);
  }
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(host().transcript, "");
}

TEST_F(LogTest, ReachesTheSinksThatAreOn) {
  const std::string place =
      "fprintf                10:15:42.7                               "
      "datapath_proxy/src/corvil_datapath_proxy                           ";
  const std::string end = "fputc \\n\nfflush\n";
  host().clock = {36942, 7999};  // 10:15:42.007999
  fake_host::open_log_file();
  log_each_level();
  EXPECT_EQ(host().transcript,
            place + "log_each_level():  7 (LOW):\nfprintf log_each_level(): low 1\n" + end +  //
                place + "log_each_level(): 70 (MED):\nfprintf log_each_level(): med two\\n\n" +
                end + place +
                "log_each_level():700 (HIGH):\nfprintf log_each_level(): high 3\\n\n" + end +
                place + "        a_name():7000 (ERR):\nfprintf a_name(): err 0xff\n" + end);
  log_to_file = 0;
  host().transcript.clear();
  zu_log_mask = 3;
  log_each_level();
  EXPECT_EQ(host().transcript, R"(LOW log_each_level(): low 1
android 3 VX-CORVIL-LIB log_each_level(): low 1
MED log_each_level(): med two\n
android 4 VX-CORVIL-LIB log_each_level(): med two\n
HIGH log_each_level(): high 3\n
android 4 VX-CORVIL-LIB log_each_level(): high 3\n
ERR a_name(): err 0xff
android 6 VX-CORVIL-LIB a_name(): err 0xff
)");
}

TEST_F(LogTest, StampsTheTimeWithoutLeadingZeros) {
  const std::vector<std::pair<timeval, std::string>> cases = {
      {{36942, 999}, " 10:15:42.0 "},
      {{36942, 12000}, " 10:15:42.12 "},
      {{0, 700000}, " 00:00:00.700 "},
      {{86399, 999999}, " 23:59:59.999 "},
      {{std::numeric_limits<time_t>::max(), 42000}, ".42 "}};  // in a year that no int holds
  for (const auto& [clock, stamp] : cases) {
    host().clock = clock;
    host().transcript.clear();
    fake_host::open_log_file();
    DATAPATH_LOG(LOW, "%s()");
    EXPECT_NE(host().transcript.find(stamp), std::string::npos) << host().transcript;
  }
}

TEST_F(LogTest, ReadsTheMaskAgainAfterTheDiagnosticSink) {
  for (const auto& [before, after, transcript] :
       {std::tuple{1U, 2U, "LOW f()\nandroid 3 VX-CORVIL-LIB f()\n"},
        {3U, 1U, "LOW f()\n"},
        {2U, 1U, "android 3 VX-CORVIL-LIB f()\n"}}) {
    host().transcript.clear();
    host().next_log_mask = after;
    zu_log_mask = before;
    DATAPATH_LOG_AS(LOW, "f", "%s()");
    EXPECT_EQ(host().transcript, transcript);
  }
}

TEST_F(LogTest, CutsALongMessageForTheDiagnosticSinkOnly) {
  fake_host::open_log_file();
  zu_log_mask = 3;
  const std::string text(600, 'x');
  DATAPATH_LOG_AS(LOW, "f", "%s:%s", text.c_str());
  EXPECT_TRUE(host().transcript.ends_with("\nfprintf f:" + text +
                                          "\nfputc \\n\nfflush\nLOW f:" + text.substr(0, 509) +
                                          "\nandroid 3 VX-CORVIL-LIB f:" + text + "\n"));
}

}  // namespace
