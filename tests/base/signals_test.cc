#include "base/signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "tests/support/process.h"

namespace {

volatile sig_atomic_t g_noticed = 0;
void Notice(int) { g_noticed = 1; }

TEST(ScopedSignalBlock, HoldsSignalsBackAndRestoresTheMask) {
  g_noticed = 0;
  tarn::InstallHandler(SIGUSR1, Notice);
  sigset_t before, after;
  sigprocmask(SIG_SETMASK, nullptr, &before);
  {
    const tarn::ScopedSignalBlock block;
    raise(SIGUSR1);
    EXPECT_EQ(g_noticed, 0);
    EXPECT_EQ(sigismember(&block.previous(), SIGUSR1), 0);
  }
  EXPECT_EQ(g_noticed, 1);
  sigprocmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal < NSIG; ++signal) {
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
  }
}

TEST(InstallHandler, InterruptsABlockingCall) {
  tarn::InstallHandler(SIGALRM, Notice);
  tarn::UniqueFd read_end, write_end;
  ASSERT_TRUE(tarn::OpenPipe(read_end, write_end));
  const test::FastTimer timer;  // its handler is installed the same way
  char byte;
  EXPECT_EQ(read(read_end.get(), &byte, 1), -1);
  EXPECT_EQ(errno, EINTR);
}

TEST(ResetSignals, RestoresDefaultsAndEmptiesTheMask) {
  const pid_t pid = test::InChild([] {
    signal(SIGTERM, SIG_IGN);
    tarn::InstallHandler(SIGINT, Notice);
    const tarn::ScopedSignalBlock block;
    tarn::ResetSignals();
    struct sigaction action {};
    for (int signal = 1; signal < NSIG; ++signal) {
      if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_DFL) return 1;
    }
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return sigisemptyset(&mask) ? 7 : 2;
  });
  EXPECT_EQ(WEXITSTATUS(test::WaitFor(pid)), 7);
}

TEST(ResetSignals, DeliversWhatWasPendingByDefault) {
  const pid_t pid = test::InChild([] {
    tarn::InstallHandler(SIGTERM, Notice);
    const tarn::ScopedSignalBlock block;
    raise(SIGTERM);
    tarn::ResetSignals();
    return 1;
  });
  const int status = test::WaitFor(pid);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

}  // namespace
