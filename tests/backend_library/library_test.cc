#include "backend/library/library.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/writer.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "backend/library/listing.h"
#include "tests/backend_library/made_facts.h"
#include "tests/support/host_files.h"

namespace tarnbackend {
namespace {

namespace fs = std::filesystem;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::IsEmpty;

void Rescan(Library& library) {
  library.StartScan();
  while (!library.StepScan(10)) {
  }
}

const Video* Titled(const Library& library, const std::string& title) {
  const Library::Page page = library.Search("", 0, SIZE_MAX);
  for (const Video* video : page.videos) {
    if (video->title == title) return video;
  }
  ADD_FAILURE() << "there is no " << title;
  return nullptr;
}

std::vector<std::string> Titles(const Library::Page& page) {
  std::vector<std::string> titles;
  for (const Video* video : page.videos) titles.push_back(video->title);
  return titles;
}

TEST(Library, IsEmptyUntilItsScanEnds) {
  WriteText("/tmp/v/a.mkv", "x");
  Library library({"/tmp/v"});
  EXPECT_FALSE(library.scanning());
  EXPECT_FALSE(library.StepScan(10));
  library.StartScan();
  EXPECT_TRUE(library.scanning());
  EXPECT_EQ(library.size(), 0U);
  while (!library.StepScan(1)) EXPECT_EQ(library.size(), 0U);
  EXPECT_FALSE(library.scanning());
  EXPECT_EQ(library.size(), 1U);
}

TEST(Library, SearchesSortsAndPages) {
  for (const char* name :
       {"Zebra.mkv", "episode 10.mkv", "Episode_2.mkv", "sub/\xC3\x84ther.mkv"}) {
    WriteText(std::string("/tmp/v/") + name, "x");
  }
  Library library({"/tmp/v"});
  Rescan(library);
  EXPECT_THAT(Titles(library.Search("", 0, 500)),
              ElementsAre("Episode 2", "episode 10", "Zebra", "\xC3\x84ther"));
  EXPECT_THAT(Titles(library.Search("EPISODE", 0, 500)), ElementsAre("Episode 2", "episode 10"));
  EXPECT_THAT(Titles(library.Search("\xC3\xA4th", 0, 500)), ElementsAre("\xC3\x84ther"));
  EXPECT_THAT(Titles(library.Search("nothing", 0, 500)), IsEmpty());
  const Library::Page page = library.Search("e", 1, 2);
  EXPECT_EQ(page.total, 4U);
  EXPECT_THAT(Titles(page), ElementsAre("episode 10", "Zebra"));
  EXPECT_THAT(Titles(library.Search("", SIZE_MAX, 1)), IsEmpty());
  EXPECT_EQ(Titled(library, "\xC3\x84ther")->folder, "sub");
  EXPECT_EQ(Titled(library, "Zebra")->folder, "");
}

TEST(Library, NumbersLastWhilePathsDo) {
  WriteText("/tmp/v/a.mkv", "x");
  WriteText("/tmp/v/b.mkv", "x");
  Library library({"/tmp/v"});
  Rescan(library);
  const int32_t a = Titled(library, "a")->id;
  const int32_t b = Titled(library, "b")->id;
  fs::remove("/tmp/v/a.mkv");
  WriteText("/tmp/v/b.mkv", "other content");
  WriteText("/tmp/v/0.mkv", "x");
  Rescan(library);
  EXPECT_EQ(library.Find(a), nullptr);
  EXPECT_EQ(Titled(library, "b")->id, b);
  WriteText("/tmp/v/a.mkv", "x");
  Rescan(library);
  EXPECT_EQ(Titled(library, "a")->id, a);
  Library other({"/tmp/v"});
  Rescan(other);
  EXPECT_EQ(Titled(other, "a")->id, a);
  EXPECT_EQ(Titled(other, "b")->id, b);
}

// Their paths have the same first number.
TEST(Library, ResolvesCollisions) {
  WriteText("/v/film 84866.mkv", "x");
  Library library({"/v"});
  Rescan(library);
  EXPECT_EQ(Titled(library, "film 84866")->id, 305118579);
  WriteText("/v/film 42546.mkv", "x");
  Rescan(library);
  EXPECT_EQ(library.size(), 2U);
  EXPECT_EQ(Titled(library, "film 84866")->id, 305118579);
  EXPECT_NE(Titled(library, "film 42546")->id, 305118579);
  // From nothing the smaller path comes first.
  Library fresh({"/v"});
  Rescan(fresh);
  EXPECT_EQ(Titled(fresh, "film 42546")->id, 305118579);
}

TEST(Library, KeepsFactsOfUnchangedFiles) {
  for (const char* name : {"same", "larger", "later", "subtitled/film"}) {
    WriteText(std::string("/tmp/v/") + name + ".mkv", "x");
  }
  Library library({"/tmp/v"});
  Rescan(library);
  EXPECT_EQ(library.Unprobed(100).size(), 4U);
  EXPECT_EQ(library.Unprobed(2).size(), 2U);
  for (const int32_t id : library.Unprobed(100)) {
    EXPECT_TRUE(library.SetFacts(library.Find(id)->file, tarn::test::Mp4()));
  }
  EXPECT_THAT(library.Unprobed(100), IsEmpty());
  const auto facts = Titled(library, "same")->facts;
  ASSERT_NE(facts, nullptr);

  WriteText("/tmp/v/larger.mkv", "xx");
  const timespec times[2] = {{7, 0}, {1'500'000'000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, "/tmp/v/later.mkv", times, 0), 0);
  WriteText("/tmp/v/subtitled/film.eng.srt", "x");
  Rescan(library);
  EXPECT_EQ(Titled(library, "same")->facts, facts);
  EXPECT_EQ(Titled(library, "larger")->facts, nullptr);
  EXPECT_EQ(Titled(library, "later")->facts, nullptr);
  EXPECT_EQ(Titled(library, "film")->facts, nullptr);
}

TEST(Library, LooksAgainAtWhatCouldNotBeRead) {
  WriteText("/tmp/v/locked.mkv", "x");
  Library library({"/tmp/v"});
  Rescan(library);
  tarnbackend::Facts facts;
  facts.error = "The file is not a video that can be read.";
  EXPECT_TRUE(library.SetFacts(Titled(library, "locked")->file, facts));
  EXPECT_THAT(library.Unprobed(100), IsEmpty());
  Rescan(library);
  EXPECT_EQ(library.Unprobed(100).size(), 1U);
}

TEST(Library, RefusesFactsOfAnotherFile) {
  WriteText("/tmp/v/a.mkv", "x");
  Library library({"/tmp/v"});
  Rescan(library);
  const FoundFile probed = Titled(library, "a")->file;
  WriteText("/tmp/v/a.mkv", "changed meanwhile");
  Rescan(library);
  EXPECT_FALSE(library.SetFacts(probed, tarn::test::Mp4()));
  EXPECT_EQ(Titled(library, "a")->facts, nullptr);
  fs::remove("/tmp/v/a.mkv");
  Rescan(library);
  EXPECT_FALSE(library.SetFacts(probed, tarn::test::Mp4()));
}

TEST(Library, OpensOnlyWhatIsStillThere) {
  WriteText("/tmp/v/folder/a.mkv", "film");
  WriteText("/tmp/secret/a.mkv", "secret");
  Library library({"/tmp/v"});
  Rescan(library);
  const int32_t id = Titled(library, "a")->id;
  EXPECT_TRUE(library.OpenVideo(id).valid());
  EXPECT_EQ(library.Path(id), "/tmp/v/folder/a.mkv");
  EXPECT_FALSE(library.OpenVideo(id + 1).valid());
  EXPECT_EQ(library.Path(id + 1), "");
  EXPECT_FALSE(library.OpenVideo(-1).valid());

  // Swapped behind the library's back: the file, then its folder.
  fs::remove("/tmp/v/folder/a.mkv");
  fs::create_symlink("/etc/passwd", "/tmp/v/folder/a.mkv");
  EXPECT_FALSE(library.OpenVideo(id).valid());
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(library.Path(id), "");
  fs::remove_all("/tmp/v/folder");
  fs::create_directory_symlink("/tmp/secret", "/tmp/v/folder");
  EXPECT_FALSE(library.OpenVideo(id).valid());
  EXPECT_EQ(library.Path(id), "");
  fs::remove("/tmp/v/folder");
  fs::create_directory("/tmp/v/folder");
  ASSERT_EQ(mkfifo("/tmp/v/folder/a.mkv", 0600), 0);
  EXPECT_FALSE(library.OpenVideo(id).valid());
}

TEST(Library, ChecksSubtitleFiles) {
  WriteText("/tmp/v/a.mkv", "film");
  WriteText("/tmp/v/a.srt", "text");
  WriteText("/tmp/v/subs/b.srt", "text");
  fs::create_symlink("subs/b.srt", "/tmp/v/a.eng.srt");
  WriteText("/tmp/secret/a.srt", "secret");
  Library library({"/tmp/v"});
  Rescan(library);
  const int32_t id = Titled(library, "a")->id;
  const auto path = [&](const std::string& engine_id, bool is_file = true) {
    return library.SubtitlePath(id, {"f0", engine_id, "", "", is_file});
  };
  EXPECT_EQ(path("/tmp/v/a.srt"), "/tmp/v/a.srt");
  EXPECT_EQ(path("/tmp/v/a.eng.srt"), "/tmp/v/subs/b.srt");
  EXPECT_EQ(path("3", false), "");
  EXPECT_EQ(path("/tmp/v/gone.srt"), "");
  EXPECT_EQ(path("/tmp/secret/a.srt"), "");
  EXPECT_EQ(path("/tmp/v/../secret/a.srt"), "");
  EXPECT_EQ(path("/tmp/v/subs"), "");
  EXPECT_EQ(path("/tmp/v"), "");
  fs::remove("/tmp/v/a.srt");
  fs::create_symlink("/tmp/secret/a.srt", "/tmp/v/a.srt");
  EXPECT_EQ(path("/tmp/v/a.srt"), "");
  EXPECT_EQ(library.SubtitlePath(id + 1, {"f0", "/tmp/v/subs/b.srt", "", "", true}), "");
}

std::string OneLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

TEST(Listing, ShowsWhatIsKnown) {
  Video video;
  video.id = 7;
  video.title = "A film";
  video.folder = "sub";
  video.file.size = 5'000'000'000;
  EXPECT_EQ(OneLine(ListedVideo(video)),
            R"({"folder":"sub","id":7,"picture":"/api/v1/videos/7/picture","title":"A film"})");
  video.facts = std::make_shared<const Facts>(tarn::test::Mp4());
  EXPECT_EQ(OneLine(ListedVideo(video)),
            R"({"duration":60.0,"folder":"sub","height":720,"id":7,)"
            R"("picture":"/api/v1/videos/7/picture","title":"A film","verdict":"direct",)"
            R"("width":1280})");
  video.facts = std::make_shared<const Facts>(tarn::test::Mkv("dts"));
  EXPECT_EQ(ListedVideo(video)["error"].asString(), "The sound (DTS) cannot be converted.");
  EXPECT_FALSE(ListedVideo(video).isMember("verdict"));
  Facts broken;
  broken.error = "cannot be read as a video";
  video.facts = std::make_shared<const Facts>(broken);
  EXPECT_EQ(ListedVideo(video)["error"].asString(), "The file cannot be read as a video.");
  EXPECT_FALSE(DescribedVideo(video, {}).isMember("checks"));
}

TEST(Listing, DescribesAVideo) {
  Video video;
  video.id = 7;
  video.file.size = 5'000'000'000;
  Facts facts = tarn::test::Mp4();
  facts.subtitles = {{.id = "f0",
                      .engine_id = "/tmp/v/secret place/a.eng.srt",
                      .name = "a.eng.srt",
                      .language = "eng",
                      .is_file = true}};
  video.facts = std::make_shared<const Facts>(facts);
  const Json::Value value = DescribedVideo(video, {{"hls", {{"key", "label"}}}});
  EXPECT_EQ(value["size"].asUInt64(), 5'000'000'000U);
  EXPECT_EQ(value["video"]["codec"].asString(), "h264");
  EXPECT_EQ(OneLine(value["profiles"]), R"({"hls":[{"key":"key","label":"label"}]})");
  EXPECT_EQ(value["checks"][0]["name"].asString(), "direct");
  EXPECT_EQ(OneLine(value["subtitles"]),
            R"([{"id":"f0","language":"eng","name":"a.eng.srt","source":"file"}])");
  // No path leaves the server.
  EXPECT_EQ(OneLine(value).find("secret place"), std::string::npos);
}

}  // namespace
}  // namespace tarnbackend
