#include "backend/serve/error_words.h"

#include <string_view>
#include <utility>

namespace tarnbackend {
namespace {

struct Row {
  std::string_view word;
  int status;
  std::string_view message;
};

constexpr Row kFailed = {"failed", 500, "Something went wrong on the server; its log says what."};

constexpr Row kRows[] = {
    {"bad-request", 400, "The request cannot be understood."},
    {"token-required", 401, "This server wants the token that it printed when it was started."},
    {"forbidden", 403, "Pages of other sites may not use this server."},
    {"no-such-video", 404, "There is no such video in the library."},
    {"no-such-stream", 404, "There is no such stream; it may have ended."},
    {"no-such-subtitle", 404, "The video has no such subtitle."},
    {"no-such-fragment", 404, "The stream has no such fragment."},
    {"no-such-address", 404, "There is nothing at this address."},
    {"method-not-allowed", 405, "This address does not take this method."},
    {"not-playable", 409, "The file is not a video that can be read."},
    {"TransAudioNotSupported", 409,
     "There is no such audio track, or its codec cannot be decoded; choose another track."},
    {"TransVideoNotSupported", 409,
     "This machine has no hardware path for this video; choose a software profile."},
    {"TransVideoNotHardwareSupported", 409,
     "The hardware cannot decode this video codec; choose a software profile."},
    {"TransVideoOutOfResolutionCapability", 409,
     "The picture is larger than the hardware can take; choose a software profile."},
    {"TransVideoOutOfProfileCapability", 409,
     "The hardware cannot decode 10-bit video; choose a software profile."},
    {"TransVideoOutOfFramerateCapability", 409,
     "The frame rate is too high for the hardware at this picture size; choose a software "
     "profile."},
    {"stream-ended", 410, "The stream has ended; start it again."},
    {"too-large", 413, "That is more than the server takes."},
    {"bad-range", 416, "The stream has no such bytes."},
    {"too-many-streams", 429, "As many streams are open as may be; close one."},
    {"too-many-requests", 429, "Too many requests in a short time; wait a moment."},
    {"TransEnable", 503, "As many transcoders as this machine bears are running already."},
    {"TransEnableOfflineConverting", 503,
     "An offline conversion is running; try again when it has ended."},
    {"TransSapceNotEnough", 503, "No data volume has room for the working files."},
    {"busy", 503, "The server has more to do than it can; try again in a moment."},
    {"superseded", 503, "Another position was asked for meanwhile."},
    {"stopping", 503, "The server is being stopped."},
    {"late", 504, "The server did not get it done in time."},
};

// The words of a subtitle's conversion, which clients know by more general ones.
constexpr std::pair<std::string_view, std::string_view> kConversionWords[] = {
    {"bad-window", "bad-request"},
    {"unknown-code-page", "bad-request"},
    {"not-readable", "no-such-subtitle"},
    {"bad-subtitle-id", "no-such-subtitle"},
    {"no-such-track", "no-such-subtitle"},
    {"bad-format", "not-playable"},
    {"out-of-memory", "busy"},
};

const Row& Find(std::string_view word) {
  for (const auto& [own, general] : kConversionWords) {
    if (own == word) return Find(general);
  }
  for (const Row& row : kRows) {
    if (row.word == word) return row;
  }
  return kFailed;
}

}  // namespace

http::Response Refusal(const std::string& word) {
  const Row& row = Find(word);
  http::Response response =
      http::ErrorResponse(row.status, std::string(row.word), std::string(row.message));
  if (row.status == 503 || row.status == 429) {
    response.headers.emplace_back("Retry-After", row.word == "superseded" ? "1" : "5");
  }
  return response;
}

http::Response RefusalOf(const Answer& answer) {
  switch (answer.kind) {
    case Answer::Kind::kNotTaken:
      return Refusal("busy");
    case Answer::Kind::kLate:
      return Refusal("late");
    default:
      return Refusal(answer.word);
  }
}

}  // namespace tarnbackend
