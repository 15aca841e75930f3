#include "served.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "tests/support/process.h"

namespace tarn_test {
namespace {

namespace fs = std::filesystem;

std::string NewName(const std::string& what) {
  static int count = 0;
  return testing::TempDir() + what + "-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

// Runs a command with its output in a file; the output.
std::string Output(const std::vector<std::string>& words) {
  const std::string path = NewName("output");
  const pid_t child = fork();
  if (child == 0) {
    const int out = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(out, STDOUT_FILENO);
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
  }
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  fs::remove(path);
  return text.str();
}

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return tolower(c); });
  return text;
}

}  // namespace

Reply ParseReply(const std::string& text) {
  Reply reply;
  std::istringstream stream(text);
  std::string line;
  if (!std::getline(stream, line) || std::sscanf(line.c_str(), "HTTP/1.1 %d", &reply.status) != 1) {
    return reply;
  }
  while (std::getline(stream, line) && line != "\r") {
    const size_t colon = line.find(": ");
    if (colon == std::string::npos) continue;
    reply.headers.emplace_back(LowerCase(line.substr(0, colon)),
                               line.substr(colon + 2, line.size() - colon - 3));
  }
  std::ostringstream body;
  body << stream.rdbuf();
  reply.body = body.str();
  return reply;
}

std::string Reply::Header(const std::string& name) const {
  for (const auto& [known, value] : headers) {
    if (known == name) return value;
  }
  return "";
}

Json::Value Reply::Json() const {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  if (!reader->parse(body.data(), body.data() + body.size(), &value, nullptr)) return {};
  return value;
}

std::string LibraryOf(const std::vector<std::string>& names) {
  const std::string folder = NewName("library");
  fs::create_directories(folder);
  for (const std::string& name : names) {
    fs::copy_file(std::string(TARN_TEST_MEDIA) + "/" + name, folder + "/" + name);
  }
  return folder;
}

Served::Served(const std::string& folder, const std::vector<std::string>& options)
    : log_path_(NewName("log")) {
  const std::string page = NewName("page");
  fs::create_directories(page);
  std::ofstream(page + "/index.html") << "<!doctype html><title>A page</title>";
  std::vector<std::string> words = {std::string(TARN_TEST_BIN) + "/cli/tarnvte", "serve", "--page",
                                    page};
  if (std::find(options.begin(), options.end(), "--listen") == options.end()) {
    words.insert(words.end(), {"--listen", "127.0.0.1:0"});
  }
  words.insert(words.end(), options.begin(), options.end());
  words.push_back(folder);
  int out[2];
  EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(open(log_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  close(out[1]);
  FILE* lines = fdopen(out[0], "r");
  char line[256] = "";
  if (std::fgets(line, sizeof line, lines) != nullptr) {
    address_ = line;
    // Up to the path, which may hold a token.
    address_.erase(address_.find('/', std::string("http://").size()));
  }
  std::fclose(lines);
  EXPECT_NE(address_, "") << Log();
  EXPECT_TRUE(test::Eventually([&] {
    const Json::Value list = Get("/api/v1/videos").Json();
    return !list.isObject() || !list["scanning"].asBool();
  }));
}

Served::~Served() {
  if (pid_ > 0) {
    Signal(SIGTERM);
    Wait();
  }
}

Reply Served::Get(const std::string& path, const std::vector<std::string>& options) const {
  std::vector<std::string> words = {"curl", "-s", "-i", "--path-as-is", "--max-time", "120"};
  words.insert(words.end(), options.begin(), options.end());
  words.push_back(address_ + path);
  return ParseReply(Output(words));
}

Reply Served::Post(const std::string& path, const std::string& json) const {
  return Get(path, {"-H", "Content-Type: application/json", "--data-binary", json});
}

int Served::Video(const std::string& title) const {
  const Json::Value list = Get("/api/v1/videos").Json();
  for (const Json::Value& video : list["videos"]) {
    if (video["title"].asString() == title) return video["id"].asInt();
  }
  ADD_FAILURE() << "no video is called " << title;
  return 0;
}

Json::Value Served::Open(const std::string& request) const {
  const Reply reply = Post("/api/v1/streams", request);
  EXPECT_EQ(reply.status, 201) << reply.body << Log();
  return reply.Json();
}

void Served::Signal(int signal) const {
  if (pid_ > 0) kill(pid_, signal);
}

int Served::Wait() {
  if (pid_ <= 0) return -1;
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0) {
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Served::Log() const {
  std::ifstream file(log_path_);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace tarn_test
