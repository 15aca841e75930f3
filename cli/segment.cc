// tarnvte segment: one HLS segment as a client gets it, or the proof that it does not matter how.
#include <memory>
#include <string>

#include "byte_output.h"
#include "command.h"
#include "folder_output.h"
#include "hls_session.h"
#include "progress.h"
#include "segment_verify.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte segment movie.mkv --fragment 120 -o slice.ts\n"
    "  tarnvte segment movie.mkv --fragment 0 --profile hls_hd480_x264_vb1000_aac_ab96 | mpv -\n"
    "  tarnvte segment movie.mkv --verify\n"
    "\n"
    "--verify makes every segment by one run of the transcoder, some again by runs that begin at\n"
    "them, and compares: the same frames with the same time stamps, and nothing lost or doubled\n"
    "where segments of different runs meet. Exit status 8: they differ.\n";

struct SegmentOptions {
  HlsRequest request;
  int fragment = 0;
  std::string output = "-";
  bool verify = false;
  VerifyChoice choice;
};

Exit RunSegment(SegmentOptions options, bool verbose) {
  const std::string source = ResolveVideo(options.request.stream.file);
  options.request.stream = WithProfile(options.request.stream);
  const std::string file = Printable(options.request.stream.file);
  const Interrupts interrupts;
  ByteOutput output(options.output, source);
  HlsSession session(options.request, interrupts);
  if (options.fragment >= session.fragments()) {
    throw Failure{Exit::kUsage,
                  file + ": has " + Count(session.fragments(), "fragment") +
                      ", the last one is number " + std::to_string(session.fragments() - 1),
                  ""};
  }
  Progress progress(0, 0, !verbose);
  const std::string path =
      session.FetchOwed(options.fragment, [&] { progress.Update(0, std::nullopt); });
  const uint64_t bytes = CopyFile(path, output, interrupts);
  output.Commit();
  progress.Finish(options.output == "-" ? file : options.output, bytes, std::nullopt);
  return Exit::kSuccess;
}

}  // namespace

void AddSegment(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("segment", "Make one HLS segment, or prove that all agree");
  auto options = std::make_shared<SegmentOptions>();
  AddHlsOptions(*sub, options->request);
  CLI::Option* fragment = sub->add_option("--fragment", options->fragment, "Its number, from 0")
                              ->check(CLI::Range(0, INT_MAX))
                              ->option_text("N");
  CLI::Option* output =
      sub->add_option("-o,--output", options->output,
                      "File to write; \"-\" or none: standard output, which must not be a terminal")
          ->option_text("OUT");
  CLI::Option* verify = sub->add_flag("--verify", options->verify,
                                      "Prove that segments do not depend on where a run begins")
                            ->excludes(fragment)
                            ->excludes(output);
  CLI::Option* from = sub->add_option("--from", options->choice.starts,
                                      "With --verify: begin runs at these fragments, as in 3,4,17")
                          ->delimiter(',')
                          ->check(CLI::Range(0, INT_MAX))
                          ->needs(verify);
  CLI::Option* seed = sub->add_option("--seed", options->choice.seed,
                                      "With --verify: choose the same random fragments again")
                          ->needs(verify)
                          ->excludes(from);
  CLI::Option* json = sub->add_flag("--json", options->choice.json,
                                    "With --verify: print one line of JSON with everything")
                          ->needs(verify);
  // Without notes of what needs and excludes what.
  fragment->option_text("N");
  output->option_text("OUT");
  from->option_text("N,N...");
  seed->option_text("N");
  for (CLI::Option* flag : {verify, json}) flag->option_text(" ");
  sub->footer(kFooter);
  sub->callback([sub, fragment, seed, options, &command] {
    command.json = options->choice.json;
    options->choice.seeded = seed->count() > 0;
    if (!options->verify && fragment->count() == 0) {
      throw CLI::RequiredError("--fragment or --verify");
    }
    command.run = [options, &command] {
      if (!options->verify) return RunSegment(*options, command.verbose);
      return VerifySegments(options->request, options->choice, command);
    };
  });
}

}  // namespace tarncli
