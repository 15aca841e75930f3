// Which encoder is taken: those that only look like encoders are found out.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "base/clock.h"
#include "tests/support/process.h"
#include "transcoder/gst/encoder_choice.h"
#include "transcoder/gst/plugins.h"

namespace tarn::gst {
namespace {

const Element kWorks = {"x264enc", {}, ""};
const Element kMissing = {"omxh264enc", {}, ""};
// These come out of no frame, of an error, of a wait for ten minutes.
const Element kSwallows = {"identity", {{"drop-probability", "1"}}, ""};
const Element kFails = {"identity", {{"error-after", "1"}}, ""};
const Element kHangs = {"identity", {{"sleep-time", "600000000"}}, ""};

int Found(std::vector<Element> encoders, int64_t patience_ms = test::kPatienceMs) {
  EncoderTrial trial(std::move(encoders));
  return trial.Result(DeadlineIn(patience_ms));
}

TEST(GstEncoder, TheFirstThatGivesAFrameIsTaken) {
  EXPECT_EQ(Found({kWorks}), 0);
  EXPECT_EQ(Found({kMissing, kWorks}), 1);
  EXPECT_EQ(Found({kSwallows, kFails, kMissing, kWorks, kWorks}), 3);
}

TEST(GstEncoder, NoneIsTakenWhereNoneWorks) {
  EXPECT_EQ(Found({}), -1);
  EXPECT_EQ(Found({kSwallows, kFails, kMissing}), -1);
}

TEST(GstEncoder, ADriverThatHangsIsGivenUpAndLeavesNothing) {
  EXPECT_EQ(Found({kHangs, kWorks}, 300), -1);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(GstEncoder, ATrialThatNobodyAsksForEndsWithItsOwner) {
  { EncoderTrial trial({kHangs}); }
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(GstEncoder, ATrialLeavesNoDescriptor) {
  const size_t before = test::OpenDescriptors();
  Found({kWorks});
  EXPECT_EQ(test::OpenDescriptors(), before);
}

// The sandbox has no device and no such plug-in.
TEST(GstEncoder, WithoutADeviceThereIsNoCandidate) { EXPECT_TRUE(HardwareCandidates().empty()); }

}  // namespace
}  // namespace tarn::gst
