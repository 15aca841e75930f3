// Whether somebody still reads a pipe, asked without being one of its writers: whoever held a write
// end would keep the reader from seeing the end of file.
#pragma once

#include "base/unique_fd.h"

namespace tarn {

class PipeReaders {
 public:
  // Of the pipe that `fd`, either of its ends, belongs to. The descriptor may be closed afterwards.
  explicit PipeReaders(int fd);

  // No process has the read end open any more. False also where that cannot be told.
  bool Gone() const;

 private:
  UniqueFd pipe_;  // neither end: it only names the pipe
};

}  // namespace tarn
