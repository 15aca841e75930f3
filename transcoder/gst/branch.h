// One track's way from the source to the multiplexer, and what the run does to it on its way. All
// of it runs in GStreamer's threads.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "transcoder/gst/filler.h"
#include "transcoder/gst/handles.h"
#include "transcoder/gst/plan.h"
#include "transcoder/gst/timeline.h"

namespace tarn::gst {

// What both branches share; times since the source's start.
class RunTimes {
 public:
  int64_t start = 0;         // frames before it do not belong to the run
  int64_t written_from = 0;  // see WrittenFrom
  std::atomic<bool> stopping{false};

  // The run's first picture has this time; without one, sound begins at the start.
  void SetPicture(int64_t time);
  // The sound of this time belongs to the run. Waits for the first picture where it depends on that
  // one.
  bool SoundBelongs(int64_t time);

 private:
  std::mutex mutex_;
  std::condition_variable known_;
  std::optional<int64_t> sound_from_;
};

class Branch {
 public:
  Branch(GstElement* bin, const Options& options, const Plan& plan, RunTimes& times, bool is_video)
      : bin_(bin),
        options_(options),
        plan_(plan),
        times_(times),
        is_video_(is_video),
        filler_(options.video_bit_rate) {}
  Branch(const Branch&) = delete;
  Branch& operator=(const Branch&) = delete;

  // Makes the elements and links them between the source's pad and the multiplexer.
  // `reorders`: pictures come with decoding times, see TimeStamps::kDecoding.
  Failure Build(GstPad* from, GstElement* muxer, bool reorders);
  void Start();
  // So many packets have gone to the multiplexer.
  uint64_t packets() const { return packets_; }

 private:
  using Handler = GstPadProbeReturn (Branch::*)(GstPad*, GstPadProbeInfo*);

  template <Handler handler>
  void Watch(GstElement* element, const char* pad_name, int types);

  GstPadProbeReturn OnCoded(GstPad* pad, GstPadProbeInfo* info);
  GstPadProbeReturn OnPicture(GstPad* pad, GstPadProbeInfo* info);
  GstPadProbeReturn OnSound(GstPad* pad, GstPadProbeInfo* info);
  GstPadProbeReturn OnClock(GstPad* pad, GstPadProbeInfo* info);
  GstPadProbeReturn OnPacket(GstPad* pad, GstPadProbeInfo* info);
  GstPadProbeReturn OnBoxed(GstPad* pad, GstPadProbeInfo* info);
  void AddParameterSets(GstBuffer* packet);
  void Fill(GstBuffer* packet, int64_t time);
  void SetRunningTimes(GstBuffer* packet);
  void SetShownTime(GstPadProbeInfo* info);
  void SetPicture(GstEvent* event);
  void SetSound(GstEvent* event);
  void PushSilence(GstPad* pad, const SoundGrid::Fit& fit);
  int64_t SampleAt(int64_t time) const;
  GstClockTime TimeOfSample(int64_t sample) const;

  GstElement* bin_;
  const Options& options_;
  const Plan& plan_;
  RunTimes& times_;
  const bool is_video_;
  std::vector<GstElement*> elements_;  // the bin's
  GstElement* picture_ = nullptr;
  // Pictures.
  bool reorders_ = false;
  bool has_shown_times_ = false;  // a coded picture has said when it is shown
  std::mutex mutex_;
  std::deque<GstClockTime> decoding_times_;  // of pictures that have not come out yet
  std::deque<GstClockTime> shown_times_;     // of packets that the clock has not let out yet
  std::optional<int64_t> last_decoded_;
  std::optional<int64_t> last_picture_;  // of the run
  int64_t last_place_ = -1;
  bool has_key_ = false;
  // Sound.
  std::optional<SoundGrid> grid_;
  int rate_ = 0;
  size_t sample_size_ = 0;
  bool in_silence_ = false;
  // Packets.
  GstSegment packet_segment_ = {};
  FillerMeter filler_;
  std::mutex sets_mutex_;
  std::vector<uint8_t> parameter_sets_;  // for keyframes that have none; empty where all have
  std::atomic<int64_t> padding_{0};      // by which the encoder is late, in nanoseconds
  std::atomic<uint64_t> packets_{0};
  bool ended_ = false;
};

}  // namespace tarn::gst
