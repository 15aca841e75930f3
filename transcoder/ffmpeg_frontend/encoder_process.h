// The distribution's ffmpeg as a child that writes into a pipe.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace tarn::ffmpeg {

// Starts `argv`, whose first element is the program's absolute path; its standard output is read
// from `read_end`, and its standard input is what is written into `filters`, unless that is null.
// It ends with this process, however that ends. Returns its pid, or -1 with one line in `error`.
pid_t StartEncoder(const std::vector<std::string>& argv, UniqueFd& read_end, UniqueFd* filters,
                   std::string& error);

}  // namespace tarn::ffmpeg
