// An HTTP/1.1 server (RFC 9110, RFC 9112) in one thread.
//
// What a handler does with a request is to answer it, at once or later; meanwhile the connection is
// suspended and costs no thread. The server does what is the same for every answer: HEAD, Range
// and 206, If-None-Match and If-Modified-Since and 304, gzip, keep-alive, the security headers, the
// limits.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "backend/loop/event_loop.h"
#include "backend/loop/unique_fd.h"

namespace tarnbackend::http {

using Headers = std::vector<std::pair<std::string, std::string>>;

// As a client sent it; percent-encoding is undone in path and query. A request whose encoding is
// broken, or which holds a NUL or a control character in path or query, never reaches the handler
// (400).
struct Request {
  std::string method;  // upper case
  std::string path;    // begins with "/"; has no "." or ".." part
  // In the order in which they came; a name without "=" has an empty value, "+" is a space.
  std::vector<std::pair<std::string, std::string>> query;
  std::string target;  // as it came, for the log
  Headers headers;     // names in lower case
  std::string body;    // at most Options::max_body
  std::string client;  // the peer's address, without port; "" for a socket that has none

  // The first value; empty when there is none.
  std::string Query(std::string_view name) const;
  bool HasQuery(std::string_view name) const;
  // `name` in lower case. The first value; empty when there is none.
  std::string Header(std::string_view name) const;
  // The value of a cookie (RFC 6265); empty when there is none.
  std::string Cookie(std::string_view name) const;
};

// A whole regular file, read where it lies. One that turns out shorter ends the connection.
struct FileBody {
  UniqueFd fd;
  uint64_t size = 0;
};

// Bytes of which nobody knows how many come: read from the pipe until its end, as fast as the
// client takes them. `ended` is called once, when the last byte was sent, or the client went;
// within Reply where nobody reads (the client has gone, or another answer was given). For HEAD
// nothing is read.
struct PipeBody {
  UniqueFd fd;
  std::function<void(uint64_t bytes, bool whole)> ended;
  std::string first;  // sent before what the pipe holds
  // Asked at the pipe's end: whether that is all. Where it is not, the connection ends without the
  // mark of an end, so that the client knows. None: it is.
  std::function<bool()> whole = nullptr;
};

struct Response {
  int status = 200;
  std::string type;  // Content-Type; empty: none
  Headers headers;
  std::variant<std::string, FileBody, PipeBody> body;

  // A strong validator, quoted; Range and If-None-Match are answered for bodies that have one.
  std::string etag;
  // Seconds since 1970; 0: no Last-Modified.
  time_t modified = 0;
  // The value of Cache-Control; empty: "no-store".
  std::string cache;
  // Text that is worth compressing, where the client accepts it: a string body of over 1 KiB.
  bool compress = false;
  // Where the whole is already compressed, for clients that accept it; the length of `body` is
  // that of the plain text.
  std::shared_ptr<const std::string> gzip;
};

// A request that waits for its answer. Used in the loop's thread only.
class Exchange {
 public:
  virtual ~Exchange() = default;
  virtual const Request& request() const = 0;
  // Answers. The first answer counts; nothing happens once the client has gone. An exchange that
  // is dropped without an answer is answered with 500.
  virtual void Reply(Response response) = 0;
  // Called once, if the connection ends before the answer is complete, or with its end; at once
  // where that has happened. While a request waits, a client that shuts its sending side counts as
  // gone. Must not end the server.
  virtual void OnEnd(std::function<void()> ended) = 0;
};
using Handler = std::function<void(std::shared_ptr<Exchange>)>;

// {"error": word, "message": sentence}, in English.
Response ErrorResponse(int status, const std::string& word, const std::string& message);

struct Options {
  size_t max_connections = 1024;
  size_t max_connections_per_client = 512;
  size_t max_header_bytes = 16 * 1024;
  size_t max_body = 64 * 1024;
  // A connection on which nothing moves for so long is closed, unless its request waits. 0: never.
  unsigned idle_seconds = 60;
  // Host names, without port, that a request's Host may have: what keeps a stranger's page from
  // reaching a server on loopback by a name of its own. Empty: any. Others get 421.
  std::vector<std::string> hosts;
  // The value of Access-Control-Allow-Origin; empty: no other origin may read.
  std::string cors_origin;
  // For each finished answer, in the loop's thread.
  std::function<void(const Request&, int status, uint64_t bytes)> finished;
};

struct Counters {
  uint64_t connections = 0;  // open now
  uint64_t requests = 0;     // answered since the start
  uint64_t bytes = 0;        // of bodies, sent since the start
};

class Server {
 public:
  // Serves the listening socket, which it takes. From now on the process ignores SIGPIPE, which
  // programs that it starts inherit unless they are given the default back. A handler that throws
  // is one that answers 500. Throws std::runtime_error.
  Server(EventLoop& loop, UniqueFd listening, Options options, Handler handler);
  // Closes every connection. Exchanges that are still held answer nobody from then on.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // No connection is accepted any more, and each ends with its answer, or at once where no whole
  // request has come; `drained` is called once, when none is left. It may end the server.
  void Drain(std::function<void()> drained);
  Counters counters() const;

 private:
  class State;
  std::unique_ptr<State> state_;
};

// A listening TCP socket on "127.0.0.1:8080", "[::1]:0"; port 0 takes a free one. Throws
// std::runtime_error with one line for people.
UniqueFd Listen(const std::string& address);
// "127.0.0.1:45678" of a listening socket.
std::string LocalAddress(int fd);

}  // namespace tarnbackend::http
