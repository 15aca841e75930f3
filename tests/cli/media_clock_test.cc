#include "cli/media_clock.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

using tarncli::MediaClock;

// Ten seconds of the test film in a container, from a position.
std::string Film(const std::string& options) {
  const std::string command =
      "/usr/bin/ffmpeg -nostdin -v error -y -i " TARN_TEST_MEDIA "/clip.mkv " + options;
  EXPECT_EQ(std::system((command + " - > /tmp/film").c_str()), 0);
  std::ostringstream text;
  text << std::ifstream("/tmp/film", std::ios::binary).rdbuf();
  return text.str();
}

void ExpectTenSeconds(const MediaClock& clock) {
  ASSERT_TRUE(clock.elapsed().has_value());
  EXPECT_GE(*clock.elapsed(), 8'500u);
  EXPECT_LE(*clock.elapsed(), 10'100u);
}

TEST(MediaClock, TellsHowFarEachContainerHasCome) {
  for (const char* options :
       {"-c copy -f mpegts", "-c copy -output_ts_offset 36000 -f mpegts",
        "-c copy -bsf:v h264_mp4toannexb -c:a ac3 -f mpegts",
        "-c copy -cluster_time_limit 500 -f matroska", "-c:v wmv2 -c:a wmav2 -f asf",
        "-c:v wmv2 -an -packet_size 1000 -f asf"}) {
    SCOPED_TRACE(options);
    const std::string film = Film(options);
    MediaClock whole, pieces;
    whole.Feed(film.data(), film.size());
    ExpectTenSeconds(whole);
    for (size_t at = 0; at < film.size(); at += 777) {
      pieces.Feed(film.data() + at, std::min<size_t>(777, film.size() - at));
    }
    EXPECT_EQ(pieces.elapsed(), whole.elapsed());
    MediaClock half;
    half.Feed(film.data(), film.size() / 2);
    ASSERT_TRUE(half.elapsed().has_value());
    EXPECT_LT(*half.elapsed(), 8'000u);
  }
}

TEST(MediaClock, KnowsNothingOfOtherContainersAndOfNoise) {
  MediaClock empty, other, broken;
  EXPECT_FALSE(empty.elapsed().has_value());
  const std::string mp4 = Film("-c copy -movflags frag_keyframe+empty_moov -f mp4");
  other.Feed(mp4.data(), mp4.size());
  EXPECT_FALSE(other.elapsed().has_value());
  // The head of an ASF file, then nothing that makes sense.
  const std::string noise = "\x30\x26\xb2\x75" + std::string(1 << 16, '\xff');
  broken.Feed(noise.data(), noise.size());
  EXPECT_FALSE(broken.elapsed().has_value());
}

TEST(MediaClock, FindsItsWayBackIntoADamagedTransportStream) {
  std::string film = Film("-c copy -f mpegts");
  film.erase(188 * 100 + 50, 1000);
  MediaClock clock;
  clock.Feed(film.data(), film.size());
  ExpectTenSeconds(clock);
}

}  // namespace
