#include "backend/serve/backend.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "backend/serve/access.h"
#include "backend/serve/session_mark.h"
#include "backend/serve/worker.h"

namespace tarnbackend {
namespace {

constexpr char kStreams[] = "/tmp/Reelbay";
// As long as the engine itself keeps a stream that nobody watches.
constexpr std::chrono::minutes kIdleTime{15};
constexpr std::chrono::seconds kHousekeeping{10};
constexpr std::chrono::seconds kLongestStop{20};
constexpr std::chrono::milliseconds kStopLook{50};
// A directory of nobody's that did not change for so long holds a failed preparation.
constexpr std::chrono::seconds kStaleTime{3600};

PoolOptions PoolOptionsOf(const BackendOptions& options) {
  PoolOptions pool;
  pool.command = options.worker;
  pool.calls = RulesOf(ServeCalls());
  pool.max_workers = options.max_workers;
  return pool;
}

sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
  return set;
}

// Without the port.
std::string HostOf(const std::string& address) { return address.substr(0, address.rfind(':')); }

// Every connection may have a file of its own: more than most systems give a process at first.
void RaiseFileLimit() {
  constexpr rlim_t kFiles = 8192;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kFiles) return;
  limit.rlim_cur = std::min(limit.rlim_max, kFiles);
  setrlimit(RLIMIT_NOFILE, &limit);
}

bool IsThere(const std::string& directory) {
  struct stat status {};
  return stat(directory.c_str(), &status) == 0;
}

}  // namespace

Backend::Backend(BackendOptions options, UniqueFd listening)
    : options_(std::move(options)),
      streams_(options_.max_streams, options_.max_streams_per_client),
      pool_(loop_, PoolOptionsOf(options_)),
      library_(options_.folders),
      page_(options_.page),
      rate_(options_.calls_per_second, options_.calls_per_second * 3),
      machine_(ThisMachine()),
      profiles_(LoadProfiles(machine_)),
      keeper_(loop_, pool_, library_),
      context_{loop_,
               pool_,
               library_,
               keeper_,
               streams_,
               metrics_,
               rate_,
               machine_,
               profiles_,
               options_.token,
               options_.cors_origin} {
  RaiseFileLimit();
  WatchSignals();
  api_ = std::make_unique<Api>(
      context_, page_,
      ServerApi::Source{options_.version, [this]() -> const Json::Value& { return platform_; },
                        [this] { return server_->counters(); }});
  http::Options http;
  http.cors_origin = options_.cors_origin;
  // The token keeps strangers' pages away where there is one.
  if (options_.token.empty()) {
    http.hosts = {"127.0.0.1", "localhost", "[::1]"};
    http.hosts.push_back(HostOf(http::LocalAddress(listening.get())));
  }
  http.finished = [this](const http::Request&, int status, uint64_t) {
    ++metrics_.answers[status];
  };
  server_ = std::make_unique<http::Server>(
      loop_, std::move(listening), std::move(http),
      [this](const ExchangePtr& exchange) { api_->Handle(exchange); });
  pool_.Submit("platform", Json::Value(Json::objectValue), [this](const Answer& answer) {
    LogTrouble("platform", answer);
    if (answer.kind == Answer::Kind::kDone) platform_ = answer.value;
  });
  CloseLeftStreams();
  Sweep();
  loop_.After(kHousekeeping, [this] { LookAfterStreams(); });
}

Backend::~Backend() = default;

void Backend::Run() { loop_.Run(); }

void Backend::WatchSignals() {
  const sigset_t set = StopSignals();
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signals_.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals_.valid()) throw std::system_error(errno, std::generic_category(), "signalfd");
  loop_.Watch(signals_.get(), EPOLLIN, [this](uint32_t) {
    signalfd_siginfo info{};
    while (read(signals_.get(), &info, sizeof info) == sizeof info) {
      OnSignal(static_cast<int>(info.ssi_signo));
    }
  });
}

void Backend::OnSignal(int signal) {
  if (signal == SIGHUP) {
    keeper_.Rescan();
  } else if (context_.stopping) {
    loop_.Stop();
  } else {
    BeginStop();
  }
}

void Backend::CloseLeftStreams() {
  for (const LeftStream& left : FindLeftStreams(kStreams)) {
    syslog(LOG_INFO, "closing %s, which a server before left behind", left.id.c_str());
    Json::Value arguments(Json::objectValue);
    arguments["stream_id"] = left.id;
    arguments["kind"] = left.kind;
    pool_.Submit("close", std::move(arguments),
                 [](const Answer& answer) { LogTrouble("close", answer); });
  }
}

void Backend::Sweep() {
  Json::Value arguments(Json::objectValue);
  arguments["idle_seconds"] = Json::Int64(kStaleTime.count());
  pool_.Submit("sweep", std::move(arguments),
               [](const Answer& answer) { LogTrouble("sweep", answer); });
  loop_.After(kStaleTime, [this] { Sweep(); });
}

void Backend::LookAfterStreams() {
  for (const StreamRef& stream : streams_.Idle(EventLoop::Clock::now(), kIdleTime)) {
    context_.Close(stream);
  }
  for (const StreamRef& stream : streams_.All()) {
    const bool gone = !stream->directory.empty() && !IsThere(stream->directory);
    if (gone && stream->busy == 0) streams_.Remove(stream->id);
  }
  loop_.After(kHousekeeping, [this] { LookAfterStreams(); });
}

void Backend::BeginStop() {
  context_.stopping = true;
  for (const StreamRef& stream : streams_.All()) context_.Close(stream);
  server_->Drain([this] { drained_ = true; });
  loop_.After(kLongestStop, [this] { loop_.Stop(); });
  EndWhenClosed();
}

void Backend::EndWhenClosed() {
  const PoolCounters pool = pool_.counters();
  if (drained_ && pool.busy == 0 && pool.waiting == 0) {
    loop_.Stop();
    return;
  }
  loop_.After(kStopLook, [this] { EndWhenClosed(); });
}

}  // namespace tarnbackend
