// Parameter sets beside the pictures and among them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "transcoder/gst/parameter_sets.h"

namespace tarn::gst {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Bytes = std::vector<uint8_t>;

TEST(GstParameterSets, ARecordsSetsAsAByteStream) {
  // One of the sequence, two of pictures, and what newer profiles append.
  const Bytes record = {1, 0x4d, 0, 31,   0xff, 0xe1, 0, 3,    0x67, 0x4d, 0x1f,
                        2, 0,    2, 0x68, 0xee, 0,    2, 0x68, 0xef, 0xfd, 0xf8};
  EXPECT_THAT(ParameterSets(record), ElementsAre(0, 0, 0, 1, 0x67, 0x4d, 0x1f, 0, 0, 0, 1, 0x68,
                                                 0xee, 0, 0, 0, 1, 0x68, 0xef));
}

TEST(GstParameterSets, ARecordThatIsCutShortHasNone) {
  const Bytes record = {1, 0x4d, 0, 31, 0xff, 0xe1, 0, 3, 0x67, 0x4d, 0x1f, 1, 0, 2, 0x68, 0xee};
  for (size_t size = 0; size < record.size(); ++size) {
    EXPECT_THAT(ParameterSets(std::span(record).first(size)), IsEmpty()) << size;
  }
  EXPECT_EQ(ParameterSets(record).size(), 13u);
  EXPECT_THAT(ParameterSets(Bytes{0, 0, 0, 1, 0x67, 1, 2, 3}), IsEmpty());
}

TEST(GstParameterSets, TheirPlaceIsBehindTheDelimiter) {
  EXPECT_EQ(PlaceOfParameterSets(Bytes{0, 0, 0, 1, 9, 0xf0, 0, 0, 1, 6, 6, 0x80, 0, 0, 1, 0x61}),
            6u);
  EXPECT_EQ(PlaceOfParameterSets(Bytes{0, 0, 1, 6, 6, 0x80, 0, 0, 1, 0x61, 1}), 0u);
  EXPECT_EQ(PlaceOfParameterSets(Bytes{}), 0u);
}

TEST(GstParameterSets, APictureWithItsOwnNeedsNone) {
  EXPECT_EQ(PlaceOfParameterSets(Bytes{0, 0, 1, 9, 0xf0, 0, 0, 1, 0x67, 1, 0, 0, 1, 0x65, 1}),
            std::nullopt);
}

}  // namespace
}  // namespace tarn::gst
