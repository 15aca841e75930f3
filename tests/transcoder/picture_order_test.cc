// Presentation times found from the pictures, compared with those of containers that keep them.

#include "transcoder/media/picture_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

namespace tarn::media {
namespace {

struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, FreePacket>;

class PictureOrderTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const std::string path = std::string(TARN_TEST_MEDIA "/") + GetParam();
    ASSERT_EQ(avformat_open_input(&file_, path.c_str(), nullptr, nullptr), 0);
    ASSERT_GE(avformat_find_stream_info(file_, nullptr), 0);
    const int video = av_find_best_stream(file_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    ASSERT_GE(video, 0);
    parameters_ = file_->streams[video]->codecpar;
    for (PacketPtr packet(av_packet_alloc()); av_read_frame(file_, packet.get()) == 0;
         packet.reset(av_packet_alloc())) {
      if (packet->stream_index == video) packets_.push_back(std::move(packet));
    }
    ASSERT_GT(packets_.size(), 100u);
    std::vector<int64_t> shown;
    for (const PacketPtr& packet : packets_) shown.push_back(packet->pts);
    std::sort(shown.begin(), shown.end());
    // Decoding times are numbers here; so the presentation times must be the pictures' ranks.
    for (size_t i = 0; i < packets_.size(); ++i) {
      const auto rank = std::lower_bound(shown.begin(), shown.end(), packets_[i]->pts);
      ranks_.push_back(rank - shown.begin());
      packets_[i]->dts = static_cast<int64_t>(i);
    }
  }
  void TearDown() override { avformat_close_input(&file_); }

  // Feeds everything from a packet on, and compares.
  void ExpectRanks(PictureOrder& order, size_t from, int64_t delay) {
    for (size_t i = from; i < packets_.size(); ++i) packets_[i]->pts = AV_NOPTS_VALUE;
    for (size_t i = from; i < packets_.size(); ++i) order.Add(packets_[i].get());
    order.End();
    for (size_t i = from; i < packets_.size(); ++i) {
      ASSERT_EQ(packets_[i]->pts, ranks_[i] + delay) << "picture " << i << " from " << from;
    }
  }

  AVFormatContext* file_ = nullptr;
  const AVCodecParameters* parameters_ = nullptr;
  std::vector<PacketPtr> packets_;
  std::vector<int64_t> ranks_;
};

TEST_P(PictureOrderTest, FindsTheContainersTimesFromEveryKeyframe) {
  PictureOrder order(*parameters_, 3);
  int keyframes = 0;
  for (size_t from = 0; from < packets_.size(); ++from) {
    if ((packets_[from]->flags & AV_PKT_FLAG_KEY) == 0) continue;
    ++keyframes;
    order.Reset();
    ASSERT_NO_FATAL_FAILURE(ExpectRanks(order, from, 3));
  }
  EXPECT_GT(keyframes, 5);
}

TEST_P(PictureOrderTest, SetsATimeBeforeLong) {
  PictureOrder order(*parameters_, 0);
  size_t settled = 0;
  for (size_t i = 0; i < packets_.size(); ++i) {
    packets_[i]->pts = AV_NOPTS_VALUE;
    order.Add(packets_[i].get());
    while (settled <= i && packets_[settled]->pts != AV_NOPTS_VALUE) {
      EXPECT_FALSE(order.Holds(packets_[settled].get()));
      ++settled;
    }
    ASSERT_LE(i - settled, 32u);
    EXPECT_TRUE(settled > i || order.Holds(packets_[settled].get()));
  }
}

TEST_P(PictureOrderTest, DamagedPacketsGetTimesOfTheirOwn) {
  av_log_set_level(AV_LOG_QUIET);
  PictureOrder order(*parameters_, 0);
  for (size_t i = 0; i < packets_.size(); ++i) {
    AVPacket* packet = packets_[i].get();
    packet->pts = AV_NOPTS_VALUE;
    if (i % 7 == 3) packet->size = std::min(packet->size, static_cast<int>(i % 40));
    if (i % 11 == 5) std::fill_n(packet->data, std::min(packet->size, 20), 0xFF);
    order.Add(packet);
  }
  order.End();
  std::vector<int64_t> times;
  for (const PacketPtr& packet : packets_) times.push_back(packet->pts);
  std::sort(times.begin(), times.end());
  for (size_t i = 0; i < times.size(); ++i) ASSERT_EQ(times[i], static_cast<int64_t>(i));
}

INSTANTIATE_TEST_SUITE_P(Films, PictureOrderTest,
                         ::testing::Values("film-irregular.mkv", "film-open.mp4", "film-far.ts",
                                           "film-near.ts", "film-no-edits.mp4", "film-dts.mkv"),
                         [](const auto& info) {
                           std::string name = info.param;
                           std::erase_if(name, [](char c) { return !std::isalnum(c); });
                           return name;
                         });

}  // namespace
}  // namespace tarn::media
