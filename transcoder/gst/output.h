// Where a run writes.
#pragma once

#include <string>

#include "base/unique_fd.h"
#include "transcoder/gst/options.h"
#include "transcoder/gst/status.h"

namespace tarn::gst {

class Output {
 public:
  // A descriptor is taken over at once, so that nothing else can write into it; a file is made by
  // Open, once it is certain that there is something to write.
  Failure Take(const Options& options);
  Failure Open(const Options& options);
  int fd() const { return fd_.get(); }
  // Everything was written; the last chance for the system to say that it was not.
  Failure Finish();
  // Removes a file that was made.
  void Discard();

 private:
  UniqueFd fd_;
  std::string made_;
};

}  // namespace tarn::gst
