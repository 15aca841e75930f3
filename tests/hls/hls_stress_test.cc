// HLS streams with the real transcoder, played by clients that seek against each other, and while
// processes die, the source vanishes and the volume fills up. What is served is always compared,
// packet by packet, with what one undisturbed run makes of the whole file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>

#include "base/clock.h"
#include "base/file_io.h"
#include "base/wait.h"
#include "tarnvte/trans_loading.h"
#include "tests/hls/hls_stream.h"
#include "tests/support/host_files.h"
#include "tests/support/process.h"
#include "tests/support/shared_memory.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using tarn::test::HlsStream;
using tarn::test::LiveProcesses;
using tarn::test::ReadText;
using tarn::test::Shared;
using tarn::test::WebRequest;
using tarn::test::WriteText;
using test::Eventually;
using test::InChild;

constexpr char kFilm[] = TARN_TEST_MEDIA "/seeks.mkv";
constexpr char kSource[] = "/tmp/source/film.mkv";
constexpr char kProfiles[] = "/run/profiles.json";
constexpr char kStreams[] = "/tmp/Reelbay/HLS";
constexpr char kVolume[] = "/volume1/@tmp/Reelbay/HLS";

// With constant quality the size of a picture does not depend on those before the segment, and
// without the encoder's message about itself not on being its first.
constexpr char kEncode[] =
    "-vcodec libx264 -preset ultrafast -profile:v main -bf 0 -pix_fmt yuv420p -qp 30 -g 1000 "
    "-sc_threshold 0 -force_key_frames expr:gte(t,n_forced*5) -s 96x64 "
    "-bsf:v filter_units=remove_types=6 -acodec aac -ab 64k -ar 48000 -ac 2 -f segment";
constexpr char kCopy[] =
    "-vcodec copy -bsf:v h264_mp4toannexb -acodec aac -ab 64k -ar 48000 -ac 2 -f segment";

// --- What a segment holds.

struct VideoPacket {
  int64_t pts, dts;
  int size;
  bool operator==(const VideoPacket&) const = default;
};

struct Content {
  std::vector<VideoPacket> video;
  std::vector<int64_t> audio;  // in 90 kHz, as the pictures
};

// Empty when it cannot be read as MPEG-TS.
Content ReadContent(const std::string& path) {
  AVFormatContext* opened = nullptr;
  if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) return {};
  const std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> file(
      opened, [](AVFormatContext* context) { avformat_close_input(&context); });
  AVPacket* const read = av_packet_alloc();
  const std::unique_ptr<AVPacket, void (*)(AVPacket*)> packet(
      read, [](AVPacket* freed) { av_packet_free(&freed); });
  Content content;
  while (av_read_frame(file.get(), packet.get()) >= 0) {
    if (file->streams[packet->stream_index]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
      content.video.push_back({packet->pts, packet->dts, packet->size});
    } else {
      content.audio.push_back(packet->pts);
    }
    av_packet_unref(packet.get());
  }
  return content;
}

constexpr int64_t kAudioFrame = 1024 * 90'000 / 48'000;

bool WithinAudioFrame(int64_t a, int64_t b) { return std::llabs(a - b) <= kAudioFrame; }

// The same pictures, byte for byte as long, and the same sound within a frame of it: empty, or the
// first thing that differs.
std::string Difference(const Content& content, const Content& reference) {
  if (content.video.size() != reference.video.size()) {
    return std::to_string(content.video.size()) + " pictures, not " +
           std::to_string(reference.video.size());
  }
  for (size_t i = 0; i < content.video.size(); ++i) {
    const VideoPacket &is = content.video[i], &should = reference.video[i];
    // Neighbouring starts of a picture are numbered 0 and 1, which need not be equally long.
    if (i == 0 && is.pts == should.pts && std::abs(is.size - should.size) <= 1) continue;
    if (is == should) continue;
    return "picture " + std::to_string(i) + " at " + std::to_string(is.pts) + ", " +
           std::to_string(is.size) + " bytes, not at " + std::to_string(should.pts) + ", " +
           std::to_string(should.size) + " bytes";
  }
  if (content.audio.empty() || reference.audio.empty()) {
    return content.audio.empty() == reference.audio.empty() ? "" : "sound on one side only";
  }
  const bool same = WithinAudioFrame(content.audio.front(), reference.audio.front()) &&
                    WithinAudioFrame(content.audio.back(), reference.audio.back()) &&
                    WithinAudioFrame(static_cast<int64_t>(content.audio.size()) * kAudioFrame,
                                     static_cast<int64_t>(reference.audio.size()) * kAudioFrame);
  return same ? ""
              : std::to_string(content.audio.size()) + " frames of sound from " +
                    std::to_string(content.audio.front()) + ", not " +
                    std::to_string(reference.audio.size()) + " from " +
                    std::to_string(reference.audio.front());
}

