#include "transcoder/gst/asf_packet.h"

namespace tarn::gst {
namespace {

// How a packet's head is written: without error correction, length and padding as words of 16 bits,
// no sequence number, several payloads.
constexpr uint8_t kHead = 0x51;
// Where the two words lie, the least byte first: behind the head and a byte about the payloads.
constexpr size_t kLengthAt = 2;
constexpr size_t kPaddingAt = 4;
constexpr size_t kHeadEnd = 6;

size_t Word(std::span<const uint8_t> packet, size_t at) {
  return packet[at] | static_cast<size_t>(packet[at + 1]) << 8;
}

}  // namespace

bool CountPadding(std::span<uint8_t> packet) {
  if (packet.size() < kHeadEnd || packet.size() > UINT16_MAX || packet[0] != kHead) return false;
  const size_t padding = Word(packet, kPaddingAt);
  if (padding == 0 || Word(packet, kLengthAt) + padding != packet.size()) return false;
  packet[kLengthAt] = static_cast<uint8_t>(packet.size());
  packet[kLengthAt + 1] = static_cast<uint8_t>(packet.size() >> 8);
  return true;
}

}  // namespace tarn::gst
