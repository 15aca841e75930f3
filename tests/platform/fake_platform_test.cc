#include "platform/fake/fake_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "librb/process.h"
#include "tarnutil/qlibc.h"
#include "tarnutil/volume.h"
#include "tests/support/process.h"

namespace {

using fake_platform::script;
using testing::ElementsAre;

class FakePlatform : public testing::Test {
 protected:
  void SetUp() override { script = {}; }
};

TEST_F(FakePlatform, VolumeServiceFollowsTheScriptAndRecordsTheRequests) {
  TARNVolumeQuery query{536870912, ""};
  unsigned flags = 99;
  EXPECT_EQ(TARNVolumeServiceAliveVolumeGet(&query, &flags), 1);
  EXPECT_STREQ(query.path, "/volume1");
  script.volume_path = "/volume2";
  EXPECT_EQ(TARNVolumeServiceAliveVolumeGet(&query, &flags), 1);
  EXPECT_STREQ(query.path, "/volume2");
  script.volume_result = 0;
  script.volume_reasons = TARN_VOLUME_NO_SPACE | TARN_VOLUME_NO_WRITABLE;
  query.needed_bytes = 7;
  EXPECT_EQ(TARNVolumeServiceAliveVolumeGet(&query, &flags), 0);
  EXPECT_EQ(flags, 5u);
  script.volume_result = -1;
  script.volume_error = 0x1234;
  EXPECT_EQ(TARNVolumeServiceAliveVolumeGet(&query, &flags), -1);
  EXPECT_EQ(QLIBCErrGet(), 0x1234);
  EXPECT_THAT(script.space_requests, ElementsAre(536870912, 536870912, 7, 7));
}

TEST_F(FakePlatform, RootCanBeRefused) {
  const auto yes = [] { return true; };
  EXPECT_TRUE(librb::DoActionAsRoot("first", yes));
  script.root_refused = true;
  EXPECT_FALSE(librb::DoActionAsRoot("second", yes));
  EXPECT_THAT(script.actions, ElementsAre("first", "second"));
}

TEST_F(FakePlatform, ForksUnlessTheyAreToFail) {
  if (QLIBCProcForkChildNoWait() == 0) {
    test::WriteText("/tmp/forked", "");
    _exit(0);
  }
  EXPECT_TRUE(test::Eventually([] { return std::filesystem::exists("/tmp/forked"); }));
  script.fork_fails = true;
  EXPECT_EQ(QLIBCProcForkChildNoWait(), -1);
  EXPECT_EQ(QLIBCProcForkEx(QLIBC_FORK_DETACHED), -1);
}

TEST_F(FakePlatform, RecordsProgramsAndRunsThemUnlessToldNotTo) {
  std::filesystem::create_directory("/tmp/gone");
  EXPECT_EQ(QLIBCExec("/bin/rmdir", "/tmp/gone", nullptr, nullptr, nullptr), 0);
  EXPECT_FALSE(std::filesystem::exists("/tmp/gone"));
  script.programs_run = false;
  script.program_result = 3;
  std::filesystem::create_directory("/tmp/kept");
  const char* const argv[] = {"/bin/rmdir", "/tmp/kept", nullptr};
  EXPECT_EQ(QLIBCExecv("/bin/rmdir", argv, 0), 3);
  EXPECT_TRUE(std::filesystem::exists("/tmp/kept"));
  EXPECT_THAT(script.programs, ElementsAre(ElementsAre("/bin/rmdir", "/tmp/gone"),
                                           ElementsAre("/bin/rmdir", "/tmp/kept")));
}

// What is not scripted is the real thing.
TEST_F(FakePlatform, RealPipelinesRun) {
  librb::ProcessPipeline pipeline;
  pipeline.AddProcess(std::make_unique<librb::Subprocess>(std::vector<std::string>{"/bin/true"},
                                                          librb::Subprocess::Input::Null()));
  EXPECT_TRUE(pipeline.Run());
}

}  // namespace
