// What every subcommand of `tarnvte` shares: exit statuses, failures, the chosen command.
//
// A subcommand registers itself with CLI11 and leaves a function in Command::run; main calls it
// once the whole command line is known. Failures are thrown, so that streams and partial files are
// cleaned up on the way out by their owners' destructors. The process has one thread.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace tarncli {

// Documented in docs/cli.md and in --help: scripts rely on them.
enum class Exit {
  kSuccess = 0,
  kFailure = 1,
  kUsage = 2,
  kFile = 3,
  kRefused = 4,
  kBusy = 5,
  kNoSpace = 6,
  kTranscoder = 7,
  kProof = 8,  // segments depend on the run that made them
};

extern const char kExitStatusHelp[];

struct Failure {
  Exit status;
  std::string message;  // one line for people, "FILE: reason" where a file is to blame
  std::string word;     // the engine's error word where it has one
};

// SIGINT, SIGTERM or SIGHUP ended the command.
struct Interrupted {
  int signal;
};

// The failure for an engine's error word ("" where it gave none) about `subject`.
Failure RefusedBy(const std::string& word, const std::string& subject);
// What an error word means, for people; empty for an unknown word.
std::string ExplainWord(const std::string& word);
// The word that the JSON form of a failure carries.
std::string FailureWord(const Failure& failure);

struct Command {
  std::function<Exit()> run;
  bool json = false;     // failures are also printed as a JSON object on standard output
  bool verbose = false;  // the engine's log goes to standard error
};

void AddProbe(CLI::App& app, Command& command);
void AddPlan(CLI::App& app, Command& command);
void AddStream(CLI::App& app, Command& command);
void AddPlaylist(CLI::App& app, Command& command);
void AddSegment(CLI::App& app, Command& command);
void AddManifest(CLI::App& app, Command& command);
void AddFragment(CLI::App& app, Command& command);
void AddAnalyze(CLI::App& app, Command& command);
void AddRegistry(CLI::App& app, Command& command);
void AddDoctor(CLI::App& app, Command& command);
void AddServe(CLI::App& app, Command& command);
// Of the server's own processes: not for people.
void AddServeWorker(CLI::App& app, Command& command);

}  // namespace tarncli
