// Streams: prepared, looked at, closed.
#pragma once

#include <memory>
#include <string>

#include "backend/library/choice.h"
#include "backend/serve/context.h"
#include "backend/serve/stream_request.h"

namespace tarnbackend {

class StreamsApi {
 public:
  explicit StreamsApi(Context& context) : context_(context) {}

  void Create(const ExchangePtr& exchange);
  void List(const ExchangePtr& exchange);
  void Show(const ExchangePtr& exchange, const std::string& id);
  void Close(const ExchangePtr& exchange, const std::string& id);

 private:
  struct Preparation;
  using PreparationPtr = std::shared_ptr<Preparation>;

  void Choose(const PreparationPtr& wanted, const Facts& facts);
  void Prepare(const PreparationPtr& wanted);
  void Open(const PreparationPtr& wanted, StreamRef stream);
  void Refuse(const PreparationPtr& wanted, const Answer& answer);
  Json::Value State(const Stream& stream) const;

  Context& context_;
};

}  // namespace tarnbackend
