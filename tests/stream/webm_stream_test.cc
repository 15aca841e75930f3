// The WebM stream on real media: played, sought, stopped, killed.
#include "tarnvte/webm_stream.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "base/clock.h"
#include "base/process.h"
#include "base/wait.h"
#include "tarnvte/trans_loading.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"

namespace LibTarnVTE {
namespace {

using tarn::test::LiveProcesses;
using tarn::test::ProcessesWith;
using tarn::test::ReadText;
using tarn::test::WriteText;

constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";
constexpr char kProfiles[] = "/tmp/profiles.json";

class TestStream : public WebMStream {
 public:
  using VTEStream::profile_value;
  using WebMStream::WebMStream;
};

// Waits for a condition that another process brings about.
template <typename Condition>
bool Eventually(Condition condition, int seconds = 5) {
  const int64_t deadline = tarn::MonotonicMs() + seconds * 1000;
  while (!condition()) {
    if (tarn::MonotonicMs() > deadline) return false;
    tarn::SleepMs(10);
  }
  return true;
}

class WebMStreamTest : public testing::Test {
 protected:
  WebMStreamTest() {
    WriteText(kProfiles, R"({
      "fast": "-c:v libvpx -deadline realtime -cpu-used 16 -b:v 300k -c:a libvorbis -s 320x240 -f webm",
      "slow": "-vf realtime -c:v libvpx -deadline realtime -cpu-used 16 -b:v 300k -c:a libvorbis -s 320x240 -f webm",
      "endless": "-c:v libvpx -deadline best -cpu-used 0 -b:v 9000k -c:a libvorbis -s hd1080 -f webm",
      "copy": "-vcodec copy -acodec copy -bsf:v h264_mp4toannexb -f matroska"})");
    baseline_ = LiveProcesses();
  }
  ~WebMStreamTest() override {
    EXPECT_TRUE(Eventually([this] { return LiveProcesses() == baseline_; }))
        << "left running: " << LiveProcesses() - baseline_;
    EXPECT_EQ(Registry(), "[]\n");
  }

