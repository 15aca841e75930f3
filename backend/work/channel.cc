#include "backend/work/channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tarnbackend {
namespace {

constexpr uint32_t kMark = 0x7461726e;

// The descriptors that came with a part of a message. All but the first are closed; how many there
// were.
size_t TakeDescriptors(msghdr& header, UniqueFd& first) {
  size_t count = 0;
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const size_t in_part = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < in_part; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(part) + i * sizeof fd, sizeof fd);
      UniqueFd received(fd);
      if (count++ == 0 && !first.valid()) first = std::move(received);
    }
  }
  return count;
}

// One part with one descriptor, suitably aligned.
union Control {
  cmsghdr align;
  char space[CMSG_SPACE(sizeof(int))];
};

}  // namespace

std::pair<UniqueFd, UniqueFd> OpenChannel() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  std::pair<UniqueFd, UniqueFd> channel{UniqueFd(ends[0]), UniqueFd(ends[1])};
  if (fcntl(ends[0], F_SETFL, O_RDWR | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "fcntl");
  }
  return channel;
}

Received MessageReader::ReadHead(int fd) {
  const size_t size = sizeof head_;
  while (have_head_ < size) {
    Control control{};
    iovec part{reinterpret_cast<char*>(head_.data()) + have_head_, size - have_head_};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.space;
    header.msg_controllen = sizeof control.space;
    const ssize_t got = recvmsg(fd, &header, MSG_CMSG_CLOEXEC);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno == EAGAIN ? Received::kMore : Received::kEnd;
    const bool had = message_.descriptor.valid();
    const size_t descriptors = TakeDescriptors(header, message_.descriptor);
    if (descriptors + (had ? 1 : 0) > 1 || (header.msg_flags & MSG_CTRUNC) != 0) {
      return Received::kBad;
    }
    if (got == 0) return Received::kEnd;
    have_head_ += static_cast<size_t>(got);
  }
  return Received::kMessage;
}

Received MessageReader::Fill(int fd, char* to, size_t size, size_t& have) {
  while (have < size) {
    // A descriptor in this place is dropped by the kernel, as there is no room for it.
    const ssize_t got = recv(fd, to + have, size - have, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno == EAGAIN ? Received::kMore : Received::kEnd;
    if (got == 0) return Received::kEnd;
    have += static_cast<size_t>(got);
  }
  return Received::kMessage;
}

Received MessageReader::Read(int fd, Message& message) {
  Received state = ReadHead(fd);
  if (state != Received::kMessage) return state;
  if (!sized_) {
    const auto [mark, text, bytes, descriptors] = head_;
    if (mark != kMark || text > kMaxMessageText || bytes > kMaxMessageBytes ||
        descriptors != (message_.descriptor.valid() ? 1U : 0U)) {
      return Received::kBad;
    }
    message_.text.resize(text);
    message_.bytes.resize(bytes);
    sized_ = true;
  }
  state = Fill(fd, message_.text.data(), message_.text.size(), have_text_);
  if (state != Received::kMessage) return state;
  state = Fill(fd, message_.bytes.data(), message_.bytes.size(), have_bytes_);
  if (state != Received::kMessage) return state;
  message = std::move(message_);
  *this = MessageReader();
  return Received::kMessage;
}

bool MessageWriter::Put(Message message) {
  if (message.text.size() > kMaxMessageText || message.bytes.size() > kMaxMessageBytes) {
    errno = EMSGSIZE;
    return false;
  }
  const std::array<uint32_t, 4> head{kMark, static_cast<uint32_t>(message.text.size()),
                                     static_cast<uint32_t>(message.bytes.size()),
                                     message.descriptor.valid() ? 1U : 0U};
  data_.assign(reinterpret_cast<const char*>(head.data()), sizeof head);
  data_ += message.text;
  data_ += message.bytes;
  sent_ = 0;
  descriptor_ = std::move(message.descriptor);
  return true;
}

Sent MessageWriter::Flush(int fd) {
  while (sent_ < data_.size()) {
    Control control{};
    iovec part{data_.data() + sent_, data_.size() - sent_};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (descriptor_.valid()) {
      header.msg_control = control.space;
      header.msg_controllen = sizeof control.space;
      cmsghdr* const rights = CMSG_FIRSTHDR(&header);
      rights->cmsg_level = SOL_SOCKET;
      rights->cmsg_type = SCM_RIGHTS;
      rights->cmsg_len = CMSG_LEN(sizeof(int));
      const int passed = descriptor_.get();
      std::memcpy(CMSG_DATA(rights), &passed, sizeof passed);
    }
    const ssize_t count = sendmsg(fd, &header, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN ? Sent::kMore : Sent::kFailed;
    descriptor_.reset();
    sent_ += static_cast<size_t>(count);
  }
  data_.clear();
  sent_ = 0;
  return Sent::kAll;
}

Received ReceiveMessage(int fd, Message& message) { return MessageReader().Read(fd, message); }

bool SendMessage(int fd, Message message) {
  MessageWriter writer;
  return writer.Put(std::move(message)) && writer.Flush(fd) == Sent::kAll;
}

}  // namespace tarnbackend
