// Writes the fragments of one track, one file after the other.
//
// A fragment gets its name by a rename when it is whole. Until then the file that it will be stands
// beside it, empty, as "NAME.part": so whoever waits for fragment n sees that n + 1 was begun.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "transcoder/media/unfinished_file.h"
#include "transcoder/smooth/fragment.h"

namespace tarn::smooth {

class FragmentWriter {
 public:
  // `output` is the presentation's folder, `bit_rate` names the track's, `length` is a fragment's.
  FragmentWriter(TrackId track, const std::string& output, uint64_t bit_rate, Time length);

  // Each returns false, with one line in `error`, when something cannot be written.

  // Makes the folders.
  bool Prepare(std::string& error);
  // The next sample, which belongs to the fragment in whose span it begins. What comes before
  // fragment `first` is dropped, and so is what is not later than the sample before.
  bool Add(uint64_t first, Time time, bool key, std::string_view data, std::string& error);
  // No sample follows; the last one lasts until `end`.
  bool End(Time end, std::string& error);

  // When the newest sample begins; nothing before the first one.
  std::optional<Time> newest() const { return newest_; }

 private:
  bool Begin(uint64_t number, std::string& error);
  bool Finish(Time end, std::string& error);

  const TrackId track_;
  const std::string output_;
  const std::string folder_;
  const Time length_;
  uint64_t number_ = 0;  // of the fragment in work
  std::optional<Fragment> fragment_;
  std::optional<Time> newest_;
  std::string name_;
  media::UnfinishedFile file_;
};

}  // namespace tarn::smooth
