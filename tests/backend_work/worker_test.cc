// What a worker does by itself when its server ends.
#include "backend/work/worker.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <string>

#include "backend/work/call_text.h"
#include "backend/work/channel.h"
#include "backend/work/worker_process.h"
#include "tests/backend_work/pool_fixture.h"

namespace {

using tarnbackend::Message;
using tarnbackend::WorkerProcess;

// How far the server comes before it ends.
enum class Server { kAsked, kWasAnswered, kReadTheAnswer };

// Whether the call was taken back.
bool IsUndone(Server server) {
  const std::string path = testing::TempDir() + "undone";
  std::filesystem::remove(path);
  WorkerProcess worker = tarnbackend::StartWorker({TARN_TEST_BIN "/tests/bin/stub_worker"});
  const int channel = worker.channel.get();
  Message message;
  message.text = tarnbackend::CallText("undo", tarn_test::With("path", path));
  EXPECT_TRUE(tarnbackend::SendMessage(channel, std::move(message)));
  pollfd answered{channel, POLLIN, 0};
  if (server != Server::kAsked) poll(&answered, 1, -1);
  if (server == Server::kReadTheAnswer) {
    Message answer;
    tarnbackend::Received received;
    while ((received = tarnbackend::ReceiveMessage(channel, answer)) ==
           tarnbackend::Received::kMore) {
    }
    EXPECT_EQ(received, tarnbackend::Received::kMessage);
  }
  worker.channel.reset();
  EXPECT_TRUE(tarnbackend::WorkerHasEnded(worker.pidfd, -1));
  EXPECT_EQ(tarnbackend::ReapWorker(worker.pidfd), "exit status 0");
  return std::filesystem::exists(path);
}

TEST(Worker, TakesBackWhatNobodyGets) {
  EXPECT_TRUE(IsUndone(Server::kAsked));
  EXPECT_TRUE(IsUndone(Server::kWasAnswered));
  EXPECT_FALSE(IsUndone(Server::kReadTheAnswer));
}

}  // namespace
