// Playback: playlists, fragments, byte streams, files, pieces of subtitles.
#pragma once

#include <memory>
#include <string>

#include "backend/serve/context.h"

namespace tarnbackend {

class PlayApi {
 public:
  explicit PlayApi(Context& context) : context_(context) {}

  // Both take GET and HEAD.
  void Play(const ExchangePtr& exchange);
  void Subtitle(const ExchangePtr& exchange);

 private:
  using Use = std::shared_ptr<StreamUse>;
  struct FragmentRequest;
  struct ByteRequest;

  void Playlist(const ExchangePtr& exchange, const Use& use);
  void Fragment(const ExchangePtr& exchange, const Use& use, const std::string& id);
  void SendWhileItGrows(const std::shared_ptr<FragmentRequest>& wanted, const std::string& file);
  void FinishGrowing(FragmentRequest& wanted, const Answer& answer);
  void AskForFragment(std::shared_ptr<FragmentRequest> wanted);
  void Bytes(const ExchangePtr& exchange, const Use& use);
  void File(const ExchangePtr& exchange, const Use& use);

  // A stream whose working directory has gone is forgotten.
  void ForgetEnded(const std::string& id, const Answer& answer);

  Context& context_;
};

}  // namespace tarnbackend
