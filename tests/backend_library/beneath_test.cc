#include "backend/library/beneath.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "tests/support/host_files.h"

namespace tarnbackend {
namespace {

namespace fs = std::filesystem;
using tarn::test::WriteText;

constexpr char kRoot[] = "/tmp/root";

std::string Content(const UniqueFd& fd) {
  char buffer[64];
  const ssize_t count = fd.valid() ? read(fd.get(), buffer, sizeof buffer) : -1;
  return count < 0 ? "not readable" : std::string(buffer, static_cast<size_t>(count));
}

class OpenBeneathTest : public testing::Test {
 protected:
  OpenBeneathTest() {
    WriteText("/tmp/root/a/b/film.mkv", "film");
    WriteText("/tmp/secret/film.mkv", "secret");
    WriteText("/tmp/root/top.mkv", "top");
  }

  int ErrorOf(std::string_view relative) {
    errno = 0;
    return OpenFileBeneath(kRoot, relative).valid() ? 0 : errno;
  }
};

TEST_F(OpenBeneathTest, OpensFiles) {
  EXPECT_EQ(Content(OpenFileBeneath(kRoot, "a/b/film.mkv")), "film");
  EXPECT_EQ(Content(OpenFileBeneath(kRoot, "top.mkv")), "top");
  EXPECT_EQ(Content(OpenFileBeneath("/", "tmp/root/top.mkv")), "top");
  EXPECT_TRUE(OpenBeneath(kRoot, "", O_RDONLY | O_DIRECTORY).valid());
}

TEST_F(OpenBeneathTest, TakesNamesOnly) {
  for (const std::string_view name :
       {std::string_view("../secret/film.mkv"), std::string_view("a/../../secret/film.mkv"),
        std::string_view("/tmp/secret/film.mkv"), std::string_view("a//b/film.mkv"),
        std::string_view("./top.mkv"), std::string_view("a/b/"), std::string_view(".."),
        std::string_view("top.mkv\0x", 9)}) {
    EXPECT_EQ(ErrorOf(name), EINVAL) << name;
  }
}

TEST_F(OpenBeneathTest, FollowsNoLink) {
  fs::create_symlink("/tmp/secret/film.mkv", "/tmp/root/link.mkv");
  fs::create_symlink("top.mkv", "/tmp/root/inside.mkv");
  fs::create_directory_symlink("/tmp/secret", "/tmp/root/folder");
  EXPECT_EQ(ErrorOf("link.mkv"), ELOOP);
  EXPECT_EQ(ErrorOf("inside.mkv"), ELOOP);
  EXPECT_EQ(ErrorOf("folder/film.mkv"), ENOTDIR);
  EXPECT_FALSE(OpenBeneath(kRoot, "folder", O_RDONLY | O_DIRECTORY).valid());
}

TEST_F(OpenBeneathTest, ReadsRegularFilesOnly) {
  ASSERT_EQ(mkfifo("/tmp/root/pipe.mkv", 0600), 0);
  fs::create_directory("/tmp/root/folder.mkv");
  EXPECT_EQ(ErrorOf("pipe.mkv"), EINVAL);
  EXPECT_EQ(ErrorOf("folder.mkv"), EINVAL);
  EXPECT_EQ(ErrorOf("top.mkv/more"), ENOTDIR);
  EXPECT_EQ(ErrorOf("gone.mkv"), ENOENT);
}

}  // namespace
}  // namespace tarnbackend
