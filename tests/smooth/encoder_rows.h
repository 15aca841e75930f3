// What the encoders of the shipped Smooth Streaming profiles make when they are run.
#pragma once

#include <string>
#include <vector>

namespace tarn::test {

struct EncodedRow {
  std::string profile_key;
  bool hardware = false;
  int width = 0;
  int height = 0;
  std::string codec_private_data;  // empty, and `error` set, when nothing was encoded
  std::string error;
};

// The rows of the shipped profiles, in their order, narrow shapes first. Nothing is encoded yet.
std::vector<EncodedRow> ListEncoders();

// Runs the front end's encoder on a second of `film`, and reads the parameter sets that it writes.
void Encode(const std::string& film, EncodedRow& row);

}  // namespace tarn::test
