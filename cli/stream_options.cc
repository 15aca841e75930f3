#include "stream_options.h"

#include "client/default_profile.h"

namespace tarncli {
namespace {

// "A (default), B or C".
std::string Choice(const std::vector<std::string>& kinds) {
  std::string text = kinds[0] + " (default)";
  for (size_t i = 1; i < kinds.size(); ++i) {
    text += (i + 1 < kinds.size() ? ", " : " or ") + kinds[i];
  }
  return text;
}

}  // namespace

void AddStreamOptions(CLI::App& sub, const std::vector<std::string>& kinds,
                      const std::string& profile_default, StreamRequest& request,
                      std::string& audio) {
  const bool choice = kinds.size() > 1;
  request.kind = kinds[0];
  sub.add_option("FILE", request.file, "The video file")->required()->option_text(" ");
  if (choice) {
    sub.add_option("--kind", request.kind, "Kind of stream: " + Choice(kinds))
        ->transform(CLI::IsMember(kinds, CLI::ignore_case))
        ->option_text("KIND");
  }
  sub.add_option("--profile", request.profile_key,
                 "Transcoding profile (default" + profile_default + ")")
      ->option_text("KEY");
  const std::string file =
      choice ? ": the shipped file of the kind" : " " + tarnclient::DefaultProfileFile(kinds[0]);
  sub.add_option("--profile-file,--profiles", request.profile_file,
                 "File with transcoding profiles (default" + file + ")")
      ->option_text("PATH");
  sub.add_option("--audio", audio,
                 "Audio track by its id in \"tarnvte probe\" (default: the first)")
      ->option_text("ID");
}

}  // namespace tarncli
