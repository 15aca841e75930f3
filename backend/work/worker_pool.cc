#include "backend/work/worker_pool.h"

#include <sys/epoll.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>

#include "backend/work/call_text.h"
#include "backend/work/pool_state.h"

namespace tarnbackend {
namespace {

using std::chrono::milliseconds;

// A worker that was told to end, by the end of its channel, does so at once, unless it hangs.
constexpr milliseconds kEndTime{5'000};
// When the server ends, calls that must not be killed get so long.
constexpr milliseconds kGrace{3'000};

Answer Lost(std::string cause) {
  Answer answer;
  answer.kind = Answer::Kind::kLost;
  answer.cause = std::move(cause);
  return answer;
}

Answer Failed(std::string cause) {
  Answer answer;
  answer.kind = Answer::Kind::kRefused;
  answer.word = "failed";
  answer.cause = std::move(cause);
  return answer;
}

}  // namespace

WorkerPool::State::State(EventLoop& loop, PoolOptions options)
    : loop_(loop), options_(std::move(options)) {
  if (options_.command.empty()) throw std::system_error(EINVAL, std::generic_category());
  const WorkerId first = Start();
  const int error = ExecError(workers_.at(first).process.exec_error, true);
  if (error != 0) {
    Discard(first);
    throw std::system_error(error, std::generic_category(), options_.command.front());
  }
  BecomeIdle(first);
  KeepIdle();
}

WorkerPool::State::~State() {
  for (const auto& [call, timer] : coming_) loop_.Cancel(timer);
  for (auto& [id, worker] : workers_) {
    loop_.Cancel(worker.timer);
    loop_.Unwatch(worker.process.channel.get());
    loop_.Unwatch(worker.process.pidfd.get());
    worker.process.channel.reset();
    if (worker.call && worker.call->rule->may_be_killed) KillWorker(worker.process.pidfd);
  }
  const auto end = EventLoop::Clock::now() + kGrace;
  for (auto& [id, worker] : workers_) {
    const auto left = std::chrono::ceil<milliseconds>(end - EventLoop::Clock::now());
    if (!WorkerHasEnded(worker.process.pidfd,
                        static_cast<int>(std::max<int64_t>(left.count(), 0)))) {
      KillWorker(worker.process.pidfd);
    }
  }
  for (auto& [id, worker] : workers_) {
    WorkerHasEnded(worker.process.pidfd, -1);
    ReapWorker(worker.process.pidfd);
  }
}

const CallRule* WorkerPool::State::FindRule(const std::string& name) const {
  const auto found = std::ranges::find(options_.calls, name, &CallRule::name);
  return found == options_.calls.end() ? nullptr : &*found;
}

void WorkerPool::State::Log(int priority, const std::string& line) const {
  if (options_.log) {
    options_.log(priority, line);
  } else {
    syslog(priority, "%s", line.c_str());
  }
}

void WorkerPool::State::Deliver(const Done& done, Answer answer) {
  if (!done) return;
  ++counters_.calls;
  try {
    done(std::move(answer));
  } catch (const std::exception& error) {
    // An answer that is not what was expected costs its own request.
    Log(LOG_ERR, std::string("an answer could not be used: ") + error.what());
  }
}

void WorkerPool::State::AnswerLater(CallId id, Done done, Answer answer) {
  // The loop's callbacks are copied, an answer cannot be.
  auto shared = std::make_shared<Answer>(std::move(answer));
  coming_[id] = loop_.After(milliseconds(0), [this, id, done = std::move(done), shared] {
    coming_.erase(id);
    Deliver(done, std::move(*shared));
  });
}

WorkerPool::CallId WorkerPool::State::Submit(const std::string& name, const Json::Value& arguments,
                                             Done done) {
  const CallId id = ++last_call_;
  const CallRule* const rule = FindRule(name);
  if (rule == nullptr) {
    AnswerLater(id, std::move(done), Failed("there is no call \"" + name + "\""));
    return id;
  }
  std::string text = CallText(name, arguments);
  if (text.size() > kMaxMessageText) {
    AnswerLater(id, std::move(done), Failed("the arguments of \"" + name + "\" are too large"));
    return id;
  }
  waiting_.push_back({id, rule, std::move(text), std::move(done)});
  Dispatch();
  if (waiting_.size() > options_.max_waiting) {
    Answer answer;
    answer.kind = Answer::Kind::kNotTaken;
    answer.cause = "too many calls are waiting";
    AnswerLater(id, std::move(waiting_.back().done), std::move(answer));
    waiting_.pop_back();
  }
  return id;
}

void WorkerPool::State::Forget(CallId call) {
  if (const auto answer = coming_.find(call); answer != coming_.end()) {
    loop_.Cancel(answer->second);
    coming_.erase(answer);
    return;
  }
  if (std::erase_if(waiting_, [call](const PendingCall& it) { return it.id == call; }) > 0) return;
  for (auto& [id, worker] : workers_) {
    if (!worker.call || worker.call->id != call) continue;
    worker.call->done = nullptr;
    // What ends by its own is let end.
    if (!worker.ending && worker.call->rule->may_be_killed) Kill(id, "");
    return;
  }
}

PoolCounters WorkerPool::State::counters() const {
  PoolCounters counters = counters_;
  counters.workers = static_cast<unsigned>(workers_.size());
  counters.busy = static_cast<unsigned>(
      std::ranges::count_if(workers_, [](const auto& it) { return it.second.call.has_value(); }));
  counters.waiting = static_cast<unsigned>(waiting_.size());
  return counters;
}

void WorkerPool::State::Dispatch() {
  while (!waiting_.empty()) {
    WorkerId worker = TakeIdle();
    if (worker == 0 && workers_.size() >= options_.max_workers) return;
    PendingCall call = std::move(waiting_.front());
    waiting_.pop_front();
    try {
      if (worker == 0) worker = Start();
    } catch (const std::system_error& error) {
      // The next call tries again.
      const std::string cause = std::string("no worker could be started: ") + error.what();
      Log(LOG_ERR, cause);
      ++counters_.lost;
      AnswerLater(call.id, std::move(call.done), Lost(cause));
      continue;
    }
    Give(worker, std::move(call));
  }
}

WorkerPool::State::WorkerId WorkerPool::State::TakeIdle() {
  while (!idle_.empty()) {
    const WorkerId id = idle_.back();
    idle_.pop_back();
    Worker& worker = workers_.at(id);
    loop_.Cancel(std::exchange(worker.timer, 0));
    // One that was killed meanwhile, and is about to be noticed, would lose the call.
    if (!WorkerHasEnded(worker.process.pidfd, 0)) return id;
    worker.ending = true;
  }
  return 0;
}

WorkerPool::State::WorkerId WorkerPool::State::Start() {
  Worker worker;
  worker.process = StartWorker(options_.command);
  const WorkerId id = ++last_worker_;
  const int channel = worker.process.channel.get();
  const int pidfd = worker.process.pidfd.get();
  workers_.emplace(id, std::move(worker));
  try {
    loop_.Watch(channel, EPOLLIN, [this, id](uint32_t events) { OnSocket(id, events); });
    loop_.Watch(pidfd, EPOLLIN, [this, id](uint32_t) { OnExit(id); });
  } catch (const std::system_error&) {
    Discard(id);
    throw;
  }
  return id;
}

void WorkerPool::State::Discard(WorkerId id) {
  const WorkerProcess& process = workers_.at(id).process;
  loop_.Unwatch(process.channel.get());
  loop_.Unwatch(process.pidfd.get());
  KillWorker(process.pidfd);
  WorkerHasEnded(process.pidfd, -1);
  ReapWorker(process.pidfd);
  workers_.erase(id);
}

void WorkerPool::State::SetTimer(WorkerId id, milliseconds delay, void (State::*due)(WorkerId)) {
  Worker& worker = workers_.at(id);
  loop_.Cancel(worker.timer);
  worker.timer = loop_.After(delay, [this, id, due] {
    workers_.at(id).timer = 0;
    (this->*due)(id);
  });
}

void WorkerPool::State::Give(WorkerId id, PendingCall call) {
  Worker& worker = workers_.at(id);
  Message message;
  message.text = std::move(call.text);
  worker.writer.Put(std::move(message));
  worker.call = std::move(call);
  SetTimer(id, worker.call->rule->deadline, &State::OnDeadline);
  Flush(id);
}

void WorkerPool::State::Flush(WorkerId id) {
  Worker& worker = workers_.at(id);
  const int channel = worker.process.channel.get();
  // Where the worker has ended, its pidfd tells.
  const bool more = worker.writer.Flush(channel) == Sent::kMore;
  loop_.Watch(channel, more ? EPOLLIN | EPOLLOUT : EPOLLIN,
              [this, id](uint32_t events) { OnSocket(id, events); });
}

void WorkerPool::State::OnSocket(WorkerId id, uint32_t events) {
  Worker& worker = workers_.at(id);
  if ((events & EPOLLOUT) != 0) Flush(id);
  Message message;
  switch (worker.reader.Read(worker.process.channel.get(), message)) {
    case Received::kMore:
      return;
    case Received::kMessage:
      OnAnswer(id, std::move(message));
      return;
    case Received::kBad:
      Kill(id, "its answer is none");
      return;
    case Received::kEnd:
      // It is about to end, and how is not known yet.
      loop_.Unwatch(worker.process.channel.get());
      StopIdling(id);
      if (!worker.ending) SetTimer(id, kEndTime, &State::OnEndTime);
      worker.ending = true;
      return;
  }
}

void WorkerPool::State::OnAnswer(WorkerId id, Message message) {
  Worker& worker = workers_.at(id);
  const bool first_network = network_.empty();
  std::optional<Answer> answer = ParseAnswer(message.text, network_);
  if (!worker.call || worker.ending || !answer) {
    // One that was killed is past caring.
    if (!worker.ending) Kill(id, "its answer is none");
    return;
  }
  if (first_network && !network_.empty()) {
    Log(LOG_WARNING, "workers could not leave the machine's network: " + network_);
  }
  answer->bytes = std::move(message.bytes);
  answer->descriptor = std::move(message.descriptor);
  const PendingCall call = *std::exchange(worker.call, std::nullopt);
  worker.process.exec_error.reset();
  if (call.rule->throw_away) {
    Retire(id);
  } else {
    BecomeIdle(id);
  }
  Dispatch();
  // One that ended with its call was fit: the next is made ready before it is asked for.
  if (call.rule->throw_away) KeepIdle();
  Deliver(call.done, *std::move(answer));
}

void WorkerPool::State::OnExit(WorkerId id) {
  Worker& worker = workers_.at(id);
  // What it said last may still be on its way.
  Message message;
  if (worker.call && !worker.ending &&
      worker.reader.Read(worker.process.channel.get(), message) == Received::kMessage) {
    OnAnswer(id, std::move(message));
    return;  // called again, as the pidfd stays readable
  }
  std::optional<std::string> end = ReapWorker(worker.process.pidfd);
  if (!end) return;
  if (const int error = ExecError(worker.process.exec_error, false); error != 0) {
    end = "cannot execute " + options_.command.front() + ": " + std::strerror(error);
  }
  if (!worker.why.empty()) end = worker.why;
  loop_.Cancel(worker.timer);
  loop_.Unwatch(worker.process.channel.get());
  loop_.Unwatch(worker.process.pidfd.get());
  StopIdling(id);
  const int pid = worker.process.pid;
  const bool expected = worker.expected;
  std::optional<PendingCall> call = std::move(worker.call);
  workers_.erase(id);
  if (call && call->done) {
    ++counters_.lost;
    Log(LOG_ERR, "worker " + std::to_string(pid) + " was lost with a call \"" + call->rule->name +
                     "\": " + *end);
  } else if (!expected) {
    Log(LOG_WARNING, "worker " + std::to_string(pid) + " ended: " + *end);
  }
  Dispatch();
  if (call) Deliver(call->done, Lost(*std::move(end)));
}

void WorkerPool::State::OnDeadline(WorkerId id) {
  Worker& worker = workers_.at(id);
  PendingCall call = *std::exchange(worker.call, std::nullopt);
  ++counters_.late;
  Answer answer;
  answer.kind = Answer::Kind::kLate;
  answer.cause = "no answer within " + std::to_string(call.rule->deadline.count()) + " ms";
  Log(LOG_ERR, "worker " + std::to_string(worker.process.pid) + " was killed in a call \"" +
                   call.rule->name + "\": " + answer.cause);
  Kill(id, "");
  Deliver(call.done, std::move(answer));
}

void WorkerPool::State::OnIdleTime(WorkerId id) {
  if (idle_.size() <= options_.idle_workers) return;
  StopIdling(id);
  Retire(id);
}

void WorkerPool::State::OnEndTime(WorkerId id) {
  Kill(id, workers_.at(id).call ? "it closed its channel" : "it did not end");
}

void WorkerPool::State::BecomeIdle(WorkerId id) {
  idle_.push_back(id);
  SetTimer(id, options_.idle_time, &State::OnIdleTime);
}

void WorkerPool::State::Retire(WorkerId id) {
  Worker& worker = workers_.at(id);
  worker.ending = true;
  worker.expected = true;
  loop_.Unwatch(worker.process.channel.get());
  worker.process.channel.reset();
  SetTimer(id, kEndTime, &State::OnEndTime);
}

void WorkerPool::State::Kill(WorkerId id, const std::string& why) {
  Worker& worker = workers_.at(id);
  worker.ending = true;
  worker.expected = why.empty();
  worker.why = why;
  StopIdling(id);
  loop_.Cancel(std::exchange(worker.timer, 0));
  if (worker.process.channel.valid()) loop_.Unwatch(worker.process.channel.get());
  KillWorker(worker.process.pidfd);
}

void WorkerPool::State::KeepIdle() {
  while (idle_.size() < options_.idle_workers && workers_.size() < options_.max_workers) {
    try {
      BecomeIdle(Start());
    } catch (const std::system_error& error) {
      Log(LOG_ERR, std::string("no worker could be started: ") + error.what());
      return;
    }
  }
}

WorkerPool::WorkerPool(EventLoop& loop, PoolOptions options)
    : state_(std::make_unique<State>(loop, std::move(options))) {}
WorkerPool::~WorkerPool() = default;

WorkerPool::CallId WorkerPool::Submit(const std::string& name, Json::Value arguments, Done done) {
  return state_->Submit(name, arguments, std::move(done));
}

void WorkerPool::Forget(CallId call) { state_->Forget(call); }

PoolCounters WorkerPool::counters() const { return state_->counters(); }

}  // namespace tarnbackend
