#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "orvik_blas_64/src/orvik_blas/orvik_blas_memory.h"

namespace {

TEST(BlasMemoryTest, FourHoldersSucceedAndTheFifthGetsNull) {
  void* held[4];
  for (void*& p : held) {
    p = orvik_blas_memory_alloc(0);
    ASSERT_NE(p, nullptr);
  }
  for (int i = 0; i < 4; ++i) {
    for (int j = i + 1; j < 4; ++j) EXPECT_NE(held[i], held[j]);
  }
  testing::internal::CaptureStdout();
  void* fifth = orvik_blas_memory_alloc(0);
  fflush(stdout);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(fifth, nullptr);
  EXPECT_EQ(out,
            "BLAS : Program is Terminated. Because you tried to allocate too many memory "
            "regions.\n");
  for (void* p : held) orvik_blas_memory_free(p);
}

TEST(BlasMemoryTest, GivingBackAndTakingAgainReusesTheBlockUncleared) {
  char* first = static_cast<char*>(orvik_blas_memory_alloc(0));
  ASSERT_NE(first, nullptr);
  // The whole block, sa and sb, is usable.
  memset(first, 0x5a, kOrvikBlasBufferSize);
  orvik_blas_memory_free(first);
  char* again = static_cast<char*>(orvik_blas_memory_alloc(7));
  EXPECT_EQ(again, first);
  EXPECT_EQ(again[0], 0x5a);
  EXPECT_EQ(again[kOrvikBlasBufferSize - 1], 0x5a);
  orvik_blas_memory_free(again);
}

TEST(BlasMemoryTest, FreeingAStrangerPrintsAndChangesNothing) {
  void* block = orvik_blas_memory_alloc(0);
  ASSERT_NE(block, nullptr);
  int stranger = 0;
  char expected[96];
  snprintf(expected, sizeof(expected), "BLAS : Bad memory unallocation! : %4d  %p\n", 3,
           static_cast<void*>(&stranger));
  testing::internal::CaptureStdout();
  orvik_blas_memory_free(&stranger);
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
  // The block is still lent: the next take gets another one.
  void* other = orvik_blas_memory_alloc(0);
  EXPECT_NE(other, block);
  orvik_blas_memory_free(other);
  orvik_blas_memory_free(block);
}

}  // namespace
