// Memory that a test and the processes that it forks share.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <new>

namespace tarn::test {

// An object that processes forked later share.
template <typename T>
T* Shared() {
  void* const memory =
      mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  EXPECT_NE(memory, MAP_FAILED);
  return new (memory) T{};
}

}  // namespace tarn::test
