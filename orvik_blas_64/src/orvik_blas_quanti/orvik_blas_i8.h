#ifndef ORVIK_BLAS_64_SRC_ORVIK_BLAS_QUANTI_ORVIK_BLAS_I8_H_
#define ORVIK_BLAS_64_SRC_ORVIK_BLAS_QUANTI_ORVIK_BLAS_I8_H_

// Signed 8-bit matrix products into exact 32-bit sums.  All matrices are
// dense and row-major unless a transpose flag says otherwise; leading
// dimensions are checked numbers, not strides.  Sums and the final
// alpha*acc + beta*C wrap modulo 2^32; nothing saturates or rounds.

#include <stddef.h>

#include "tovadmod/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// C := A*B + b*C (op as given by TransA/TransB, 111 or 112).  `a` must be
// 1.  Order 102 computes the transposed product with the operands swapped.
TOVAD_EXPORT void orvik_i8_i32_gemm(int Order, int TransA, int TransB, int M, int N, int K,
                                    signed char a, const signed char* A, int lda,
                                    const signed char* B, int ldb, signed char b, int* C, int ldc);

// Wrapping 32-bit sum of x[i]*y[i]; incx and incy must be 1; 0 for N < 1.
TOVAD_EXPORT int orvik_i8_i32_dot(int N, const signed char* x, int incx, const signed char* y,
                                  int incy);

// A += x * y^T as orvik_i8_i32_gemm(101, 111, 111, M, N, 1, a, x, incx, y,
// incy, 1, A, lda): a and incx must be 1, incy and lda must equal N.
TOVAD_EXPORT void orvik_i8_i32_ger(int Order, int M, int N, signed char a, const signed char* x,
                                   int incx, const signed char* y, int incy, int* A, int lda);

// 8-bit in, 8-bit out, with power-of-two scales: a value q with shift s
// stands for q * 2^s.  C (read and written) becomes the int8 of
// (a*2^a_shift * A*B*2^(A_shift+B_shift) + b*2^b_shift * C*2^C_shift) /
// 2^output_shift, truncated toward zero and saturated.  Only row-major
// with A not transposed; output_shift_given must be 1.
TOVAD_EXPORT void orvik_i8_i8_gemm_shift(int Order, int TransA, int TransB, int M, int N, int K,
                                         signed char a, signed char a_shift, const signed char* A,
                                         signed char A_shift, int lda, const signed char* B,
                                         signed char B_shift, int ldb, signed char b,
                                         signed char b_shift, signed char* C, signed char C_shift,
                                         int output_shift_given, const signed char* output_shift,
                                         int ldc);

#ifdef __cplusplus
}
#endif

// Internal forms (hidden).  Dense row-major, as in the table of forms:
// nn A[i*K+p] B[p*N+j]; nt A[i*K+p] B[j*K+p]; tn A[p*M+i] B[p*N+j];
// tt A[p*M+i] B[j*K+p].

// The reference loops: the numerical contract, C := alpha*acc + beta*C.
void seq_matrix_mul_i8_i32_nn_c(int M, int N, int K, signed char alpha, const signed char* A,
                                const signed char* B, signed char beta, int* C);
void seq_matrix_mul_i8_i32_nt_c(int M, int N, int K, signed char alpha, const signed char* A,
                                const signed char* B, signed char beta, int* C);
void seq_matrix_mul_i8_i32_tn_c(int M, int N, int K, signed char alpha, const signed char* A,
                                const signed char* B, signed char beta, int* C);
void seq_matrix_mul_i8_i32_tt_c(int M, int N, int K, signed char alpha, const signed char* A,
                                const signed char* B, signed char beta, int* C);
void seq_matrix_mul_u8_i32_nn_c(int M, int N, int K, signed char alpha, const unsigned char* A,
                                const unsigned char* B, signed char beta, int* C);
void seq_matrix_mul_u8_i32_nt_c(int M, int N, int K, signed char alpha, const unsigned char* A,
                                const unsigned char* B, signed char beta, int* C);
void seq_matrix_mul_u8_i32_tn_c(int M, int N, int K, signed char alpha, const unsigned char* A,
                                const unsigned char* B, signed char beta, int* C);
void seq_matrix_mul_u8_i32_tt_c(int M, int N, int K, signed char alpha, const unsigned char* A,
                                const unsigned char* B, signed char beta, int* C);

// Fast kernels: C := acc + beta*C; alpha is not read (the entry checks it
// is 1).  Note the argument order.
void orvik_i8_i32_gemm_nn_instrics_kernel(int M, int N, int K, signed char alpha,
                                          const signed char* A, const signed char* B, int* C,
                                          signed char beta);
