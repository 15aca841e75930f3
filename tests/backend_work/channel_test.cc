// Messages that come in pieces, too large, or not at all.
#include "backend/work/channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>

#include "tests/support/process.h"

namespace {

using tarnbackend::Message;
using tarnbackend::MessageReader;
using tarnbackend::MessageWriter;
using tarnbackend::OpenChannel;
using tarnbackend::Received;
using tarnbackend::Sent;
using tarnbackend::UniqueFd;

constexpr uint32_t kMark = 0x7461726e;

Message Text(const std::string& text, const std::string& bytes = "") {
  Message message;
  message.text = text;
  message.bytes = bytes;
  return message;
}

std::string Head(uint32_t mark, uint32_t text, uint32_t bytes, uint32_t descriptors) {
  const uint32_t head[] = {mark, text, bytes, descriptors};
  return std::string(reinterpret_cast<const char*>(head), sizeof head);
}

// Sends bytes with some descriptors.
void SendRaw(int fd, const std::string& data, int descriptors = 0) {
  iovec part{const_cast<char*>(data.data()), data.size()};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))] = {};
  const size_t size = static_cast<size_t>(descriptors) * sizeof(int);
  if (descriptors > 0) {
    header.msg_control = control;
    header.msg_controllen = CMSG_SPACE(size);
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(size);
    const int passed[4] = {0, 0, 0, 0};
    std::memcpy(CMSG_DATA(rights), passed, size);
  }
  ASSERT_EQ(sendmsg(fd, &header, MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
}

class ChannelTest : public testing::Test {
 protected:
  ChannelTest() { std::tie(server_, worker_) = OpenChannel(); }

  UniqueFd server_, worker_;
  MessageReader reader_;
  Message message_;
};

TEST_F(ChannelTest, CarriesTextBytesAndADescriptor) {
  Message sent = Text("{\"a\": 1}", std::string("\0b\0", 3));
  sent.descriptor = UniqueFd(open("/dev/zero", O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(SendMessage(worker_.get(), std::move(sent)));
  ASSERT_TRUE(SendMessage(worker_.get(), Text("next")));
  ASSERT_EQ(reader_.Read(server_.get(), message_), Received::kMessage);
  EXPECT_EQ(message_.text, "{\"a\": 1}");
  EXPECT_EQ(message_.bytes, std::string("\0b\0", 3));
  ASSERT_TRUE(message_.descriptor.valid());
  EXPECT_NE(fcntl(message_.descriptor.get(), F_GETFD) & FD_CLOEXEC, 0);
  char byte = 'x';
  EXPECT_EQ(read(message_.descriptor.get(), &byte, 1), 1);
  EXPECT_EQ(byte, '\0');
  ASSERT_EQ(reader_.Read(server_.get(), message_), Received::kMessage);
  EXPECT_EQ(message_.text, "next");
  EXPECT_FALSE(message_.descriptor.valid());
  EXPECT_EQ(reader_.Read(server_.get(), message_), Received::kMore);
}

TEST_F(ChannelTest, PutsAMessageTogetherFromSingleBytes) {
  const std::string data = Head(kMark, 4, 3, 1) + "textraw";
  for (size_t i = 0; i < data.size(); ++i) {
    ASSERT_EQ(reader_.Read(server_.get(), message_), Received::kMore) << i;
    SendRaw(worker_.get(), data.substr(i, 1), i == 0 ? 1 : 0);
  }
  ASSERT_EQ(reader_.Read(server_.get(), message_), Received::kMessage);
  EXPECT_EQ(message_.text, "text");
  EXPECT_EQ(message_.bytes, "raw");
  EXPECT_TRUE(message_.descriptor.valid());
}

TEST_F(ChannelTest, TakesTurnsWithAReaderThatIsSlow) {
  const std::string bytes(tarnbackend::kMaxMessageBytes, 'b');
  MessageWriter writer;
  ASSERT_TRUE(writer.Put(Text("large", bytes)));
  int turns = 0;
  Received received = Received::kMore;
  MessageReader reader;
  // Both ends of this process: neither may block.
  ASSERT_EQ(fcntl(worker_.get(), F_SETFL, O_RDWR | O_NONBLOCK), 0);
  while (received == Received::kMore) {
    const Sent sent = writer.Flush(server_.get());
    ASSERT_NE(sent, Sent::kFailed);
    received = reader.Read(worker_.get(), message_);
    ++turns;
  }
  ASSERT_EQ(received, Received::kMessage);
  EXPECT_EQ(message_.bytes, bytes);
  EXPECT_GT(turns, 1);
  EXPECT_EQ(writer.Flush(server_.get()), Sent::kAll);
}

TEST_F(ChannelTest, SendsNothingThatIsTooLarge) {
  EXPECT_FALSE(
      SendMessage(worker_.get(), Text(std::string(tarnbackend::kMaxMessageText + 1, 'x'))));
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_FALSE(
      SendMessage(worker_.get(), Text("", std::string(tarnbackend::kMaxMessageBytes + 1, 'x'))));
  EXPECT_EQ(reader_.Read(server_.get(), message_), Received::kMore);
}

TEST_F(ChannelTest, ListensToNoNonsense) {
  const std::string nonsense[] = {
      "GET / HTTP/1.1\r\n\r\n",
      Head(kMark, tarnbackend::kMaxMessageText + 1, 0, 0),
      Head(kMark, 0, tarnbackend::kMaxMessageBytes + 1, 0),
      Head(kMark, 2, 0, 1) + "{}",  // promises a descriptor
      Head(kMark + 1, 2, 0, 0) + "{}",
  };
  for (const std::string& data : nonsense) {
    auto [server, worker] = OpenChannel();
    SendRaw(worker.get(), data);
    EXPECT_EQ(MessageReader().Read(server.get(), message_), Received::kBad) << data;
  }
}

TEST_F(ChannelTest, KeepsNoDescriptorThatNobodyAskedFor) {
  const size_t before = test::OpenDescriptors();
  for (const int count : {1, 2, 3, 4}) {
    for (const uint32_t promised : {0U, 1U}) {
      if (count == 1 && promised == 1) continue;
      auto [server, worker] = OpenChannel();
      SendRaw(worker.get(), Head(kMark, 0, 0, promised), count);
      EXPECT_EQ(MessageReader().Read(server.get(), message_), Received::kBad) << count;
    }
  }
  // Nor one behind the head.
  auto [server, worker] = OpenChannel();
  SendRaw(worker.get(), Head(kMark, 2, 0, 0));
  SendRaw(worker.get(), "{}", 2);
  EXPECT_EQ(MessageReader().Read(server.get(), message_), Received::kMessage);
  server.reset();
  worker.reset();
  EXPECT_EQ(test::OpenDescriptors(), before);
}

TEST_F(ChannelTest, SeesTheEnd) {
  SendRaw(worker_.get(), Head(kMark, 10, 0, 0) + "half");
  EXPECT_EQ(reader_.Read(server_.get(), message_), Received::kMore);
  worker_.reset();
  EXPECT_EQ(reader_.Read(server_.get(), message_), Received::kEnd);
  EXPECT_FALSE(SendMessage(server_.get(), Text("anybody there?")));
}

}  // namespace
