// Every row of the table of parameter sets, encoded again.
#include "vte/smooth/encoder_table.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/smooth/encoder_rows.h"

namespace tarn::test {
namespace {

using LibTarnVTE::EncoderRow;
using LibTarnVTE::FindEncoder;

class EncoderTable : public testing::TestWithParam<EncodedRow> {};

TEST_P(EncoderTable, IsWhatTheEncoderWrites) {
  EncodedRow row = GetParam();
  Encode(TARN_TEST_MEDIA "/clip.mkv", row);
  ASSERT_EQ(row.error, "");
  const EncoderRow* const known = FindEncoder(
      row.profile_key, row.hardware, std::to_string(row.width), std::to_string(row.height));
  ASSERT_NE(known, nullptr);
  EXPECT_EQ(row.codec_private_data, known->codec_private_data);
}

INSTANTIATE_TEST_SUITE_P(Rows, EncoderTable, testing::ValuesIn(ListEncoders()),
                         [](const auto& test) {
                           return test.param.profile_key + "_" + std::to_string(test.param.width) +
                                  "x" + std::to_string(test.param.height);
                         });

TEST(EncoderTable, HasNoOtherRows) {
  std::ifstream file(TARN_TEST_DATA "/../vte/smooth/encoder_table.inc");
  size_t rows = 0;
  for (std::string line; std::getline(file, line);) rows += line.starts_with("{") ? 1 : 0;
  EXPECT_EQ(rows, ListEncoders().size());
  EXPECT_EQ(rows, 39u);
}

}  // namespace
}  // namespace tarn::test
