#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "run_command.h"

namespace {

namespace fs = std::filesystem;
using tarn_test::ParseJson;
using tarn_test::Result;
using tarn_test::Tarnvte;
using ::testing::HasSubstr;

Json::Value Find(const Json::Value& checks, const std::string& name) {
  for (const Json::Value& check : checks) {
    if (check["name"].asString() == name) return check;
  }
  return Json::nullValue;
}

TEST(Doctor, SandboxIsFit) {
  const Result result = Tarnvte({"doctor"});
  EXPECT_EQ(0, result.status) << result.out;
  std::istringstream lines(result.out);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_THAT(line, ::testing::StartsWith("ok "));
  }
  EXPECT_EQ(13, count);
}

TEST(Doctor, JsonHasOneObjectForEachCheck) {
  const Json::Value checks = ParseJson(Tarnvte({"doctor", "--json"}).out);
  EXPECT_EQ(13u, checks.size());
  EXPECT_EQ("ok", Find(checks, "encoders")["result"].asString());
  EXPECT_EQ("", Find(checks, "encoders")["remedy"].asString());
}

TEST(Doctor, ProgramBesideTheFrontEndThatIsNoneFails) {
  ASSERT_EQ(0, mount("/dev/null", "/var/packages/Orbfold/target/bin/tarn-smooth", nullptr, MS_BIND,
                     nullptr));
  const Result result = Tarnvte({"doctor"});
  EXPECT_EQ(1, result.status);
  EXPECT_THAT(result.out,
              ::testing::ContainsRegex("\nfail  packager .*tarn-smooth is not a program"));
}

TEST(Doctor, WorkFolderThatOthersMayWriteFailsWithARemedy) {
  ASSERT_EQ(0, mkdir("/tmp/Reelbay", 0700));
  ASSERT_EQ(0, chmod("/tmp/Reelbay", 0777));
  const Result result = Tarnvte({"doctor"});
  EXPECT_EQ(1, result.status);
  EXPECT_THAT(result.out, ::testing::ContainsRegex("\nfail  work folder .*remedy: remove it"));
}

TEST(Doctor, PlannedLinkAtTheWorkFolderFails) {
  fs::create_directory("/tmp/elsewhere");
  fs::create_directory_symlink("/tmp/elsewhere", "/tmp/Reelbay");
  EXPECT_EQ(1, Tarnvte({"doctor"}).status);
}

// As for the engine, the folder that is written to counts, and not the file system's flags alone.
TEST(Doctor, VolumeWhoseWorkFolderCannotBeWrittenFails) {
  fs::create_directories("/volume1/@tmp/Reelbay");
  ASSERT_EQ(0, mount("/volume1/@tmp", "/volume1/@tmp", nullptr, MS_BIND, nullptr));
  ASSERT_EQ(0, mount(nullptr, "/volume1/@tmp", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
  const Result result = Tarnvte({"doctor"});
  EXPECT_EQ(1, result.status);
  EXPECT_THAT(result.out, HasSubstr("/volume1 is not writable; remedy: make room"));
  EXPECT_EQ(6, Tarnvte({"plan", TARN_TEST_MEDIA "/clip.mkv"}).status);
}

TEST(Doctor, PlatformIsNamedAndItsHardwareIsLookedFor) {
  tarn_test::WriteFile("/etc.defaults/tarninfo.conf", "unique=\"tarn_monaco\"\n");
  const Result result = Tarnvte({"doctor", "--json"});
  const Json::Value checks = ParseJson(result.out);
  EXPECT_THAT(Find(checks, "platform")["finding"].asString(), HasSubstr("monaco: hardware"));
  EXPECT_THAT(Find(checks, "transcoder")["finding"].asString(), HasSubstr("ffmpeg27"));
  const bool launcher = fs::exists("/var/packages/Reelbay/target/bin/tarn-gst");
  EXPECT_EQ(launcher ? "ok" : "fail", Find(checks, "hardware")["result"].asString());
  EXPECT_EQ(launcher ? 0 : 1, result.status);
}

TEST(Doctor, HardwareThatIsSwitchedOffIsAWarning) {
  tarn_test::WriteFile("/etc.defaults/tarninfo.conf", "unique=\"tarn_apollolake\"\n");
  tarn_test::WriteFile("/var/packages/Reelbay/etc/advanced.conf",
                       R"({"hardware_transcode": false})");
  const Result result = Tarnvte({"doctor"});
  EXPECT_EQ(0, result.status) << result.out;
  EXPECT_THAT(result.out, ::testing::ContainsRegex("\nwarn  hardware .*remedy: set"));
}

// The list in the command must not fall behind the profiles.
TEST(Doctor, ChecksEveryEncoderThatTheShippedProfilesName) {
  // Words of the engine's own dialect, or of hardware.
  std::set<std::string> elsewhere = {"copy", "h264_smd", "h264_vaapi", "libfaac"};
  std::set<std::string> named;
  for (const auto& file : fs::directory_iterator("/var/packages/Reelbay/target/share/profiles")) {
    if (file.path().extension() != ".json") continue;
    std::ifstream stream(file.path());
    std::stringstream text;
    text << stream.rdbuf();
    const Json::Value profiles = ParseJson(text.str());
    for (const Json::Value& profile : profiles) {
      std::istringstream words(profile.asString());
      for (std::string word, value; words >> word;) {
        const bool codec =
            word == "-vcodec" || word == "-acodec" || word == "-c:v" || word == "-c:a";
        if (codec && words >> value && elsewhere.count(value) == 0) named.insert(value);
      }
    }
  }
  ASSERT_FALSE(named.empty());
  std::ifstream source(TARN_TEST_DATA "/../cli/doctor.cc");
  std::stringstream code;
  code << source.rdbuf();
  for (const std::string& encoder : named) {
    EXPECT_THAT(code.str(), HasSubstr("\"" + encoder + "\"")) << "not in doctor's list";
  }
}

}  // namespace
