#include "cli/packet_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "cli/command.h"
#include "run_command.h"

namespace {

using tarncli::FilePacket;
using tarncli::FileReading;
using tarncli::ParsePacket;
using tarncli::ReadPackets;

TEST(PacketReader, LineOfAPacket) {
  FilePacket packet;
  ASSERT_TRUE(
      ParsePacket("packet|codec_type=video|stream_index=2|pts_time=1.480000|dts_time=1.400000|"
                  "duration_time=0.040000|size=16447|flags=K_",
                  packet));
  EXPECT_EQ(2, packet.stream);
  EXPECT_TRUE(packet.video);
  EXPECT_FALSE(packet.audio);
  EXPECT_TRUE(packet.key);
  EXPECT_FALSE(packet.discarded);
  EXPECT_TRUE(packet.has_pts);
  EXPECT_DOUBLE_EQ(1.48, packet.pts);
  EXPECT_DOUBLE_EQ(1.4, packet.dts);
  EXPECT_DOUBLE_EQ(0.04, packet.duration);
  EXPECT_EQ(16447u, packet.size);
}

TEST(PacketReader, WhatIsNotAvailableIsSaidSo) {
  FilePacket packet;
  ASSERT_TRUE(ParsePacket(
      "packet|codec_type=audio|stream_index=0|pts_time=N/A|dts_time=N/A|duration_time=N/A|size=1|"
      "flags=_D",
      packet));
  EXPECT_TRUE(packet.audio);
  EXPECT_FALSE(packet.key);
  EXPECT_TRUE(packet.discarded);
  EXPECT_FALSE(packet.has_pts);
  EXPECT_EQ(0, packet.duration);
  EXPECT_FALSE(ParsePacket("format|start_time=0.000000", packet));
  EXPECT_FALSE(ParsePacket("", packet));
}

TEST(PacketReader, PacketsOfAFile) {
  const tarncli::Interrupts interrupts;
  unsigned video = 0;
  unsigned keys = 0;
  unsigned audio = 0;
  const FileReading reading =
      ReadPackets(TARN_TEST_MEDIA "/clip.mkv", interrupts, [&](const FilePacket& packet) {
        video += packet.video;
        keys += packet.video && packet.key;
        audio += packet.audio;
      });
  EXPECT_EQ("", reading.complaint);
  EXPECT_EQ(250u, video);
  EXPECT_EQ(5u, keys);
  EXPECT_GT(audio, 400u);
}

TEST(PacketReader, StartTimeIsTheContainers) {
  const tarncli::Interrupts interrupts;
  EXPECT_GT(
      ReadPackets(TARN_TEST_MEDIA "/container.ts", interrupts, [](const FilePacket&) {}).start_time,
      1.0);
}

TEST(PacketReader, WhatIsWrongWithAFileIsSaid) {
  const tarncli::Interrupts interrupts;
  const auto ignore = [](const FilePacket&) {};
  EXPECT_THAT(ReadPackets("/nowhere.ts", interrupts, ignore).complaint,
              ::testing::HasSubstr("No such file"));
  EXPECT_NE("", ReadPackets(TARN_TEST_MEDIA "/garbage.mkv", interrupts, ignore).complaint);
}

TEST(PacketReader, InterruptLeavesNoProcess) {
  const std::string video = tarn_test::MakeLongVideo(60);
  const tarncli::Interrupts interrupts;
  EXPECT_THROW(ReadPackets(video, interrupts, [](const FilePacket&) { raise(SIGTERM); }),
               tarncli::Interrupted);
  EXPECT_THAT(tarn_test::ProcessesWith("/usr/bin/ffprobe"), ::testing::IsEmpty());
}

}  // namespace
