// C utility library: programs, processes, small files and the per-thread error code.
#pragma once

#include <sys/types.h>

#include <cstddef>

extern "C" {

// Runs a program (absolute path, no shell) with up to four arguments (the first null one ends the
// list), waits, and returns its exit status, or -1 when it could not be run or was killed. The
// program's standard streams are null, and it inherits what a librb::Subprocess does. An exit
// status that the caller's ignored SIGCHLD hides counts as 0.
int QLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4);
// The same from a null-terminated vector whose first element is the program's name. `flags` is 0.
int QLIBCExecv(const char* path, const char* const argv[], int flags);

// 1 when a file of any kind exists (links are followed), 0 otherwise.
int QLIBCFileExist(const char* path);
// 1 when a directory exists, 0 when something else or nothing does, -1 when that cannot be told.
int QLIBCFileCheckDir(const char* path);
// Reads one key of a file of KEY="VALUE" lines (quotes optional; '#' outside quotes starts a
// comment; the first line of a key counts). Returns the value's length, 0 when the key is missing
// or its value empty, -1 when the file cannot be read or the value does not fit into `size` bytes
// with its terminating NUL. `value` is empty unless the result is positive. `flags` is 0.
int QLIBCFileGetKeyValue(const char* path, const char* key, char* value, size_t size, int flags);

// Forks. Returns -1 on failure, 1 in the caller, 0 in the child. The only mode is the detached one:
// the child is nobody's child, leads a session of its own, is never a zombie of the caller, and
// outlives it. Its standard streams are null, its signal handlers are back at their defaults and
// its mask is empty; every other descriptor stays open.
enum { QLIBC_FORK_DETACHED = 65 };
int QLIBCProcForkEx(int flags);
// QLIBCProcForkEx(QLIBC_FORK_DETACHED).
int QLIBCProcForkChildNoWait(void);
// Non-zero when a process with that pid exists and is not a zombie.
int QLIBCProcAlive(int pid);
// The pid in a pid file; 0 or less when there is none that may be signalled.
int QLIBCReadPidFile(const char* path);

// The calling thread's error code. `file` and `line` say where it was set, for hosts that trace.
int QLIBCErrGet(void);
void QLIBCErrSetEx(int code, const char* file, int line);

// Creates a directory and its missing parents with exactly that mode. 0 on success or when it
// exists as a directory, -1 otherwise.
int TARNFSMkdirP(const char* path, mode_t mode);

}  // extern "C"
