#include "tarnvte/vtemetadata.h"

#include <gtest/gtest.h>

#include "tarnvte/json_utils.h"
#include "tests/support/host_files.h"
#include "tests/support/log_capture.h"

namespace LibTarnVTE {
namespace {

using tarn::test::LogCapture;
using tarn::test::WriteText;

constexpr char kClip[] = TARN_TEST_MEDIA "/clip.mkv";
constexpr char kProfiles[] = "/tmp/profiles.json";

class VTEMetaDataTest : public testing::Test {
 protected:
  VTEMetaDataTest() {
    WriteText(kProfiles, R"({"key": "-vcodec libx264", "number": 5})");
    std::filesystem::create_directories("/tmp/Reelbay/WEBM/id");
  }
  VTEInitArgument Argument() { return VTEInitArgument(kClip, "WEBM", kProfiles, "key"); }
};

TEST_F(VTEMetaDataTest, DocumentHoldsTheProbedFileTheProfileAndTheFlags) {
  VTEInitArgument argument = Argument();
  argument.device = "chromecast";
  argument.use_pre_analysis = true;
  ASSERT_TRUE(VTEMetaData("id", "WEBM").ParserMetaData(argument, "id", true));

  VTEMetaData reloaded("id", "WEBM");
  ASSERT_TRUE(reloaded.LoadMetaData());
  EXPECT_EQ(reloaded.GetFilePath(), kClip);
  EXPECT_EQ(reloaded.GetVideoCodecName(), "h264");
  EXPECT_EQ(reloaded.GetDevice(), "chromecast");
  EXPECT_EQ(reloaded.GetProfileKey(), "key");
  EXPECT_EQ(reloaded.GetProfileValue(), "-vcodec libx264");
  EXPECT_TRUE(reloaded.IsHLSHeader());
  EXPECT_TRUE(reloaded.IsUsePreAnalysis());
}

TEST_F(VTEMetaDataTest, AnyEmptyStringFailsAndWritesNothing) {
  for (std::string VTEInitArgument::*field :
       {&VTEInitArgument::path, &VTEInitArgument::type, &VTEInitArgument::profile_path,
        &VTEInitArgument::profile_key}) {
    VTEInitArgument argument = Argument();
    (argument.*field).clear();
    EXPECT_FALSE(VTEMetaData("id", "WEBM").ParserMetaData(argument, "id", false));
  }
  EXPECT_FALSE(VTEMetaData("id", "WEBM").ParserMetaData(Argument(), "", false));
  EXPECT_FALSE(std::filesystem::exists("/tmp/Reelbay/WEBM/id/video_metadata"));
}

TEST_F(VTEMetaDataTest, UnknownProfileKeyFailsAndIsLogged) {
  LogCapture log;
  VTEInitArgument argument = Argument();
  argument.profile_key = "absent";
  EXPECT_FALSE(VTEMetaData("id", "WEBM").ParserMetaData(argument, "id", false));
  EXPECT_TRUE(log.Has("Failed to copy transcoding profile [absent] in [/tmp/profiles.json]"));
}

TEST_F(VTEMetaDataTest, ProfileThatIsNoStringGivesAnEmptyValue) {
  Json::Value target(Json::objectValue);
  EXPECT_TRUE(VTEMetaData("id", "WEBM").ReadTransProfile(kProfiles, "number", target));
  EXPECT_EQ(target["profile_key"].asString(), "number");
  EXPECT_EQ(target["profile_value"].asString(), "");
}

TEST_F(VTEMetaDataTest, ProfileFileThatIsNoObjectFails) {
  Json::Value target(Json::objectValue);
  for (const char* text : {"[1]", "5", "\"key\"", "{", ""}) {
    WriteText("/tmp/odd.json", text);
    EXPECT_FALSE(VTEMetaData("id", "WEBM").ReadTransProfile("/tmp/odd.json", "key", target));
  }
  EXPECT_FALSE(VTEMetaData("id", "WEBM").ReadTransProfile("", "key", target));
  EXPECT_FALSE(VTEMetaData("id", "WEBM").ReadTransProfile(kProfiles, "", target));
}

TEST_F(VTEMetaDataTest, FlagsOfAnObjectThatNeverLoadedAreFalse) {
  class Unloaded : public VTEMetaData {
   public:
    Unloaded() : VTEMetaData("id", "WEBM") {
      document["hls_header"] = true;
      document["use_pre_analysis"] = true;
    }
  } metadata;
  EXPECT_FALSE(metadata.IsHLSHeader());
  EXPECT_FALSE(metadata.IsUsePreAnalysis());
}

TEST_F(VTEMetaDataTest, FlagsOfAnotherTypeAreFalse) {
  WriteText("/tmp/Reelbay/WEBM/id/video_metadata",
            R"({"hls_header": 1, "use_pre_analysis": "true"})");
  VTEMetaData metadata("id", "WEBM");
  ASSERT_TRUE(metadata.LoadMetaData());
  EXPECT_FALSE(metadata.IsHLSHeader());
  EXPECT_FALSE(metadata.IsUsePreAnalysis());
}

TEST_F(VTEMetaDataTest, MissingOrBrokenDocumentLeavesItUnloaded) {
  VTEMetaData metadata("id", "WEBM");
  EXPECT_FALSE(metadata.LoadMetaData());
  for (const char* text : {"", "{", "[]", "7"}) {
    WriteText("/tmp/Reelbay/WEBM/id/video_metadata", text);
    EXPECT_FALSE(metadata.LoadMetaData()) << text;
    EXPECT_EQ(metadata.GetProfileValue(), "");
  }
  EXPECT_FALSE(VTEMetaData("", "WEBM").LoadMetaData());
  EXPECT_FALSE(VTEMetaData("id", "").LoadMetaData());
}

}  // namespace
}  // namespace LibTarnVTE
