#include "cli/cluster_clock.h"

#include <gtest/gtest.h>

namespace {

using tarncli::ClusterClock;

// A cluster of unknown size that begins with its time stamp in three bytes.
std::string Cluster(uint32_t milliseconds) {
  std::string text("\x1f\x43\xb6\x75\x01\xff\xff\xff\xff\xff\xff\xff\xe7\x83", 14);
  for (int shift : {16, 8, 0}) text += static_cast<char>(milliseconds >> shift & 0xff);
  return text;
}

TEST(ClusterClock, KnowsNothingBeforeTheFirstCluster) {
  ClusterClock clock;
  clock.Feed("\x1a\x45\xdf\xa3 header", 11);
  EXPECT_FALSE(clock.milliseconds().has_value());
}

TEST(ClusterClock, TellsTheNewestClustersTime) {
  ClusterClock clock;
  const std::string text =
      Cluster(5000) + std::string(100, 'x') + Cluster(99997) + std::string(100, 'x');
  clock.Feed(text.data(), text.size());
  EXPECT_EQ(99997u, clock.milliseconds());
}

TEST(ClusterClock, PassesOverAChecksum) {
  std::string text = Cluster(5000) + std::string(40, 'x');
  text.insert(12, "\xbf\x84\x01\x02\x03\x04");
  ClusterClock clock;
  clock.Feed(text.data(), text.size());
  EXPECT_EQ(5000u, clock.milliseconds());
}

TEST(ClusterClock, FindsHeadsThatAreCutAnywhere) {
  const std::string text = Cluster(77000) + std::string(40, 'x');
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    ClusterClock clock;
    clock.Feed(text.data(), cut);
    clock.Feed(text.data() + cut, text.size() - cut);
    EXPECT_EQ(77000u, clock.milliseconds()) << cut;
  }
  ClusterClock byte_by_byte;
  for (const char& c : text) byte_by_byte.Feed(&c, 1);
  EXPECT_EQ(77000u, byte_by_byte.milliseconds());
}

TEST(ClusterClock, IgnoresTheIdentifierInsideFrames) {
  ClusterClock clock;
  const std::string text = Cluster(1000) + "\x1f\x43\xb6\x75" + std::string(40, '\x42') +
                           std::string("\x1f\x43\xb6\x75", 4) + std::string(40, '\0');
  clock.Feed(text.data(), text.size());
  EXPECT_EQ(1000u, clock.milliseconds());
}

}  // namespace
