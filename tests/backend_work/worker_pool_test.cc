// The pool with workers of every kind of misbehaviour.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "tests/backend_work/pool_fixture.h"
#include "tests/backend_work/stub_calls.h"
#include "tests/support/process.h"

namespace {

using tarn_test::With;
using tarnbackend::PoolOptions;
using testing::HasSubstr;

const std::string kWorker = TARN_TEST_BIN "/tests/bin/stub_worker";

PoolOptions Options() {
  PoolOptions options;
  options.command = {kWorker};
  options.calls = tarn_test::StubRules();
  return options;
}

// Children of this process, zombies among them.
std::vector<pid_t> Children() {
  std::vector<pid_t> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = test::ReadText("/proc/" + name + "/stat");
    const size_t end = stat.rfind(')');
    if (end == std::string::npos) continue;
    if (std::stoi(stat.substr(end + 4)) == getpid()) children.push_back(std::stoi(name));
  }
  return children;
}

class WorkerPoolTest : public tarn_test::PoolFixture {
 protected:
  // Runs the loop until the counter has this value.
  bool Workers(unsigned count) {
    return RunUntil([&] { return pool_->counters().workers == count; });
  }
};

TEST_F(WorkerPoolTest, AnswersWithWhatTheCallSays) {
  StartPool(Options());
  Json::Value arguments = With("text", "\xe9t\xc3\xa9\n");  // not UTF-8, and UTF-8
  arguments["deep"]["number"] = 1.5;
  const Answer answer = Ask("echo", arguments);
  EXPECT_EQ(answer.kind, Kind::kDone);
  EXPECT_EQ(answer.value["text"].asString(), "\xe9t\xc3\xa9\n");
  EXPECT_EQ(answer.value["deep"]["number"].asDouble(), 1.5);
  EXPECT_EQ(answer.bytes, "");
  EXPECT_FALSE(answer.descriptor.valid());

  EXPECT_EQ(Ask("bytes", With("size", 16 << 20)).bytes, std::string(16 << 20, 'x'));
  EXPECT_EQ(pool_->counters().calls, 2U);
}

TEST_F(WorkerPoolTest, WhoeverCannotUseAnAnswerEndsNothing) {
  StartPool(Options());
  pool_->Submit("echo", With("n", 1), [](Answer answer) { answer.value["n"]["member"].asInt(); });
  EXPECT_EQ(Ask("echo").kind, Kind::kDone);
  EXPECT_TRUE(RunUntil([&] { return Logged("an answer could not be used"); }));
}