// --- Requests.

enum class Answer { kRight, kWrong, kNone, kGone };

// Requests of one client.
struct Tally {
  std::atomic<int> right, wrong, none, gone;
  void Add(Answer answer) {
    ++(answer == Answer::kRight   ? right
       : answer == Answer::kWrong ? wrong
       : answer == Answer::kNone  ? none
                                  : gone);
  }
};

class HlsStress : public testing::Test {
 protected:
  HlsStress() {
    av_log_set_level(AV_LOG_QUIET);
    std::string profiles =
        std::string("{\"encode\":\"") + kEncode + "\",\"copy\":\"" + kCopy + "\"";
    // These make a segment of five seconds in a third of a second.
    profiles += std::string(",\"paced-encode\":\"-vf realtime=speed=16 ") + kEncode + "\"";
    profiles += std::string(",\"paced-copy\":\"-af arealtime=speed=16 ") + kCopy + "\"";
    WriteText(kProfiles, profiles + "}");
    fs::remove_all(fs::path(kSource).parent_path());
    fs::create_directories(fs::path(kSource).parent_path());
    fs::create_directories(kStreams);
    fs::create_directories(kVolume);
    chmod("/tmp/Reelbay", 0755);
    baseline_ = LiveProcesses();
  }

  ~HlsStress() override {
    tarn::SetWallClock(nullptr);
    EXPECT_TRUE(NothingRuns());
    { const LibReelbay::TransLoading reopened; }
    EXPECT_EQ(ReadText("/tmp/Reelbay/enabled"), "[]\n");
    EXPECT_TRUE(NothingIsLeftOfAnyStream());
  }

  bool NothingRuns() const {
    return Eventually([this] { return LiveProcesses() == baseline_; });
  }
  static bool NothingIsLeftOfAnyStream() { return fs::is_empty(kStreams) && fs::is_empty(kVolume); }

  // A stream that was opened, in another process than those that play it.
  static std::string Open(const std::string& profile, const std::string& source = kFilm) {
    const std::string id = VTEStream::VTE_Init(VTEInitArgument(source, "HLS", kProfiles, profile));
    HlsStream stream(id);
    EXPECT_TRUE(stream.Init(WebRequest(), Json::objectValue, "", "aac")) << stream.GetErrorString();
    EXPECT_TRUE(stream.TouchAccess());
    return id;
  }

  // What one run from the start makes of the whole film: every segment of the playlist.
  void MakeReference(const std::string& profile) {
    const std::string id = Open(profile);
    HlsStream stream(id);
    const std::string playlist = ReadText(stream.GetMainfest("", ""));
    for (size_t at = 0; (at = playlist.find("#EXTINF", at)) != std::string::npos; ++at) {
      const std::string number = std::to_string(reference_.size());
      const std::string path = stream.Transcoding(number) ? stream.ReadFragment(number) : "";
      reference_.push_back(ReadContent(path));
      ASSERT_FALSE(reference_.back().video.empty()) << number;
    }
    ASSERT_TRUE(stream.Close());
    ASSERT_TRUE(NothingRuns());
    ASSERT_GE(reference_.size(), 15u);
  }

  // As a back end's worker does it: an object for each request, and the file is open at once.
  Answer Request(const std::string& id, int number) const {
    HlsStream stream(id);
    stream.TouchAccess();
    const std::string fragment = std::to_string(number);
    const std::string path = stream.Transcoding(fragment) ? stream.ReadFragment(fragment) : "";
    if (path.empty()) return Answer::kNone;
    const tarn::UniqueFd file(tarn::OpenRetry(path.c_str(), O_RDONLY));
    struct stat status {};
    // Another client's seek may have cleared it meanwhile, and even begun it anew.
    if (!file.valid() || fstat(file.get(), &status) != 0 || (status.st_mode & S_IROTH) == 0) {
      return Answer::kGone;
    }
    const Content content = ReadContent("/proc/self/fd/" + std::to_string(file.get()));
    const std::string difference = Difference(content, reference_[static_cast<size_t>(number)]);
    if (difference.empty()) return Answer::kRight;
    std::printf("segment %d: %s\n", number, difference.c_str());
    std::fflush(stdout);
    return Answer::kWrong;
  }

  // A request in a process of its own.
  pid_t StartRequest(const std::string& id, int number, Tally* tally) const {
    return InChild([=, this] {
      tally->Add(Request(id, number));
      return 0;
    });
  }

  // Waits until the segment is being written.
  static void AwaitBegun(const std::string& id, int number) {
    const std::string path = HlsStream(id).GetSegmentTsPath(number);
    ASSERT_TRUE(Eventually([&] {
      struct stat status {};
      return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IROTH) == 0;
    })) << number;
  }

  std::vector<Content> reference_;

 private:
  int baseline_;
};

