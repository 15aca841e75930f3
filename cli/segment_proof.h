// The proof that it does not matter which run of the transcoder made a segment: pure functions over
// the packets of segments, as an independent reader sees them.
//
// All times are seconds since the container's start (the stamps of the files without their lead of
// 1.4 s). A run is named by the fragment that it began at; the run from 0 is the one that the
// others are compared with.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tarncli {

struct Packet {
  bool video = false;  // else audio
  bool key = false;
  double pts = 0;
  double dts = 0;
  double duration = 0;  // 0: unknown
  uint64_t size = 0;
};

struct Segment {
  int fragment = 0;
  int run = 0;
  std::vector<Packet> packets;  // as they lie in the file
  std::string complaint;        // what the reader said, when it read the file alone
};

// What the source holds. Without frames (their times are not known) the proof makes do with less.
struct SourceFrames {
  std::vector<double> all;                             // ascending
  std::vector<double> keys;                            // ascending, a subset of `all`
  std::vector<std::pair<double, double>> audio_holes;  // where the source itself has no audio
};

struct Timeline {
  bool copied = false;         // the video's packets are the source's
  bool planned = false;        // fragments begin at keyframes of the source
  std::vector<double> places;  // where each fragment begins, and behind them the end of the last
  SourceFrames source;
};

struct Flaw {
  int fragment;
  int run;
  std::string check;    // one word, for programs
  std::string message;  // one line, for people
};

using Flaws = std::vector<Flaw>;

// One segment by itself: readable, begins with a keyframe and where the playlist says, and misses
// or repeats nothing in between.
Flaws CheckSegment(const Segment& segment, const Timeline& timeline);
// The same fragment from two runs.
Flaws CompareRuns(const Segment& reference, const Segment& other, const Timeline& timeline);
// Neighbours, from whichever runs: no frame lost or doubled, audio continuous to one audio frame.
Flaws CheckSeam(const Segment& left, const Segment& right, const Timeline& timeline);
// Copied video, the whole run from 0: every frame of the source is there once.
Flaws CheckAgainstSource(const std::vector<Segment>& reference, const Timeline& timeline);
// The durations that the playlist gives are the distances of the places.
Flaws CheckPlaylist(const std::vector<double>& durations, const Timeline& timeline);

// All of it. `reference` is the run from 0, one segment for each fragment from 0 on; `others` are
// segments of other runs, in any order.
Flaws Prove(const std::vector<Segment>& reference, const std::vector<Segment>& others,
            const Timeline& timeline);

// Adds the multiple of the 33-bit clock's period (26.5 h) that brings a segment's stamps to its
// place.
void Unwrap(Segment& segment, double place);

// Which fragments to begin runs at: all of a few, else the first and the last two and neighbours
// that `seed` chooses. Ascending.
std::vector<int> ChooseStarts(int fragments, unsigned seed);

}  // namespace tarncli
