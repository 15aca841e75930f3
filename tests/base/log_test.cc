#include "base/log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

constexpr char kLogUnit[] = "log_test";

struct Entry {
  int priority;
  std::string line;
};
std::vector<Entry> g_entries;

class Log : public testing::Test {
 protected:
  void SetUp() override {
    g_entries.clear();
    tarn::SetLogSink([](int priority, const char* line) { g_entries.push_back({priority, line}); });
  }
  void TearDown() override { tarn::SetLogSink(nullptr); }
};

TEST_F(Log, BeginsWithUnitAndLine) {
  const int line = __LINE__ + 1;
  TARN_LOG_ERR("Bad parameter [%s] %d", "x", 5);
  ASSERT_EQ(g_entries.size(), 1u);
  EXPECT_EQ(g_entries[0].priority, 3);
  EXPECT_EQ(g_entries[0].line, "log_test:" + std::to_string(line) + " Bad parameter [x] 5");
}

TEST_F(Log, CarriesThePriorityAndFacility) {
  tarn::Log(LOG_AUTH | LOG_ERR, "unit", 7, "text");
  tarn::Log(LOG_AUTH | LOG_CRIT, "unit", 7, "text");
  tarn::Log(LOG_INFO, "unit", 7, "text");
  EXPECT_EQ(g_entries[0].priority, 35);
  EXPECT_EQ(g_entries[1].priority, 34);
  EXPECT_EQ(g_entries[2].priority, 6);
}

TEST_F(Log, NeverReadsTextAsAFormat) {
  tarn::Log(LOG_ERR, "unit", 7, "[%s]", "%n%s%d%%");
  EXPECT_EQ(g_entries[0].line, "unit:7 [%n%s%d%%]");
}

TEST_F(Log, KeepsAnEntryOnOneLine) {
  tarn::Log(LOG_ERR, "unit", 7, "[%s]", "a\nb\r\x1b[31m\tc\x7f");
  EXPECT_EQ(g_entries[0].line, "unit:7 [a?b??[31m?c?]");
  tarn::Log(LOG_ERR, "unit", 7, "[%s]", "h\xc3\xb6r");
  EXPECT_EQ(g_entries[1].line, "unit:7 [h\xc3\xb6r]");
}

TEST_F(Log, EndsAnEntryAfterAKibibyte) {
  tarn::Log(LOG_ERR, "unit", 7, "[%s]", std::string(1 << 20, 'x').c_str());
  ASSERT_EQ(g_entries.size(), 1u);
  EXPECT_EQ(g_entries[0].line, "unit:7 [" + std::string(1023 - 8, 'x'));
}

TEST_F(Log, SurvivesAUnitThatFillsTheLine) {
  const std::string unit(2000, 'u');
  tarn::Log(LOG_ERR, unit.c_str(), 7, "text");
  EXPECT_TRUE(g_entries.empty());
}

// Where no sink is set the text goes to syslog as data.
TEST_F(Log, HandsTextToSyslogAsData) {
  tarn::SetLogSink(nullptr);
  openlog("log_test", LOG_PERROR, LOG_USER);
  testing::internal::CaptureStderr();
  tarn::Log(LOG_ERR, "unit", 7, "%s", "%n%s");
  const std::string printed = testing::internal::GetCapturedStderr();
  closelog();
  EXPECT_NE(printed.find("unit:7 %n%s"), std::string::npos) << printed;
}

}  // namespace
