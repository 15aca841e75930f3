// Subtitle files beside a video.
#include "tarnvte/subtitle.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <filesystem>
#include <locale>
#include <string>
#include <vector>

#include "base/clock.h"
#include "tests/support/german_locale.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/simulated_ids.h"

namespace librb::subtitle {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using tarn::test::LogCapture;
using tarn::test::WriteText;
using test::OpenDescriptors;
using Paths = std::vector<std::string>;

const std::string kFolder = "/tmp/videos";

Paths Texts(const Json::Value& array) {
  Paths texts;
  for (const Json::Value& text : array) texts.push_back(text.asString());
  return texts;
}

// The subtitle files of a video, without the folder that all of them lie in.
Paths Found(const std::string& video = kFolder + "/movie.mkv") {
  Json::Value result(Json::arrayValue);
  EXPECT_EQ(GetExternalSubtitle(video, result), 0);
  Paths names;
  for (const std::string& path : Texts(result)) {
    EXPECT_TRUE(path.starts_with(kFolder + "/")) << path;
    names.push_back(path.substr(std::min(path.size(), kFolder.size() + 1)));
  }
  return names;
}

class ExternalSubtitle : public testing::Test {
 protected:
  ExternalSubtitle() {
    fs::remove_all(kFolder);
    fs::create_directories(kFolder);
    // Nothing of this may ever turn up.
    WriteText("/tmp/elsewhere/movie.srt", "secret");
    fs::current_path("/tmp/elsewhere");
  }
  ~ExternalSubtitle() override {
    EXPECT_EQ(fs::current_path(), "/tmp/elsewhere");
    EXPECT_EQ(OpenDescriptors(), descriptors_);
  }

  static void Add(const std::string& name) { WriteText(kFolder + "/" + name, "subtitle"); }
  static void Link(const std::string& target, const std::string& name) {
    fs::create_symlink(target, kFolder + "/" + name);
  }

