#include "backend/http/server.h"

#include "backend/http/daemon.h"

namespace tarnbackend::http {

class Server::State : public Daemon {
 public:
  using Daemon::Daemon;
};

Server::Server(EventLoop& loop, UniqueFd listening, Options options, Handler handler)
    : state_(std::make_unique<State>(loop, std::move(listening), std::move(options),
                                     std::move(handler))) {}

Server::~Server() = default;

void Server::Drain(std::function<void()> drained) { state_->Drain(std::move(drained)); }

Counters Server::counters() const { return state_->counters(); }

}  // namespace tarnbackend::http
