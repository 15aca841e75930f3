#include "cli/media_playlist.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using tarncli::ParsePlaylist;
using tarncli::WithAddresses;
using tarncli::WithEntry;

constexpr char kPlaylist[] =
    "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
    "#EXTINF:5.000,\nhttp://host/a?fragment_id=00000\n"
    "#EXTINF:2.500,\nhttp://host/a?fragment_id=00001\n"
    "#EXT-X-ENDLIST\n";

TEST(MediaPlaylist, EntriesHaveDurationAndAddress) {
  const auto entries = ParsePlaylist(kPlaylist);
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ(5.0, entries[0].duration);
  EXPECT_EQ("http://host/a?fragment_id=00000", entries[0].address);
  EXPECT_EQ(2.5, entries[1].duration);
  EXPECT_EQ("http://host/a?fragment_id=00001", entries[1].address);
  EXPECT_TRUE(ParsePlaylist("#EXTM3U\n\n#EXT-X-ENDLIST\n").empty());
}

TEST(MediaPlaylist, AddressesAreReplacedAndTheRestStays) {
  EXPECT_EQ(
      "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
      "#EXTINF:5.000,\na.ts\n#EXTINF:2.500,\nb.ts\n#EXT-X-ENDLIST\n",
      WithAddresses(kPlaylist, {"a.ts", "b.ts"}));
}

TEST(MediaPlaylist, EntriesWithoutAnAddressAreLeftOut) {
  EXPECT_EQ(
      "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:5\n#EXT-X-MEDIA-SEQUENCE:0\n"
      "#EXTINF:5.000,\na.ts\n#EXT-X-ENDLIST\n",
      WithAddresses(kPlaylist, {"a.ts"}));
}

TEST(MediaPlaylist, EntryIsAddedBeforeTheEnd) {
  EXPECT_EQ("#EXTM3U\n#EXTINF:0.960,\nc.ts\n#EXT-X-ENDLIST\n",
            WithEntry("#EXTM3U\n#EXT-X-ENDLIST\n", {0.96, "c.ts"}));
  EXPECT_EQ("#EXTM3U\n#EXTINF:0.960,\nc.ts\n", WithEntry("#EXTM3U\n", {0.96, "c.ts"}));
}

}  // namespace
