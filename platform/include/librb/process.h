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

class SubprocessState;  // the host's own

// Runs `action` with the effective user and group switched to root, switches back, and returns the
// action's result; an exception of the action passes through after the way back. False without
// running it when the switch fails. `name` labels the host's log.
bool DoActionAsRoot(const std::string& name, const std::function<bool()>& action);

// One child process from an argument vector, started by ProcessPipeline::Run. argv[0] is the
// program's absolute path, executed as it is, never searched for.
//
// What the child inherits: standard input as given; standard output null unless another process
// reads it through Stdout(); standard error null; the one pipe named by an argument "pipe:N" or
// "fd:N" with N above 2 (the last one counts); the effective user and group of the caller, as real
// ones too; default signal handlers and an empty signal mask; umask 022; of the environment PATH,
// HOME and TARN_CODEC_PKG_NAME. It is killed when its parent ends, however that happens.
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

  // An input that reads this process's standard output through a pipe. The reader must be added
  // after this process to the same pipeline.
  Input Stdout();

 protected:
  // Runs in the child just before the program is executed, with every signal blocked; false (or an
  // exception) ends the child with status 1, and then it counts as not started.
  virtual bool BeforeExec();
  // Runs in the parent after the child was reaped, with its pid; also when its program could not be
  // executed.
  virtual void OnEnd(pid_t pid);

 private:
  friend class ProcessPipeline;

  std::unique_ptr<SubprocessState> state_;
};

// A transcoder: a Subprocess that asks `load_check` in the child just before the program is
// executed (the check registers the calling process as the transcoder) and calls `on_end` in the
// parent once the child was reaped. Either may be empty.
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

  // Starts the processes in order, each once the one before it executes its program, and waits for
  // all of them. SIGINT and SIGTERM that arrive meanwhile are forwarded to every running process;
  // one that still runs 3 s after the first of them gets SIGTERM, and SIGKILL after 5 s. When a
  // process cannot be started (the reason is logged) no further one is, and the running ones are
  // stopped as by a SIGTERM. On return nothing that was started is alive, every end was reported,
  // and the caller's own handlers and mask are back. True when all were started and exited with
  // status 0; a status that the caller's ignored SIGCHLD hides counts as 0. A pipeline runs once.
  bool Run();

 private:
  std::vector<std::unique_ptr<Subprocess>> processes_;
};

}  // namespace librb
