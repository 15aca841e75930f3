// Streams on disks that are full, where the volume service did not know it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/file_io.h"
#include "tarnvte/trans_loading.h"
#include "tests/stream/stub_stream.h"
#include "tests/support/log_capture.h"

namespace LibTarnVTE {
namespace {

namespace fs = std::filesystem;
using tarn::test::kClip;
using tarn::test::kRegistry;
using tarn::test::LogCapture;
using tarn::test::ReadText;
using tarn::test::StubStreamTest;
using tarn::test::WriteText;

// Not below the folders that are filled.
constexpr char kProfileFile[] = "/run/profiles.json";

class FullDisk : public StubStreamTest {
 protected:
  FullDisk() { fs::copy_file(tarn::test::kProfiles, kProfileFile); }

  static void MountSmall(const std::string& path, const char* options = "size=1m,mode=755") {
    ASSERT_EQ(mount("tmpfs", path.c_str(), "tmpfs", 0, options), 0);
  }
  // Takes the last byte.
  static void Fill(const std::string& path) {
    const tarn::UniqueFd filler(
        tarn::OpenRetry((path + "/filler").c_str(), O_WRONLY | O_CREAT, 0644));
    for (const size_t piece : {size_t{65536}, size_t{4096}, size_t{1}}) {
      while (tarn::WriteAll(filler.get(), std::string(piece, 'f'))) {
      }
    }
  }
  static void Empty(const std::string& path) {
    ASSERT_EQ(truncate((path + "/filler").c_str(), 0), 0);
  }

  static std::string Prepare(const std::string& kind, const std::string& id) {
    VTEInitArgument argument(kClip, kind, kProfileFile, "brief");
    argument.params["stream_id"] = id;
    return VTEStream::VTE_Init(argument);
  }
};

TEST_F(FullDisk, StreamThatCannotBeStoredIsNotPreparedAndWorksOnceThereIsSpace) {
  MountSmall("/volume1");
  Fill("/volume1");
  const LogCapture log;
  EXPECT_EQ(Prepare("WEBM", "film"), "");
  EXPECT_TRUE(log.Has("VTEMetaData.ParserMetaData(film, WEBM) failed"));
  WebMStream stream("film");
  EXPECT_FALSE(stream.Init(""));
  EXPECT_FALSE(stream.Transcoding(5));
  EXPECT_TRUE(NothingRuns());
  EXPECT_TRUE(stream.Close());

  Empty("/volume1");
  ASSERT_EQ(Prepare("WEBM", "film"), "film");
  WebMStream again("film");
  ASSERT_TRUE(again.Init(""));
  ASSERT_TRUE(again.Transcoding(0));
  EXPECT_EQ(ReadToEnd(again), "done");
  EXPECT_TRUE(again.Close());
}

TEST_F(FullDisk, VolumeThatTakesNoMoreFilesIsMissingSpace) {
  MountSmall("/volume1", "nr_inodes=3,mode=755");
  EXPECT_EQ(Prepare("WEBM", "film"), "TransSapceNotEnough");
  EXPECT_TRUE(WebMStream("film").Close());
}

TEST_F(FullDisk, PreparedStreamFailsClearlyWhenItsVolumeFillsUp) {
  MountSmall("/volume1");
  ASSERT_EQ(Prepare("WEBM", "film"), "film");
  Fill("/volume1");
  WebMStream stream("film");
  const LogCapture log;
  EXPECT_FALSE(stream.Init("1"));
  EXPECT_TRUE(log.Has("Failed to save audio ID [1] in [/tmp/Reelbay/WEBM/film/audio_id]"));
  ASSERT_TRUE(stream.Init(""));
  // A monitor that cannot be recorded could not be stopped: it starts nothing.
  stream.Transcoding(0);
  EXPECT_EQ(ReadToEnd(stream), "");
  EXPECT_TRUE(NothingRuns());
  EXPECT_EQ(trace_->transcoder, 0);
  EXPECT_TRUE(stream.Close());
  EXPECT_FALSE(fs::exists("/volume1/@tmp/Reelbay/WEBM/film"));
}

TEST_F(FullDisk, ProgressiveStreamIsNotPreparedOnAFullTemporaryFolder) {
  MountSmall("/tmp", "size=1m,mode=1777");
  Fill("/tmp");
  EXPECT_EQ(Prepare("HTTP", "film"), "");
  EXPECT_TRUE(NothingRuns());
}

TEST_F(FullDisk, TemporaryFolderThatTakesNoMoreFilesIsMissingSpace) {
  MountSmall("/tmp", "nr_inodes=1,mode=1777");
  EXPECT_EQ(Prepare("WEBM", "film"), "TransSapceNotEnough");
  EXPECT_EQ(Prepare("HTTP", "film"), "TransSapceNotEnough");
}

TEST_F(FullDisk, RegistryThatHeldEntriesNeverLosesThem) {
  MountSmall("/tmp", "size=1m,mode=1777");
  ASSERT_EQ(Prepare("WEBM", "film"), "film");
  // Hardware entries that just fill their last page: one more needs space.
  {
    LibReelbay::TransLoading registry;
    const std::string entry = "{\"PID\":" + std::to_string(getpid()) +
                              ",\"hardware_transcode\":true,\"offline_conversion\":false},";
    for (size_t size = 8; size + entry.size() < 4096; size += entry.size()) {
      registry.SaveTransPID(getpid(), true, false);
    }
  }
  const std::string before = Registry();
  ASSERT_LE(before.size(), 4096u);
  ASSERT_GT(before.size() + 80, 4096u);
  Fill("/tmp");
  WebMStream stream("film");
  ASSERT_TRUE(stream.Init(""));
  ASSERT_TRUE(stream.Transcoding(0));
  ReadToEnd(stream);
  EXPECT_TRUE(NothingRuns());
  EXPECT_EQ(Registry(), before);
  EXPECT_TRUE(stream.Close());
}

}  // namespace
}  // namespace LibTarnVTE
