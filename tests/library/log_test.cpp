// The log statement alone: which sinks it reaches, with what, in which order.

#include "datapath_proxy/src/datapath_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/fake_host.h"

namespace {

using fake_host::Events;
using fake_host::host;

/// A log file in memory.
class LogFile {
 public:
  LogFile() : stream_(open_memstream(&text_, &size_)) {}
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile() {
    fclose(stream_);
    std::free(text_);
  }
  [[nodiscard]] FILE* stream() const { return stream_; }
  [[nodiscard]] std::string text() const { return {text_, size_}; }

 private:
  char* text_ = nullptr;
  size_t size_ = 0;
  FILE* stream_;
};

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    fake_host::reset();
    host().clock_seconds = 36942;  // 10:15:42
    host().on_log_call = [this](const std::string& call) { calls_.push_back(call); };
    zu_log_mask = 0;
  }
  void TearDown() override {
    fake_host::reset();
    fake_host::statements() = statements_;
  }

  void open_log_file() {
    log_to_file = 1;
    logging_fd = file_.stream();
  }

  LogFile file_;
  Events calls_;
  const fake_host::Statements statements_ = fake_host::statements();  // without this test's own
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
#line 75 "tests/library/log_test.cpp"

TEST_F(LogTest, SwitchedOffItReadsTheSettingsAndNothingElse) {
  int evaluated = 0;
  for (const uint32_t mask : {0U, 4U, 0xfffffffcU}) {
    zu_log_mask = mask;
    DATAPATH_LOG(ERR, "%s(): %d", ++evaluated);
  }
  log_to_file = 1;  // and no stream
  DATAPATH_LOG(ERR, "%s(): %d", ++evaluated);
  log_to_file = 0;
  logging_fd = file_.stream();
  DATAPATH_LOG(ERR, "%s(): %d", ++evaluated);

  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(calls_, Events{});
  EXPECT_EQ(file_.text(), "");
}

TEST_F(LogTest, WritesTheFileInColumns) {
  open_log_file();
  host().clock_microseconds = 7999;
  log_each_level();
  const auto line = [](const std::string& name, const std::string& rest) {
    return "               10:15:42.7                               datapath_proxy/src/"
           "corvil_datapath_proxy" +
           name + rest + "\n";
  };
  const std::string name = "                           log_each_level():";
  EXPECT_EQ(file_.text(), line(name, "  7 (LOW):log_each_level(): low 1") +
                              line(name, " 70 (MED):log_each_level(): med two\n") +
                              line(name, "700 (HIGH):log_each_level(): high 3\n") +
                              line("                                   a_name():",
                                   "7000 (ERR):a_name(): err 0xff"));
}

TEST_F(LogTest, StampsTheTimeWithoutLeadingZeros) {
  open_log_file();
  const std::vector<std::pair<int, std::string>> cases = {
      {0, "10:15:42.0 "},      {999, "10:15:42.0 "},      {12000, "10:15:42.12 "},
      {70000, "10:15:42.70 "}, {700000, "10:15:42.700 "}, {999999, "10:15:42.999 "}};
  for (const auto& [microseconds, stamp] : cases) {
    host().clock_microseconds = microseconds;
    DATAPATH_LOG(LOW, "%s()");
    EXPECT_NE(file_.text().find(stamp), std::string::npos) << stamp << "in\n" << file_.text();
  }
  host().clock_works = false;
  DATAPATH_LOG(LOW, "%s()");
  EXPECT_NE(file_.text().find("               00:00:00.0 "), std::string::npos);
  if (sizeof(time_t) > 4) {
    host().clock_works = true;
    host().clock_seconds = INT64_MAX;  // in a year that no int holds
    host().clock_microseconds = 42000;
    DATAPATH_LOG(LOW, "%s()");
    EXPECT_NE(file_.text().find("\n                      .42 "), std::string::npos);
  }
}

