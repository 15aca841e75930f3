// tarnvte serve: the web back end and the player page; and what its worker processes run.
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "backend/http/server.h"
#include "backend/serve/access.h"
#include "backend/serve/backend.h"
#include "backend/serve/worker.h"
#include "backend/work/worker.h"
#include "command.h"
#include "text.h"

namespace tarncli {
namespace {

using tarnbackend::UniqueFd;

constexpr char kPage[] = "/var/packages/Reelbay/target/share/page";
constexpr char kUsualAddress[] = "127.0.0.1:8200";
constexpr char kAnyAddress[] = "127.0.0.1:0";
constexpr char kTokenVariable[] = "TARNVTE_TOKEN";
constexpr char kSocketVariable[] = "TARNVTE_LISTEN_FD";

constexpr char kFooter[] =
    "Prints the page's address. Ctrl-C ends the server and every stream; SIGHUP looks for new "
    "files.\n"
    "\n"
    "Examples:\n"
    "  tarnvte serve /volume1/video\n"
    "  tarnvte serve --listen 0.0.0.0:8200 /volume1/video\n"
    "\n"
    "Without --listen only this machine can open the page. With another address a token is\n"
    "required: that of the environment's TARNVTE_TOKEN, or a new one, which the printed address\n"
    "holds.\n";

struct ServeOptions {
  tarnbackend::BackendOptions backend;
  std::string address;
  std::vector<std::string> through;
};

// The socket that a process before this one listens on; -1 for none.
int TakeInherited() {
  const char* number = getenv(kSocketVariable);
  if (number == nullptr) return -1;
  const int fd = std::atoi(number);
  unsetenv(kSocketVariable);
  if (fd <= STDERR_FILENO || fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) return -1;
  return fd;
}

UniqueFd ListenOn(const std::string& address) {
  if (!address.empty()) return tarnbackend::http::Listen(address);
  try {
    // The same each time: what a browser keeps for a page, it keeps for its address.
    return tarnbackend::http::Listen(kUsualAddress);
  } catch (const std::runtime_error&) {
    return tarnbackend::http::Listen(kAnyAddress);
  }
}

// The token that a server on this address requires; empty for none.
std::string TokenFor(const std::string& address) {
  const char* given = getenv(kTokenVariable);
  if (given != nullptr && *given != '\0') return given;
  return tarnbackend::IsLoopback(address) ? "" : tarnbackend::NewToken();
}

std::vector<std::string> OwnCommandLine() {
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> words;
  for (std::string word; std::getline(file, word, '\0');) words.push_back(word);
  words.at(0) = std::filesystem::read_symlink("/proc/self/exe");
  return words;
}

// Becomes `through`, which runs this command line again: a sandbox that has no network, but gets
// the socket.
[[noreturn]] void GoThrough(std::vector<std::string> through, int listening) {
  for (std::string& word : OwnCommandLine()) through.push_back(std::move(word));
  std::vector<char*> arguments;
  for (std::string& word : through) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  fcntl(listening, F_SETFD, 0);
  setenv(kSocketVariable, std::to_string(listening).c_str(), 1);
  execv(arguments[0], arguments.data());
  throw Failure{Exit::kFailure, through[0] + ": " + std::strerror(errno), ""};
}

void CheckFolders(const std::vector<std::string>& folders) {
  for (const std::string& folder : folders) {
    if (access(folder.c_str(), R_OK) == 0) continue;
    throw Failure{Exit::kFile, Printable(folder) + ": " + std::strerror(errno), ""};
  }
}

Exit Serve(ServeOptions options) {
  CheckFolders(options.backend.folders);
  try {
    UniqueFd listening(TakeInherited());
    if (!listening.valid()) {
      listening = ListenOn(options.address);
      if (!options.through.empty()) GoThrough(std::move(options.through), listening.get());
    }
    const std::string address = tarnbackend::http::LocalAddress(listening.get());
    const std::string token = TokenFor(address);
    options.backend.token = token;
    options.backend.version = TARNVTE_VERSION;
    options.backend.worker = {"/proc/self/exe", "serve-worker"};
    unsetenv(kTokenVariable);
    openlog("tarnvte", LOG_PERROR | LOG_PID, LOG_USER);
    tarnbackend::Backend backend(std::move(options.backend), std::move(listening));
    Print("http://" + address + "/" + (token.empty() ? "" : "?token=" + token) + "\n");
    backend.Run();
    return Exit::kSuccess;
  } catch (const std::runtime_error& error) {
    throw Failure{Exit::kFailure, error.what(), ""};
  }
}

}  // namespace

void AddServe(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("serve", "Serve videos to browsers: a page to watch them on");
  auto options = std::make_shared<ServeOptions>();
  tarnbackend::BackendOptions& backend = options->backend;
  backend.page = kPage;
  sub->add_option("FOLDER", backend.folders, "Folders with videos, or single files")
      ->required()
      ->option_text("...");
  sub->add_option("--listen", options->address,
                  "Address and port (default 127.0.0.1:8200, or a free port where that is taken)")
      ->option_text("HOST:PORT");
  sub->add_option("--max-streams", backend.max_streams, "Streams that may be open at one time")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  sub->add_option("--max-streams-per-client", backend.max_streams_per_client,
                  "Those of one address")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  sub->add_option("--max-calls", backend.calls_per_second,
                  "Requests a second of one address that cost more than a file")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  sub->add_option("--max-workers", backend.max_workers, "Worker processes at one time")
      ->capture_default_str()
      ->check(CLI::Range(1, 4096));
  sub->add_option("--cors", backend.cors_origin, "Another site whose pages may use the API")
      ->option_text("ORIGIN");
  sub->add_option("--page", backend.page, "Folder of the player page")->option_text("DIR");
  sub->add_option("--through", options->through)->group("")->take_all();
  sub->footer(kFooter);
  sub->callback([options, &command] { command.run = [options] { return Serve(*options); }; });
}

void AddServeWorker(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("serve-worker", "")->group("");
  auto socket = std::make_shared<int>(-1);
  sub->add_option("SOCKET", *socket)->required();
  sub->callback([socket, &command] {
    command.run = [socket] {
      return static_cast<Exit>(tarnbackend::RunWorker(*socket, tarnbackend::ServeCalls()));
    };
  });
}

}  // namespace tarncli