void orvik_i8_i32_gemm_nt_instrics_kernel(int M, int N, int K, signed char alpha,
                                          const signed char* A, const signed char* B, int* C,
                                          signed char beta);
void orvik_i8_i32_gemm_tn_instrics_kernel(int M, int N, int K, signed char alpha,
                                          const signed char* A, const signed char* B, int* C,
                                          signed char beta);
void orvik_i8_i32_gemm_tt_instrics_kernel(int M, int N, int K, signed char alpha,
                                          const signed char* A, const signed char* B, int* C,
                                          signed char beta);

// Forms the dispatch table points at: (M, N, K, alpha, A, B, beta, C).
using orvik_i8_i32_gemm_fn = void (*)(int M, int N, int K, int alpha, const signed char* A,
                                      const signed char* B, int beta, int* C);
extern const orvik_i8_i32_gemm_fn func_gemm_i8_i32[4];
void orvik_i8_i32_gemm_nn_aarch64(int M, int N, int K, int alpha, const signed char* A,
                                  const signed char* B, int beta, int* C);
void orvik_i8_i32_gemm_nt_aarch64(int M, int N, int K, int alpha, const signed char* A,
                                  const signed char* B, int beta, int* C);
void orvik_i8_i32_gemm_tn_aarch64(int M, int N, int K, int alpha, const signed char* A,
                                  const signed char* B, int beta, int* C);
void orvik_i8_i32_gemm_tt_aarch64(int M, int N, int K, int alpha, const signed char* A,
                                  const signed char* B, int beta, int* C);

// Size-selected forms, not in the table.  Their sub-kernels differ in what
// they do with alpha and beta (the m1 kernels and the tn assembly kernel
// overwrite C; the cache kernels clear C first).
void orvik_i8_i32_gemm_nn_neon(int M, int N, int K, int alpha, const signed char* A,
                               const signed char* B, int beta, int* C);
void orvik_i8_i32_gemm_nt_neon(int M, int N, int K, int alpha, const signed char* A,
                               const signed char* B, int beta, int* C);
void orvik_i8_i32_gemm_tn_neon(int M, int N, int K, int alpha, const signed char* A,
                               const signed char* B, int beta, int* C);
void orvik_i8_i32_gemm_tt_neon(int M, int N, int K, int alpha, const signed char* A,
                               const signed char* B, int beta, int* C);

// Same as orvik_i8_i8_gemm_shift without its checks and with the output
// shift by value.
void orvik_i8_i8_gemm_shift_inhouse(int Order, int TransA, int TransB, int M, int N, int K,
                                    signed char a, signed char a_shift, const signed char* A,
                                    signed char A_shift, int lda, const signed char* B,
                                    signed char B_shift, int ldb, signed char b,
                                    signed char b_shift, signed char* C, signed char C_shift,
                                    signed char output_shift, int ldc);

// One row of A against a B fixed at set-up (the net's one-frame case), B
// with B(p, j) = b_trans ? B[j*K + p] : B[p*N + j].  Packed once, B is read
// in the order the kernel walks it and nothing is rearranged per product.
// The packed form, for Np = N rounded up to 16 and Q = ceil(K / 4):
//   Np 32-bit words: -128 * (sum over p of B(p, j)), wrapping (the kernel
//     that takes A unsigned as a + 128 starts each column from it);
//   then per strip of 16 columns and per depth quad q, 64 bytes: each
//     column's B(4q .. 4q + 3, j); missing columns and depth are zero.
size_t orvik_i8_packed_b_bytes(int N, int K);
void orvik_i8_pack_b(int b_trans, int N, int K, const signed char* B, signed char* packed);
// c_j = sum_p a[p] * B(p, j) + bias[j] (bias may be null), wrapping.  With
// out8 null C[j] = c_j; otherwise out8[j] = clamp(c_j >> shift[j], lo, 127),
// the shift arithmetic and below 32, and C is not read.  N, K >= 1.
void orvik_i8_gemv_packed(int N, int K, const signed char* a, const signed char* packed,
                          const int* bias, const unsigned char* shift, int lo, int* C,
                          signed char* out8);

// Block-size helpers on signed 32-bit integers with truncating division.
struct BlockParams {
  int l1_m, l1_n, l1_k, l2_m, l2_n, l2_k;
};
int RoundDown(int a, int b);
int RoundUp(int a, int b);
int CeilQuotient(int a, int b);
void FindL2BlockSizes_nn(int m, int n, int k, BlockParams* params);
void FindL1BlockSizes_nn(BlockParams* params);

#endif  // ORVIK_BLAS_64_SRC_ORVIK_BLAS_QUANTI_ORVIK_BLAS_I8_H_
