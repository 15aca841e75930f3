#include "transcoder/smooth/fragment.h"

#include "transcoder/media/nal_units.h"

namespace tarn::smooth {
namespace {

// Sample flags (ISO/IEC 14496-12, 8.8.3.1): depends on no other sample; depends on others and is no
// place to begin.
constexpr uint32_t kIndependent = 0x02000000;
constexpr uint32_t kDependent = 0x01010000;

// Flags of the track fragment and track run boxes: which fields are there.
constexpr uint32_t kDefaultSampleFlags = 0x000020;
constexpr uint32_t kDataOffset = 0x000001;
constexpr uint32_t kSampleDuration = 0x000100;
constexpr uint32_t kSampleSize = 0x000200;
constexpr uint32_t kSampleFlags = 0x000400;

constexpr uint32_t kVersion1 = 1u << 24;
// The box with a fragment's absolute time and duration ([MS-SSTR], 2.2.4.4).
constexpr std::string_view kTimeBoxId(
    "\x6d\x1d\x9b\x05\x42\xd5\x44\xe6\x80\xe2\x14\x1d\xaf\xf7\x57\xb2", 16);
constexpr size_t kBoxHeader = 8;
constexpr int kUnregisteredUserData = 5;

void Put32(std::string& to, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) to.push_back(static_cast<char>(value >> shift));
}

void Put64(std::string& to, uint64_t value) {
  Put32(to, static_cast<uint32_t>(value >> 32));
  Put32(to, static_cast<uint32_t>(value));
}

std::string Box(std::string_view type, std::string_view content) {
  std::string box;
  Put32(box, static_cast<uint32_t>(kBoxHeader + content.size()));
  return box.append(type).append(content);
}

}  // namespace

Fragment::Fragment(TrackId track, uint32_t number) : track_(track), number_(number) {}

void Fragment::Add(Time time, bool key, std::string_view data) {
  samples_.push_back({time, static_cast<uint32_t>(data.size()), key});
  data_ += data;
}

std::string Fragment::Head(Time end) const {
  // Counted from 1, and the same whichever run makes the fragment.
  std::string sequence;
  Put32(sequence, 0);
  Put32(sequence, number_ + 1);

  std::string track;
  Put32(track, kDefaultSampleFlags);
  Put32(track, static_cast<uint32_t>(track_));
  Put32(track, track_ == TrackId::kVideo ? kDependent : kIndependent);

  // Not of [MS-SSTR], but readers of any movie fragments look here for the time.
  std::string decode_time;
  Put32(decode_time, kVersion1);
  Put64(decode_time, static_cast<uint64_t>(samples_.front().time));

  std::string times;
  times.append(kTimeBoxId);
  Put32(times, kVersion1);
  Put64(times, static_cast<uint64_t>(samples_.front().time));
  Put64(times, static_cast<uint64_t>(end - samples_.front().time));

  const bool flags = track_ == TrackId::kVideo;
  std::string run_start;
  Put32(run_start, kDataOffset | kSampleDuration | kSampleSize | (flags ? kSampleFlags : 0));
  Put32(run_start, static_cast<uint32_t>(samples_.size()));
  std::string run;
  for (size_t i = 0; i < samples_.size(); ++i) {
    const Time next = i + 1 < samples_.size() ? samples_[i + 1].time : end;
    Put32(run, static_cast<uint32_t>(next - samples_[i].time));
    Put32(run, samples_[i].size);
    if (flags) Put32(run, samples_[i].key ? kIndependent : kDependent);
  }

  const auto movie_fragment = [&](uint32_t data_offset) {
    std::string offset;
    Put32(offset, data_offset);
    return Box("moof",
               Box("mfhd", sequence) +
                   Box("traf", Box("tfhd", track) + Box("tfdt", decode_time) +
                                   Box("trun", run_start + offset + run) + Box("uuid", times)));
  };
  // Counted from the start of this box.
  const size_t offset = movie_fragment(0).size() + kBoxHeader;
  std::string head = movie_fragment(static_cast<uint32_t>(offset));
  Put32(head, static_cast<uint32_t>(kBoxHeader + data_.size()));
  return head.append("mdat");
}

std::string ToSample(std::string_view access_unit) {
  std::string sample;
  const auto* begin = reinterpret_cast<const uint8_t*>(access_unit.data());
  media::ForEachNalUnit(begin, begin + access_unit.size(), [&](const media::NalUnit& unit) {
    const int type = unit.type();
    const std::string_view bytes(reinterpret_cast<const char*>(unit.begin), unit.end - unit.begin);
    const bool own_word =
        type == media::kSupplement && bytes.size() > 1 && bytes[1] == kUnregisteredUserData;
    if (type != media::kSequenceParameterSet && type != media::kPictureParameterSet &&
        type != media::kDelimiter && !own_word) {
      Put32(sample, static_cast<uint32_t>(bytes.size()));
      sample += bytes;
    }
    return true;
  });
  return sample;
}

}  // namespace tarn::smooth