 private:
  const size_t descriptors_ = OpenDescriptors();
};

TEST(PathInfo, SplitsAPath) {
  struct {
    std::string path, dirname, basename, extension, language, filename;
  } const cases[] = {
      {"/v/movie.mkv", "/v", "movie.mkv", "mkv", "", "movie."},
      {"/v/movie.eng.srt", "/v", "movie.eng.srt", "srt", "eng", "movie.eng."},
      {"/v/a.b.c.mkv", "/v", "a.b.c.mkv", "mkv", "c", "a.b.c."},
      {"movie.eng.srt", "", "movie.eng.srt", "srt", "eng", "movie.eng."},
      {"/movie.mkv", "", "movie.mkv", "mkv", "", "movie."},
      {"/v.x.y/movie", "/v.x.y", "movie", "", "", ""},
      {"/v.x/movie.mkv", "/v.x", "movie.mkv", "mkv", "", "movie."},
      {"/v/", "/v", "", "", "", ""},
      {"/", "", "", "", "", ""},
      {"", "", "", "", "", ""},
      {"/v/.srt", "/v", ".srt", "srt", "", "."},
      {"/v/movie.", "/v", "movie.", "", "", "movie."},
      {"/v/movie..srt", "/v", "movie..srt", "srt", "", "movie.."},
      {"/v/..", "/v", "..", "", "", ".."},
      {"/v/\xff.\n.s", "/v", "\xff.\n.s", "s", "\n", "\xff.\n."},
  };
  for (const auto& expected : cases) {
    const Json::Value info = PathInfo(expected.path);
    EXPECT_TRUE(info.isObject());
    EXPECT_EQ(info.size(), 5u);
    EXPECT_EQ(info["dirname"].asString(), expected.dirname) << expected.path;
    EXPECT_EQ(info["basename"].asString(), expected.basename) << expected.path;
    EXPECT_EQ(info["extension"].asString(), expected.extension) << expected.path;
    EXPECT_EQ(info["language"].asString(), expected.language) << expected.path;
    EXPECT_EQ(info["filename"].asString(), expected.filename) << expected.path;
  }
}

TEST_F(ExternalSubtitle, IsListedByKindThenByNameInByteOrder) {
  for (const char* name : {"movie.sami", "movie.smi", "movie.ass", "movie.ssa", "movie.srt",
                           "movie.SRT", "movie.a.sRt", "movie.B.srt", "movie.\xc3\xa4.srt",
                           "movie.Z.SAMI", "movie.a.Ass", "movie.b.SSA"}) {
    Add(name);
  }
  EXPECT_EQ(Found(), (Paths{"movie.B.srt", "movie.SRT", "movie.a.sRt", "movie.srt",
                            "movie.\xc3\xa4.srt", "movie.b.SSA", "movie.ssa", "movie.a.Ass",
                            "movie.ass", "movie.smi", "movie.Z.SAMI", "movie.sami"}));
}

TEST_F(ExternalSubtitle, KeepsItsOrderInALocaleThatSortsOtherwise) {
  ASSERT_TRUE(tarn::test::InstallGermanLocale());
  ASSERT_NE(std::setlocale(LC_ALL, tarn::test::kGermanLocale), nullptr);
  std::locale::global(std::locale(tarn::test::kGermanLocale));
  for (const char* name : {"movie.a.srt", "movie.B.srt", "movie.\xc3\xa4.srt"}) Add(name);
  EXPECT_EQ(Found(), (Paths{"movie.B.srt", "movie.a.srt", "movie.\xc3\xa4.srt"}));
}

TEST_F(ExternalSubtitle, BeginsWithTheVideosNameUpToItsLastDot) {
  for (const char* name :
       {"movie.srt", "movie.eng.srt", "movie2.srt", "Movie.srt", "amovie.srt", "movie.part.srt",
        "movie.txt", "movie.srt.bak", "movie.srtx", "moviesrt", "movie.sr"}) {
    Add(name);
  }
  EXPECT_EQ(Found(), (Paths{"movie.eng.srt", "movie.part.srt", "movie.srt"}));
  EXPECT_EQ(Found(kFolder + "/movie.part.mkv"), (Paths{"movie.part.srt"}));
  EXPECT_EQ(Found(kFolder + "/other.mkv"), Paths{});
}

TEST_F(ExternalSubtitle, OfAVideoWithoutExtensionIsEverySubtitleOfTheFolder) {
  for (const char* name : {"movie.srt", "other.ass", "movie.txt", ".hidden.srt"}) Add(name);
  EXPECT_EQ(Found(kFolder + "/movie"), (Paths{"movie.srt", "other.ass"}));
}

TEST_F(ExternalSubtitle, IsNeverHidden) {
  for (const char* name : {".srt", ".movie.srt", ".movie.eng.srt"}) Add(name);
  EXPECT_EQ(Found(), Paths{});
  EXPECT_EQ(Found(kFolder + "/.movie.mkv"), Paths{});
  EXPECT_EQ(Found(kFolder + "/"), Paths{});
}

TEST_F(ExternalSubtitle, IsAppendedToWhatWasThere) {
  Add("movie.srt");
  Json::Value result(Json::arrayValue);
  result.append("before");
  EXPECT_EQ(GetExternalSubtitle(kFolder + "/movie.mkv", result), 0);
  EXPECT_EQ(GetExternalSubtitleImp(kFolder + "/movie.mkv", result), 0);
  EXPECT_EQ(Texts(result), (Paths{"before", kFolder + "/movie.srt", kFolder + "/movie.srt"}));
}

TEST_F(ExternalSubtitle, StartsAnArrayWhereThereIsNone) {
  for (Json::Value result : {Json::Value(), Json::Value("text"), Json::Value(Json::objectValue)}) {
    EXPECT_EQ(GetExternalSubtitle("/tmp/elsewhere/movie.mkv", result), 0);
    EXPECT_EQ(Texts(result), (Paths{"/tmp/elsewhere/movie.srt"}));
  }
}

TEST_F(ExternalSubtitle, OfAnEmptyPathIsAnError) {
  Json::Value result(Json::arrayValue);
  EXPECT_EQ(GetExternalSubtitle("", result), -1);
  EXPECT_EQ(GetExternalSubtitleImp("", result), -1);
  EXPECT_EQ(result.size(), 0u);
}

// The current folder holds a movie.srt.
TEST_F(ExternalSubtitle, OfAFolderThatCannotBeOpenedIsNoneOfTheCurrentFolders) {
  WriteText("/tmp/file", "no folder");
  for (const std::string& video :
       {"/tmp/missing/movie.mkv"s, "/tmp/file/movie.mkv"s, "movie.mkv"s,
        "/"s + std::string(300, 'f') + "/movie.mkv", "/tmp/elsewhere\0/movie.mkv"s,
        std::string(5000, 'p') + "/movie.mkv", "/tmp/elsewhere/\0/movie.mkv"s}) {
    Json::Value result(Json::arrayValue);
    EXPECT_EQ(GetExternalSubtitle(video, result), 0);
    EXPECT_EQ(Texts(result), Paths{}) << video;
  }
}

TEST_F(ExternalSubtitle, LiesBesideAVideoInTheRootFolder) {
  WriteText("/movie.srt", "subtitle");
  Json::Value result(Json::arrayValue);
  EXPECT_EQ(GetExternalSubtitle("/movie.mkv", result), 0);
  EXPECT_EQ(Texts(result), (Paths{"/movie.srt"}));
}

TEST_F(ExternalSubtitle, IsNoLinkThatLeadsOutOfTheFolder) {
  fs::create_directories(kFolder + "/sub");
  Add("movie.txt");
  Add("sub/inside");
  Link("/tmp/elsewhere/movie.srt", "movie.absolute.srt");
  Link("../elsewhere/movie.srt", "movie.up.srt");
  Link("sub/../../elsewhere/movie.srt", "movie.roundabout.srt");
  Link("/tmp/elsewhere", "out");
  Link("out/movie.srt", "movie.through.srt");
  Link("movie.up.srt", "movie.twice.srt");
  Link("/proc/self/fd/0", "movie.magic.srt");
  Link("missing", "movie.dangling.srt");
  Link("movie.loop.srt", "movie.loop.srt");
  Link("sub", "movie.folder.srt");
  EXPECT_EQ(Found(), Paths{});

  Link("movie.txt", "movie.srt");
  Link("sub/inside", "movie.sub.srt");
  Link("movie.srt", "movie.two.srt");
  EXPECT_EQ(Found(), (Paths{"movie.srt", "movie.sub.srt", "movie.two.srt"}));
}

TEST_F(ExternalSubtitle, IsFoundInAFolderThatIsReachedThroughALink) {
  Add("movie.srt");
  fs::create_symlink(kFolder, "/tmp/library");
  Json::Value result(Json::arrayValue);
  EXPECT_EQ(GetExternalSubtitle("/tmp/library/movie.mkv", result), 0);
  EXPECT_EQ(Texts(result), (Paths{"/tmp/library/movie.srt"}));
}

TEST_F(ExternalSubtitle, IsARegularFile) {
  ASSERT_EQ(mkfifo((kFolder + "/movie.fifo.srt").c_str(), 0666), 0);
  fs::create_directories(kFolder + "/movie.folder.srt");
  Add("movie.device.srt");
  ASSERT_EQ(mount("/dev/zero", (kFolder + "/movie.device.srt").c_str(), nullptr, MS_BIND, nullptr),
            0);
  sockaddr_un address{AF_UNIX, "/tmp/videos/movie.socket.srt"};
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(socket);
  ASSERT_EQ(std::distance(fs::directory_iterator(kFolder), {}), 4);
  EXPECT_EQ(Found(), Paths{});
  EXPECT_EQ(umount((kFolder + "/movie.device.srt").c_str()), 0);
}

// Root's rights taken away, so that a file's mode counts.
class WithoutCapabilities {
 public:
  WithoutCapabilities() {
    Call(SYS_capget, held_);
    // The permitted ones stay: those decide for who asks with the real user.
    __user_cap_data_struct none[2] = {held_[0], held_[1]};
    none[0].effective = none[1].effective = 0;
    Call(SYS_capset, none);
  }
  ~WithoutCapabilities() { Call(SYS_capset, held_); }

