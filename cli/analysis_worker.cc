#include "analysis_worker.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "command.h"
#include "interrupts.h"
#include "tarnvte/preprocess_analysis.h"
#include "text.h"

namespace tarncli {
namespace {

using LibTarnVTE::preprocess::AnalyzeAndStore;
using LibTarnVTE::preprocess::StoreOutcome;
using LibTarnVTE::preprocess::VideoAnalysis;

const char* OutcomeWord(StoreOutcome outcome) {
  switch (outcome) {
    case StoreOutcome::kStored:
      return "stored";
    case StoreOutcome::kNotWritten:
      return "not written";
    case StoreOutcome::kNotAnalyzed:
      break;
  }
  return "not analyzed";
}

std::string Analyze(const std::string& path) {
  VideoAnalysis analysis;
  Json::Value report(Json::objectValue);
  report["outcome"] = OutcomeWord(AnalyzeAndStore(path, analysis));
  report["method"] = LibTarnVTE::preprocess::AnalysisMethodWord(analysis.method);
  report["reason"] = analysis.reason;
  report["keyframes"] = analysis.result.gop_size();
  report["end_time"] = analysis.result.end_time();
  return JsonLine(report);
}

[[noreturn]] void RunWorker(const std::string& path, int fd, pid_t parent) {
  // Ends with the command, and on the terminal's signals as the command does.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(1);
  const std::string report = Analyze(path);
  const auto size = static_cast<ssize_t>(report.size());
  _exit(write(fd, report.data(), report.size()) == size ? 0 : 1);
}

}  // namespace

AnalysisWorker::AnalysisWorker(const std::string& path) : path_(path) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw Failure{Exit::kFailure, std::string("pipe: ") + std::strerror(errno), ""};
  }
  const pid_t parent = getpid();
  {
    const Interrupts::Blocked blocked;
    pid_ = fork();
    if (pid_ == 0) {
      close(ends[0]);
      blocked.LeaveToDefault();
      RunWorker(path, ends[1], parent);
    }
  }
  close(ends[1]);
  fd_ = ends[0];
  if (pid_ > 0) return;
  const std::string reason = std::strerror(errno);
  close(fd_);
  throw Failure{Exit::kFailure, "fork: " + reason, ""};
}

AnalysisWorker::~AnalysisWorker() {
  close(fd_);
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

bool AnalysisWorker::Advance() {
  char buffer[4096];
  const ssize_t count = read(fd_, buffer, sizeof buffer);
  if (count > 0) text_.append(buffer, static_cast<size_t>(count));
  if (count > 0 || (count < 0 && errno == EINTR)) return false;
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return true;
}

AnalysisReport AnalysisWorker::Report() const {
  AnalysisReport report;
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text_.data(), text_.data() + text_.size(), &value, nullptr)) {
    report.reason = "its analysis was killed";
    return report;
  }
  const std::string outcome = value["outcome"].asString();
  report.outcome = outcome == "stored"        ? AnalysisReport::Outcome::kStored
                   : outcome == "not written" ? AnalysisReport::Outcome::kNotWritten
                                              : AnalysisReport::Outcome::kNotAnalyzed;
  report.method = value["method"].asString();
  report.reason = value["reason"].asString();
  report.keyframes = value["keyframes"].asUInt();
  report.end_time = value["end_time"].asDouble();
  return report;
}

}  // namespace tarncli
