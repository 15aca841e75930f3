// A media file or pipe, read packet by packet with time stamps in ticks since its start.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "transcoder/media/picture_order.h"
#include "transcoder/media/ticks.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace tarn::media {

struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, FreePacket>;

enum class Track { kVideo, kSound };

struct MediaPacket {
  PacketPtr packet;
  Track track = Track::kVideo;
  bool key = false;
  Ticks pts = 0;
  Ticks dts = 0;
  double seconds = 0;  // the source's own time stamp, as it stands in the file
};

enum class ReadResult { kPacket, kEnd, kError };

// libavutil's text for its negative error code.
std::string ErrorText(int code);

class MediaSource {
 public:
  MediaSource();
  ~MediaSource();
  MediaSource(const MediaSource&) = delete;
  MediaSource& operator=(const MediaSource&) = delete;

  // Each opens the source once. False, with one line in `error`, on failure.

  // A file; `formats` is a list of demuxers for libavformat's "format_whitelist".
  bool OpenFile(const std::string& path, const char* formats, std::string& error);
  // The encoder's output. The descriptor stays the caller's. `offset` seconds are taken off every
  // time stamp.
  bool OpenEncoder(int fd, int offset, std::string& error);
  // Another transcoder's MPEG-TS on standard input, which begins at `start`.
  bool OpenTransport(int fd, Ticks start, std::string& error);

  // Chooses the tracks by the words behind "-map" ("0:N", or "0" for the first of each kind);
  // without any, the first of each kind. Either may be left out.
  bool SelectTracks(const std::vector<std::string>& maps, bool video, bool sound,
                    std::string& error);
  // The tracks that `maps` name, as above, hold sound.
  bool HasSound(const std::vector<std::string>& maps) const;
  // Null when there is none.
  const AVStream* video() const;
  const AVStream* sound() const;

  // The source's start, in its own seconds.
  double OriginSeconds() const;

  // A packet's presentation time since the source's start, in parts of a second.
  int64_t SinceStart(const MediaPacket& packet, int parts) const;

  // The next packet of a chosen track, in the source's order. `error` is set for kError.
  ReadResult Read(MediaPacket& result, std::string& error);
  // Goes on reading at or before a time of the video, given in the source's own seconds.
  bool Seek(double seconds);

 private:
  struct Io;

  std::vector<const AVStream*> Mapped(const std::vector<std::string>& maps) const;
  bool Open(const char* name, const AVInputFormat* format, AVDictionary* options, bool probe,
            std::string& error);
  ReadResult ReadRaw(PacketPtr& packet, std::string& error);
  bool HeadIsReady() const;
  ReadResult Fetch(std::string& error);
  void NextDts(AVPacket& packet);
  void FindOrder(const AVPacket& first);
  int64_t Rescale(const AVStream& stream, int64_t timestamp, int parts) const;
  void Finish(MediaPacket& result, PacketPtr packet, int64_t dts) const;
  void FillDts();

  std::unique_ptr<Io> io_;
  AVFormatContext* context_ = nullptr;
  int video_ = -1;
  int sound_ = -1;
  Ticks origin_ = 0;               // taken off every time stamp
  int offset_ = 0;                 // seconds that an encoder's output is shifted by
  std::deque<PacketPtr> waiting_;  // read, but not all their times are known
  bool dts_known_ = false;
  size_t without_dts_ = 0;        // packets of the video so far
  bool own_dts_ = false;          // the encoder's container keeps no decoding times
  std::multiset<int64_t> shown_;  // presentation times that no decoding time is made of yet
  bool order_sought_ = false;
  std::unique_ptr<PictureOrder> order_;  // where the source has no presentation times
  bool at_end_ = false;
};

}  // namespace tarn::media
