// tarnvte registry: the transcoders that run on this machine, and room for more.
#include <memory>
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
    value = registry.All();
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