TEST_F(LogTest, WritesThreeTimesToTheStreamOfTheMoment) {
  open_log_file();
  LogFile others[3];
  int next = 0;
  host().on_log_call = [&](const std::string& call) {
    calls_.push_back(call);
    if (next < 3 && (call == "fprintf" || call == "fputc")) {
      logging_fd = others[next++].stream();
    }
  };
  DATAPATH_LOG_AS(MED, "f", "%s(): text");
  EXPECT_EQ(calls_, (Events{"gettimeofday", "fprintf", "fprintf", "fputc", "fflush"}));
  fflush(file_.stream());
  fflush(others[0].stream());
  fflush(others[1].stream());
  EXPECT_TRUE(file_.text().ends_with("(MED):")) << file_.text();
  EXPECT_EQ(others[0].text(), "f(): text");
  EXPECT_EQ(others[1].text(), "\n");
}

TEST_F(LogTest, ReachesTheSinksOfTheMask) {
  const std::vector<std::pair<std::string, std::string>> messages = {
      {"LOW ", "3 VX-CORVIL-LIB log_each_level(): low 1"},
      {"MED ", "4 VX-CORVIL-LIB log_each_level(): med two\n"},
      {"HIGH ", "4 VX-CORVIL-LIB log_each_level(): high 3\n"},
      {"ERR ", "6 VX-CORVIL-LIB a_name(): err 0xff"}};
  for (const uint32_t mask : {1U, 2U, 7U}) {
    Events expected;
    for (const auto& [level, android] : messages) {
      if ((mask & 1) != 0) {
        expected.push_back(level + android.substr(strlen("3 VX-CORVIL-LIB ")));
      }
      if ((mask & 2) != 0) {
        expected.push_back("android " + android);
      }
    }
    host().events.clear();
    zu_log_mask = mask;
    log_each_level();
    EXPECT_EQ(host().events, expected) << "mask " << mask;
  }
}

TEST_F(LogTest, ReadsTheMaskAgainAfterTheDiagnosticSink) {
  for (const auto& [before, after, android] : {std::tuple{1U, 2U, 1}, std::tuple{3U, 1U, 0}}) {
    calls_.clear();
    zu_log_mask = before;
    host().on_log_call = [&, next = after](const std::string& call) {
      calls_.push_back(call);
      if (call == "msg_sprintf") {
        zu_log_mask = next;
      }
    };
    DATAPATH_LOG(LOW, "%s()");
    EXPECT_EQ(std::count(calls_.begin(), calls_.end(), "__android_log_print"), android);
  }
}

TEST_F(LogTest, CutsALongMessageForTheDiagnosticSinkOnly) {
  open_log_file();
  zu_log_mask = 3;
  const std::string text(600, 'x');
  DATAPATH_LOG_AS(LOW, "f", "%s:%s", text.c_str());
  EXPECT_EQ(host().events,
            (Events{"LOW f:" + text.substr(0, 509), "android 3 VX-CORVIL-LIB f:" + text}));
  EXPECT_NE(file_.text().find("f:" + text + "\n"), std::string::npos);
}

TEST_F(LogTest, DescribesEachStatementInReadOnlyMemory) {
  zu_log_mask = ZU_LOG_MASK_DIAGNOSTIC;
  log_each_level();
  log_each_level();
  const auto& descriptors = host().descriptors;
  ASSERT_EQ(descriptors.size(), 8U);
  const std::vector<std::pair<uint16_t, uint32_t>> lines_and_masks = {
      {7, 1}, {70, 2}, {700, 4}, {7000, 8}};
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(descriptors[i], descriptors[i + 4]) << "one descriptor a statement";
    EXPECT_EQ(descriptors[i]->line, lines_and_masks[i].first);
    EXPECT_EQ(descriptors[i]->level_mask, lines_and_masks[i].second);
    EXPECT_EQ(descriptors[i]->subsystem, 65);
    EXPECT_STREQ(descriptors[i]->file, "datapath_proxy/src/corvil_datapath_proxy");
    EXPECT_EQ(fake_host::permissions_of(descriptors[i]), "r--p");
  }
}

}  // namespace
