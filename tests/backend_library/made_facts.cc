#include "tests/backend_library/made_facts.h"

namespace tarn::test {

using tarnbackend::Facts;

Facts::Audio Sound(const std::string& id, const std::string& codec) {
  Facts::Audio audio;
  audio.id = id;
  audio.codec = codec;
  audio.profile = codec == "aac" ? "LC" : "";
  audio.channels = 2;
  audio.sample_rate = 48000;
  audio.decodable = codec != "dts" && codec != "eac3" && codec != "truehd";
  return audio;
}

Facts Mp4() {
  Facts facts;
  facts.container = "mov,mp4,m4a,3gp,3g2,mj2";
  facts.type = "video/mp4";
  facts.duration = 60;
  facts.bit_rate = 3'100'000;
  facts.video = {.codec = "h264",
                 .profile = "High",
                 .tag = "avc1",
                 .pixel_format = "yuv420p",
                 .level = 31,
                 .width = 1280,
                 .height = 720,
                 .frame_rate = 25,
                 .bit_rate = 3'000'000};
  facts.audio = {Sound("1", "aac")};
  facts.remux = true;
  facts.transcode = "hls_hd720_x264_vb1500_aac_ab128";
  return facts;
}

Facts Mkv(const std::string& sound) {
  Facts facts = Mp4();
  facts.container = "matroska,webm";
  facts.type = "video/x-matroska";
  facts.video.tag = "[0][0][0][0]";
  facts.video.bit_rate = 0;
  facts.audio = {Sound("1", sound)};
  return facts;
}

Facts Hevc4k(const std::string& sound) {
  Facts facts = Mkv(sound);
  facts.video.codec = "hevc";
  facts.video.profile = "Main 10";
  facts.video.pixel_format = "yuv420p10le";
  facts.video.level = 150;
  facts.video.width = 3840;
  facts.video.height = 2160;
  facts.remux = false;
  return facts;
}

Facts WebM() {
  Facts facts = Mkv("opus");
  facts.type = "video/webm";
  facts.video.codec = "vp9";
  facts.video.profile = "Profile 0";
  facts.video.level = 0;
  facts.remux = false;
  return facts;
}

}  // namespace tarn::test
