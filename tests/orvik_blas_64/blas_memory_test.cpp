#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "orvik_blas_64/src/orvik_blas/orvik_blas_memory.h"

namespace {

// Four blocks are lent at once; a fifth take and a stranger given back are
// reported and change nothing; a block given back is lent again uncleared.
TEST(BlasMemoryTest, FourBlocksLentAndReusedUncleared) {
  void* held[4];
  for (void*& p : held) {
    p = orvik_blas_memory_alloc(0);
    ASSERT_NE(p, nullptr);
  }
  for (int i = 0; i < 4; ++i) {
    for (int j = i + 1; j < 4; ++j) EXPECT_NE(held[i], held[j]);
  }
  int stranger = 0;
  char bad_free[96];
  snprintf(bad_free, sizeof(bad_free), "BLAS : Bad memory unallocation! : %4d  %p\n", 3,
           static_cast<void*>(&stranger));
  const std::string too_many =
      "BLAS : Program is Terminated. Because you tried to allocate too many memory regions.\n";
  testing::internal::CaptureStdout();
  EXPECT_EQ(orvik_blas_memory_alloc(0), nullptr);
  orvik_blas_memory_free(&stranger);
  EXPECT_EQ(orvik_blas_memory_alloc(0), nullptr);
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), too_many + bad_free + too_many);
  // The whole block, sa and sb, is usable.
  memset(held[3], 0x5a, kOrvikBlasBufferSize);
  orvik_blas_memory_free(held[3]);
  char* again = static_cast<char*>(orvik_blas_memory_alloc(7));
  EXPECT_EQ(again, held[3]);
  EXPECT_EQ(again[0], 0x5a);
  EXPECT_EQ(again[kOrvikBlasBufferSize - 1], 0x5a);
  for (void* p : held) orvik_blas_memory_free(p);
}

}  // namespace
