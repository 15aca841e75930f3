// What a handler holds of a call.
#pragma once

#include <memory>
#include <utility>

#include "backend/http/call.h"

namespace tarnbackend::http {

class CallExchange : public Exchange {
 public:
  CallExchange(Call& call, std::shared_ptr<const Request> request)
      : call_(&call), request_(std::move(request)) {}
  ~CallExchange() override {
    if (call_ != nullptr) call_->ExchangeGone();
  }

  const Request& request() const override { return *request_; }
  void Reply(Response response) override {
    if (call_ != nullptr) {
      call_->Reply(std::move(response));
    } else {
      DropResponse(std::move(response));
    }
  }
  void OnEnd(std::function<void()> ended) override {
    if (call_ != nullptr) {
      call_->OnEnd(std::move(ended));
    } else {
      ended();
    }
  }

  // The call has ended; from now on nobody listens.
  void Detach() { call_ = nullptr; }

 private:
  Call* call_;
  const std::shared_ptr<const Request> request_;
};

}  // namespace tarnbackend::http
