// tarn-gst: the GStreamer launcher that the engine executes on platforms with hardware transcoding.
// docs/gst-launcher.md says what it does; --help lists the options.

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/process.h"
#include "transcoder/gst/encoder_choice.h"
#include "transcoder/gst/options.h"
#include "transcoder/gst/plugins.h"
#include "transcoder/gst/run.h"

namespace {

constexpr char kLogUnit[] = "gst_launcher";

int End(const tarn::gst::Failure& failure) {
  if (failure.happened()) {
    std::fprintf(stderr, "tarn-gst: %s\n", failure.text.c_str());
    TARN_LOG_ERR("%s", failure.text.c_str());
  }
  std::fflush(nullptr);
  return static_cast<int>(failure.status);
}

// Each hardware encoder with what its trial says, then the one that is taken.
tarn::gst::Failure ListEncoders() {
  constexpr int64_t kPatienceMs = 5000;
  std::string taken = tarn::gst::kSoftwareEncoder;
  for (const std::string& name : tarn::gst::HardwareCandidates()) {
    tarn::gst::EncoderTrial trial({tarn::gst::H264Encoder(name, 0)});
    const bool works = trial.Result(tarn::gst::DeadlineIn(kPatienceMs)) == 0;
    std::printf("%s: %s\n", name.c_str(), works ? "works" : "does not work here");
    if (works && taken == tarn::gst::kSoftwareEncoder) taken = name;
  }
  std::printf("%s: software\ntaken: %s\n", tarn::gst::kSoftwareEncoder, taken.c_str());
  return {};
}

tarn::gst::Failure MakeRegistry(const std::string& path) {
  if (tarn::gst::MakeRegistry(path)) return {};
  return {tarn::gst::Status::kOutputFailed, path + ": the registry cannot be written"};
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
  tarn::gst::Options options;
  const tarn::gst::Failure unusable = tarn::gst::ParseOptions(words, options);
  if (unusable.happened()) return End(unusable);
  if (options.request == tarn::gst::Request::kHelp) {
    std::fputs(tarn::gst::kHelp, stdout);
    return End({});
  }
  // A stranger's descriptor that stays open here keeps files, pipes and sockets alive.
  tarn::CloseDescriptorsExcept({options.output_fd});
  tarn::gst::Failure failure;
  switch (options.request) {
    case tarn::gst::Request::kListEncoders:
      failure = ListEncoders();
      break;
    case tarn::gst::Request::kMakeRegistry:
      failure = MakeRegistry(options.registry);
      break;
    default:
      failure = tarn::gst::MakeRun(options);
  }
  _exit(End(failure));
}