// --- Clients that seek at random.

class RandomSeeks : public HlsStress, public testing::WithParamInterface<const char*> {};

TEST_P(RandomSeeks, EveryClientGetsWholeSegmentsAndOnlyTheRightOnes) {
  constexpr int kClients = 4;
  constexpr int64_t kPlayMs = 30'000;
  constexpr int kFewest = 2;
  ASSERT_NO_FATAL_FAILURE(MakeReference(GetParam()));
  const std::string id = Open(std::string("paced-") + GetParam());
  std::vector<Tally*> tallies;
  std::vector<pid_t> clients;
  const int64_t end = tarn::MonotonicMs() + kPlayMs;
  std::random_device seeds;
  for (int i = 0; i < kClients; ++i) {
    Tally* const tally = tallies.emplace_back(Shared<Tally>());
    const unsigned seed = seeds();
    std::printf("client %d: seed %u\n", i, seed);
    clients.push_back(InChild([=, this] {
      std::mt19937 random(seed);
      while (tarn::MonotonicMs() < end) {
        tally->Add(Request(id, static_cast<int>(random() % reference_.size())));
      }
      return 0;
    }));
  }
  for (const pid_t client : clients) {
    int status = -1;
    EXPECT_EQ(waitpid(client, &status, 0), client);
    EXPECT_EQ(status, 0);
  }
  int delivered = 0;
  for (const Tally* tally : tallies) delivered += tally->right;
  for (const Tally* tally : tallies) {
    std::printf("%d segments, %d wrong, %d overtaken, %d gone\n", tally->right.load(),
                tally->wrong.load(), tally->none.load(), tally->gone.load());
    EXPECT_EQ(tally->wrong, 0);
    EXPECT_GE(tally->right, kFewest);
    EXPECT_GE(tally->right, delivered / kClients / 4);
  }
  EXPECT_TRUE(HlsStream(id).Close());
}

INSTANTIATE_TEST_SUITE_P(Video, RandomSeeks, testing::Values("encode", "copy"),
                         [](const auto& test) { return std::string(test.param); });

// --- Processes that die in the middle of a segment.

// The child of a process, or 0: monitor, pipeline, segmenter and encoder are each other's.
int ChildOf(int parent) {
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = ReadText("/proc/" + name + "/stat");
    const size_t end = stat.rfind(')');
    char state = 0;
    int ppid = 0;
    if (end != std::string::npos &&
        std::sscanf(stat.c_str() + end + 1, " %c %d", &state, &ppid) == 2 && ppid == parent &&
        state != 'Z') {
      return std::stoi(name);
    }
  }
  return 0;
}

class KilledProcess : public HlsStress, public testing::WithParamInterface<const char*> {};

TEST_P(KilledProcess, ServesNothingCutAndTheNextRequestStartsAgain) {
  ASSERT_NO_FATAL_FAILURE(MakeReference(GetParam()));
  const std::string id = Open(std::string("paced-") + GetParam());
  Tally* const waiting = Shared<Tally>();
  // Each is the child of the one before.
  const std::vector<std::string> processes = {"monitor", "pipeline", "segmenter", "encoder"};
  int number = 0;
  for (size_t victim = 0; victim < processes.size(); ++victim) {
    SCOPED_TRACE(processes[victim]);
    const pid_t reader = StartRequest(id, number, waiting);
    ASSERT_NO_FATAL_FAILURE(AwaitBegun(id, number));
    int process = std::atoi(ReadText(std::string(kStreams) + "/" + id + "/monitor.pid").c_str());
    for (size_t i = 0; i < victim; ++i) process = ChildOf(process);
    ASSERT_GT(process, 1);
    ASSERT_EQ(kill(process, SIGKILL), 0);
    ASSERT_EQ(test::WaitFor(reader), 0);
    EXPECT_EQ(Request(id, number), Answer::kRight) << number;
    number = number == 0 ? 9 : number - 2;
  }
  EXPECT_EQ(waiting->wrong, 0);
  EXPECT_EQ(waiting->right + waiting->none + waiting->gone, 4);
  EXPECT_TRUE(HlsStream(id).Close());
}

INSTANTIATE_TEST_SUITE_P(Video, KilledProcess, testing::Values("encode", "copy"),
                         [](const auto& test) { return std::string(test.param); });

// --- Sources that vanish.

class LostSource : public HlsStress {
 protected:
  // The first fragment comes, then the source is lost; the run still has it open.
  template <typename Lose>
  void PlayAndLose(Lose lose) {
    ASSERT_NO_FATAL_FAILURE(MakeReference("encode"));
    ASSERT_TRUE(fs::copy_file(kFilm, kSource));
    id_ = Open("paced-encode", kSource);
    ASSERT_EQ(Request(id_, 0), Answer::kRight);
    lose();
    EXPECT_EQ(Request(id_, 1), Answer::kRight);
  }
  // Not only in the end: within the test's patience.
  void ExpectNone(int number) const {
    Tally* const tally = Shared<Tally>();
    EXPECT_EQ(test::WaitFor(StartRequest(id_, number, tally)), 0);
    EXPECT_EQ(tally->none, 1) << number << ": " << tally->right << " right, " << tally->wrong
                              << " wrong, " << tally->gone << " gone";
  }

