#include "backend/http/daemon.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "backend/http/call.h"

namespace tarnbackend::http {
namespace {

// The library tries for ever to send what a file does not have any more.
constexpr std::chrono::milliseconds kGuardPeriod(500);

// Bytes that wait in the kernel before it sends them. The rest stays where it lies: what is sent
// while it is still in the processor's cache costs half of what a full queue does, and a client
// that goes leaves little behind. The kernel keeps back what fills no packet while more is
// promised, for up to 200 ms, and asks for more once half of this is left: it has to be more than
// two packets, which are of 64 KiB on loopback.
constexpr int kUnsentBytes = 192 * 1024;

std::string AddressOf(MHD_Connection* connection) {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info == nullptr || info->client_addr == nullptr) return "";
  const sockaddr* address = info->client_addr;
  const socklen_t length =
      address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  char host[NI_MAXHOST];
  if (address->sa_family != AF_INET && address->sa_family != AF_INET6) return "";
  if (getnameinfo(address, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST) != 0) return "";
  return host;
}

Peer& PeerOf(MHD_Connection* connection) {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return *static_cast<Peer*>(info->socket_context);
}

unsigned Clamp(size_t value) { return static_cast<unsigned>(std::min<size_t>(value, 1u << 30)); }

}  // namespace

Peer::Peer() = default;
Peer::~Peer() = default;

// What the library calls.
class Daemon::Callbacks {
 public:
  static void Log(void* self, const char* format, va_list arguments) {
    char line[512];
    std::vsnprintf(line, sizeof line, format, arguments);
    static_cast<Daemon*>(self)->complaint_ = line;
  }

  static void Connection(void* self, MHD_Connection* connection, void** context,
                         MHD_ConnectionNotificationCode code) {
    auto* daemon = static_cast<Daemon*>(self);
    auto* peer = static_cast<Peer*>(*context);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
      daemon->Opened(connection, peer);
      *context = peer;
    } else {
      *context = nullptr;
      daemon->Closed(peer);
    }
  }

  static void* RequestLine(void* self, const char* line, MHD_Connection* connection) {
    Peer& peer = PeerOf(connection);
    peer.call = std::make_unique<Call>(*static_cast<Daemon*>(self), peer, connection, line);
    return peer.call.get();
  }

  static MHD_Result Access(void*, MHD_Connection*, const char*, const char* method,
                           const char* version, const char* upload, size_t* size, void** context) {
    return static_cast<Call*>(*context)->Step(method, version, upload, size);
  }

  static void Completed(void* self, MHD_Connection* connection, void** context,
                        MHD_RequestTerminationCode code) {
    Peer& peer = PeerOf(connection);
    if (peer.call != nullptr && code == MHD_REQUEST_TERMINATED_COMPLETED_OK) {
      peer.call->SetComplete();
    }
    *context = nullptr;
    peer.call.reset();
    if (static_cast<Daemon*>(self)->draining_) ShutInput(peer);
  }
};

Daemon::Daemon(EventLoop& loop, UniqueFd listening, Options options, Handler handler)
    : loop_(loop), options_(std::move(options)), handler_(std::move(handler)) {
  // The library sends files without a copy only where this signal cannot end the process.
  signal(SIGPIPE, SIG_IGN);
  Start(std::move(listening));
  const auto* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD);
  epoll_ = info->epoll_fd;
  loop_.Watch(epoll_, EPOLLIN, [this](uint32_t) { Run(); });
  RunSoon();
}

