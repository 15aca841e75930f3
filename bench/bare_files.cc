#include "bench/bare_files.h"

#include <filesystem>
#include <system_error>

#include "base/wait.h"
#include "bench/samples.h"

namespace tarnbench {
namespace {

bool HasFile(const std::string& folder, const std::string& begin) {
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  while (!error && entry != std::filesystem::directory_iterator()) {
    if (entry->path().filename().string().starts_with(begin)) return true;
    entry.increment(error);
  }
  return false;
}

}  // namespace

BareFolder::BareFolder() {
  std::filesystem::remove_all(kBareFolder);
  std::filesystem::create_directory(kBareFolder);
}

BareFolder::~BareFolder() { std::filesystem::remove_all(kBareFolder); }

double SecondsToFileOfOne(const Words& argv, const std::string& begin) {
  constexpr int kTries = 60;
  const BareFolder folder;
  const std::filesystem::path path = std::string(kBareFolder) + "/" + begin;
  tarn::ChangeWaiter waiter;
  const auto is_there = [&] {
    // The program makes its own folders.
    waiter.WatchDirectory(kBareFolder);
    waiter.WatchDirectory(path.parent_path());
    return HasFile(path.parent_path(), path.filename());
  };
  const double begun = Now();
  const Program program(argv);
  if (!waiter.WaitUntil(is_there, kTries, 1000)) Fail(argv[0] + " made no " + begin);
  return Now() - begun;
}

double SecondsToFile(const Words& argv, const std::string& begin) {
  const double taken = SecondsToFileOfOne(argv, begin);
  ReapChildren();
  return taken;
}

}  // namespace tarnbench
