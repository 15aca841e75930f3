// Streams whose transcoder is a stub, and a look at every process that they start.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/fault_point.h"
#include "base/paths.h"
#include "base/process.h"
#include "base/wait.h"
#include "tarnvte/libtarnvte.h"
#include "tests/support/host_files.h"
#include "tests/support/process.h"
#include "tests/support/shared_memory.h"

namespace tarn::test {

inline constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";
inline constexpr char kProfiles[] = "/tmp/profiles.json";
inline constexpr char kRegistry[] = "/tmp/Reelbay/enabled";

using ::test::Eventually;
using ::test::OpenDescriptors;

inline void SleepMicroseconds(long microseconds) {
  timespec left{microseconds / 1'000'000, microseconds % 1'000'000 * 1000};
  while (nanosleep(&left, &left) != 0) {
  }
}

inline std::atomic<int>* SharedCounter() { return Shared<std::atomic<int>>(); }

// What the processes of a stream tell the test, through memory that they inherit.
struct StreamTrace {
  std::atomic<int> monitors;    // how many were started
  std::atomic<int> monitor;     // pid of the newest one
  std::atomic<int> pipeline;    // pid of the newest process that runs a pipeline
  std::atomic<int> transcoder;  // pid of the newest process that is about to become the transcoder
  std::atomic<int> held;        // pid of who waits at `hold_at`: the first one that came there
  std::atomic<bool> released;
  char hold_at[32];  // the fault point where a process waits until it is released
};

// Instants of a start, spread evenly, at which a process is signalled.
struct Instants {
  const char* name;
  int signal;
  long first_microseconds;
  long last_microseconds;
  int count;

  long at(int i) const {
    return first_microseconds + (last_microseconds - first_microseconds) * i / count;
  }
};

inline std::string NameOf(const testing::TestParamInfo<Instants>& test) { return test.param.name; }

class StubProcessTest : public testing::Test {
 protected:
  // `stub` becomes what runs as `ffmpeg`.
  explicit StubProcessTest(const std::string& stub) {
    const std::string program = TARN_TEST_BIN "/tests/bin/" + stub;
    EXPECT_EQ(mount(program.c_str(), paths::kFFmpeg41, nullptr, MS_BIND, nullptr), 0);
    trace_ = Shared<StreamTrace>();
    SetFaultHook(AtFaultPoint);
    // Orphans become this process's children, and stay zombies until it reaps them: no process that
    // a stream starts can escape, and an ended monitor looks as it does below a slow init.
    EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  }

  ~StubProcessTest() override {
    SetFaultHook(nullptr);
    EXPECT_TRUE(NothingRuns());
  }

  static std::string PrepareKind(const std::string& kind, const std::string& key,
                                 const std::string& file = kClip) {
    const std::string id =
        LibTarnVTE::VTEStream::VTE_Init(LibTarnVTE::VTEInitArgument(file, kind, kProfiles, key));
    EXPECT_EQ(id.size(), 41u) << key;
    return id;
  }

  // Every process that any stream started has ended. Reaps those that nobody else did, into
  // `reaped`.
  static bool NothingRuns(std::vector<int>* reaped = nullptr) {
    return Eventually([reaped] {
      int pid;
      while ((pid = waitpid(-1, nullptr, WNOHANG)) > 0) {
        if (reaped != nullptr) reaped->push_back(pid);
      }
      return pid < 0 && errno == ECHILD;
    });
  }

  // The registry's file as it stands: opening it would drop the dead.
  static std::string Registry() { return ReadText(kRegistry); }

  // A process that does `work` and ends; it ends with the test, too.
  template <typename Work>
  static pid_t Start(Work work) {
    return ::test::InChild([&] {
      DieWithParent();
      work();
      return 0;
    });
  }

  // Signals a process as soon as the trace knows it, or a while later.
  static void SignalNext(std::atomic<int> StreamTrace::*process, int signal,
                         long after_microseconds) {
    trace_->monitor = 0;
    trace_->pipeline = 0;
    trace_->transcoder = 0;
    Start([=] {
      Eventually([process] { return trace_->*process != 0; });
      SleepMicroseconds(after_microseconds);
      Signal(process, signal);
    });
  }

  // One that never started has no pid, and 0 would be this whole process group.
  static void Signal(std::atomic<int> StreamTrace::*process, int signal) {
    const int pid = trace_->*process;
    if (pid > 1) kill(pid, signal);
  }

  static void HoldAt(const char* point) {
    trace_->held = 0;
    trace_->released = false;
    std::strncpy(trace_->hold_at, point, sizeof trace_->hold_at - 1);
  }
  static void Release() {
    trace_->hold_at[0] = '\0';
    trace_->released = true;
  }

  static inline StreamTrace* trace_ = nullptr;

 private:
  static void AtFaultPoint(const char* point) {
    if (std::strcmp(point, "monitor started") == 0) {
      trace_->monitor = getpid();
      ++trace_->monitors;
    }
    if (std::strcmp(point, "pipeline started") == 0) trace_->pipeline = getpid();
    if (std::strcmp(point, "registered") == 0) trace_->transcoder = getpid();
    int nobody = 0;
    if (std::strcmp(point, trace_->hold_at) != 0 ||
        !trace_->held.compare_exchange_strong(nobody, getpid())) {
      return;
    }
    while (!trace_->released) SleepMs(1);
  }
};

}  // namespace tarn::test
