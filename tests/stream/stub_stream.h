// Byte streams whose transcoder is the stub.
#pragma once

#include <string>

#include "tarnvte/webm_stream.h"
#include "tests/support/stub_processes.h"

namespace tarn::test {

class StubTranscoderTest : public StubProcessTest {
 protected:
  StubTranscoderTest() : StubProcessTest("stub_transcoder") {
    // A key is a mode of the stub; "copy-" in front of it makes the stream a copy, which is not
    // registered.
    std::string profiles;
    for (const std::string mode : {"brief", "spew", "silent", "mute", "polite", "deaf-int", "deaf",
                                   "lone", "arguments", "report"}) {
      profiles += profiles.empty() ? "{" : ",";
      profiles += "\"" + mode + "\":\"-stub " + mode + "\",";
      profiles += "\"copy-" + mode + "\":\"-bsf:v h264_mp4toannexb -stub " + mode + "\"";
    }
    WriteText(kProfiles, profiles + "}");
  }
};

class StubStreamTest : public StubTranscoderTest {
 protected:
  using WebMStream = LibTarnVTE::WebMStream;

  static std::string Prepare(const std::string& key, const std::string& file = kClip) {
    return PrepareKind("WEBM", key, file);
  }

  // Everything up to the end of the stream.
  static std::string ReadToEnd(WebMStream& stream) {
    std::string data;
    char buffer[65536];
    ssize_t length;
    while ((length = stream.Read(buffer, sizeof buffer)) > 0) {
      data.append(buffer, static_cast<size_t>(length));
    }
    EXPECT_EQ(length, 0);
    return data;
  }

  // Waits for the first byte: the transcoder runs.
  static bool Runs(WebMStream& stream) {
    char byte;
    return stream.Read(&byte, 1) == 1;
  }
};

}  // namespace tarn::test
