// Messages between the server and its workers, over a socket of two ends.
//
// A message is a JSON text, raw bytes, and at most one descriptor. On the wire: four numbers of 32
// bits in the machine's byte order (a mark, the text's length, the bytes' length, how many
// descriptors come along), the text, the bytes. A descriptor travels with the head (SCM_RIGHTS) and
// is received close-on-exec.
//
// Nothing throws but OpenChannel. One thread for each end.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "backend/loop/unique_fd.h"

namespace tarnbackend {

// In bytes. A message beyond is not sent, and who claims to send one is not listened to.
inline constexpr size_t kMaxMessageText = size_t{1} << 20;
inline constexpr size_t kMaxMessageBytes = size_t{16} << 20;

struct Message {
  std::string text;
  std::string bytes;
  UniqueFd descriptor;
};

// The server's end, which never blocks, and the worker's, which does; both close-on-exec. Throws
// std::system_error.
std::pair<UniqueFd, UniqueFd> OpenChannel();

enum class Received {
  kMessage,
  kMore,  // no more for now; only on an end that does not block
  kEnd,   // the other end was closed, or lost in the middle of a message
  kBad,   // no message; what follows is not to be understood
};

// Puts messages together from what arrives. After kEnd and kBad there is nothing more to read.
class MessageReader {
 public:
  // Reads to the end of the next message, but nothing of the one behind it. `message` is set for
  // kMessage alone.
  Received Read(int fd, Message& message);

 private:
  Received ReadHead(int fd);
  // Reads into `to`, of which `have` bytes are there. kMessage when it is full.
  Received Fill(int fd, char* to, size_t size, size_t& have);

  std::array<uint32_t, 4> head_{};
  size_t have_head_ = 0;
  bool sized_ = false;
  Message message_;
  size_t have_text_ = 0;
  size_t have_bytes_ = 0;
};

enum class Sent {
  kAll,
  kMore,    // go on when the socket takes more; only on an end that does not block
  kFailed,  // the other end is gone
};

// Sends one message at a time.
class MessageWriter {
 public:
  // Takes a message; the one before must be sent. False for one that is too large.
  bool Put(Message message);
  // Sends what there is. kAll also when there is nothing.
  Sent Flush(int fd);

 private:
  std::string data_;
  size_t sent_ = 0;
  UniqueFd descriptor_;
};

// Both on an end that blocks. Send: false for a message that is too large (errno EMSGSIZE) and when
// the other end is gone.
Received ReceiveMessage(int fd, Message& message);
bool SendMessage(int fd, Message message);

}  // namespace tarnbackend
