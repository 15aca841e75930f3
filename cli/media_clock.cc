#include "media_clock.h"

#include <algorithm>
#include <string_view>

namespace tarncli {
namespace {

constexpr std::string_view kMatroskaStart = "\x1a\x45\xdf\xa3";
constexpr std::string_view kAsfStart = "\x30\x26\xb2\x75";
constexpr char kSyncByte = 0x47;

constexpr size_t kPiece = 1024;

constexpr size_t kTsPacket = 188;

// The header object's length stands behind its identifier; the data object's own head and, in the
// file properties, the packets' length lie at fixed places.
constexpr size_t kAsfSizeAt = 16;
constexpr size_t kAsfDataHead = 50;
constexpr std::string_view kAsfFileProperties = "\xa1\xdc\xab\x8c\x47\xa9\xcf\x11\x8e\xe4";
constexpr size_t kAsfPacketSizeAt = 92;
constexpr size_t kAsfLongestHeader = 1 << 20;
constexpr size_t kAsfLongestPacketHead = 32;

unsigned Byte(std::string_view text, size_t at) { return static_cast<unsigned char>(text[at]); }

uint64_t LittleEndian(std::string_view text, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = size; i-- > 0;) value = value << 8 | Byte(text, at + i);
  return value;
}

// The presentation time, in milliseconds, of the picture or sound that begins in a packet.
std::optional<uint64_t> TransportTime(std::string_view packet) {
  const bool begins = (Byte(packet, 1) & 0x40) != 0;
  const unsigned fields = Byte(packet, 3) >> 4 & 3;
  if (!begins || (fields & 1) == 0) return std::nullopt;
  const size_t at = 4 + ((fields & 2) != 0 ? 1 + Byte(packet, 4) : 0);
  constexpr size_t kHeadWithTime = 14;
  if (at + kHeadWithTime > packet.size()) return std::nullopt;
  const bool media = packet.substr(at, 3) == std::string_view("\0\0\1", 3) &&
                     (Byte(packet, at + 3) == 0xbd || Byte(packet, at + 3) >= 0xc0);
  if (!media || (Byte(packet, at + 7) & 0x80) == 0) return std::nullopt;
  const auto field = [&](size_t i) { return uint64_t{Byte(packet, at + 9 + i)}; };
  const uint64_t ticks = (field(0) >> 1 & 7) << 30 | field(1) << 22 | field(2) >> 1 << 15 |
                         field(3) << 7 | field(4) >> 1;
  return ticks / 90;
}

// How long a field is whose length two bits of the flags tell.
size_t FieldLength(unsigned flags, unsigned shift) {
  const unsigned code = flags >> shift & 3;
  return code == 3 ? 4 : code;
}

// The time at which a packet is to be sent, in milliseconds.
std::optional<uint64_t> AsfTime(std::string_view packet) {
  size_t at = 0;
  if ((Byte(packet, 0) & 0x80) != 0) at = 1 + (Byte(packet, 0) & 0x0f);
  const unsigned flags = Byte(packet, at);
  at += 2 + FieldLength(flags, 5) + FieldLength(flags, 1) + FieldLength(flags, 3);
  if (at + 4 > packet.size()) return std::nullopt;
  return LittleEndian(packet, at, 4);
}

}  // namespace

void MediaClock::Feed(const char* data, size_t size) {
  if (container_ == Container::kOther) return;
  if (container_ == Container::kMatroska) {
    // In pieces that hold one time stamp at most, or the first would be lost.
    for (size_t at = 0; at < size; at += kPiece) {
      clusters_.Feed(data + at, std::min(kPiece, size - at));
      if (const auto now = clusters_.milliseconds()) Note(*now);
    }
    return;
  }
  window_.append(data, size);
  if (container_ == Container::kUnknown) Recognise();
  if (container_ == Container::kTransportStream) FeedTransportStream();
  if (container_ == Container::kAsf) FeedAsf();
}

std::optional<uint64_t> MediaClock::elapsed() const {
  if (!first_) return std::nullopt;
  return newest_ - *first_;
}

void MediaClock::Note(uint64_t milliseconds) {
  if (!first_) {
    first_ = milliseconds;
    newest_ = milliseconds;
  }
  newest_ = std::max(newest_, milliseconds);
}

void MediaClock::Recognise() {
  if (window_.size() < kAsfStart.size()) return;
  if (window_.starts_with(kMatroskaStart)) {
    container_ = Container::kMatroska;
    const std::string start = std::move(window_);
    window_.clear();
    Feed(start.data(), start.size());
  } else if (window_.starts_with(kAsfStart)) {
    container_ = Container::kAsf;
  } else {
    container_ = window_[0] == kSyncByte ? Container::kTransportStream : Container::kOther;
  }
}

void MediaClock::FeedTransportStream() {
  const std::string_view view = window_;
  size_t at = 0;
  while (at + kTsPacket <= view.size()) {
    if (view[at] != kSyncByte) {
      ++at;
      continue;
    }
    if (const auto time = TransportTime(view.substr(at, kTsPacket))) Note(*time);
    at += kTsPacket;
  }
  window_.erase(0, at);
}

void MediaClock::FeedAsf() {
  const std::string_view view = window_;
  size_t at = 0;
  if (packet_size_ == 0) {
    if (view.size() < kAsfSizeAt + 8) return;
    const uint64_t header = LittleEndian(view, kAsfSizeAt, 8);
    const size_t properties = view.substr(0, header).find(kAsfFileProperties);
    if (header <= kAsfLongestHeader && view.size() < header + kAsfDataHead) return;
    if (header > kAsfLongestHeader || properties == std::string_view::npos ||
        properties + kAsfPacketSizeAt + 4 > header) {
      container_ = Container::kOther;
      return;
    }
    packet_size_ = LittleEndian(view, properties + kAsfPacketSizeAt, 4);
    if (packet_size_ < kAsfLongestPacketHead) {
      container_ = Container::kOther;
      return;
    }
    at = header + kAsfDataHead;
  }
  for (; at + packet_size_ <= view.size(); at += packet_size_) {
    if (const auto time = AsfTime(view.substr(at, kAsfLongestPacketHead))) Note(*time);
  }
  window_.erase(0, at);
}

}  // namespace tarncli
