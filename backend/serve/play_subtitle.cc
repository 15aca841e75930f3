// The pieces of subtitles that an HLS stream's subtitle playlists name.
#include "backend/serve/play_api.h"
#include "backend/serve/playback_address.h"

namespace tarnbackend {

void PlayApi::Subtitle(const ExchangePtr& exchange) {
  const http::Request& request = exchange->request();
  const auto video = ParseNumber(request.Query("id"));
  const auto start = ParseNumber(request.Query("webvtt_start_time"));
  const auto end = ParseNumber(request.Query("webvtt_end_time"));
  if (!video || *video > INT32_MAX || !start || !end) {
    exchange->Reply(Refusal("bad-request"));
    return;
  }
  const auto id = static_cast<int32_t>(*video);
  context_.WithFacts(exchange, id, [=, this](const LibraryKeeper::FactsPtr& facts) {
    // The playlists name a file beside the video by its path: what the video does not have is
    // never opened.
    const std::string wanted = UnquotedQuery(exchange->request(), "subtitle_id");
    const Facts::Subtitle* found = facts->FindSubtitleOfEngine(wanted);
    if (found == nullptr) {
      exchange->Reply(Refusal("no-such-subtitle"));
      return;
    }
    context_.SubtitlePiece(exchange, id, *found, static_cast<double>(*start),
                           static_cast<double>(*end),
                           exchange->request().Query("subtitle_codepage"));
  });
}

}  // namespace tarnbackend
