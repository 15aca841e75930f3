// tarnvte registry: the transcoders that run on this machine, and room for more.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "registry_view.h"
#include "tarnvte/json_utils.h"
#include "tarnvte/libtarnvte.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte registry\n"
    "  tarnvte registry --clean\n"
    "\n"
    "Entries of processes that are gone disappear whenever the registry is opened, by anyone.\n";

constexpr char kRegistryFile[] = "/tmp/Reelbay/enabled";
constexpr unsigned kDefaultIdleSeconds = 900;

struct RegistryOptions {
  bool json = false;
  bool clean = false;
  unsigned older_than = kDefaultIdleSeconds;
};

std::string ReadProc(int pid, const char* name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Name of the program file, without its folder.
std::string ProgramName(int pid) {
  std::string name = ReadProc(pid, "cmdline");
  name = name.substr(0, name.find('\0'));
  return name.substr(name.rfind('/') + 1);
}

std::optional<uint64_t> AgeSeconds(int pid) {
  // The second field, the name in parentheses, may hold anything: count from its end. The start
  // time is the 22nd field, in clock ticks since boot.
  std::string stat = ReadProc(pid, "stat");
  size_t pos = stat.rfind(')');
  for (int field = 2; field < 22 && pos != std::string::npos; ++field) {
    pos = stat.find(' ', pos + 1);
  }
  if (pos == std::string::npos) return std::nullopt;
  const uint64_t started =
      std::strtoull(stat.c_str() + pos, nullptr, 10) / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const auto seconds = static_cast<uint64_t>(now.tv_sec);
  return seconds > started ? seconds - started : 0;
}

Json::Value Describe(const Json::Value& entry) {
  const int pid = entry["PID"].asInt();
  Json::Value value(Json::objectValue);
  value["pid"] = pid;
  value["hardware"] = entry["hardware_transcode"].isBool() && entry["hardware_transcode"].asBool();
  value["offline"] = entry["offline_conversion"].isBool() && entry["offline_conversion"].asBool();
  value["program"] = ProgramName(pid);
  if (const auto age = AgeSeconds(pid)) value["age"] = Json::UInt64(*age);
  return value;
}

unsigned EntriesOnDisk() {
  Json::Value entries;
  if (!LibReelbay::ReadJsonFromFile(kRegistryFile, entries) || !entries.isArray()) return 0;
  return entries.size();
}

Json::Value Collect(const RegistryOptions& options) {
  Json::Value value(Json::objectValue);
  const unsigned before = EntriesOnDisk();
  unsigned live = 0;
  {
    RegistryView registry;
    live = registry.running().size();
    value["software"] = registry.Kind(false);
    value["hardware"] = registry.Kind(true);
    value["transcoders"] = Json::Value(Json::arrayValue);
    for (const Json::Value& entry : registry.running()) {
      value["transcoders"].append(Describe(entry));
    }
  }
  if (options.clean) {
    value["removed_entries"] = before > live ? before - live : 0;
    value["removed_directories"] = LibTarnVTE::VTEStream::RemoveStaleDirs(options.older_than);
  }
  return value;
}

std::vector<std::string> RoomRow(const char* kind, const Json::Value& value) {
  return {kind, value["running"].asString() + " of " + value["limit"].asString() + " running",
          value["room"].asBool() ? "one more may start" : "no room"};
}

std::string Listing(const Json::Value& value) {
  std::string text;
  if (value["transcoders"].empty()) {
    text = "No transcoder is running.\n";
  } else {
    std::vector<std::vector<std::string>> rows = {{"PID", "KIND", "FOR", "AGE", "PROGRAM"}};
    for (const Json::Value& entry : value["transcoders"]) {
      rows.push_back({entry["pid"].asString(), entry["hardware"].asBool() ? "hardware" : "software",
                      entry["offline"].asBool() ? "offline" : "stream",
                      entry.isMember("age") ? FormatSeconds(entry["age"].asUInt64()) : "?",
                      Printable(entry["program"].asString())});
    }
    text = FormatTable(rows, "");
  }
  text += "\n" +
          FormatTable(
              {RoomRow("software", value["software"]), RoomRow("hardware", value["hardware"])}, "");
  if (value.isMember("removed_entries")) {
    text += "\nRemoved " + Count(value["removed_entries"].asUInt(), "dead record") + " and " +
            Count(value["removed_directories"].asUInt(), "left-over working folder") + ".\n";
  }
  return text;
}

Exit RunRegistry(const RegistryOptions& options) {
  const Json::Value value = Collect(options);
  Print(options.json ? JsonLine(value) : Listing(value));
  return Exit::kSuccess;
}

}  // namespace

void AddRegistry(CLI::App& app, Command& command) {
  CLI::App* sub =
      app.add_subcommand("registry", "List running transcoders, and whether more may start");
  auto options = std::make_shared<RegistryOptions>();
  sub->add_flag("--json", options->json, "Print one line of JSON");
  CLI::Option* clean =
      sub->add_flag("--clean", options->clean,
                    "Also remove working folders that nobody serves, and say how many");
  sub->add_option("--older-than", options->older_than,
                  "With --clean: only those without a change for S seconds (default 900)")
      ->needs(clean)
      ->option_text("S");
  sub->footer(kFooter);
  sub->callback([options, &command] {
    command.json = options->json;
    command.run = [options] { return RunRegistry(*options); };
  });
}

}  // namespace tarncli
