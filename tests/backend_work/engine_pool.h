// A pool whose workers use the engine, and what tests ask it.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "backend/work/engine_calls.h"
#include "tests/backend_work/pool_fixture.h"
#include "tests/support/host_files.h"
#include "tests/support/process.h"

namespace tarn_test {

inline const std::string kMedia = TARN_TEST_MEDIA "/";

class EnginePool : public PoolFixture {
 protected:
  EnginePool() { StartWorkers(64); }

  void StartWorkers(unsigned most) {
    tarnbackend::PoolOptions options;
    options.command = {TARN_TEST_BIN "/tests/bin/engine_worker"};
    options.calls = tarnbackend::RulesOf(tarnbackend::EngineCalls());
    options.max_workers = most;
    options.idle_workers = 1;
    StartPool(std::move(options));
  }

  static std::string ProfileFile(const std::string& kind) {
    const char* const name = kind == "HLS"    ? "hls"
                             : kind == "SS"   ? "smooth"
                             : kind == "WEBM" ? "webm"
                                              : "http";
    return std::string("/var/packages/Reelbay/target/share/profiles/") + name + ".json";
  }

  static Json::Value Request(const std::string& file, const std::string& kind,
                             const std::string& profile) {
    Json::Value arguments(Json::objectValue);
    arguments["path"] = file.starts_with("/") ? file : kMedia + file;
    arguments["kind"] = kind;
    arguments["profile_file"] = ProfileFile(kind);
    arguments["profile_key"] = profile;
    arguments["request"]["url"] = "/api/v1/play";
    return arguments;
  }

  // A profile of the test's own, under the key that the request has.
  static void UseProfile(Json::Value& request, const std::string& profile) {
    request["profile_file"] = "/tmp/profiles.json";
    tarn::test::WriteText("/tmp/profiles.json",
                          "{\"" + request["profile_key"].asString() + "\": \"" + profile + "\"}");
  }

  // Prepares a stream, which later calls are about.
  Answer Prepare(const Json::Value& request) {
    Answer answer = Ask("prepare", request);
    stream_["stream_id"] = answer.value["stream_id"];
    stream_["kind"] = request["kind"];
    return answer;
  }

  // A call about the stream, with one more argument or two.
  Json::Value OfStream(const char* name, const Json::Value& value) const {
    Json::Value arguments = stream_;
    arguments[name] = value;
    return arguments;
  }
  Answer Fragment(const Json::Value& id) { return Ask("fragment", OfStream("fragment", id)); }

  // Submits a call, whose answer is put where it is told.
  tarnbackend::WorkerPool::CallId Submit(const std::string& name, const Json::Value& arguments,
                                         std::vector<Answer>& answers) {
    return pool_->Submit(name, arguments,
                         [&answers](Answer answer) { answers.push_back(std::move(answer)); });
  }

  static std::vector<std::string> WorkingDirectories() {
    std::vector<std::string> found;
    for (const std::string root : {"/tmp/Reelbay", "/volume1/@tmp/Reelbay"}) {
      std::error_code none;
      for (const auto& kind : std::filesystem::directory_iterator(root, none)) {
        if (!kind.is_directory()) continue;
        for (const auto& entry : std::filesystem::directory_iterator(kind.path())) {
          found.push_back(entry.path());
        }
      }
    }
    return found;
  }

  // No transcoder may start any more: far more than any machine bears are registered, each of them
  // alive, as this process is all of them.
  void FillRegistry() {
    std::string entries;
    for (int i = 0; i < 64; ++i) {
      entries += std::string(i == 0 ? "" : ",") + "{\"PID\":" + std::to_string(getpid()) +
                 ",\"hardware_transcode\":false,\"offline_conversion\":false}";
    }
    tarn::test::WriteText("/tmp/Reelbay/enabled", "[" + entries + "]");
    ASSERT_FALSE(Ask("registry").value["software"]["room"].asBool());
  }

  // Ends the pool; then neither processes nor files of a stream may be left.
  void ExpectNothingLeft() {
    pool_.reset();
    EXPECT_EQ(WorkingDirectories(), std::vector<std::string>());
    EXPECT_TRUE(test::Eventually([this] { return tarn::test::LiveProcesses() == before_; }))
        << tarn::test::LiveProcesses() - before_;
  }

  static std::string FirstBytes(int fd, size_t count) {
    std::string bytes(count, '\0');
    size_t have = 0;
    while (have < count) {
      const ssize_t got = read(fd, bytes.data() + have, count - have);
      if (got <= 0) break;
      have += static_cast<size_t>(got);
    }
    bytes.resize(have);
    return bytes;
  }

  // Of all that lives, before any worker does.
  const int before_ = tarn::test::LiveProcesses();
  Json::Value stream_{Json::objectValue};
};

}  // namespace tarn_test
