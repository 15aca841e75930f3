#include "backend/serve/session_mark.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace tarnbackend {
namespace {

namespace fs = std::filesystem;

class SessionMark : public testing::Test {
 protected:
  std::string Directory(const std::string& name) {
    fs::create_directories(root_ + "/" + name);
    return root_ + "/" + name;
  }
  void Mark(const std::string& name, const std::string& text) {
    std::ofstream(Directory(name) + "/served_by") << text;
  }
  const std::string root_ =
      testing::TempDir() + "/" + testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(SessionMark, AStreamOfALiveServerIsNotLeft) {
  ASSERT_TRUE(MarkStream(Directory("HLS/mine")));
  EXPECT_TRUE(FindLeftStreams(root_).empty());
}

TEST_F(SessionMark, AStreamOfADeadServerIs) {
  const std::string directory = Directory("WEBM/its");
  const pid_t child = fork();
  if (child == 0) _exit(MarkStream(directory) ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  const auto left = FindLeftStreams(root_);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].kind, "WEBM");
  EXPECT_EQ(left[0].id, "its");
}

TEST_F(SessionMark, ANumberThatWasGivenAgainIsAnotherServer) {
  Mark("SS/old", std::to_string(getpid()) + " 1");
  EXPECT_EQ(FindLeftStreams(root_).size(), 1u);
}

TEST_F(SessionMark, StreamsOfOthersAreLeftAlone) {
  Directory("HLS/of-the-command");
  Mark("HLS/strange", "../../1 1");
  Mark("HLS/empty", "");
  Mark("OTHER/kind", "999999999 1");
  EXPECT_TRUE(FindLeftStreams(root_).empty());
  EXPECT_TRUE(FindLeftStreams(root_ + "/none").empty());
}

TEST_F(SessionMark, ADirectoryThatIsGoneCannotBeMarked) {
  EXPECT_FALSE(MarkStream(root_ + "/none"));
}

}  // namespace
}  // namespace tarnbackend
