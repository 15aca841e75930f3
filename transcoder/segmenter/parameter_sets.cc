#include "transcoder/segmenter/parameter_sets.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "transcoder/media/nal_units.h"

extern "C" {
#include <libavcodec/defs.h>
}

namespace tarn::segmenter {
namespace {

using media::ForEachNalUnit;
using media::kDelimiter;
using media::kPictureParameterSet;
using media::kSequenceParameterSet;
using media::NalUnit;

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};

bool IsPicture(int type) { return type >= 1 && type <= 5; }

}  // namespace

ParameterSets::~ParameterSets() { av_bsf_free(&filter_); }

void ParameterSets::SetStream(const AVCodecParameters& parameters) {
  h264_ = parameters.codec_id == AV_CODEC_ID_H264;
  if (!h264_ || parameters.extradata_size < 1) return;
  const uint8_t* extradata = parameters.extradata;
  int size = parameters.extradata_size;
  // The ISO form begins with its version, the byte stream form with a start code.
  if (extradata[0] == 1 && av_bsf_alloc(av_bsf_get_by_name("h264_mp4toannexb"), &filter_) >= 0) {
    avcodec_parameters_copy(filter_->par_in, &parameters);
    if (av_bsf_init(filter_) < 0) {
      av_bsf_free(&filter_);
      return;
    }
    extradata = filter_->par_out->extradata;
    size = filter_->par_out->extradata_size;
  }
  sets_.assign(extradata, extradata + size);
}

// A stream may change its parameter sets on the way.
void ParameterSets::Remember(const AVPacket& packet) {
  std::vector<uint8_t> found;
  bool sequence = false;
  bool picture = false;
  ForEachNalUnit(packet.data, packet.data + packet.size, [&](const NalUnit& unit) {
    sequence = sequence || unit.type() == kSequenceParameterSet;
    picture = picture || unit.type() == kPictureParameterSet;
    if (unit.type() == kSequenceParameterSet || unit.type() == kPictureParameterSet) {
      found.insert(found.end(), std::begin(kStartCode), std::end(kStartCode));
      found.insert(found.end(), unit.begin, unit.end);
    }
    return !IsPicture(unit.type());
  });
  if (sequence && picture) sets_ = std::move(found);
}

int ParameterSets::Convert(AVPacket* packet, bool entry) {
  if (!h264_) return 0;
  if (filter_ != nullptr) {
    int status = av_bsf_send_packet(filter_, packet);
    if (status >= 0) status = av_bsf_receive_packet(filter_, packet);
    if (status < 0) return status;
  }
  if (!entry) return 0;
  Remember(*packet);
  bool present = false;
  size_t before = 0;  // bytes that stay in front: the access unit delimiter comes first
  ForEachNalUnit(packet->data, packet->data + packet->size, [&](const NalUnit& unit) {
    present = present || unit.type() == kSequenceParameterSet;
    if (unit.type() == kDelimiter) before = unit.end - packet->data;
    return !present && !IsPicture(unit.type());
  });
  if (present || sets_.empty()) return 0;
  const int added = static_cast<int>(sets_.size());
  AVBufferRef* buffer =
      av_buffer_alloc(static_cast<size_t>(packet->size) + added + AV_INPUT_BUFFER_PADDING_SIZE);
  if (buffer == nullptr) return AVERROR(ENOMEM);
  std::memcpy(buffer->data, packet->data, before);
  std::memcpy(buffer->data + before, sets_.data(), added);
  std::memcpy(buffer->data + before + added, packet->data + before, packet->size - before);
  std::memset(buffer->data + added + packet->size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  av_buffer_unref(&packet->buf);
  packet->buf = buffer;
  packet->data = buffer->data;
  packet->size += added;
  return 0;
}

}  // namespace tarn::segmenter
