#include "backend/work/call_arguments.h"

#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tarnvte/vteutils.h"

namespace tarnbackend {
namespace {

[[noreturn]] void Bad(const char* name) {
  throw std::invalid_argument(std::string("the argument \"") + name + "\" is none of its type");
}

}  // namespace

std::string TextOf(const Json::Value& arguments, const char* name) {
  const Json::Value& member = arguments[name];
  if (member.isNull()) return "";
  if (!member.isString()) Bad(name);
  std::string text = member.asString();
  if (text.find('\0') != std::string::npos) Bad(name);
  return text;
}

bool FlagOf(const Json::Value& arguments, const char* name) {
  const Json::Value& member = arguments[name];
  if (!member.isNull() && !member.isBool()) Bad(name);
  return !member.isNull() && member.asBool();
}

double NumberOf(const Json::Value& arguments, const char* name) {
  const Json::Value& member = arguments[name];
  if (member.isNull()) return 0;
  if (!member.isNumeric() || !std::isfinite(member.asDouble())) Bad(name);
  return member.asDouble();
}

int64_t CountOf(const Json::Value& arguments, const char* name) {
  const Json::Value& member = arguments[name];
  if (member.isNull()) return 0;
  if (!member.isInt64() || member.asInt64() < 0) Bad(name);
  return member.asInt64();
}

Json::Value ObjectOf(const Json::Value& arguments, const char* name) {
  const Json::Value& member = arguments[name];
  if (member.isNull()) return Json::objectValue;
  if (!member.isObject()) Bad(name);
  return member;
}

bool IsKind(const std::string& kind) {
  return kind == "HLS" || kind == "SS" || kind == "WEBM" || kind == "HTTP";
}

std::string StreamDirectory(const std::string& stream_id, const std::string& kind) {
  return IsKind(kind) ? LibTarnVTE::GetVTEFileFullPath(stream_id, kind, "") : "";
}

CallResult RefusedStream(const std::string& stream_id, const std::string& kind,
                         const std::string& cause) {
  const std::string directory = StreamDirectory(stream_id, kind);
  if (directory.empty()) return Refused("no-such-stream", "no stream can have this name");
  if (!IsFolder(directory)) return Refused("stream-ended", "its working directory is gone");
  return Refused("failed", cause);
}

bool IsFile(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool IsFolder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  return file && text << file.rdbuf() ? text.str() : "";
}

}  // namespace tarnbackend
