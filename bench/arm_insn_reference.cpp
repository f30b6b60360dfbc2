// The plain loops the kernels are counted against: a row-major triple
// loop, built at -O2 without vectorising (see CMakeLists.txt), so the
// counts say what the kernels gain over straightforward scalar code.

#include "bench/arm_insn_reference.h"

void PlainI8GemmNN(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C) {
  for (int i = 0; i < M; ++i) {
    for (int j = 0; j < N; ++j) {
      int32_t sum = 0;
      for (int p = 0; p < K; ++p) sum += A[i * K + p] * B[p * N + j];
      C[i * N + j] = sum;
    }
  }
}

void PlainSgemmNT(int M, int N, int K, const float* A, const float* B, float* C) {
  for (int i = 0; i < M; ++i) {
    for (int j = 0; j < N; ++j) {
      float sum = 0.0f;
      for (int p = 0; p < K; ++p) sum += A[i * K + p] * B[j * K + p];
      C[i * N + j] = sum;
    }
  }
}
