#include "backend/work/worker.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "backend/work/call_text.h"
#include "backend/work/channel.h"

namespace tarnbackend {
namespace {

constexpr char kIdent[] = "tarnvte-worker";

bool WriteText(const char* path, const std::string& text) {
  const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
  return file.valid() &&
         write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Nothing that a worker or its transcoders read may lead to another machine. Returns why not, and
// nothing on success.
std::string LeaveNetwork() {
  if (unshare(CLONE_NEWNET) == 0) return "";
  const int error = errno;
  // Root of a user namespace of its own would lose its right to other users' files.
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return std::strerror(error);
  const auto same = [](unsigned id) {
    return std::to_string(id) + " " + std::to_string(id) + " 1";
  };
  WriteText("/proc/self/setgroups", "deny");
  WriteText("/proc/self/uid_map", same(user));
  WriteText("/proc/self/gid_map", same(group));
  return "";
}

CallResult Run(const std::vector<Call>& calls, const std::string& text, bool& throw_away) {
  const std::optional<Json::Value> call = ParseObject(text);
  if (!call || !(*call)["call"].isString() || !(*call)["arguments"].isObject()) {
    return Refused("failed", "what came is no call");
  }
  const std::string name = (*call)["call"].asString();
  const auto found = std::ranges::find(calls, name, [](const Call& it) { return it.rule.name; });
  if (found == calls.end()) return Refused("failed", "the worker knows no call \"" + name + "\"");
  throw_away = found->rule.throw_away;
  try {
    return found->run((*call)["arguments"]);
  } catch (const std::exception& exception) {
    return Refused("failed", exception.what());
  }
}

// False when nobody listens any more.
bool Reply(int channel, CallResult result, const std::string& network) {
  Message message;
  message.text = AnswerText(result, network);
  message.bytes = std::move(result.bytes);
  message.descriptor = std::move(result.descriptor);
  if (SendMessage(channel, std::move(message))) return true;
  if (errno != EMSGSIZE) return false;
  Message failure;
  failure.text = AnswerText(Refused("failed", "the answer is too large"), network);
  return SendMessage(channel, std::move(failure));
}

}  // namespace

int RunWorker(int channel, const std::vector<Call>& calls) {
  // What the engine starts must not hold it, or the pool would not see its end.
  fcntl(channel, F_SETFD, FD_CLOEXEC);
  openlog(kIdent, LOG_PERROR | LOG_PID, LOG_USER);
  std::string network = LeaveNetwork();
  std::function<void()> undo;  // of the last call
  for (;;) {
    // A change of user, which a call may make, takes the request back. If the server is gone
    // already, the channel has ended.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Message message;
    errno = 0;
    switch (ReceiveMessage(channel, message)) {
      case Received::kMessage:
        break;
      case Received::kEnd:
        // The channel was closed with the last answer still in it.
        if (errno == ECONNRESET && undo) undo();
        return 0;
      case Received::kMore:
        return 0;
      case Received::kBad:
        syslog(LOG_ERR, "what came is no message");
        return 1;
    }
    bool throw_away = false;
    CallResult result = Run(calls, message.text, throw_away);
    undo = std::move(result.undo);
    if (!Reply(channel, std::move(result), network)) {
      if (undo) undo();
      return 0;
    }
    if (throw_away) _exit(0);
    network.clear();
  }
}

}  // namespace tarnbackend
