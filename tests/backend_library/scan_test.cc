#include "backend/library/scan.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support/host_files.h"

namespace tarnbackend {
namespace {

namespace fs = std::filesystem;
using tarn::test::WriteText;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

std::vector<std::string> Paths(const Scan& scan) {
  std::vector<std::string> paths;
  for (const auto& [path, file] : scan.files()) {
    EXPECT_EQ(path, file.path());
    paths.push_back(path);
  }
  return paths;
}

std::vector<std::string> ScanAll(const std::vector<std::string>& roots) {
  Scan scan(roots);
  while (!scan.Step(3)) {
  }
  EXPECT_THAT(scan.problems(), IsEmpty());
  return Paths(scan);
}

TEST(Scan, TakesVideosByTheirEndings) {
  WriteText("/tmp/v/b.MKV", "x");
  WriteText("/tmp/v/a/deep/er/c.mp4", "x");
  WriteText("/tmp/v/text.txt", "x");
  WriteText("/tmp/v/empty.mkv", "");
  WriteText("/tmp/v/.hidden.mkv", "x");
  WriteText("/tmp/v/@private/d.mkv", "x");
  WriteText("/tmp/v/.hidden/e.mkv", "x");
  fs::create_directory("/tmp/v/folder.mkv");
  EXPECT_THAT(ScanAll({"/tmp/v"}), ElementsAre("/tmp/v/a/deep/er/c.mp4", "/tmp/v/b.MKV"));
}

TEST(Scan, TakesASingleFileAndNothingBesideIt) {
  WriteText("/tmp/v/one.bin", "x");
  WriteText("/tmp/v/two.mkv", "x");
  WriteText("/tmp/w/three.mkv", "x");
  fs::create_symlink("/tmp/v/two.mkv", "/tmp/w/link.mkv");
  EXPECT_THAT(ScanAll({"/tmp/v/one.bin"}), ElementsAre("/tmp/v/one.bin"));
  EXPECT_THAT(ScanAll({"/tmp/v/one.bin", "/tmp/w"}),
              ElementsAre("/tmp/v/one.bin", "/tmp/w/three.mkv"));
}

TEST(Scan, FollowsLinksThatStayInside) {
  WriteText("/tmp/v/films/a.mkv", "x");
  WriteText("/tmp/w/b.mkv", "x");
  WriteText("/tmp/outside/secret.mkv", "x");
  fs::create_symlink("films/a.mkv", "/tmp/v/same.mkv");
  fs::create_symlink("/tmp/w/b.mkv", "/tmp/v/other-root.mkv");
  fs::create_symlink("/tmp/outside/secret.mkv", "/tmp/v/secret.mkv");
  fs::create_symlink("/etc/shadow", "/tmp/v/shadow.mkv");
  fs::create_symlink("gone.mkv", "/tmp/v/broken.mkv");
  fs::create_symlink("self.mkv", "/tmp/v/self.mkv");
  fs::create_directory_symlink("/tmp/outside", "/tmp/v/folder");
  fs::create_directory_symlink("..", "/tmp/v/films/loop");
  EXPECT_THAT(ScanAll({"/tmp/v"}), ElementsAre("/tmp/v/films/a.mkv"));
  EXPECT_THAT(ScanAll({"/tmp/v", "/tmp/w"}), ElementsAre("/tmp/v/films/a.mkv", "/tmp/w/b.mkv"));
  // Beside the root, with a name that begins as it does.
  WriteText("/tmp/v2/c.mkv", "x");
  fs::create_symlink("/tmp/v2/c.mkv", "/tmp/v/c.mkv");
  EXPECT_THAT(ScanAll({"/tmp/v"}), ElementsAre("/tmp/v/films/a.mkv"));
}

TEST(Scan, FindsEachFileOnce) {
  WriteText("/tmp/v/films/a.mkv", "x");
  fs::create_directory_symlink("/tmp/v", "/tmp/v-link");
  EXPECT_THAT(ScanAll({"/tmp/v-link", "/tmp/v/films", "/tmp/v"}),
              ElementsAre("/tmp/v/films/a.mkv"));
}

TEST(Scan, TellsSizeAndTime) {
  WriteText("/tmp/v/films/a.mkv", "12345");
  const timespec times[2] = {{7, 0}, {1'500'000'000, 123}};
  ASSERT_EQ(utimensat(AT_FDCWD, "/tmp/v/films/a.mkv", times, 0), 0);
  Scan scan({"/tmp/v"});
  while (!scan.Step(1)) {
  }
  const FoundFile& file = scan.files().at("/tmp/v/films/a.mkv");
  EXPECT_EQ(file.root, "/tmp/v");
  EXPECT_EQ(file.relative, "films/a.mkv");
  EXPECT_EQ(file.size, 5U);
  EXPECT_EQ(file.modified, 1'500'000'000'000'000'123);
}

TEST(Scan, SeesSubtitleFilesComeAndGo) {
  WriteText("/tmp/v/a.mkv", "x");
  const auto fingerprint = [] {
    Scan scan({"/tmp/v"});
    while (!scan.Step(100)) {
    }
    return scan.files().at("/tmp/v/a.mkv").subtitles;
  };
  const uint64_t none = fingerprint();
  WriteText("/tmp/v/a.eng.SRT", "x");
  const uint64_t one = fingerprint();
  EXPECT_NE(one, none);
  WriteText("/tmp/v/notes.txt", "x");
  EXPECT_EQ(fingerprint(), one);
  fs::remove("/tmp/v/a.eng.SRT");
  EXPECT_EQ(fingerprint(), none);
}

TEST(Scan, NamesWhatItCannotRead) {
  WriteText("/tmp/v/a.mkv", "x");
  Scan scan({"/tmp/none", "/tmp/v", "/tmp/v/none"});
  while (!scan.Step(100)) {
  }
  EXPECT_THAT(Paths(scan), ElementsAre("/tmp/v/a.mkv"));
  EXPECT_THAT(scan.problems(), ElementsAre("/tmp/none: No such file or directory",
                                           "/tmp/v/none: No such file or directory"));
}

TEST(Scan, StopsAtTheLimit) {
  for (int i = 0; i < 20; ++i) WriteText("/tmp/v/" + std::to_string(i) + ".mkv", "x");
  Scan exact({"/tmp/v"}, 20);
  while (!exact.Step(100)) {
  }
  EXPECT_EQ(exact.files().size(), 20U);
  EXPECT_THAT(exact.problems(), IsEmpty());
  Scan scan({"/tmp/v"}, 10);
  while (!scan.Step(100)) {
  }
  EXPECT_EQ(scan.files().size(), 10U);
  EXPECT_THAT(scan.problems(),
              ElementsAre("there are more than 10 videos: the others are left out"));
  EXPECT_TRUE(scan.Step(1));
}

TEST(Scan, TakesNoMoreThanItsStep) {
  constexpr int kFiles = 10'000;
  for (int i = 0; i < kFiles; ++i) {
    const std::string folder = "/tmp/v/" + std::to_string(i / 500);
    if (i % 500 == 0) fs::create_directories(folder);
    std::ofstream(folder + "/film " + std::to_string(i) + ".mkv") << 'x';
  }
  Scan scan({"/tmp/v"});
  size_t steps = 0;
  size_t before = 0;
  for (bool done = false; !done; ++steps) {
    done = scan.Step(64);
    ASSERT_LE(scan.files().size() - before, 64U);
    before = scan.files().size();
  }
  EXPECT_EQ(scan.files().size(), size_t{kFiles});
  EXPECT_GE(steps, size_t{kFiles} / 64);
}

TEST(Scan, KeepsNamesThatAreNoText) {
  WriteText("/tmp/v/\xFF\n.mkv", "x");
  EXPECT_THAT(ScanAll({"/tmp/v"}), ElementsAre("/tmp/v/\xFF\n.mkv"));
}

}  // namespace
}  // namespace tarnbackend
