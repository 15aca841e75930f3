// tarnvte fragment: one Smooth Streaming fragment as a client gets it.
#include <memory>
#include <string>

#include "byte_output.h"
#include "command.h"
#include "folder_output.h"
#include "progress.h"
#include "smooth_session.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte fragment movie.mkv --id 'QualityLevels(1500000)/Fragments(video=50000000)' -o "
    "v.m4f\n"
    "  tarnvte fragment movie.mkv --id 'QualityLevels(128000)/Fragments(audio=0)' | xxd | head\n"
    "\n"
    "Times are in units of 100 ns, fragments last 5 s. \"tarnvte manifest\" shows the bit rates.\n";

struct FragmentOptions {
  SmoothRequest request;
  std::string id;
  std::string output = "-";
};

Exit RunFragment(FragmentOptions options, bool verbose) {
  const std::string source = ResolveVideo(options.request.stream.file);
  options.request.stream = WithProfile(options.request.stream);
  const Interrupts interrupts;
  ByteOutput output(options.output, source);
  SmoothSession session(options.request, interrupts);
  Progress progress(0, 0, !verbose);
  const std::string path = session.Fetch(options.id, [&] { progress.Update(0, std::nullopt); });
  const uint64_t bytes = CopyFile(path, output, interrupts);
  output.Commit();
  const std::string file = Printable(options.request.stream.file);
  progress.Finish(options.output == "-" ? file : options.output, bytes, std::nullopt);
  return Exit::kSuccess;
}

}  // namespace

void AddFragment(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("fragment", "Make one Smooth Streaming fragment");
  auto options = std::make_shared<FragmentOptions>();
  AddSmoothOptions(*sub, options->request);
  sub->add_option("--id", options->id, "Its identifier, as the manifest makes clients ask for it")
      ->required()
      ->option_text("ID");
  sub->add_option("-o,--output", options->output,
                  "File to write; \"-\" or none: standard output, which must not be a terminal")
      ->option_text("OUT");
  sub->footer(kFooter);
  sub->callback([options, &command] {
    command.run = [options, &command] { return RunFragment(*options, command.verbose); };
  });
}

}  // namespace tarncli
