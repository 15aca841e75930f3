// A worker whose calls do what goes wrong in real ones.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "backend/work/worker.h"
#include "tests/backend_work/stub_calls.h"

using tarnbackend::Call;
using tarnbackend::CallResult;
using tarnbackend::CallRule;

namespace {

int g_channel = -1;

[[noreturn]] void Hang() {
  for (;;) pause();
}

CallResult Echo(const Json::Value& arguments) {
  CallResult result;
  result.value = arguments;
  result.value["pid"] = getpid();
  result.value["user"] = geteuid();
  return result;
}

CallResult Crash(const Json::Value& arguments) {
  signal(arguments["signal"].asInt(), SIG_DFL);
  raise(arguments["signal"].asInt());
  Hang();
}

CallResult Exit(const Json::Value& arguments) { _exit(arguments["status"].asInt()); }

CallResult Garbage(const Json::Value& arguments) {
  const std::string text = arguments["text"].asString();
  send(g_channel, text.data(), text.size(), MSG_NOSIGNAL);
  Hang();
}

CallResult Bytes(const Json::Value& arguments) {
  CallResult result;
  result.bytes.assign(arguments["size"].asUInt(), 'x');
  return result;
}

CallResult Pipe(const Json::Value&) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  CallResult result;
  result.descriptor = tarnbackend::UniqueFd(ends[0]);
  const tarnbackend::UniqueFd write_end(ends[1]);
  if (write(write_end.get(), "through the pipe", 16) != 16) throw std::runtime_error("write");
  return result;
}

CallResult CloseChannel(const Json::Value&) {
  close(g_channel);
  Hang();
}

// Leaves a file where nobody gets the answer.
CallResult Undo(const Json::Value& arguments) {
  CallResult result;
  result.undo = [path = arguments["path"].asString()] {
    const tarnbackend::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  };
  return result;
}

// Where a link of this process's own view leads to.
CallResult Linked(const Json::Value& arguments) {
  char target[4096];
  const ssize_t length = readlink(arguments["path"].asCString(), target, sizeof target);
  if (length < 0) return tarnbackend::Refused("failed", "no link");
  CallResult result;
  result.value["target"] = std::string(target, static_cast<size_t>(length));
  return result;
}

CallResult Run(const std::string& name, const Json::Value& arguments) {
  if (name == "crash") return Crash(arguments);
  if (name == "exit") return Exit(arguments);
  if (name == "hang" || name == "hang-short" || name == "hang-killable") Hang();
  if (name == "garbage") return Garbage(arguments);
  if (name == "bytes") return Bytes(arguments);
  if (name == "pipe") return Pipe(arguments);
  if (name == "undo") return Undo(arguments);
  if (name == "close") return CloseChannel(arguments);
  if (name == "link") return Linked(arguments);
  if (name == "refuse") return tarnbackend::Refused("no-such-thing", "because");
  if (name == "throw") throw std::runtime_error("thrown");
  return Echo(arguments);
}

}  // namespace

// Its last argument is the channel, as for every worker.
int main(int argc, char** argv) {
  if (argc > 2 && std::string(argv[1]) == "--exit") return std::atoi(argv[2]);
  g_channel = std::atoi(argv[argc - 1]);
  std::vector<Call> calls;
  for (const CallRule& rule : tarn_test::StubRules()) {
    calls.push_back(
        {rule, [name = rule.name](const Json::Value& arguments) { return Run(name, arguments); }});
  }
  return tarnbackend::RunWorker(g_channel, calls);
}