 private:
  static void Call(long number, __user_cap_data_struct* data) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    EXPECT_EQ(syscall(number, &header, data), 0);
  }
  __user_cap_data_struct held_[2]{};
};

TEST_F(ExternalSubtitle, IsReadableByTheEffectiveUser) {
  Add("movie.srt");
  Add("movie.eng.srt");
  Link("movie.eng.srt", "movie.link.srt");
  fs::permissions(kFolder + "/movie.eng.srt", fs::perms::none);
  EXPECT_EQ(Found(), (Paths{"movie.eng.srt", "movie.link.srt", "movie.srt"}));
  const WithoutCapabilities unprivileged;
  ASSERT_EQ(access((kFolder + "/movie.eng.srt").c_str(), R_OK), 0);
  EXPECT_EQ(Found(), (Paths{"movie.srt"}));
}

TEST_F(ExternalSubtitle, IsLookedForAsRootAndTheUserIsBackAfterwards) {
  Add("movie.srt");
  test::SimulatedIds ids(1024, 100);
  EXPECT_EQ(Found(), (Paths{"movie.srt"}));
  EXPECT_EQ(ids.user(), 1024u);
  EXPECT_EQ(ids.group(), 100u);
}

TEST_F(ExternalSubtitle, IsNotLookedForWithoutRootsRights) {
  Add("movie.srt");
  test::SimulatedIds ids(1024, 100);
  ids.RefuseUser(0);
  const LogCapture log;
  Json::Value result(Json::arrayValue);
  EXPECT_EQ(GetExternalSubtitle(kFolder + "/movie.mkv", result), -1);
  EXPECT_EQ(result.size(), 0u);
  EXPECT_TRUE(log.Has("ERROR: IF_RUN_AS(0, 0)"));
  EXPECT_TRUE(LogCapture::Lines().at(0).text.starts_with("subtitle:"));
}

