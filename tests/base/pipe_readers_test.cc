#include "base/pipe_readers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/process.h"

namespace {

class PipeReaders : public testing::Test {
 protected:
  PipeReaders() { EXPECT_TRUE(tarn::OpenPipe(read_, write_)); }

  tarn::UniqueFd read_, write_;
};

TEST_F(PipeReaders, AreGoneOnceTheReadEndIsClosed) {
  for (const int end : {read_.get(), write_.get()}) {
    const tarn::PipeReaders readers(end);
    EXPECT_FALSE(readers.Gone());
  }
  const tarn::PipeReaders readers(write_.get());
  write_.reset();
  EXPECT_FALSE(readers.Gone());
  read_.reset();
  EXPECT_TRUE(readers.Gone());
}

TEST_F(PipeReaders, AreThereAlsoWhenThePipeIsFull) {
  fcntl(write_.get(), F_SETFL, O_NONBLOCK);
  while (write(write_.get(), "full", 4) > 0) {
  }
  const tarn::PipeReaders readers(write_.get());
  EXPECT_FALSE(readers.Gone());
  read_.reset();
  EXPECT_TRUE(readers.Gone());
}

TEST_F(PipeReaders, MayBeOtherProcesses) {
  const tarn::PipeReaders readers(write_.get());
  const pid_t reader = test::InChild([] {
    for (;;) pause();
    return 0;
  });
  read_.reset();
  EXPECT_FALSE(readers.Gone());
  kill(reader, SIGKILL);
  test::WaitFor(reader);
  EXPECT_TRUE(readers.Gone());
}

TEST_F(PipeReaders, StillSeeTheEndOfFile) {
  const tarn::PipeReaders readers(write_.get());
  EXPECT_FALSE(readers.Gone());
  write_.reset();
  char byte;
  EXPECT_EQ(read(read_.get(), &byte, 1), 0);
  EXPECT_FALSE(readers.Gone());
  EXPECT_EQ(read(read_.get(), &byte, 1), 0);
}

TEST_F(PipeReaders, AreNotGoneWhereNobodyCanTell) {
  EXPECT_FALSE(tarn::PipeReaders(-1).Gone());
  const tarn::UniqueFd file(tarn::OpenRetry("/tmp/file", O_RDWR | O_CREAT, 0644));
  EXPECT_FALSE(tarn::PipeReaders(file.get()).Gone());
}

TEST_F(PipeReaders, OfANamedPipeAreNoticedToo) {
  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  tarn::UniqueFd reader(tarn::OpenRetry("/tmp/fifo", O_RDONLY | O_NONBLOCK));
  const tarn::PipeReaders readers(reader.get());
  EXPECT_FALSE(readers.Gone());
  reader.reset();
  EXPECT_TRUE(readers.Gone());
}

}  // namespace
