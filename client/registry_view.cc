#include "client/registry_view.h"

#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

namespace tarnclient {
namespace {

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

}  // namespace

Json::Value RegistryView::Kind(bool hardware) {
  unsigned running = 0;
  for (const Json::Value& entry : entries) {
    const Json::Value& kind = entry["hardware_transcode"];
    if (kind.isBool() && kind.asBool() == hardware) ++running;
  }
  Json::Value value(Json::objectValue);
  value["running"] = running;
  value["limit"] = hardware ? hardware_limit : software_limit;
  value["room"] = TransEnable(hardware);
  return value;
}

Json::Value RegistryView::All() {
  Json::Value value(Json::objectValue);
  value["software"] = Kind(false);
  value["hardware"] = Kind(true);
  value["transcoders"] = Json::Value(Json::arrayValue);
  for (const Json::Value& entry : entries) value["transcoders"].append(Describe(entry));
  return value;
}

}  // namespace tarnclient
