// WebM streams whose transcoder is the stub, and a look at every process that they start.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/fault_point.h"
#include "base/paths.h"
#include "base/process.h"
#include "base/wait.h"
#include "tarnvte/webm_stream.h"
#include "tests/support/host_files.h"

namespace tarn::test {

inline constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";
inline constexpr char kProfiles[] = "/tmp/profiles.json";
inline constexpr char kRegistry[] = "/tmp/Reelbay/enabled";

// "Does not hang": far beyond anything that is expected.
inline constexpr int kPatienceSeconds = 20;

// Waits for what another process brings about.
template <typename Condition>
bool Eventually(Condition condition) {
  const int64_t end = MonotonicMs() + kPatienceSeconds * 1000;
  while (!condition()) {
    if (MonotonicMs() > end) return false;
    SleepMs(1);
  }
  return true;
}

// What the processes of a stream tell the test, through memory that they inherit.
struct StreamTrace {
  std::atomic<int> monitor;     // pid of the newest monitor
  std::atomic<int> transcoder;  // pid of the newest process that is about to become the transcoder
  std::atomic<int> held;        // pid of who waits at `hold_at`
  std::atomic<bool> released;
  char hold_at[32];  // the fault point where a process waits until it is released
};

class StubStreamTest : public testing::Test {
 protected:
  using WebMStream = LibTarnVTE::WebMStream;

  StubStreamTest() {
    EXPECT_EQ(mount(TARN_TEST_BIN "/tests/bin/stub_transcoder", paths::kFFmpeg41, nullptr, MS_BIND,
                    nullptr),
              0);
    // A key is a mode of the stub; "copy-" in front of it makes the stream a copy, which is not
    // registered.
    std::string profiles;
    for (const std::string mode : {"brief", "spew", "silent", "mute", "polite", "deaf-int", "deaf",
                                   "lone", "arguments", "report"}) {
      profiles += profiles.empty() ? "{" : ",";
      profiles += "\"" + mode + "\":\"-stub " + mode + "\",";
      profiles += "\"copy-" + mode + "\":\"-bsf:v h264_mp4toannexb -stub " + mode + "\"";
    }
    WriteText(kProfiles, profiles + "}");
    void* const memory = mmap(nullptr, sizeof(StreamTrace), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    trace_ = new (memory) StreamTrace{};
    SetFaultHook(AtFaultPoint);
    // Orphans become this process's children, and stay zombies until it reaps them: no process that
    // a stream starts can escape, and an ended monitor looks as it does below a slow init.
    EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  }

  ~StubStreamTest() override {
    SetFaultHook(nullptr);
    EXPECT_TRUE(NothingRuns());
  }

  static std::string Prepare(const std::string& key, const std::string& file = kClip) {
    const std::string id =
        LibTarnVTE::VTEStream::VTE_Init(LibTarnVTE::VTEInitArgument(file, "WEBM", kProfiles, key));
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

  // Everything up to the end of the stream.
  static std::string ReadToEnd(WebMStream& stream) {
    std::string data;
    char buffer[65536];
    ssize_t length;
    while ((length = stream.Read(buffer, sizeof buffer)) > 0) {
      data.append(buffer, static_cast<size_t>(length));
    }
    EXPECT_EQ(length, 0);
    return data;
  }

  // Waits for the first byte: the transcoder runs.
  static bool Runs(WebMStream& stream) {
    char byte;
    return stream.Read(&byte, 1) == 1;
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
    if (std::strcmp(point, "monitor started") == 0) trace_->monitor = getpid();
    if (std::strcmp(point, "registered") == 0) trace_->transcoder = getpid();
    if (std::strcmp(point, trace_->hold_at) != 0) return;
    trace_->held = getpid();
    while (!trace_->released) SleepMs(1);
  }
};

}  // namespace tarn::test
