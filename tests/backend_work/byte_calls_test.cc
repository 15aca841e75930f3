// Streams of bytes, started by workers that end with the call.
#include <gmock/gmock.h>
#include <sys/ioctl.h>

#include <string>
#include <vector>

#include "tests/backend_work/engine_pool.h"

namespace {

using tarn_test::With;

constexpr char kWebM[] = "webm_480x360_vp8_vb500_vorbis_ab96";
constexpr char kProgressive[] = "http_hd480_x264_vb1000_ac3_ab128";

class ByteCallsTest : public tarn_test::EnginePool {};

TEST_F(ByteCallsTest, ServesWebM) {
  const Answer prepared = Prepare(Request("clip.mkv", "WEBM", kWebM));
  ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
  EXPECT_EQ(prepared.value["duration"].asInt(), 10);
  // The second replaces the first, of which nothing was read.
  Answer bytes = Ask("bytes", stream_);
  ASSERT_EQ(bytes.kind, Kind::kDone) << bytes.word << bytes.cause;
  EXPECT_EQ(bytes.value["start"].asInt(), 0);
  bytes = Ask("bytes", OfStream("start", 5.7));
  ASSERT_EQ(bytes.kind, Kind::kDone) << bytes.word << bytes.cause;
  EXPECT_EQ(bytes.value["start"].asInt(), 5);
  EXPECT_EQ(FirstBytes(bytes.descriptor.get(), 4), "\x1a\x45\xdf\xa3");
  // Its worker is gone; the transcoder goes on to the end.
  EXPECT_GT(FirstBytes(bytes.descriptor.get(), 1 << 30).size(), 10'000U);

  for (const double start : {11.0, -1.0, 1e10}) {
    EXPECT_EQ(Ask("bytes", OfStream("start", start)).word, "bad-range") << start;
  }
  EXPECT_EQ(Ask("bytes", OfStream("start", "5")).word, "failed");
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  EXPECT_EQ(Ask("bytes", stream_).word, "stream-ended");
  EXPECT_EQ(pool_->counters().lost, 0U);
  ExpectNothingLeft();
}

TEST_F(ByteCallsTest, ATranscoderEndsWithItsReader) {
  Json::Value request = Request("clip.mkv", "WEBM", kWebM);
  UseProfile(request,
             "-c:v libvpx -deadline realtime -cpu-used 8 -vf realtime -s 320x240 -c:a libvorbis -f "
             "webm -flush_packets 1");
  ASSERT_EQ(Prepare(request).kind, Kind::kDone);
  {
    const Answer bytes = Ask("bytes", stream_);
    EXPECT_EQ(FirstBytes(bytes.descriptor.get(), 4), "\x1a\x45\xdf\xa3");
    EXPECT_EQ(Ask("registry").value["software"]["running"].asInt(), 1);
  }
  EXPECT_TRUE(RunUntil([&] { return Ask("registry").value["software"]["running"].asInt() == 0; }));
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(ByteCallsTest, ServesProgressiveStreams) {
  const Answer prepared = Prepare(Request("clip.mkv", "HTTP", kProgressive));
  ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
  // (1000 + 2 x 128) kilobits of 1024 bits.
  EXPECT_EQ(prepared.value["bit_rate"].asInt64(), 1286144);
  EXPECT_EQ(prepared.value["predicted_size"].asInt64(), 1607680);
  Answer bytes = Ask("bytes", stream_);
  ASSERT_EQ(bytes.kind, Kind::kDone) << bytes.word << bytes.cause;
  EXPECT_EQ(FirstBytes(bytes.descriptor.get(), 1), "G");
  // A seek while the first is still held, and not read: its transcoder waits for room in the pipe.
  EXPECT_TRUE(RunUntil([&] {
    int held = 0;
    return ioctl(bytes.descriptor.get(), FIONREAD, &held) == 0 && held > 60'000;
  }));
  bytes = Ask("bytes", OfStream("offset", 800'000));
  ASSERT_EQ(bytes.kind, Kind::kDone) << bytes.word << bytes.cause;
  EXPECT_EQ(bytes.value["start"].asInt(), 4);
  EXPECT_EQ(FirstBytes(bytes.descriptor.get(), 1), "G");
  EXPECT_EQ(Ask("bytes", OfStream("offset", 10'000'000)).word, "bad-range");
  EXPECT_EQ(Ask("bytes", OfStream("offset", -1)).word, "failed");
  EXPECT_EQ(Ask("bytes", OfStream("start", 11)).word, "bad-range");
  bytes.descriptor.reset();
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  EXPECT_EQ(Ask("bytes", OfStream("offset", 0)).word, "stream-ended");
  ExpectNothingLeft();
}

TEST_F(ByteCallsTest, AProgressiveStreamWithoutRatesHasNoByteRanges) {
  Json::Value request = Request("clip.mkv", "HTTP", "own");
  UseProfile(request, "-vcodec libx264 -preset ultrafast -s hd480 -acodec ac3 -f mpegts");
  const Answer prepared = Prepare(request);
  ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
  EXPECT_EQ(prepared.value["bit_rate"].asInt64(), -1);
  EXPECT_EQ(prepared.value["predicted_size"].asInt64(), 0);
  EXPECT_EQ(Ask("bytes", OfStream("offset", 5)).word, "bad-range");
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

TEST_F(ByteCallsTest, NothingIsStartedWithoutRoom) {
  ASSERT_EQ(Prepare(Request("clip.mkv", "WEBM", kWebM)).kind, Kind::kDone);
  FillRegistry();
  EXPECT_EQ(Ask("bytes", stream_).word, "TransEnable");
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  // This kind would wait a minute.
  EXPECT_EQ(Prepare(Request("clip.mkv", "HTTP", kProgressive)).word, "TransEnable");
  EXPECT_EQ(Prepare(Request("clip.mkv", "WEBM", kWebM)).word, "TransEnable");
  ExpectNothingLeft();
}

// The engine then comes back a second time, in a copy of the worker.
TEST_F(ByteCallsTest, AProfileWithoutACommandIsAnEmptyStreamAndNoSecondAnswer) {
  Json::Value request = Request("clip.mkv", "HTTP", "own");
  UseProfile(request, "  ");
  const Answer prepared = Prepare(request);
  ASSERT_EQ(prepared.kind, Kind::kDone) << prepared.word << prepared.cause;
  for (int i = 0; i < 3; ++i) {
    const Answer bytes = Ask("bytes", stream_);
    ASSERT_EQ(bytes.kind, Kind::kDone) << bytes.word << bytes.cause;
    EXPECT_EQ(FirstBytes(bytes.descriptor.get(), 1), "");
    EXPECT_EQ(Ask("platform").kind, Kind::kDone);
  }
  EXPECT_EQ(pool_->counters().lost, 0U);
  EXPECT_TRUE(log_.empty()) << log_[0];
  EXPECT_EQ(Ask("close", stream_).kind, Kind::kDone);
  ExpectNothingLeft();
}

}  // namespace
