// tarnvte manifest: the Smooth Streaming manifest of a video, which the engine writes before any
// media exists.
#include <memory>
#include <string>

#include "byte_output.h"
#include "command.h"
#include "smooth_session.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte manifest movie.mkv\n"
    "  tarnvte manifest movie.mkv --profile smoothstreaming_hd480_x264_vb1000_vf15_aac_ab96\n";

struct ManifestOptions {
  SmoothRequest request;
  std::string output = "-";
};

Exit RunManifest(ManifestOptions options) {
  options.request.stream = WithProfile(options.request.stream);
  const Interrupts interrupts;
  const SmoothSession session(options.request, interrupts);
  if (options.output == "-") {
    Print(session.manifest());
    return Exit::kSuccess;
  }
  ByteOutput output(options.output, session.path());
  output.Write(session.manifest().data(), session.manifest().size(), interrupts);
  output.Commit();
  return Exit::kSuccess;
}

}  // namespace

void AddManifest(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("manifest", "Print the Smooth Streaming manifest of a video");
  auto options = std::make_shared<ManifestOptions>();
  AddSmoothOptions(*sub, options->request);
  sub->add_option("-o,--output", options->output, "File to write (default: standard output)")
      ->option_text("OUT");
  sub->footer(kFooter);
  sub->callback([options, &command] { command.run = [options] { return RunManifest(*options); }; });
}

}  // namespace tarncli
