// Whole small files: reading with a cap, and replacing so that a reader sees the old or the new
// text.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace tarn {

// open(2) with O_CLOEXEC, retried on EINTR.
int OpenRetry(const char* path, int flags, mode_t mode = 0);

// flock(2) with LOCK_SH or LOCK_EX on the file at `path` that `fd` has open. Waits at most 60 s:
// whoever may open the file may lock it for ever.
bool LockWithinMinute(int fd, const std::string& path, int operation);

// Opens `path`, creating it with `mode` where its directory exists, and takes an exclusive flock(2)
// on it, within 60 s; closing the descriptor gives it back. Not valid on failure, also where `path`
// is a link.
UniqueFd OpenLocked(const std::string& path, mode_t mode);

// pipe2(2) with O_CLOEXEC and both ends above 2, where no standard stream of a child lands on them.
bool OpenPipe(UniqueFd& read_end, UniqueFd& write_end);

// Writes all bytes, retried on EINTR and short writes.
bool WriteAll(int fd, std::string_view data);

// read(2), retried on EINTR.
ssize_t ReadRetry(int fd, void* buffer, size_t size);

// Reads up to `limit` bytes from the descriptor's position to its end. False on an error or when
// more than `limit` bytes are there.
bool ReadAll(int fd, size_t limit, std::string& data);

// Reads a whole file of at most `limit` bytes.
bool ReadWholeFile(const std::string& path, size_t limit, std::string& data);

// Replaces a regular (or missing) file, or a link, by a temporary file in the same directory and a
// rename; any other kind of file (a device) is written in place. Nothing of the old content is lost
// on failure.
bool ReplaceFile(const std::string& path, std::string_view data, mode_t mode);

// Rewrites the file behind `fd` in place, for a file whose inode is itself the lock. Space is
// reserved first, so that a full disk leaves the old content.
bool RewriteInPlace(int fd, std::string_view data);

}  // namespace tarn
