// C utility library: programs, processes, small files and the per-thread error code.
#pragma once

#include <sys/types.h>

#include <cstddef>

extern "C" {

// Runs a program (absolute path, no shell) with up to four arguments (null for those not needed),
// waits, and returns its exit status, or -1 when it could not be run or was killed.
int QLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4);
// The same from a null-terminated vector whose first element is the program's path. `flags` is 0.
int QLIBCExecv(const char* path, const char* const argv[], int flags);

// 1 when a file exists, 0 otherwise.
int QLIBCFileExist(const char* path);
// 1 when a directory exists, 0 when something else or nothing does, -1 on error.
int QLIBCFileCheckDir(const char* path);
// Reads one key of a file of KEY="VALUE" lines (quotes optional, '#' starts a comment). Returns the
// value's length, 0 when the key is missing, -1 when the file cannot be read. `flags` is 0.
int QLIBCFileGetKeyValue(const char* path, const char* key, char* value, size_t size, int flags);

// Forks. Returns -1 on failure, 1 in the caller, 0 in the child. With the detached mode
// (QLIBC_FORK_DETACHED, 65) the child is nobody's child: it leads a session of its own, is never a
// zombie of the caller, and its standard streams are null. Signal handlers are back at their defaults
// and the mask is empty in the child.
enum { QLIBC_FORK_DETACHED = 65 };
int QLIBCProcForkEx(int flags);
// QLIBCProcForkEx(QLIBC_FORK_DETACHED).
int QLIBCProcForkChildNoWait(void);
// Non-zero when a process with that pid exists and is not a zombie.
int QLIBCProcAlive(int pid);
// The pid in a pid file; 0 or less when there is none that may be signalled.
int QLIBCReadPidFile(const char* path);

// The calling thread's error code, and where it was set.
int QLIBCErrGet(void);
void QLIBCErrSetEx(int code, const char* file, int line);

// Creates a directory and its parents. 0 on success or when it exists as a directory, -1 otherwise.
int TARNFSMkdirP(const char* path, mode_t mode);

}  // extern "C"
