#include "base/run_as.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/process.h"
#include "tests/support/simulated_ids.h"

namespace {

constexpr char kLogUnit[] = "run_as_test";

using test::SimulatedIds;

void ExpectIds(const SimulatedIds& ids, unsigned user, unsigned group) {
  EXPECT_EQ(ids.user(), user);
  EXPECT_EQ(ids.group(), group);
}

TEST(RunAsRoot, SwitchesForItsScope) {
  SimulatedIds ids(1000, 100);
  {
    IF_RUN_AS(root);
    EXPECT_TRUE(root);
    ExpectIds(ids, 0, 0);
  }
  ExpectIds(ids, 1000, 100);
}

TEST(RunAsRoot, ScopesNest) {
  SimulatedIds ids(1000, 100);
  {
    IF_RUN_AS(outer);
    {
      IF_RUN_AS(inner);
      EXPECT_TRUE(inner);
    }
    ExpectIds(ids, 0, 0);
  }
  ExpectIds(ids, 1000, 100);
}

TEST(RunAsRoot, RootOfAnotherGroupSwitchesOnlyTheGroup) {
  SimulatedIds ids(0, 100);
  {
    IF_RUN_AS(root);
    ExpectIds(ids, 0, 0);
  }
  ExpectIds(ids, 0, 100);
}

TEST(RunAsRoot, ExceptionSwitchesBack) {
  SimulatedIds ids(1000, 100);
  try {
    IF_RUN_AS(root);
    throw std::runtime_error("action");
  } catch (const std::runtime_error&) {
  }
  ExpectIds(ids, 1000, 100);
}

TEST(RunAsRoot, RefusedUserLeavesEverythingAndIsLogged) {
  SimulatedIds ids(1000, 100);
  ids.RefuseUser(0);
  const test::CapturedLog log;
  const int line = __LINE__ + 2;
  {
    IF_RUN_AS(root);
    EXPECT_FALSE(root);
    ExpectIds(ids, 1000, 100);
  }
  ASSERT_EQ(test::g_log.size(), 1u);
  EXPECT_EQ(test::g_log[0], "run_as_test:" + std::to_string(line) + " ERROR: IF_RUN_AS(0, 0)");
}

TEST(RunAsRoot, RefusedGroupTakesTheUserBackAtOnce) {
  SimulatedIds ids(1000, 100);
  ids.RefuseGroup(0);
  const test::CapturedLog log;
  {
    IF_RUN_AS(root);
    EXPECT_FALSE(root);
    ExpectIds(ids, 1000, 100);
  }
  EXPECT_EQ(test::g_log.size(), 1u);
  EXPECT_TRUE(log.Contains("ERROR: IF_RUN_AS(0, 0)"));
}

TEST(RunAsRoot, FailureOnTheWayBackIsLogged) {
  SimulatedIds ids(1000, 100);
  const test::CapturedLog log;
  {
    IF_RUN_AS(root);
    EXPECT_TRUE(root);
    ids.RefuseUser(1000);
  }
  ASSERT_EQ(test::g_log.size(), 1u);
  EXPECT_TRUE(log.Contains("ERROR: ~IF_RUN_AS(1000, 100)"));
}

TEST(RunAsRoot, LogsWithTheAuthorisationFacility) {
  static std::vector<int> priorities;
  priorities.clear();
  tarn::SetLogSink([](int priority, const char*) { priorities.push_back(priority); });
  SimulatedIds ids(1000, 100);
  {
    IF_RUN_AS(root);
    ids.RefuseGroup(100);
  }
  {
    SimulatedIds others(1000, 100);
    others.RefuseUser(0);
    IF_RUN_AS(root);
  }
  tarn::SetLogSink(nullptr);
  EXPECT_EQ(priorities, (std::vector<int>{34, 35}));
}

// The real system calls: in a user namespace that has no root, root rights cannot be taken.
TEST(RunAsRoot, RealKernelRefuses) {
  const test::CapturedLog log;
  const pid_t pid = test::InChild([] {
    if (!test::BecomeOrdinaryUser()) return 1;
    IF_RUN_AS(root);
    return root || geteuid() != 1000 ? 2 : 7;
  });
  EXPECT_EQ(WEXITSTATUS(test::WaitFor(pid)), 7);
}

}  // namespace
