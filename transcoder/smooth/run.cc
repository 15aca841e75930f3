#include "transcoder/smooth/run.h"

#include <optional>
#include <string_view>
#include <utility>

#include "transcoder/smooth/fragment_writer.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace tarn::smooth {
namespace {

using ffmpeg::kSmoothSoundRate;
using ffmpeg::kSmoothSoundSamples;
using ffmpeg::SmoothRun;
using media::MediaPacket;
using media::ReadResult;
using media::Track;

// Sound that is this far behind the picture has nothing to say at present.
constexpr Time kMostBehind = 10 * kTimePerSecond;
// A frame of silence: AAC-LC, two channels (ISO/IEC 14496-3). What goes before and what follows
// does not change it.
constexpr std::string_view kSilence("\x21\x10\x04\x60\x8c\x1c", 6);

// The grid of AAC frames, counted from the source's start.
Time TimeOfFrame(int64_t frame) {
  return (frame * kSmoothSoundSamples * kTimePerSecond + kSmoothSoundRate / 2) / kSmoothSoundRate;
}
int64_t FrameFrom(int64_t seconds) {
  return (seconds * kSmoothSoundRate + kSmoothSoundSamples - 1) / kSmoothSoundSamples;
}

std::string_view Bytes(const MediaPacket& packet) {
  return {reinterpret_cast<const char*>(packet.packet->data),
          static_cast<size_t>(packet.packet->size)};
}

class Run {
 public:
  Run(const ffmpeg::CommandLine& line, const SmoothRun& run, media::Encoder encoder,
      std::string& error)
      : line_(line),
        run_(run),
        encoder_(std::move(encoder)),
        error_(error),
        video_(TrackId::kVideo, run.output, run.video_bit_rate, Length(run)),
        audio_(TrackId::kAudio, run.output, run.audio_bit_rate, Length(run)),
        next_frame_(FrameFrom(static_cast<int64_t>(run.first * run.length_s))) {}

  bool Make() {
    if (MakeAll()) return true;
    // Before its pipe breaks, of which it would complain.
    encoder_.Stop();
    return false;
  }

 private:
  bool MakeAll() {
    return video_.Prepare(error_) && audio_.Prepare(error_) && Open() &&
           (behind_end_ || (HasVideo() && CopyAll() && encoder_.Succeeded(error_) && End()));
  }

  static Time Length(const SmoothRun& run) {
    return static_cast<Time>(run.length_s) * kTimePerSecond;
  }

  bool Open() {
    if (!encoder_.started() && !StartEncoder()) return false;
    if (encoder_.Open(source_, error_)) return true;
    // An encoder that fails has said why; behind the source's end it writes nothing at all.
    behind_end_ = encoder_.Succeeded(error_);
    return behind_end_;
  }

  bool HasVideo() {
    if (!source_.SelectTracks({}, true, true, error_)) return false;
    if (source_.video() == nullptr) {
      error_ = "there is no video";
      return false;
    }
    if (source_.video()->codecpar->codec_id != AV_CODEC_ID_H264) {
      error_ = "only H.264 goes into fragments";
      return false;
    }
    return true;
  }

  // ffmpeg is sent to a place from which decoding certainly reaches the start.
  bool StartEncoder() {
    const std::optional<int64_t> from =
        media::DecodeFrom(line_.input, ffmpeg::Maps(line_.output_options),
                          static_cast<double>(run_.first * run_.length_s), error_);
    return from &&
           encoder_.Start(ffmpeg::SmoothEncoderCommand(line_, error_, {from, false}), error_);
  }

  bool CopyAll() {
    for (;;) {
      MediaPacket packet;
      switch (source_.Read(packet, error_)) {
        case ReadResult::kError:
          return false;
        case ReadResult::kEnd:
          return true;
        case ReadResult::kPacket:
          if (!(packet.track == Track::kVideo ? AddPicture(packet) : AddSound(packet))) {
            return false;
          }
          break;
      }
    }
  }

  bool AddPicture(const MediaPacket& packet) {
    const Time time = source_.SinceStart(packet, kTimePerSecond);
    return video_.Add(run_.first, time, packet.key, ToSample(Bytes(packet)), error_) &&
           FillWithSilence(time - (source_.sound() != nullptr ? kMostBehind : 0));
  }

  // Sound that comes later than the silence in its place is too late.
  bool AddSound(const MediaPacket& packet) {
    const int64_t sample = source_.SinceStart(packet, kSmoothSoundRate);
    if (sample < 0) return true;
    const int64_t frame = (sample + kSmoothSoundSamples / 2) / kSmoothSoundSamples;
    if (frame < next_frame_) return true;
    return FillWithSilence(TimeOfFrame(frame)) && AddFrame(Bytes(packet));
  }

  // A client asks for sound wherever there is a picture.
  bool FillWithSilence(Time until) {
    while (TimeOfFrame(next_frame_) < until) {
      if (!AddFrame(kSilence)) return false;
    }
    return true;
  }

  bool AddFrame(std::string_view data) {
    return audio_.Add(run_.first, TimeOfFrame(next_frame_++), true, data, error_);
  }

  bool End() {
    if (video_.newest()) {
      const int64_t frame =
          av_rescale(*video_.newest(), run_.rate_num, run_.rate_den * kTimePerSecond);
      const Time end = av_rescale(frame + 1, run_.rate_den * kTimePerSecond, run_.rate_num);
      if (!video_.End(end, error_) || !FillWithSilence(end)) return false;
    }
    return audio_.End(TimeOfFrame(next_frame_), error_);
  }

  const ffmpeg::CommandLine& line_;
  const SmoothRun& run_;
  media::Encoder encoder_;
  std::string& error_;
  media::MediaSource source_;
  bool behind_end_ = false;
  FragmentWriter video_;
  FragmentWriter audio_;
  int64_t next_frame_;  // of the sound
};

}  // namespace

bool MakeFragments(const ffmpeg::CommandLine& line, const SmoothRun& run, media::Encoder encoder,
                   std::string& error) {
  return Run(line, run, std::move(encoder), error).Make();
}

}  // namespace tarn::smooth
