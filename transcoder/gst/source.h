// The file of a run: opened, taken apart, searched for the start, its time stamps brought onto the
// source's own timeline.
//
// GStreamer calls back from its own threads; the public operations are for one thread, which learns
// from a message on the bus that something has changed.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "transcoder/gst/handles.h"
#include "transcoder/gst/plan.h"
#include "transcoder/gst/status.h"

namespace tarn::gst {

class Source {
 public:
  // `bin` gets the elements, its bus the messages; both outlive the source.
  explicit Source(GstElement* bin) : bin_(bin) {}
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  // Finds out what the file is and begins to read it. `audio_index` chooses among the audio tracks.
  Failure Open(const std::string& path, uint64_t audio_index);

  // The tracks are known, and where they begin.
  bool Discovered();
  // What went wrong in one of GStreamer's threads.
  Failure failure();
  Tracks tracks();

  // Goes on reading at the keyframe before a time since the source's start. False where the file
  // cannot be searched.
  bool Seek(int64_t time);
  // The first keyframe behind the last Seek, or of all, has come, or the video has ended without.
  bool FirstKeyKnown();
  // The video has been read up to a time, or to its end; asking makes it read that far.
  bool ReadUpTo(int64_t time);
  // The last keyframe that has come and lies at or before a time.
  std::optional<int64_t> KeyBefore(int64_t time);

  // Where the chosen tracks come out; null where there is none. Nothing comes before Release. Time
  // stamps are then times since the source's start plus kLeadNs, and running times as well.
  GstPad* video() { return video_ == nullptr ? nullptr : video_->out.get(); }
  GstPad* audio() { return audio_ == nullptr ? nullptr : audio_->out.get(); }
  void Release();
  TimeStamps times() const { return reader_.times; }

 private:
  struct Track {
    Source* source = nullptr;
    bool is_video = false;
    StreamType type;
    GstSegment segment;            // of what comes from the demuxer
    std::optional<int64_t> first;  // on the demuxer's timeline, likewise below
    int64_t newest = INT64_MIN;
    bool ended = false;
    std::string orientation;
    // Of the chosen ones.
    ObjectPtr<GstPad> in;
    ObjectPtr<GstElement> queue;
    ObjectPtr<GstPad> out;
    gulong block = 0;
    GstSegment out_segment;
  };

  static void OnPadAdded(GstElement*, GstPad* pad, gpointer self);
  static void OnNoMorePads(GstElement*, gpointer self);
  static void OnQueueLevel(GstElement*, gpointer track);
  static GstPadProbeReturn OnInput(GstPad*, GstPadProbeInfo* info, gpointer track);
  static GstPadProbeReturn OnParsed(GstPad*, GstPadProbeInfo* info, gpointer track);
  static GstPadProbeReturn OnOutput(GstPad*, GstPadProbeInfo* info, gpointer track);

  void AddTrack(GstPad* pad);
  void Choose(Track& track, GstPad* pad);
  void NoteEvent(Track& track, GstEvent* event);
  void NoteBuffer(Track& track, const GstBuffer* buffer);
  GstPadProbeReturn MapEvent(Track& track, GstPadProbeInfo* info);
  int64_t TimeIn(const GstSegment& segment, GstClockTime time) const;
  GstClockTime Mapped(const Track& track, GstClockTime time) const;
  bool Settled() const;
  void FindOrigin();
  void LetReadersOn();
  void Wake();

  GstElement* bin_;
  FileReader reader_;
  uint64_t audio_index_ = 0;
  std::mutex mutex_;
  std::deque<Track> tracks_;
  Track* video_ = nullptr;
  Track* audio_ = nullptr;
  size_t audio_count_ = 0;
  bool no_more_pads_ = false;
  bool flush_awaited_ = false;
  bool released_ = false;
  // Of the video since the last Seek, on the demuxer's timeline.
  std::vector<int64_t> keys_;
  int64_t parsed_ = INT64_MIN;
  bool reading_ahead_ = false;  // somebody waits for more of the video to come
  bool some_timed_ = false;     // a picture of the video had a time at which it is shown
  int64_t origin_ = 0;          // the source's start on it
  bool origin_known_ = false;
  Failure failure_;
};

}  // namespace tarn::gst
