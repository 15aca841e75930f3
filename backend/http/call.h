// One request and its answer, on the library's side of an Exchange.
#pragma once

#include <microhttpd.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/http/answer.h"
#include "backend/http/daemon.h"

namespace tarnbackend::http {

class CallExchange;

// What becomes of a response that nobody gets: who waits for its pipe hears of it.
void DropResponse(Response response);

class Call {
 public:
  // `line`: the target as it lies in the library's buffer, or null.
  Call(Daemon& daemon, Peer& peer, MHD_Connection* connection, const char* line);
  // The end: whoever waits for it is told, and the answer is counted.
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // The library's access handler: the headers are there, then pieces of the body, then the end.
  MHD_Result Step(const char* method, const char* version, const char* upload, size_t* size);
  // The whole answer was sent.
  void SetComplete() { complete_ = true; }
  // Of a request that has not come whole yet.
  bool IsBeingRead() const { return !called_ && status_ == 0; }
  bool SendsFile() const { return file_ >= 0; }
  // The file that is being sent has become too short.
  bool FileLostItsEnd() const;
  // The server stops: nobody is answered any more.
  void Abandon();
  // The library's content reader for a pipe.
  ssize_t ReadPipe(char* buffer, size_t size);

  // For the exchange.
  void Reply(Response response);
  void OnEnd(std::function<void()> ended) { ended_.push_back(std::move(ended)); }
  void ExchangeGone();

 private:
  MHD_Result ReadHeaders(const char* method, const char* version);
  bool ReadTarget(std::string_view version);
  MHD_Result ReadBody(const char* upload, size_t size);
  void CallHandler();
  MHD_Result Send();
  void NoteFile(const Answer& answer);
  // Leaves the connection alone until Wake; meanwhile only the client's going is noticed.
  void Wait();
  void Wake();
  uint64_t SentBytes() const;
  void TakePipe(PipeBody pipe);
  void TellPipeEnded();

  Daemon& daemon_;
  Peer& peer_;
  MHD_Connection* const connection_;
  const char* const line_;
  std::shared_ptr<Request> request_;
  CallExchange* exchange_ = nullptr;
  std::vector<std::function<void()>> ended_;

  bool headers_read_ = false;
  size_t discarded_ = 0;
  bool called_ = false;
  bool waiting_ = false;
  // The client went while the connection waited.
  bool gone_ = false;
  std::optional<Response> response_;

  // Of an answer that was given to the library.
  int status_ = 0;
  uint64_t length_ = 0;
  uint64_t acknowledged_before_ = 0;
  bool complete_ = false;
  // The library's, while it is sent.
  int file_ = -1;
  uint64_t file_end_ = 0;

  std::optional<PipeBody> pipe_;
  size_t first_taken_ = 0;
  uint64_t pipe_bytes_ = 0;
  bool pipe_at_end_ = false;
};

}  // namespace tarnbackend::http
