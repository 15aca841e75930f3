// The web API and the page: which request goes where, and who may make it.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/serve/context.h"
#include "backend/serve/page_files.h"
#include "backend/serve/play_api.h"
#include "backend/serve/server_api.h"
#include "backend/serve/streams_api.h"
#include "backend/serve/videos_api.h"

namespace tarnbackend {

class Api {
 public:
  Api(Context& context, const PageFiles& page, ServerApi::Source source);

  void Handle(const ExchangePtr& exchange);

 private:
  using Parts = std::vector<std::string>;

  // The client was told why not, or where to go.
  bool IsTurnedAway(const ExchangePtr& exchange) const;
  void Route(const ExchangePtr& exchange, const Parts& parts);
  void RouteVideo(const ExchangePtr& exchange, const Parts& parts);
  void RouteStream(const ExchangePtr& exchange, const Parts& parts);
  void ReplyPage(const ExchangePtr& exchange) const;

  Context& context_;
  const PageFiles& page_;
  VideosApi videos_;
  StreamsApi streams_;
  PlayApi play_;
  ServerApi server_;
};

}  // namespace tarnbackend