  static std::string Prepare(const std::string& key, const std::string& file = kClip) {
    return VTEStream::VTE_Init(VTEInitArgument(file, "WEBM", kProfiles, key));
  }
  // Reads to the end of the stream.
  static std::string ReadAll(WebMStream& stream) {
    std::string data;
    char buffer[65536];
    ssize_t length;
    while ((length = stream.Read(buffer, sizeof buffer)) > 0) {
      data.append(buffer, static_cast<size_t>(length));
    }
    EXPECT_EQ(length, 0);
    return data;
  }
  // One line of what ffprobe says of the data.
  static std::string Probe(const std::string& data, const std::string& entries) {
    WriteText("/tmp/out.webm", data);
    const std::string command = "ffprobe -v error -of csv=p=0 " + entries + " /tmp/out.webm 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string text;
    char buffer[4096];
    size_t length;
    while ((length = fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, length);
    pclose(pipe);
    return text;
  }
  static std::string Registry() {
    { LibReelbay::TransLoading reopened; }
    return ReadText("/tmp/Reelbay/enabled");
  }

  int baseline_;
};

TEST_F(WebMStreamTest, PlaysAFileFromItsStartToItsEnd) {
  TestStream stream(Prepare("fast"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  const std::string data = ReadAll(stream);
  EXPECT_EQ(Probe(data, "-show_entries format=format_name"), "\"matroska,webm\"\n");
  EXPECT_EQ(Probe(data, "-show_entries stream=codec_name,width,height"), "vp8,320,180\nvorbis\n");
  EXPECT_EQ(Probe(data, "-count_packets -select_streams v -show_entries stream=nb_read_packets"),
            "250\n");
  EXPECT_TRUE(stream.Close());
  EXPECT_EQ(Registry(), "[]\n");
  EXPECT_TRUE(std::filesystem::is_empty("/tmp/Reelbay/WEBM"));
  EXPECT_TRUE(std::filesystem::is_empty("/volume1/@tmp/Reelbay/WEBM"));
}

TEST_F(WebMStreamTest, SeekStartsAtThePositionWithItsTimeStamps) {
  TestStream stream(Prepare("fast"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(6));
  EXPECT_EQ(stream.GetSeekTimeInMillisecond(), 6000);
  const std::string data = ReadAll(stream);
  const std::string first =
      Probe(data, "-select_streams v -read_intervals %+#1 -show_entries packet=pts_time");
  EXPECT_NEAR(std::atof(first.c_str()), 6.0, 0.05) << first;
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, NewSeekReplacesTheRunningTranscoder) {
  TestStream stream(Prepare("slow"));
  ASSERT_TRUE(stream.Init(""));
  char buffer[4096];
  std::string monitor;
  for (int seek : {0, 5, 2}) {
    ASSERT_TRUE(stream.Transcoding(seek));
    ASSERT_GT(stream.Read(buffer, sizeof buffer), 0) << "no output after the seek to " << seek;
    const std::string recorded =
        ReadText("/tmp/Reelbay/WEBM/" + stream.GetStreamID() + "/monitor.pid");
    EXPECT_NE(recorded, monitor);
    monitor = recorded;
    EXPECT_EQ(ProcessesWith("/usr/bin/ffmpeg").size(), 1u);
  }
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, SeekBeyondTheEndStartsNothing) {
  TestStream stream(Prepare("fast"));
  ASSERT_TRUE(stream.Init(""));
  EXPECT_FALSE(stream.Transcoding(11));
  EXPECT_FALSE(stream.Transcoding(-1));
  EXPECT_FALSE(stream.Transcoding(2147484));
  EXPECT_EQ(LiveProcesses(), baseline_);
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, StreamThatWasNeverStartedReadsNothing) {
  TestStream stream(Prepare("fast"));
  char byte;
  EXPECT_EQ(stream.Read(&byte, 1), 0);
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, FileWithoutVideoEndsAtOnce) {
  const std::string id = Prepare("fast");
  const std::string document = "/tmp/Reelbay/WEBM/" + id + "/video_metadata";
  WriteText(document, R"({"profile_key":"fast","profile_value":"-f webm","duration":10,
    "path":"/x","track_info":{"video":[],"audio":[],"subtitle":[]}})");
  TestStream stream(id);
  EXPECT_TRUE(stream.CalculateFFmpegArgument().empty());
  ASSERT_TRUE(stream.Transcoding(0));
  char byte;
  EXPECT_EQ(stream.Read(&byte, 1), 0);
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, ArgumentsEndWithTheSeek) {
  TestStream stream(Prepare("copy"));
  ASSERT_TRUE(stream.Init(""));
  const std::vector<std::string> expected = {"-vcodec",
                                             "copy",
                                             "-acodec",
                                             "copy",
                                             "-bsf:v",
                                             "h264_mp4toannexb",
                                             "-f",
                                             "matroska",
                                             "-webm_seek_time",
                                             "0",
                                             "-avoid_negative_ts",
                                             "0"};
  EXPECT_EQ(stream.CalculateFFmpegArgument(), expected);
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, CopyOfTheVideoIsNeverRegistered) {
  TestStream stream(Prepare("copy"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  EXPECT_FALSE(std::filesystem::exists("/tmp/Reelbay/enabled"));
  EXPECT_EQ(Probe(ReadAll(stream), "-show_entries stream=codec_name"), "h264\naac\n");
  EXPECT_FALSE(std::filesystem::exists("/tmp/Reelbay/enabled"));
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, RunningTranscoderIsRegisteredAndKeepsTheNextOneOut) {
  TestStream stream(Prepare("slow"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  char buffer[4096];
  ASSERT_GT(stream.Read(buffer, sizeof buffer), 0);
  const std::vector<int> transcoders = ProcessesWith("/usr/bin/ffmpeg");
  ASSERT_EQ(transcoders.size(), 1u);
  EXPECT_NE(Registry().find("\"PID\":" + std::to_string(transcoders[0]) + ","), std::string::npos);

  TestStream second(Prepare("fast"));
  EXPECT_FALSE(second.Init(""));
  EXPECT_EQ(second.GetErrorString(), "TransEnable");
  EXPECT_TRUE(second.Close());
  EXPECT_TRUE(stream.Close());
  EXPECT_TRUE(Eventually([] { return Registry() == "[]\n"; }));
}

TEST_F(WebMStreamTest, TranscoderInheritsOnlyItsPipe) {
  TestStream stream(Prepare("slow"));
  ASSERT_TRUE(stream.Init(""));
  setenv("LD_PRELOAD_TEST", "1", 1);
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  setenv("FFREPORT", "file=/tmp/report", 1);
  int socket_like[2];
  ASSERT_EQ(pipe(socket_like), 0);  // a descriptor that the caller forgot to mark
  ASSERT_TRUE(stream.Transcoding(0));
  char buffer[4096];
  ASSERT_GT(stream.Read(buffer, sizeof buffer), 0);
  const std::vector<int> transcoders = ProcessesWith("/usr/bin/ffmpeg");
  ASSERT_EQ(transcoders.size(), 1u);
  const std::string proc = "/proc/" + std::to_string(transcoders[0]);
  int pipes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(proc + "/fd")) {
    const std::string target = std::filesystem::read_symlink(entry.path());
    if (target.starts_with("pipe:")) {
      ++pipes;
    } else {
      EXPECT_TRUE(target == "/dev/null" || target == kClip) << entry.path() << " is " << target;
    }
  }
  EXPECT_EQ(pipes, 1);
  const std::string environment = ReadText(proc + "/environ");
  EXPECT_NE(environment.find("TARN_CODEC_PKG_NAME=reelbay"), std::string::npos);
  EXPECT_EQ(environment.find("proxy"), std::string::npos);
  EXPECT_EQ(environment.find("FFREPORT"), std::string::npos);
  EXPECT_EQ(environment.find("LD_"), std::string::npos);
  close(socket_like[0]);
  close(socket_like[1]);
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, TerminatedMonitorStopsTheTranscoder) {
  TestStream stream(Prepare("endless"));
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ASSERT_TRUE(Eventually([] { return ProcessesWith("/usr/bin/ffmpeg").size() == 1; }));
  ASSERT_TRUE(stream.KillMonitor());
  EXPECT_TRUE(Eventually([] { return ProcessesWith("/usr/bin/ffmpeg").empty(); }));
  EXPECT_TRUE(Eventually([] { return Registry() == "[]\n"; }));
  EXPECT_TRUE(stream.Close());
}

TEST_F(WebMStreamTest, ReaderThatGoesAwayEndsTheTranscoder) {
  const std::string id = Prepare("slow");
  {
    TestStream stream(id);
    ASSERT_TRUE(stream.Init(""));
    ASSERT_TRUE(stream.Transcoding(0));
    char buffer[4096];
    ASSERT_GT(stream.Read(buffer, sizeof buffer), 0);
  }
  EXPECT_TRUE(Eventually([] { return ProcessesWith("/usr/bin/ffmpeg").empty(); }));
  EXPECT_TRUE(TestStream(id).Close());
}

TEST_F(WebMStreamTest, VanishedDirectoryEndsTheTranscoder) {
  const std::string id = Prepare("slow");
  TestStream stream(id);
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  char buffer[4096];
  ASSERT_GT(stream.Read(buffer, sizeof buffer), 0);
  std::filesystem::remove_all("/volume1/@tmp/Reelbay/WEBM/" + id);
  std::filesystem::remove("/tmp/Reelbay/WEBM/" + id);
  EXPECT_TRUE(Eventually([] { return ProcessesWith("/usr/bin/ffmpeg").empty(); }));
}

// A caller that starts a stream and reads it until it is killed.
pid_t StartCaller(const std::string& id, int start_at = 0) {
  const pid_t caller = fork();
  if (caller != 0) return caller;
  TestStream stream(id);
  char buffer[4096];
  if (stream.Init("") && stream.Transcoding(start_at)) {
    while (stream.Read(buffer, sizeof buffer) > 0) {
    }
  }
  _exit(0);
}

// Whichever process of a running stream is killed, at whatever moment: after five seconds nothing
// runs, the registry is empty when it is next opened, and the stream starts again.
TEST_F(WebMStreamTest, KillingAnyProcessAtAnyMomentLeavesNothing) {
  const std::string id = Prepare("slow");
  const std::string pid_file = "/tmp/Reelbay/WEBM/" + id + "/monitor.pid";
  for (const char* victim : {"caller", "monitor", "transcoder"}) {
    for (int delay = 0; delay <= 160; delay += 20) {
      std::filesystem::remove(pid_file);
      const pid_t caller = StartCaller(id);
      tarn::SleepMs(delay);
      if (victim == std::string("monitor")) {
        const int monitor = std::atoi(ReadText(pid_file).c_str());
        if (monitor > 1) kill(monitor, SIGKILL);
      } else if (victim == std::string("transcoder")) {
        for (int pid : ProcessesWith("/usr/bin/ffmpeg")) kill(pid, SIGKILL);
      }
      kill(caller, SIGKILL);
      waitpid(caller, nullptr, 0);
      // A process that is just being forked escapes a single look.
      ASSERT_TRUE(Eventually([this] {
        return LiveProcesses() == baseline_ && Registry() == "[]\n" && LiveProcesses() == baseline_;
      })) << victim
          << " after " << delay << " ms";
    }
  }
  TestStream again(id);
  ASSERT_TRUE(again.Init(""));
  ASSERT_TRUE(again.Transcoding(0));
  char buffer[4096];
  EXPECT_GT(again.Read(buffer, sizeof buffer), 0);
  EXPECT_TRUE(again.Close());
}

}  // namespace
}  // namespace LibTarnVTE