// clang-format off
constexpr const char* kOddWords[] = {
    "", " ", "  .  ", "\n\n", "\r\n#EXT-X-ENDLIST\n", "\"", "'", "`id`", "$(id)", "%00", "%s%n",
    "%2F..%2F", "\\", "*", "?", "[a]", "[", "{a,b}", "~", "-rf", "--", "..", "...", ";", "|", "&",
    "<", ">", "&amp;", "\xff\xfe", "\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xef\xbb\xbf",
    "\xe4\xb8\xad\xe6\x96\x87", "\xf0\x9f\x8e\xac", "\x7f\x1b[0m", "eng.forced", "a.b.c.d"};
// clang-format on

TEST_F(ExternalSubtitle, MayHaveAnyName) {
  Paths names;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/') continue;
    names.push_back("movie." + std::string(1, static_cast<char>(byte)) + ".srt");
  }
  for (const std::string odd : kOddWords) {
    names.push_back("movie." + odd + ".long.srt");
  }
  for (int length = 1; length <= 10; ++length) {
    names.push_back("movie." + std::string(static_cast<size_t>(length * 24), 'x') + ".srt");
  }
  ASSERT_GE(names.size(), 300u);
  std::ranges::sort(names);
  for (const std::string& name : names) Add(name);
  EXPECT_EQ(Found(), names);
}

TEST_F(ExternalSubtitle, OfAnOddlyNamedVideoIsFound) {
  for (const std::string stem : {"-x", "--help", "a[b]*?", "\n", "\xff\xfe", "%n", "\\", "a'b\"c",
                                 "~", "$HOME", " ", "{a,b}"}) {
    Add(stem + ".srt");
    Add(stem + ".eng.srt");
    EXPECT_EQ(Found(kFolder + "/" + stem + ".mkv"), (Paths{stem + ".eng.srt", stem + ".srt"}))
        << stem;
  }
}

TEST_F(ExternalSubtitle, IsFoundAmongAHundredThousandFiles) {
  const fs::path first = kFolder + "/movie.000000.srt";
  Add("movie.000000.srt");
  for (int i = 1; i < 100'000; ++i) {
    std::string number = std::to_string(i);
    number.insert(0, 6 - number.size(), '0');
    // A thousand of them match.
    const std::string name = (i % 100 == 0 ? "movie." : "other.") + number + ".srt";
    fs::create_hard_link(first, kFolder + "/" + name);
  }
  const int64_t start = tarn::MonotonicMs();
  const Paths found = Found();
  EXPECT_LT(tarn::MonotonicMs() - start, 10'000);
  EXPECT_EQ(found.size(), 1000u);
  EXPECT_TRUE(std::ranges::is_sorted(found));
  EXPECT_EQ(Found(kFolder + "/all").size(), 100'000u);
}

TEST(EmbeddedSubtitle, IsTakenFromMatroskaAndMp4Only) {
  EXPECT_TRUE(IsAllowEmbaddedSubtitleContiner("matroska,webm"));
  EXPECT_TRUE(IsAllowEmbaddedSubtitleContiner("mov,mp4,m4a,3gp,3g2,mj2"));
  for (const char* format :
       {"", "matroska", "webm", "matroska,webm,x", "Matroska,WebM", "mov", "avi", "mpegts"}) {
    EXPECT_FALSE(IsAllowEmbaddedSubtitleContiner(format)) << format;
  }
}

TEST(EmbeddedSubtitle, IsTakenWhenItIsText) {
  for (const char* codec : {"subrip", "ssa", "ass", "mov_text"}) {
    EXPECT_TRUE(IsTextBaseSubtitleCodec(codec)) << codec;
  }
  for (const char* codec : {"", "srt", "SUBRIP", "webvtt", "hdmv_pgs_subtitle", "dvd_subtitle"}) {
    EXPECT_FALSE(IsTextBaseSubtitleCodec(codec)) << codec;
  }
}

}  // namespace
}  // namespace librb::subtitle
