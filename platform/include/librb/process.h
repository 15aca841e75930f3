// Process library: what the engine needs of a host to run programs.
//
// Threads: none of it may be used by two threads at once; everything forks, so callers are
// single-threaded processes. Nothing goes through a shell.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace librb {

// Runs `action` with the effective user and group switched to root, switches back, and returns the
// action's result. False without running it when the switch fails. `name` labels the host's log.
bool DoActionAsRoot(const std::string& name, const std::function<bool()>& action);

// One child process from an argument vector (argv[0] is the program's path, executed as it is, never
// searched for). It is started by ProcessPipeline::Run, or by Start.
//
// What the child inherits: standard input as given, standard output and error null unless redirected
// by Stdout() of another process, the one pipe named by a "pipe:N" or "fd:N" argument above 2, default
// signal handlers, an empty signal mask, and a clean environment. It is killed when its parent ends.
class Subprocess {
 public:
  // Where standard input comes from.
  class Input {
   public:
    // Nothing: end of file at once.
    static Input Null();

   private:
    friend class Subprocess;
    Subprocess* source_ = nullptr;  // null: nothing; else the process whose output is read
  };

  Subprocess(std::vector<std::string> argv, const Input& input);
  virtual ~Subprocess();
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;

  // An input that reads this process's standard output through a pipe. Both processes must then run
  // in one pipeline; this object must outlive the reader's start.
  Input Stdout();

  // Starts the child. False when it could not be forked or its program not be executed (the reason is
  // logged); nothing is then left running.
  bool Start();

  // The child's pid while it runs and until it was waited for; 0 otherwise.
  pid_t pid() const { return pid_; }

 protected:
  // Runs in the child just before the program is executed; false ends the child with status 1.
  virtual bool BeforeExec();
  // Runs in the parent after the child was reaped, with its pid.
  virtual void OnEnd(pid_t pid);

 private:
  friend class ProcessPipeline;

  std::vector<std::string> argv_;
  Subprocess* source_;         // whose standard output is our input
  int stdout_read_ = -1;       // read end of the pipe from our standard output
  bool stdout_wanted_ = false;
  pid_t pid_ = 0;
};

// A transcoder: a Subprocess that asks `load_check` in the child just before the program is executed
// (the check registers the calling process as the transcoder) and calls `on_end` in the parent once
// the child was reaped.
class SubprocessTranscode : public Subprocess {
 public:
  SubprocessTranscode(std::vector<std::string> argv, const Input& input, void (*on_end)(int pid),
                      std::function<bool()> load_check);

 protected:
  bool BeforeExec() override;
  void OnEnd(pid_t pid) override;

 private:
  void (*on_end_)(int);
  std::function<bool()> load_check_;
};

// The same for the GStreamer launcher.
class SubprocessTranscodeGstreamer : public SubprocessTranscode {
 public:
  using SubprocessTranscode::SubprocessTranscode;
};

// Processes in order, joined by their inputs.
class ProcessPipeline {
 public:
  ProcessPipeline();
  ~ProcessPipeline();
  ProcessPipeline(const ProcessPipeline&) = delete;
  ProcessPipeline& operator=(const ProcessPipeline&) = delete;

  void AddProcess(std::unique_ptr<Subprocess> process);

  // Starts them in order and waits for all of them. SIGINT and SIGTERM that arrive meanwhile are
  // forwarded to every running process; one that ignores them gets SIGTERM after 3 s and SIGKILL
  // after 5 s. When one cannot be started the others are stopped. On return nothing that was started
  // is alive, every end was reported, and the caller's own handlers are back. True when all started
  // and exited with status 0.
  bool Run();

 private:
  std::vector<std::unique_ptr<Subprocess>> processes_;
};

}  // namespace librb