  std::string id_;
};

TEST_F(LostSource, DeletedFilmIsPlayedOnUntilTheNextSeek) {
  ASSERT_NO_FATAL_FAILURE(PlayAndLose([] { fs::remove(kSource); }));
  ExpectNone(20);
  ExpectNone(0);
  EXPECT_TRUE(HlsStream(id_).Close());
}

TEST_F(LostSource, FilmThatBecomesShorterEndsWhereItEnds) {
  ASSERT_NO_FATAL_FAILURE(PlayAndLose([] {
    const std::string shorter = std::string(kSource) + ".new";
    fs::copy_file(kFilm, shorter);
    fs::resize_file(shorter, fs::file_size(kFilm) / 2);
    fs::rename(shorter, kSource);
  }));
  ExpectNone(20);
  EXPECT_EQ(Request(id_, 3), Answer::kRight);
  EXPECT_TRUE(HlsStream(id_).Close());
}

TEST_F(LostSource, UnmountedFilmIsPlayedOnUntilTheNextSeek) {
  ASSERT_EQ(mount("tmpfs", "/tmp/source", "tmpfs", 0, nullptr), 0);
  ASSERT_NO_FATAL_FAILURE(PlayAndLose([] { ASSERT_EQ(umount2("/tmp/source", MNT_DETACH), 0); }));
  ExpectNone(20);
  ExpectNone(0);
  EXPECT_TRUE(HlsStream(id_).Close());
}

// --- A volume that fills up.

class FullVolume : public HlsStress {
 protected:
  FullVolume() {
    Mount(0, nullptr);
    fs::create_directories(kVolume);
  }

  static void Mount(unsigned long flags, const char* options) {
    EXPECT_EQ(mount("tmpfs", "/volume1", "tmpfs", flags, options), 0);
  }
  static void Fill() {
    const tarn::UniqueFd filler(tarn::OpenRetry(kFiller, O_WRONLY | O_CREAT | O_APPEND, 0644));
    while (tarn::WriteAll(filler.get(), std::string(4096, 'f'))) {
    }
  }

  static constexpr char kFiller[] = "/volume1/filler";
};

TEST_F(FullVolume, KeepsTheSegmentsThatAreWholeAndGoesOnOnceThereIsSpace) {
  ASSERT_NO_FATAL_FAILURE(MakeReference("encode"));
  const std::string id = Open("paced-encode");
  ASSERT_EQ(Request(id, 0), Answer::kRight);
  Tally* const waiting = Shared<Tally>();
  const pid_t reader = StartRequest(id, 4, waiting);
  ASSERT_NO_FATAL_FAILURE(AwaitBegun(id, 2));
  Mount(MS_REMOUNT, "size=1m");
  Fill();
  EXPECT_EQ(test::WaitFor(reader), 0);
  EXPECT_EQ(waiting->wrong, 0);
  ASSERT_TRUE(NothingRuns());
  Fill();  // what the run could not finish is gone
  EXPECT_EQ(Request(id, 0), Answer::kRight);
  EXPECT_EQ(Request(id, 1), Answer::kRight);
  EXPECT_EQ(Request(id, 20), Answer::kNone);
  EXPECT_EQ(Request(id, 1), Answer::kRight);
  ASSERT_TRUE(fs::remove(kFiller));
  EXPECT_EQ(Request(id, 20), Answer::kRight);
  EXPECT_TRUE(HlsStream(id).Close());
}

// --- Nobody watches any more.

std::atomic<int64_t>* g_passed = nullptr;

TEST_F(HlsStress, FifteenMinutesWithoutAccessEndTranscoderAndDirectory) {
  g_passed = Shared<std::atomic<int64_t>>();
  tarn::SetWallClock([] { return int64_t{time(nullptr)} + *g_passed; });
  ASSERT_NO_FATAL_FAILURE(MakeReference("encode"));
  const std::string id = Open("paced-encode");
  ASSERT_EQ(Request(id, 0), Answer::kRight);
  *g_passed = 890;
  ASSERT_EQ(Request(id, 1), Answer::kRight);
  EXPECT_TRUE(HlsStream(id).IsFFmpegRun());
  *g_passed = 900 + 890;
  EXPECT_TRUE(NothingRuns());
  EXPECT_TRUE(NothingIsLeftOfAnyStream());
}

}  // namespace
}  // namespace LibTarnVTE
