// H.264 as MPEG-TS carries it: byte stream format, with parameter sets wherever decoding may begin.
#pragma once

#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavcodec/codec_par.h>
#include <libavcodec/packet.h>
}

namespace tarn::segmenter {

// Other codecs pass unchanged. The format is ITU-T H.264, Annex B.
class ParameterSets {
 public:
  ParameterSets() = default;
  ~ParameterSets();
  ParameterSets(const ParameterSets&) = delete;
  ParameterSets& operator=(const ParameterSets&) = delete;

  void SetStream(const AVCodecParameters& parameters);

  // Converts one packet. With `entry` decoding may begin here: parameter sets are put in front of a
  // packet that brings none (a source keeps them once, and its keyframes that are no IDR pictures
  // come without). 0, or libavutil's negative error code.
  int Convert(AVPacket* packet, bool entry);

 private:
  void Remember(const AVPacket& packet);

  bool h264_ = false;
  AVBSFContext* filter_ = nullptr;
  std::vector<uint8_t> sets_;  // the newest ones, in byte stream format
};

}  // namespace tarn::segmenter