TEST_F(WorkerPoolTest, PassesADescriptor) {
  StartPool(Options());
  const Answer answer = Ask("pipe");
  ASSERT_TRUE(answer.descriptor.valid());
  EXPECT_EQ(fcntl(answer.descriptor.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  char text[32];
  EXPECT_EQ(read(answer.descriptor.get(), text, sizeof text), 16);
  EXPECT_EQ(std::string(text, 16), "through the pipe");
}

TEST_F(WorkerPoolTest, RefusalsCarryTheirWords) {
  StartPool(Options());
  const Answer refused = Ask("refuse");
  EXPECT_EQ(refused.kind, Kind::kRefused);
  EXPECT_EQ(refused.word, "no-such-thing");
  EXPECT_EQ(refused.cause, "because");
  const Answer thrown = Ask("throw");
  EXPECT_EQ(thrown.kind, Kind::kRefused);
  EXPECT_EQ(thrown.word, "failed");
  EXPECT_EQ(thrown.cause, "thrown");
  const Answer unknown = Ask("no such call");
  EXPECT_EQ(unknown.kind, Kind::kRefused);
  EXPECT_EQ(unknown.word, "failed");
  const Answer large = Ask("echo", With("text", std::string(2 << 20, 'x')));
  EXPECT_EQ(large.kind, Kind::kRefused);
  EXPECT_EQ(large.word, "failed");
  // The worker itself refuses to send more than a message holds.
  const Answer too_much = Ask("bytes", With("size", (16 << 20) + 1));
  EXPECT_EQ(too_much.kind, Kind::kRefused);
  EXPECT_EQ(too_much.cause, "the answer is too large");
}

TEST_F(WorkerPoolTest, ALostWorkerCostsItsCallAndNothingElse) {
  StartPool(Options());
  const Answer crashed = Ask("crash", With("signal", SIGSEGV));
  EXPECT_EQ(crashed.kind, Kind::kLost);
  EXPECT_EQ(crashed.cause, "killed by signal 11");
  EXPECT_TRUE(Logged("with a call \"crash\": killed by signal 11"));
  const Answer ended = Ask("exit", With("status", 3));
  EXPECT_EQ(ended.kind, Kind::kLost);
  EXPECT_EQ(ended.cause, "exit status 3");
  EXPECT_EQ(Ask("exit", With("status", 0)).cause, "exit status 0");
  EXPECT_EQ(Ask("garbage", With("text", std::string(64, 'x'))).cause, "its answer is none");
  EXPECT_EQ(Ask("close").cause, "it closed its channel");
  EXPECT_EQ(Ask("echo").kind, Kind::kDone);
  EXPECT_EQ(pool_->counters().lost, 5U);
  EXPECT_EQ(pool_->counters().calls, 6U);
}

TEST_F(WorkerPoolTest, AnAnswerThatIsNoJsonIsALostCall) {
  StartPool(Options());
  // The head of a message with a text of two bytes, and that text.
  std::string text = "nrat";
  for (const char size : {2, 0, 0}) text += std::string{size, '\0', '\0', '\0'};
  EXPECT_EQ(Ask("garbage", With("text", text + "[]")).cause, "its answer is none");
}

TEST_F(WorkerPoolTest, ALateWorkerIsKilled) {
  StartPool(Options());
  const Answer late = Ask("hang-short");
  EXPECT_EQ(late.kind, Kind::kLate);
  EXPECT_TRUE(Logged("no answer within 50 ms"));
  EXPECT_EQ(pool_->counters().late, 1U);
  EXPECT_EQ(Ask("echo").kind, Kind::kDone);
}

TEST_F(WorkerPoolTest, GrowsWithTheCallsAndShrinksWithoutThem) {
  PoolOptions options = Options();
  options.max_workers = 4;
  options.idle_time = std::chrono::milliseconds(20);
  options.max_waiting = 2;
  StartPool(std::move(options));
  std::vector<Kind> kinds;
  std::vector<tarnbackend::WorkerPool::CallId> calls;
  for (int i = 0; i < 7; ++i) {
    calls.push_back(pool_->Submit("hang-killable", Json::Value(),
                                  [&](Answer it) { kinds.push_back(it.kind); }));
  }
  EXPECT_EQ(pool_->counters().workers, 4U);
  EXPECT_EQ(pool_->counters().busy, 4U);
  EXPECT_EQ(pool_->counters().waiting, 2U);
  EXPECT_TRUE(RunUntil([&] { return !kinds.empty(); }));
  EXPECT_EQ(kinds, std::vector{Kind::kNotTaken});
  for (const auto call : calls) pool_->Forget(call);
  EXPECT_EQ(pool_->counters().waiting, 0U);
  EXPECT_TRUE(Workers(0));
  EXPECT_EQ(kinds.size(), 1U);

  // Four at once, two of which stay.
  int answered = 0;
  for (int i = 0; i < 4; ++i) {
    pool_->Submit("echo", Json::Value(Json::objectValue),
                  [&](Answer it) { answered += it.kind == Kind::kDone ? 1 : 0; });
  }
  EXPECT_EQ(pool_->counters().workers, 4U);
  EXPECT_TRUE(RunUntil([&] { return answered == 4; }));
  EXPECT_TRUE(Workers(2));
  EXPECT_TRUE(log_.empty()) << log_[0];
}

TEST_F(WorkerPoolTest, CallsWaitForAWorkerInTheirOrder) {
  PoolOptions options = Options();
  options.max_workers = 1;
  StartPool(std::move(options));
  std::vector<int> order;
  for (int i = 0; i < 20; ++i) {
    pool_->Submit("echo", With("number", i),
                  [&](Answer it) { order.push_back(it.value["number"].asInt()); });
  }
  EXPECT_TRUE(RunUntil([&] { return order.size() == 20; }));
  EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST_F(WorkerPoolTest, WhatIsForgottenIsNeverAnswered) {
  PoolOptions options = Options();
  options.max_workers = 1;
  StartPool(std::move(options));
  bool answered = false;
  const auto never = [&](Answer) { answered = true; };
  // One that runs and may be killed, one that waits, one whose refusal is on its way.
  const auto running = pool_->Submit("hang-killable", Json::Value(Json::objectValue), never);
  const auto waiting = pool_->Submit("echo", Json::Value(Json::objectValue), never);
  const auto refused = pool_->Submit("no such call", Json::Value(Json::objectValue), never);
  pool_->Forget(waiting);
  pool_->Forget(refused);
  pool_->Forget(running);
  pool_->Forget(running);
  pool_->Forget(12345);
  EXPECT_EQ(Ask("echo").kind, Kind::kDone);
  // One that runs and goes on: its worker is the same afterwards.
  const int pid = Ask("echo").value["pid"].asInt();
  pool_->Forget(pool_->Submit("echo", Json::Value(Json::objectValue), never));
  EXPECT_EQ(Ask("echo").value["pid"].asInt(), pid);
  EXPECT_FALSE(answered);
  EXPECT_EQ(pool_->counters().lost, 0U);
  EXPECT_TRUE(log_.empty()) << log_[0];
}

TEST_F(WorkerPoolTest, AThrowAwayCallEndsItsWorker) {
  StartPool(Options());
  std::set<int> pids;
  for (int i = 0; i < 5; ++i) {
    const Answer answer = Ask("echo-once");
    EXPECT_EQ(answer.kind, Kind::kDone);
    EXPECT_TRUE(pids.insert(answer.value["pid"].asInt()).second) << "used twice";
  }
  // Others have taken their place.
  EXPECT_TRUE(Workers(2));
  EXPECT_EQ(pool_->counters().lost, 0U);
  EXPECT_TRUE(log_.empty()) << log_[0];
}

TEST_F(WorkerPoolTest, AnIdleWorkerThatWasKilledCostsNoCall) {
  StartPool(Options());
  const pid_t pid = Ask("echo").value["pid"].asInt();
  ASSERT_GT(pid, 1);
  kill(pid, SIGKILL);
  ASSERT_TRUE(test::Eventually([&] { return !tarn::ProcessAlive(pid); }));
  EXPECT_EQ(Ask("echo").kind, Kind::kDone);
  EXPECT_TRUE(RunUntil([&] { return Logged("ended: killed by signal 9"); }));
}

TEST_F(WorkerPoolTest, SaysWhenTheProgramCannotBeStarted) {
  PoolOptions missing = Options();
  missing.command = {"/nowhere/worker"};
  EXPECT_THROW(StartPool(std::move(missing)), std::system_error);
  EXPECT_EQ(Children(), std::vector<pid_t>());
}

TEST_F(WorkerPoolTest, TriesAgainWithTheNextCallWhenTheProgramWasMissing) {
  const std::string link = "/tmp/worker";
  std::filesystem::create_symlink(kWorker, link);
  PoolOptions options = Options();
  options.command = {link};
  options.idle_workers = 0;
  options.idle_time = std::chrono::milliseconds(1);
  StartPool(std::move(options));
  EXPECT_TRUE(Workers(0));
  std::filesystem::remove(link);
  const Answer lost = Ask("echo");
  EXPECT_EQ(lost.kind, Kind::kLost);
  EXPECT_EQ(lost.cause, "cannot execute /tmp/worker: No such file or directory");
  std::filesystem::create_symlink(kWorker, link);
  EXPECT_EQ(Ask("echo").kind, Kind::kDone);
}

TEST_F(WorkerPoolTest, AProgramThatEndsAtOnceLosesItsCalls) {
  PoolOptions options = Options();
  options.command = {kWorker, "--exit", "5"};
  StartPool(std::move(options));
  EXPECT_TRUE(Workers(0));
  EXPECT_TRUE(Logged("ended: exit status 5"));
  EXPECT_EQ(Ask("echo").cause, "exit status 5");
}

TEST_F(WorkerPoolTest, AWorkerHoldsItsChannelAndTheStandardStreamsOnly) {
  const tarn::UniqueFd open_to_all(open("/dev/null", O_RDONLY));  // not close-on-exec
  StartPool(Options());
  const int pid = Ask("echo").value["pid"].asInt();
  std::vector<std::string> above;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    const std::string number = entry.path().filename();
    if (number != "0" && number != "1" && number != "2") {
      above.push_back(std::filesystem::read_symlink(entry.path()).string());
    }
  }
  ASSERT_EQ(above.size(), 1U);
  EXPECT_THAT(above[0], HasSubstr("socket:"));
}

TEST_F(WorkerPoolTest, AWorkerHasDefaultSignals) {
  signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  StartPool(Options());
  const int pid = Ask("echo").value["pid"].asInt();
  const std::string status = test::ReadText("/proc/" + std::to_string(pid) + "/status");
  EXPECT_THAT(status, HasSubstr("SigBlk:\t0000000000000000"));
  EXPECT_THAT(status, HasSubstr("SigIgn:\t0000000000000000"));
  EXPECT_EQ(getpgid(pid), pid);
}

TEST_F(WorkerPoolTest, AWorkerHasANetworkOfItsOwn) {
  StartPool(Options());
  const Answer answer = Ask("link", With("path", "/proc/self/ns/net"));
  EXPECT_THAT(answer.value["target"].asString(), HasSubstr("net:["));
  EXPECT_NE(answer.value["target"].asString(),
            std::filesystem::read_symlink("/proc/self/ns/net").string());
}

TEST_F(WorkerPoolTest, AWorkerOfAnOrdinaryUserHasANetworkOfItsOwn) {
  const pid_t child = test::InChild([&] {
    if (!test::BecomeOrdinaryUser()) return 1;
    // Who has no group can have no user namespace.
    test::WriteText("/proc/self/setgroups", "deny");
    test::WriteText("/proc/self/gid_map", "1000 0 1");
    StartPool(Options());
    const Answer answer = Ask("link", With("path", "/proc/self/ns/net"));
    if (answer.kind != Kind::kDone) return 2;
    const std::string own = std::filesystem::read_symlink("/proc/self/ns/net");
    if (answer.value["target"].asString() == own) return 3;
    // It is the same user all the same.
    return Ask("echo").value["user"].asInt() == 1000 && log_.empty() ? 0 : 4;
  });
  EXPECT_EQ(test::WaitFor(child), 0);
}

TEST_F(WorkerPoolTest, SaysOnceThatWorkersCannotLeaveTheNetwork) {
  const pid_t child = test::InChild([&] {
    if (!test::BecomeOrdinaryUser()) return 1;
    StartPool(Options());
    // Each of a worker of its own.
    for (int i = 0; i < 5; ++i) {
      if (Ask("echo-once").kind != Kind::kDone) return 2;
    }
    return log_.size() == 1 && Logged("could not leave the machine's network: ") ? 0 : 3;
  });
  EXPECT_EQ(test::WaitFor(child), 0);
}

TEST_F(WorkerPoolTest, WorkersDieWithTheirParent) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const tarn::UniqueFd read_end(ends[0]);
  tarn::UniqueFd write_end(ends[1]);
  const pid_t parent = test::InChild([&] {
    StartPool(Options());
    // One hangs in a call, and so does not see the end of its channel.
    bool never = false;
    pool_->Submit("hang", Json::Value(Json::objectValue), [&](Answer) { never = true; });
    const std::vector<pid_t> workers = Children();
    if (workers.size() != 2) return 1;
    tarn::WriteAll(write_end.get(),
                   std::string(reinterpret_cast<const char*>(workers.data()), 2 * sizeof(pid_t)));
    RunUntil([&] { return never; });
    return 0;
  });
  write_end.reset();
  pid_t workers[2];
  ASSERT_EQ(tarn::ReadRetry(read_end.get(), reinterpret_cast<char*>(workers), sizeof workers),
            static_cast<ssize_t>(sizeof workers));
  ASSERT_GT(parent, 1);
  kill(parent, SIGKILL);
  EXPECT_NE(test::WaitFor(parent), -1);
  for (const pid_t worker : workers) {
    EXPECT_TRUE(test::Eventually([&] { return !tarn::ProcessAlive(worker); })) << worker;
  }
}

TEST_F(WorkerPoolTest, TheEndOfThePoolIsTheEndOfItsWorkers) {
  const size_t before = test::OpenDescriptors();
  StartPool(Options());
  bool answered = false;
  for (const char* name : {"hang", "hang-killable", "echo", "echo", "echo"}) {
    pool_->Submit(name, Json::Value(Json::objectValue), [&](Answer) { answered = true; });
  }
  EXPECT_GE(Children().size(), 5U);
  pool_.reset();
  EXPECT_EQ(Children(), std::vector<pid_t>());
  EXPECT_EQ(test::OpenDescriptors(), before);
  loop_.After(std::chrono::milliseconds(0), [this] { loop_.Stop(); });
  loop_.Run();
  EXPECT_FALSE(answered);
}

TEST_F(WorkerPoolTest, AThousandCallsWithCrashesAllHaveTheirOwnAnswer) {
  PoolOptions options = Options();
  options.max_workers = 8;
  options.max_waiting = 1000;
  StartPool(std::move(options));
  const size_t before = test::OpenDescriptors();
  // Always the same ones.
  std::mt19937 random(1);
  int answers = 0, wrong = 0;
  unsigned lost = 0;
  for (int i = 0; i < 1000; ++i) {
    const unsigned what = random() % 20;
    const bool crashes = what < 2;
    lost += crashes ? 1 : 0;
    Json::Value arguments = With("number", i);
    arguments["signal"] = SIGKILL;
    arguments["status"] = 7;
    const char* const name = what == 0   ? "crash"
                             : what == 1 ? "exit"
                             : what == 2 ? "echo-once"
                                         : "echo";
    pool_->Submit(name, arguments, [&, i, crashes](Answer it) {
      ++answers;
      const bool right = crashes ? it.kind == Kind::kLost
                                 : it.kind == Kind::kDone && it.value["number"].asInt() == i;
      wrong += right ? 0 : 1;
    });
  }
  EXPECT_TRUE(RunUntil([&] { return answers == 1000; }));
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(pool_->counters().lost, lost);
  EXPECT_EQ(pool_->counters().calls, 1000U);
  // Neither zombies nor descriptors are left of those that were lost.
  EXPECT_TRUE(RunUntil([&] { return pool_->counters().workers == Children().size(); }));
  EXPECT_LE(Children().size(), 8U);
  // For each worker a pidfd, a socket, and at first a pipe.
  EXPECT_LE(test::OpenDescriptors(), before + 3 * 8);
  pool_.reset();
  EXPECT_EQ(Children(), std::vector<pid_t>());
}

}  // namespace
