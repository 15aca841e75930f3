#include "platform/linux/launch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "base/signals.h"
#include "tests/support/process.h"

namespace {

using tarn::InheritedPipe;
using tarn::LaunchedChild;
using tarn::Program;
using tarn::StartState;
using test::kStub;

TEST(Launch, SignalRightAfterTheForkIsNotSwallowedByTheParentsHandler) {
  tarn::InstallHandler(SIGTERM, [](int) {});
  for (int i = 0; i < 300; ++i) {
    Program program;
    program.path = kStub;
    program.argv = {kStub, "sleep"};
    LaunchedChild child;
    ASSERT_TRUE(child.Launch(program));
    kill(child.pid(), SIGTERM);
    const int status = test::WaitFor(child.pid());
    ASSERT_TRUE(WIFSIGNALED(status)) << "round " << i;
    ASSERT_EQ(WTERMSIG(status), SIGTERM);
  }
}

TEST(Launch, TellsAnExecutedProgramFromOneThatCannotBe) {
  const test::CapturedLog log;
  for (const bool exists : {true, false}) {
    Program program;
    program.path = exists ? kStub : "/etc/passwd";
    program.argv = {program.path, "exit", "0"};
    LaunchedChild child;
    ASSERT_TRUE(child.Launch(program));
    const int status = test::WaitFor(child.pid());
    EXPECT_EQ(child.State(), exists ? StartState::kExecuted : StartState::kFailed);
    EXPECT_EQ(child.State(), exists ? StartState::kExecuted : StartState::kFailed);  // it stays so
    EXPECT_EQ(WEXITSTATUS(status), exists ? 0 : 127);
  }
  EXPECT_TRUE(log.Contains("cannot execute [/etc/passwd]: Permission denied"));
}

TEST(Launch, RefusesAnArgumentThatWouldBeCutShort) {
  const test::CapturedLog log;
  Program program;
  program.path = kStub;
  program.argv = {kStub, std::string("a\0b", 3)};
  EXPECT_FALSE(LaunchedChild().Launch(program));
  EXPECT_TRUE(log.Contains("NUL in an argument"));
}

TEST(Launch, InheritsTheLastPipeThatIsOpen) {
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  const std::string in = "fd:" + std::to_string(read_end.get());
  const std::string out = "pipe:" + std::to_string(write_end.get());
  EXPECT_EQ(InheritedPipe({"/p", "-i", in, out}), write_end.get());
  EXPECT_EQ(InheritedPipe({"/p", out, in, "pipe:1", "fd:x", "-y"}), read_end.get());
  EXPECT_EQ(InheritedPipe({"/p", "pipe:1", "fd:2", "pipe:"}), -1);
  EXPECT_EQ(InheritedPipe({"/p", "pipe:4000"}), -1);
  EXPECT_EQ(InheritedPipe({}), -1);
}

}  // namespace
