// The heads of ASF packets.

#include <gtest/gtest.h>

#include <vector>

#include "transcoder/gst/asf_packet.h"

namespace tarn::gst {
namespace {

using Packet = std::vector<uint8_t>;

// 4800 bytes that begin with these.
Packet Whole(Packet head) {
  head.resize(4800);
  return head;
}

TEST(GstAsfPacket, PaddingIsPartOfThePacket) {
  // 1088 bytes and 3712 of padding.
  Packet packet = Whole({0x51, 0x5d, 0x40, 0x04, 0x80, 0x0e, 0x64});
  EXPECT_TRUE(CountPadding(packet));
  EXPECT_EQ(packet, Whole({0x51, 0x5d, 0xc0, 0x12, 0x80, 0x0e, 0x64}));
  EXPECT_FALSE(CountPadding(packet));
}

TEST(GstAsfPacket, AFullOneStaysAsItIs) {
  Packet packet = Whole({0x51, 0x5d, 0xc0, 0x12, 0, 0});
  const Packet before = packet;
  EXPECT_FALSE(CountPadding(packet));
  EXPECT_EQ(packet, before);
}

TEST(GstAsfPacket, WhatIsNoPacketStaysAsItIs) {
  // The file's header, another layout, words that do not add up, and hardly anything.
  for (const Packet& head :
       {Whole({0x30, 0x26, 0xb2, 0x75, 0x8e, 0x66}), Whole({0x61, 0x5d, 0x40, 0x04, 0x80, 0x0e}),
        Whole({0x51, 0x5d, 0x40, 0x04, 0x81, 0x0e}), Packet{0x51, 0x5d, 2, 0, 3}, Packet{}}) {
    Packet packet = head;
    EXPECT_FALSE(CountPadding(packet));
    EXPECT_EQ(packet, head);
  }
}

}  // namespace
}  // namespace tarn::gst
