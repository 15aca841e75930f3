// tarnvte: the engine as a command for people.
#include <json/value.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "command.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kDescription[] =
    "Shows what the video transcoding engine knows and decides about a video file, and streams it.";

std::string Footer() {
  return std::string(
             "Examples:\n"
             "  tarnvte probe movie.mkv\n"
             "  tarnvte plan movie.mkv\n"
             "  tarnvte stream movie.mkv -o movie.webm\n"
             "  tarnvte segment movie.mkv --fragment 3 -o slice.ts\n"
             "  tarnvte analyze /volume1/video\n"
             "  tarnvte serve /volume1/video\n"
             "  tarnvte doctor\n"
             "\n"
             "\"tarnvte SUBCOMMAND --help\" explains each.\n"
             "\n") +
         kExitStatusHelp + "\n";
}

// A usage error may stand before --json was understood, so the arguments themselves are asked.
bool WantsJson(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) return false;
    if (std::strcmp(argv[i], "--json") == 0) return true;
  }
  return false;
}

// CLI11 asks for a subcommand before it looks at a word that is none.
std::string UsageProblem(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> unknown = app.remaining();
  if (!app.get_subcommands().empty() || unknown.empty()) return error.what();
  const std::string what = unknown.front().rfind('-', 0) == 0 ? "option " : "subcommand ";
  return "there is no " + what + Printable(unknown.front());
}

int Report(const Failure& failure, bool json) {
  std::fprintf(stderr, "tarnvte: %s\n", failure.message.c_str());
  if (json) {
    Json::Value object(Json::objectValue);
    object["error"] = FailureWord(failure);
    object["message"] = failure.message;
    try {
      Print(JsonLine(object));
    } catch (const Failure&) {
      // Standard output is what failed; standard error has said so.
    }
  }
  return static_cast<int>(failure.status);
}

int Run(Command& command) {
  if (command.verbose) openlog("tarnvte", LOG_PERROR | LOG_PID, LOG_USER);
  try {
    return static_cast<int>(command.run());
  } catch (const Failure& failure) {
    return Report(failure, command.json);
  } catch (const Interrupted& interrupted) {
    return 128 + interrupted.signal;
  } catch (const std::exception& exception) {
    return Report({Exit::kFailure, std::string("unexpected: ") + exception.what(), ""},
                  command.json);
  }
}

int Main(int argc, char** argv) {
  Command command;
  CLI::App app(kDescription, "tarnvte");
  app.set_version_flag("--version", "tarnvte " TARNVTE_VERSION, "Print the version");
  app.add_flag("--verbose", command.verbose, "Show the engine's log on standard error");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(Footer());
  app.get_formatter()->column_width(26);
  AddProbe(app, command);
  AddPlan(app, command);
  AddStream(app, command);
  AddPlaylist(app, command);
  AddSegment(app, command);
  AddManifest(app, command);
  AddFragment(app, command);
  AddAnalyze(app, command);
  AddRegistry(app, command);
  AddDoctor(app, command);
  AddServe(app, command);
  AddServeWorker(app, command);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(error);
    return Report({Exit::kUsage, UsageProblem(app, error) + " (see --help)", ""},
                  WantsJson(argc, argv));
  }
  return Run(command);
}

}  // namespace
}  // namespace tarncli

int main(int argc, char** argv) { return tarncli::Main(argc, argv); }
