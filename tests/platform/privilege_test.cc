#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "librb/process.h"
#include "tests/support/process.h"
#include "tests/support/simulated_ids.h"

namespace {

using librb::DoActionAsRoot;
using test::SimulatedIds;

TEST(DoActionAsRoot, RunsTheActionAsRootAndReturnsItsResult) {
  SimulatedIds ids(1000, 100);
  const test::CapturedLog log;
  for (const bool result : {true, false}) {
    EXPECT_EQ(DoActionAsRoot("Test",
                             [&] {
                               EXPECT_EQ(ids.user(), 0u);
                               EXPECT_EQ(ids.group(), 0u);
                               return result;
                             }),
              result);
    EXPECT_EQ(ids.user(), 1000u);
    EXPECT_EQ(ids.group(), 100u);
  }
  EXPECT_TRUE(test::g_log.empty());
}

TEST(DoActionAsRoot, RunsNothingWhenTheSwitchFails) {
  for (const bool user_fails : {true, false}) {
    SimulatedIds ids(1000, 100);
    user_fails ? ids.RefuseUser(0) : ids.RefuseGroup(0);
    const test::CapturedLog log;
    bool ran = false;
    EXPECT_FALSE(DoActionAsRoot("Execute FFmpeg", [&] { return ran = true; }));
    EXPECT_FALSE(ran);
    EXPECT_TRUE(log.Contains("no root rights for [Execute FFmpeg]"));
    EXPECT_EQ(ids.user(), 1000u);
    EXPECT_EQ(ids.group(), 100u);
  }
}

TEST(DoActionAsRoot, ExceptionDoesNotLeaveTheUserSwitched) {
  SimulatedIds ids(1000, 100);
  EXPECT_THROW(DoActionAsRoot("Test", []() -> bool { throw std::runtime_error("action"); }),
               std::runtime_error);
  EXPECT_EQ(ids.user(), 1000u);
  EXPECT_EQ(ids.group(), 100u);
}

TEST(DoActionAsRoot, EmptyActionFails) { EXPECT_FALSE(DoActionAsRoot("Test", nullptr)); }

}  // namespace
