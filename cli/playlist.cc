// tarnvte playlist: the HLS playlists of a video, which the engine writes before any media exists.
#include <memory>
#include <string>

#include "command.h"
#include "folder_output.h"
#include "hls_session.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  tarnvte playlist movie.mkv\n"
    "  tarnvte playlist movie.mkv --subtitle all --which index\n"
    "  tarnvte playlist movie.mkv --subtitle all -o playlists\n"
    "\n"
    "Without --which the playlist that a client reads first is printed.\n";

struct PlaylistOptions {
  HlsRequest request;
  std::string which;
  std::string folder;
};

// "movie.eng.srt" of a path; a track's number stays.
std::string SubtitleFileName(const std::string& id) {
  return id.substr(id.rfind('/') + 1) + ".subtitle.m3u8";
}

std::string Choose(HlsSession& session, const PlaylistOptions& options) {
  const bool subtitled = !options.request.subtitle.empty();
  if (options.which == "video") return session.Playlist(subtitled ? "video" : "");
  if (options.which != "subtitle") return session.Playlist("");
  const std::vector<std::string> subtitles = session.Subtitles();
  if (subtitles.empty()) {
    throw Failure{Exit::kUsage, Printable(options.request.stream.file) + ": has no subtitles", ""};
  }
  return session.Playlist("subtitle", subtitles.front());
}

void WriteAll(HlsSession& session, const PlaylistOptions& options, const Interrupts& interrupts) {
  FolderOutput output(options.folder);
  if (!options.request.subtitle.empty()) {
    for (const std::string& id : session.Subtitles()) {
      output.Write(session.Playlist("subtitle", id), SubtitleFileName(id), interrupts);
    }
    output.Write(session.Playlist("video"), "video.m3u8", interrupts);
  }
  output.Write(session.Playlist(""), "index.m3u8", interrupts);
  output.Commit("");
}

Exit RunPlaylist(PlaylistOptions options) {
  options.request.stream = WithProfile(options.request.stream);
  const Interrupts interrupts;
  HlsSession session(options.request, interrupts);
  if (options.folder.empty()) {
    Print(Choose(session, options));
  } else {
    WriteAll(session, options, interrupts);
  }
  return Exit::kSuccess;
}

void CheckChoice(const PlaylistOptions& options) {
  const bool subtitled = !options.request.subtitle.empty();
  if (!subtitled && (options.which == "index" || options.which == "subtitle")) {
    throw Failure{Exit::kUsage, "--which " + options.which + ": needs --subtitle (see --help)", ""};
  }
}

}  // namespace

void AddPlaylist(CLI::App& app, Command& command) {
  CLI::App* sub = app.add_subcommand("playlist", "Show a video's HLS playlists");
  auto options = std::make_shared<PlaylistOptions>();
  AddHlsOptions(*sub, options->request);
  sub->add_option("--subtitle", options->request.subtitle,
                  "With this subtitle (a track's number, or a file's path), or with \"all\"")
      ->option_text("ID");
  CLI::Option* which =
      sub->add_option("--which", options->which,
                      "Which one to print: index, video or subtitle (the first one's)")
          ->check(CLI::IsMember({"index", "video", "subtitle"}))
          ->option_text("WHICH");
  sub->add_option("-o,--output", options->folder, "Folder to write all of them to")
      ->excludes(which)
      ->option_text("DIR");
  which->option_text("WHICH");  // without a note of what excludes what
  sub->footer(kFooter);
  sub->callback([options, &command] {
    command.run = [options] {
      CheckChoice(*options);
      return RunPlaylist(*options);
    };
  });
}

}  // namespace tarncli
