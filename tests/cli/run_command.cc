#include "run_command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <thread>

namespace tarn_test {
namespace {

namespace fs = std::filesystem;

std::string ReadFile(const std::string& path) {
  std::ostringstream text;  // a file of /proc may vanish while it is read
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

int NewFile(std::string& path) {
  path = "/tmp/tarnvte-test-XXXXXX";
  return mkostemp(path.data(), O_CLOEXEC);
}

}  // namespace

Running::Running(std::vector<std::string> arguments, int out_fd, int err_fd) {
  const int out = out_fd >= 0 ? out_fd : NewFile(out_path_);
  const int err = err_fd >= 0 ? err_fd : NewFile(err_path_);
  arguments.insert(arguments.begin(), "tarnvte");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&files, err, STDERR_FILENO);
  EXPECT_EQ(
      0, posix_spawn(&pid_, TARN_TEST_BIN "/cli/tarnvte", &files, nullptr, argv.data(), environ));
  posix_spawn_file_actions_destroy(&files);
  if (!out_path_.empty()) close(out);
  if (!err_path_.empty()) close(err);
}

Running::~Running() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void Running::Signal(int signal) const { kill(pid_, signal); }

Result Running::Wait() {
  Result result;
  int status = 0;
  pid_t ended = 0;
  for (int i = 0; i < 6000 && ended == 0; ++i) {
    ended = waitpid(pid_, &status, WNOHANG);
    if (ended == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(pid_, ended) << "the command does not end";
  if (ended != pid_) return result;
  pid_ = -1;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (!out_path_.empty()) result.out = ReadFile(out_path_);
  if (!err_path_.empty()) result.err = ReadFile(err_path_);
  return result;
}

Result Tarnvte(const std::vector<std::string>& arguments) { return Running(arguments).Wait(); }

std::string CopyOfClip() {
  const std::string copy = "/volume1/clip.mkv";
  fs::copy_file(TARN_TEST_MEDIA "/clip.mkv", copy, fs::copy_options::overwrite_existing);
  return copy;
}

std::string MakeLongVideo(int seconds) {
  const std::string path = "/volume1/long.mkv";
  const std::string command =
      "/usr/bin/ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=64x64:rate=5 -f lavfi -i "
      "sine -c:v mpeg4 -c:a aac -t " +
      std::to_string(seconds) + " " + path;
  EXPECT_EQ(0, std::system(command.c_str()));
  return path;
}

std::string TestProfiles() {
  const std::string path = "/tmp/profiles.json";
  const std::string rest = "-c:a libvorbis -f webm -cluster_time_limit 500 -flush_packets 1\"";
  const std::string video = "\"-c:v libvpx -deadline realtime -cpu-used 8 -threads 1 ";
  WriteFile(path, "{\"quick\": " + video + "-s 320x240 " + rest + ", \"slow\": " + video +
                      "-vf realtime " + rest + "}");
  return path;
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  EXPECT_TRUE(file.flush()) << path;
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
      << errors << text;
  return value;
}

std::vector<std::string> List(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<int> ProcessesWith(const std::string& word) {
  std::vector<int> pids;
  for (const std::string& name : List("/proc")) {
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (ReadFile("/proc/" + name + "/cmdline").find(word) != std::string::npos) {
      pids.push_back(std::stoi(name));
    }
  }
  return pids;
}

std::vector<std::string> WorkingDirectories() {
  std::vector<std::string> found;
  for (const std::string root : {"/tmp/Reelbay", "/volume1/@tmp/Reelbay"}) {
    for (const char* kind : {"WEBM", "HLS", "SS", "HTTP"}) {
      for (const std::string& name : List(root + "/" + kind)) {
        found.push_back(root + "/" + kind + "/" + name);
      }
    }
  }
  return found;
}

bool Eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 1000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

}  // namespace tarn_test