void Daemon::Start(UniqueFd listening) {
  const int flags = fcntl(listening.get(), F_GETFL);
  if (flags < 0 || fcntl(listening.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
    throw std::runtime_error("the web server was given no socket");
  }
  // A request's head and its answer's head lie in it together, and what a pipe gives at a time.
  const size_t memory = std::max<size_t>(32 * 1024, 2 * options_.max_header_bytes);
  daemon_ = MHD_start_daemon(
      MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG, 0, nullptr, nullptr,
      &Callbacks::Access, this,                                      //
      MHD_OPTION_EXTERNAL_LOGGER, &Callbacks::Log, this,             //
      MHD_OPTION_LISTEN_SOCKET, listening.get(),                     //
      MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1,                          //
      MHD_OPTION_CONNECTION_LIMIT, Clamp(options_.max_connections),  //
      MHD_OPTION_PER_IP_CONNECTION_LIMIT, Clamp(options_.max_connections_per_client),
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, memory,                  //
      MHD_OPTION_CONNECTION_TIMEOUT, options_.idle_seconds,        //
      MHD_OPTION_NOTIFY_CONNECTION, &Callbacks::Connection, this,  //
      MHD_OPTION_URI_LOG_CALLBACK, &Callbacks::RequestLine, this,  //
      MHD_OPTION_NOTIFY_COMPLETED, &Callbacks::Completed, this, MHD_OPTION_END);
  // The library closes the socket with some failures.
  if (daemon_ != nullptr || fcntl(listening.get(), F_GETFD) < 0) listening.release();
  if (daemon_ == nullptr) {
    throw std::runtime_error("the web server cannot start: " + complaint_);
  }
}

Daemon::~Daemon() {
  loop_.Unwatch(epoll_);
  // Suspended connections must not be there when the library stops.
  for (const auto& [peer, owned] : peers_) {
    if (peer->call != nullptr) peer->call->Abandon();
  }
  MHD_stop_daemon(daemon_);
  loop_.Cancel(run_timer_);
  loop_.Cancel(idle_timer_);
  loop_.Cancel(drained_timer_);
  loop_.Cancel(guard_timer_);
}

void Daemon::RunSoon() {
  if (run_timer_ != 0) return;
  run_timer_ = loop_.After(std::chrono::milliseconds(0), [this] {
    run_timer_ = 0;
    Run();
  });
}

void Daemon::Run() {
  MHD_run(daemon_);
  SetTimer();
}

void Daemon::SetTimer() {
  MHD_UNSIGNED_LONG_LONG wait = 0;
  if (MHD_get_timeout(daemon_, &wait) != MHD_YES) return;
  if (wait == 0) return RunSoon();
  // A timer that comes too early asks again: cheaper than one that moves with every byte.
  const std::chrono::milliseconds delay(std::min<MHD_UNSIGNED_LONG_LONG>(wait, 1u << 30));
  const auto time = EventLoop::Clock::now() + delay;
  if (idle_timer_ != 0 && idle_time_ <= time) return;
  loop_.Cancel(idle_timer_);
  idle_time_ = time;
  idle_timer_ = loop_.After(delay, [this] {
    idle_timer_ = 0;
    Run();
  });
}

void Daemon::Opened(MHD_Connection* connection, Peer*& peer) {
  auto opened = std::make_unique<Peer>();
  opened->fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  opened->address = AddressOf(connection);
  setsockopt(opened->fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kUnsentBytes, sizeof kUnsentBytes);
  peer = opened.get();
  peers_.emplace(peer, std::move(opened));
  counters_.connections = peers_.size();
}

void Daemon::Closed(Peer* peer) {
  peers_.erase(peer);
  counters_.connections = peers_.size();
  // Where there were too many, the library looks for further ones only when it runs.
  RunSoon();
  if (draining_ && peers_.empty()) TellDrainedSoon();
}

void Daemon::CountAnswer(const Request& request, int status, uint64_t bytes) {
  ++counters_.requests;
  counters_.bytes += bytes;
  if (options_.finished) options_.finished(request, status, bytes);
}

void Daemon::GuardFiles() {
  if (guard_timer_ != 0) return;
  guard_timer_ = loop_.After(kGuardPeriod, [this] {
    guard_timer_ = 0;
    bool any = false;
    for (const auto& [peer, owned] : peers_) {
      if (peer->call == nullptr || !peer->call->SendsFile()) continue;
      any = true;
      if (peer->call->FileLostItsEnd()) shutdown(peer->fd, SHUT_RDWR);
    }
    if (any) GuardFiles();
  });
}

void Daemon::Drain(std::function<void()> drained) {
  drained_ = std::move(drained);
  if (!draining_) {
    draining_ = true;
    UniqueFd listening(MHD_quiesce_daemon(daemon_));
    for (const auto& [peer, owned] : peers_) {
      if (peer->call == nullptr || peer->call->IsBeingRead()) ShutInput(*peer);
    }
    RunSoon();
  }
  if (peers_.empty()) TellDrainedSoon();
}

void Daemon::ShutInput(Peer& peer) {
  shutdown(peer.fd, SHUT_RD);
  peer.input_shut = true;
}

void Daemon::TellDrainedSoon() {
  if (drained_timer_ != 0) return;
  drained_timer_ = loop_.After(std::chrono::milliseconds(0), [this] {
    drained_timer_ = 0;
    // It may end this server.
    const auto drained = std::exchange(drained_, nullptr);
    if (drained) drained();
  });
}

}  // namespace tarnbackend::http
