#ifndef BENCH_ARM_INSN_REFERENCE_H_
#define BENCH_ARM_INSN_REFERENCE_H_

#include <stdint.h>

// C = A * B, row-major, A M x K, B K x N: the int8 products of the
// streaming net's layers.  Sums wrap as the kernel's do only past 2^31,
// which the shapes here never reach.
void PlainI8GemmNN(int M, int N, int K, const int8_t* A, const int8_t* B, int32_t* C);

// C = A * B^T, row-major, A M x K, B N x K: a float dense layer.
void PlainSgemmNT(int M, int N, int K, const float* A, const float* B, float* C);

#endif  // BENCH_ARM_INSN_REFERENCE_H_
