// What the encoders of the Smooth Streaming profiles make: the clients must know it before anything
// is encoded. The table is made by running them; `make_encoder_table` of the tests writes it anew.
#pragma once

#include <string>

namespace LibTarnVTE {

struct EncoderRow {
  const char* profile_key;
  bool hardware;
  int width;
  int height;
  // Sequence and picture parameter set of H.264 Annex B, in hexadecimal.
  const char* codec_private_data;
};

// Some row of the profile; null when there is none.
const EncoderRow* FindEncoder(const std::string& profile_key, bool hardware);
// The row of the profile and size; null when there is none.
const EncoderRow* FindEncoder(const std::string& profile_key, bool hardware,
                              const std::string& width, const std::string& height);

}  // namespace LibTarnVTE
