#include "hls_stream.h"

#include <algorithm>
#include <cstdio>

#include "folder_output.h"
#include "media_playlist.h"
#include "packet_reader.h"
#include "progress.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kPlaylistName[] = "index.m3u8";
constexpr char kSegmentNames[] = "slice-";

// From the first frame to the end of the last. MPEG-TS does not tell the durations of pictures, so
// the last one lasts as long as the others on average.
double LengthOf(const std::string& segment, const Interrupts& interrupts) {
  struct Track {
    unsigned frames = 0;
    double begin = 0;
    double last = 0;
    double End() const { return frames < 2 ? last : last + (last - begin) / (frames - 1); }
  };
  Track video;
  Track audio;
  ReadPackets(segment, interrupts, [&](const FilePacket& packet) {
    Track& track = packet.video ? video : audio;
    track.begin = track.frames == 0 ? packet.pts : std::min(track.begin, packet.pts);
    track.last = track.frames == 0 ? packet.pts : std::max(track.last, packet.pts);
    ++track.frames;
  });
  if (video.frames == 0) return audio.End() - audio.begin;
  if (audio.frames == 0) return video.End() - video.begin;
  return std::max(video.End(), audio.End()) - std::min(video.begin, audio.begin);
}

class Writer {
 public:
  Writer(HlsSession& session, FolderOutput& output, Progress& progress,
         const Interrupts& interrupts)
      : session_(session), output_(output), progress_(progress), interrupts_(interrupts) {}

  void WriteSegments() {
    for (int i = 0; i < session_.fragments(); ++i) {
      const std::string path = FetchTwice(i);
      if (path.empty()) {
        if (!session_.MayBeMissing(i)) session_.FailFor(i);
        return;
      }
      Add(path, i);
      position_ += session_.entries()[static_cast<size_t>(i)].duration;
      Report();
    }
    tail_ = session_.Tail(session_.fragments(), [this] { Report(); });
    if (!tail_.empty()) tail_length_ = LengthOf(tail_, interrupts_);
  }

  void WritePlaylist() {
    std::string text = WithAddresses(session_.Playlist(""), names_);
    if (!tail_.empty()) {
      Add(tail_, session_.fragments());
      text = WithEntry(text, {tail_length_, names_.back()});
    }
    output_.Write(text, kPlaylistName, interrupts_);
  }

  void Finish() {
    progress_.Finish(output_.folder(), bytes_, static_cast<uint64_t>(position_ * 1000));
  }

 private:
  // A run that died is replaced by another one from there, as for any client that asks again; one
  // that ended because there is no more makes nothing the second time either.
  std::string FetchTwice(int fragment) {
    const std::string path = session_.Fetch(fragment, [this] { Report(); });
    return path.empty() ? session_.Fetch(fragment, [this] { Report(); }) : path;
  }

  void Add(const std::string& path, int fragment) {
    names_.push_back(SegmentName(fragment));
    bytes_ += output_.Copy(path, names_.back(), interrupts_);
  }

  void Report() { progress_.Update(bytes_, static_cast<uint64_t>(position_ * 1000)); }

  HlsSession& session_;
  FolderOutput& output_;
  Progress& progress_;
  const Interrupts& interrupts_;
  std::vector<std::string> names_;
  std::string tail_;
  double tail_length_ = 0;
  double position_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace

Exit WriteHlsStream(HlsRequest request, const std::string& folder, bool verbose) {
  request.stream = WithProfile(request.stream);
  const Interrupts interrupts;
  HlsSession session(request, interrupts);
  FolderOutput output(folder);
  Progress progress(0, session.duration(), !verbose);
  Writer writer(session, output, progress, interrupts);
  writer.WriteSegments();
  writer.WritePlaylist();
  output.Commit(kSegmentNames);
  writer.Finish();
  return Exit::kSuccess;
}

}  // namespace tarncli
