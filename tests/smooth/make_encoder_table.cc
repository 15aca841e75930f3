// Writes vte/smooth/encoder_table.inc to standard output, by running every encoder:
//   build/dev/sandbox build/dev/tests/bin/make_encoder_table > encoder_table.inc
#include <cstdio>

#include "tests/smooth/encoder_rows.h"

int main() {
  for (tarn::test::EncodedRow& row : tarn::test::ListEncoders()) {
    tarn::test::Encode(TARN_TEST_MEDIA "/clip.mkv", row);
    if (!row.error.empty()) {
      std::fprintf(stderr, "%s: %s\n", row.profile_key.c_str(), row.error.c_str());
      return 1;
    }
    std::printf("{\"%s\", %s, %d, %d,\n \"%s\"},\n", row.profile_key.c_str(),
                row.hardware ? "true" : "false", row.width, row.height,
                row.codec_private_data.c_str());
  }
  return 0;
}
