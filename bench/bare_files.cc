#include "bench/bare_files.h"

#include <unistd.h>

#include <filesystem>

#include "base/wait.h"
#include "bench/samples.h"

namespace tarnbench {

BareFolder::BareFolder() {
  std::filesystem::remove_all(kBareFolder);
  std::filesystem::create_directory(kBareFolder);
}

BareFolder::~BareFolder() { std::filesystem::remove_all(kBareFolder); }

double SecondsToFile(const Words& argv, const std::string& name) {
  constexpr int kTries = 60;
  const BareFolder folder;
  const std::string path = std::string(kBareFolder) + "/" + name;
  const std::string parent = path.substr(0, path.rfind('/'));
  tarn::ChangeWaiter waiter;
  const auto is_there = [&] {
    // The program makes its own folders.
    waiter.WatchDirectory(kBareFolder);
    waiter.WatchDirectory(parent);
    return access(path.c_str(), F_OK) == 0;
  };
  double taken = 0;
  {
    const double begun = Now();
    const Program program(argv);
    if (!waiter.WaitUntil(is_there, kTries, 1000)) Fail(argv[0] + " made no " + name);
    taken = Now() - begun;
  }
  ReapChildren();
  return taken;
}

}  // namespace tarnbench
