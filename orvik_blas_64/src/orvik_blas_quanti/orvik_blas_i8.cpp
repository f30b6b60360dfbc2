#include "orvik_blas_64/src/orvik_blas_quanti/orvik_blas_i8.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "orvik_blas_64/src/gemm_args.h"
#include "orvik_blas_64/src/kernel_dispatch.h"
#include "orviklog/src/checks.h"

namespace {

// Products and sums are formed in uint32 so that they wrap as the contract
// says (signed overflow would be undefined).
template <typename T, bool kATrans, bool kBTrans>
void seq_matrix_mul_i32(int M, int N, int K, signed char alpha, const T* A, const T* B,
                        signed char beta, int* C) {
  for (int i = 0; i < M; ++i) {
    for (int j = 0; j < N; ++j) {
      uint32_t acc = 0;
      for (int p = 0; p < K; ++p) {
        const int av = kATrans ? A[static_cast<long>(p) * M + i] : A[static_cast<long>(i) * K + p];
        const int bv = kBTrans ? B[static_cast<long>(j) * K + p] : B[static_cast<long>(p) * N + j];
        acc += static_cast<uint32_t>(av * bv);
      }
      int& c = C[static_cast<long>(i) * N + j];
      c = static_cast<int>(static_cast<uint32_t>(alpha) * acc +
                           static_cast<uint32_t>(beta) * static_cast<uint32_t>(c));
    }
  }
}

void FastGemm(int a_trans, int b_trans, int M, int N, int K, const signed char* A,
              const signed char* B, int beta, int* C) {
  orvik_blas_kernels::ActiveKernels().i8_gemm(a_trans, b_trans, M, N, K,
                                              reinterpret_cast<const int8_t*>(A),
                                              reinterpret_cast<const int8_t*>(B), beta, C);
}

// The assembly, m1 and cache kernels of the size-selected forms share the
// fast tiles; they differ only in how they treat alpha and beta.

// Reads beta, not alpha.
void orvik_i8_i32_gemm_nn_assmble_kernel(int M, int N, int K, signed char /*alpha*/,
                                         const signed char* A, const signed char* B, int* C,
                                         signed char beta) {
  FastGemm(0, 0, M, N, K, A, B, beta, C);
}
void orvik_i8_i32_gemm_nt_assmble_kernel(int M, int N, int K, signed char /*alpha*/,
                                         const signed char* A, const signed char* B, int* C,
                                         signed char beta) {
  FastGemm(0, 1, M, N, K, A, B, beta, C);
}
// Overwrites C.
void orvik_i8_i32_gemm_tn_assmble_kernel(int M, int N, int K, const signed char* A,
                                         const signed char* B, int* C) {
  FastGemm(1, 0, M, N, K, A, B, 0, C);
}
void orvik_i8_i32_gemm_nn_m1_kernel(int M, int N, int K, const signed char* A, const signed char* B,
                                    int* C) {
  FastGemm(0, 0, M, N, K, A, B, 0, C);
}
void orvik_i8_i32_gemm_nt_m1_kernel(int M, int N, int K, const signed char* A, const signed char* B,
                                    int* C) {
  FastGemm(0, 1, M, N, K, A, B, 0, C);
}
// C is cleared first, so beta has no effect.
void orvik_i8_i32_gemm_nn_cache_kernel(int M, int N, int K, signed char /*alpha*/,
                                       const signed char* A, const signed char* B, int* C,
                                       signed char /*beta*/) {
  FastGemm(0, 0, M, N, K, A, B, 0, C);
}
void orvik_i8_i32_gemm_nt_cache_kernel(int M, int N, int K, signed char /*alpha*/,
                                       const signed char* A, const signed char* B, int* C,
                                       signed char /*beta*/) {
  FastGemm(0, 1, M, N, K, A, B, 0, C);
}
void orvik_i8_i32_gemm_tn_cache_kernel(int M, int N, int K, const signed char* A,
                                       const signed char* B, int* C) {
  FastGemm(1, 0, M, N, K, A, B, 0, C);
}

}  // namespace

void seq_matrix_mul_i8_i32_nn_c(int M, int N, int K, signed char alpha, const signed char* A,
                                const signed char* B, signed char beta, int* C) {
  seq_matrix_mul_i32<signed char, false, false>(M, N, K, alpha, A, B, beta, C);
}
void seq_matrix_mul_i8_i32_nt_c(int M, int N, int K, signed char alpha, const signed char* A,
                                const signed char* B, signed char beta, int* C) {
  seq_matrix_mul_i32<signed char, false, true>(M, N, K, alpha, A, B, beta, C);
}
void seq_matrix_mul_i8_i32_tn_c(int M, int N, int K, signed char alpha, const signed char* A,
                                const signed char* B, signed char beta, int* C) {
  seq_matrix_mul_i32<signed char, true, false>(M, N, K, alpha, A, B, beta, C);
}
void seq_matrix_mul_i8_i32_tt_c(int M, int N, int K, signed char alpha, const signed char* A,
                                const signed char* B, signed char beta, int* C) {
  seq_matrix_mul_i32<signed char, true, true>(M, N, K, alpha, A, B, beta, C);
}
void seq_matrix_mul_u8_i32_nn_c(int M, int N, int K, signed char alpha, const unsigned char* A,
                                const unsigned char* B, signed char beta, int* C) {
  seq_matrix_mul_i32<unsigned char, false, false>(M, N, K, alpha, A, B, beta, C);
}
void seq_matrix_mul_u8_i32_nt_c(int M, int N, int K, signed char alpha, const unsigned char* A,
                                const unsigned char* B, signed char beta, int* C) {
  seq_matrix_mul_i32<unsigned char, false, true>(M, N, K, alpha, A, B, beta, C);
}
void seq_matrix_mul_u8_i32_tn_c(int M, int N, int K, signed char alpha, const unsigned char* A,
                                const unsigned char* B, signed char beta, int* C) {
  seq_matrix_mul_i32<unsigned char, true, false>(M, N, K, alpha, A, B, beta, C);
}
void seq_matrix_mul_u8_i32_tt_c(int M, int N, int K, signed char alpha, const unsigned char* A,
                                const unsigned char* B, signed char beta, int* C) {
  seq_matrix_mul_i32<unsigned char, true, true>(M, N, K, alpha, A, B, beta, C);
}

void orvik_i8_i32_gemm_nn_instrics_kernel(int M, int N, int K, signed char /*alpha*/,
                                          const signed char* A, const signed char* B, int* C,
                                          signed char beta) {
  FastGemm(0, 0, M, N, K, A, B, beta, C);
}
void orvik_i8_i32_gemm_nt_instrics_kernel(int M, int N, int K, signed char /*alpha*/,
                                          const signed char* A, const signed char* B, int* C,
                                          signed char beta) {
  FastGemm(0, 1, M, N, K, A, B, beta, C);
}
void orvik_i8_i32_gemm_tn_instrics_kernel(int M, int N, int K, signed char /*alpha*/,
                                          const signed char* A, const signed char* B, int* C,
                                          signed char beta) {
  FastGemm(1, 0, M, N, K, A, B, beta, C);
}
void orvik_i8_i32_gemm_tt_instrics_kernel(int M, int N, int K, signed char /*alpha*/,
                                          const signed char* A, const signed char* B, int* C,
                                          signed char beta) {
  FastGemm(1, 1, M, N, K, A, B, beta, C);
}

// Each narrows alpha and beta to their sign-extended 8-bit values.
void orvik_i8_i32_gemm_nn_aarch64(int M, int N, int K, int alpha, const signed char* A,
                                  const signed char* B, int beta, int* C) {
  orvik_i8_i32_gemm_nn_instrics_kernel(M, N, K, static_cast<signed char>(alpha), A, B, C,
                                       static_cast<signed char>(beta));
}
void orvik_i8_i32_gemm_nt_aarch64(int M, int N, int K, int alpha, const signed char* A,
                                  const signed char* B, int beta, int* C) {
  orvik_i8_i32_gemm_nt_instrics_kernel(M, N, K, static_cast<signed char>(alpha), A, B, C,
                                       static_cast<signed char>(beta));
}
void orvik_i8_i32_gemm_tn_aarch64(int M, int N, int K, int alpha, const signed char* A,
                                  const signed char* B, int beta, int* C) {
  orvik_i8_i32_gemm_tn_instrics_kernel(M, N, K, static_cast<signed char>(alpha), A, B, C,
                                       static_cast<signed char>(beta));
}
void orvik_i8_i32_gemm_tt_aarch64(int M, int N, int K, int alpha, const signed char* A,
                                  const signed char* B, int beta, int* C) {
  orvik_i8_i32_gemm_tt_instrics_kernel(M, N, K, static_cast<signed char>(alpha), A, B, C,
                                       static_cast<signed char>(beta));
}

const orvik_i8_i32_gemm_fn func_gemm_i8_i32[4] = {
    orvik_i8_i32_gemm_nn_aarch64, orvik_i8_i32_gemm_nt_aarch64, orvik_i8_i32_gemm_tn_aarch64,
    orvik_i8_i32_gemm_tt_aarch64};

void orvik_i8_i32_gemm_nn_neon(int M, int N, int K, int alpha, const signed char* A,
                               const signed char* B, int beta, int* C) {
  const signed char a = static_cast<signed char>(alpha), b = static_cast<signed char>(beta);
  if (K > 7 && N > 7 && M == 1) {
    orvik_i8_i32_gemm_nn_m1_kernel(M, N, K, A, B, C);
  } else if (!(K > 3 && N > 7 && M > 3)) {
    orvik_i8_i32_gemm_nn_instrics_kernel(M, N, K, a, A, B, C, b);
  } else if (M > 115 && K > 148 && N > 255 && M + N + K > 670) {
    orvik_i8_i32_gemm_nn_cache_kernel(M, N, K, a, A, B, C, b);
  } else {
    orvik_i8_i32_gemm_nn_assmble_kernel(M, N, K, a, A, B, C, b);
  }
}

void orvik_i8_i32_gemm_nt_neon(int M, int N, int K, int alpha, const signed char* A,
                               const signed char* B, int beta, int* C) {
  const signed char a = static_cast<signed char>(alpha), b = static_cast<signed char>(beta);
  if (K > 7 && N > 3 && M <= 1) {
    orvik_i8_i32_gemm_nt_m1_kernel(M, N, K, A, B, C);
  } else if (M <= 1 || !(K > 7 && N > 3)) {
    orvik_i8_i32_gemm_nt_instrics_kernel(M, N, K, a, A, B, C, b);
  } else if (M > 170 && K > 110 && N > 140 && M + N + K > 550) {
    orvik_i8_i32_gemm_nt_cache_kernel(M, N, K, a, A, B, C, b);
  } else {
    orvik_i8_i32_gemm_nt_assmble_kernel(M, N, K, a, A, B, C, b);
  }
}

void orvik_i8_i32_gemm_tn_neon(int M, int N, int K, int alpha, const signed char* A,
                               const signed char* B, int beta, int* C) {
  const signed char a = static_cast<signed char>(alpha), b = static_cast<signed char>(beta);
  if (!(K > 3 && N > 7 && M > 3)) {
    orvik_i8_i32_gemm_tn_instrics_kernel(M, N, K, a, A, B, C, b);
  } else if (M > 210 && K > 150 && N > 180 && M + N + K > 650) {
    orvik_i8_i32_gemm_tn_cache_kernel(M, N, K, A, B, C);
  } else {
    orvik_i8_i32_gemm_tn_assmble_kernel(M, N, K, A, B, C);
  }
}

namespace {
// Transposes A (stored K by M) into a copy M by K and runs the nt form.
void orvik_i8_i32_gemm_tt_kernel(int M, int N, int K, int alpha, const signed char* A,
                                 const signed char* B, int beta, int* C) {
  signed char* copy = static_cast<signed char*>(malloc(static_cast<size_t>(M) * K));
  for (int i = 0; i < M; ++i) {
    for (int p = 0; p < K; ++p)
      copy[static_cast<long>(i) * K + p] = A[static_cast<long>(p) * M + i];
  }
  orvik_i8_i32_gemm_nt_neon(M, N, K, alpha, copy, B, beta, C);
  free(copy);
}
}  // namespace

void orvik_i8_i32_gemm_tt_neon(int M, int N, int K, int alpha, const signed char* A,
                               const signed char* B, int beta, int* C) {
  orvik_i8_i32_gemm_tt_kernel(M, N, K, alpha, A, B, beta, C);
}

extern "C" void orvik_i8_i32_gemm(int Order, int TransA, int TransB, int M, int N, int K,
                                  signed char alpha, const signed char* A, int lda,
                                  const signed char* B, int ldb, signed char beta, int* C,
                                  int ldc) {
  // The kernels never read alpha; this check is what makes them equal to
  // the contract.
  const int a = alpha;
  CHECK_EQ(a, 1);
  CheckGemmArgs(Order, TransA, TransB, M, N, K, lda, ldb, C, ldc);
  const int ta = TransA == 112, tb = TransB == 112;
  if (Order == 101) {
    func_gemm_i8_i32[2 * ta + tb](M, N, K, alpha, A, B, beta, C);
  } else {
    func_gemm_i8_i32[2 * tb + ta](N, M, K, alpha, B, A, beta, C);
  }
}

extern "C" int orvik_i8_i32_dot(int N, const signed char* x, int incx, const signed char* y,
                                int incy) {
  CHECK_EQ(incx, 1);
  CHECK_EQ(incy, 1);
  if (N < 1) return 0;
  return orvik_blas_kernels::ActiveKernels().i8_dot(N, reinterpret_cast<const int8_t*>(x),
                                                    reinterpret_cast<const int8_t*>(y));
}

size_t orvik_i8_packed_b_bytes(int N, int K) {
  const size_t cols = (static_cast<size_t>(N) + 15) / 16 * 16;
  const size_t quads = (static_cast<size_t>(K) + 3) / 4;
  return cols * 4 + cols * quads * 4;
}

void orvik_i8_pack_b(int b_trans, int N, int K, const signed char* B, signed char* packed) {
  const int cols = (N + 15) / 16 * 16;
  const int quads = (K + 3) / 4;
  signed char* strips = packed + static_cast<size_t>(cols) * 4;
  for (int j = 0; j < cols; ++j) {
    uint32_t sum = 0;
    signed char* col = strips + static_cast<size_t>(j / 16) * quads * 64 + (j % 16) * 4;
    for (int p = 0; p < 4 * quads; ++p) {
      signed char v = 0;
      if (j < N && p < K) v = b_trans ? B[static_cast<long>(j) * K + p] : B[static_cast<long>(p) * N + j];
      col[(p / 4) * 64 + p % 4] = v;
      sum += static_cast<uint32_t>(static_cast<int32_t>(v));
    }
    const int32_t seed = static_cast<int32_t>(0u - 128u * sum);
    memcpy(packed + static_cast<size_t>(j) * 4, &seed, sizeof(seed));
  }
}

void orvik_i8_gemv_packed(int N, int K, const signed char* a, const signed char* packed,
                          const int* bias, const unsigned char* shift, int lo, int* C,
                          signed char* out8) {
  orvik_blas_kernels::ActiveKernels().i8_gemv_packed(
      N, K, reinterpret_cast<const int8_t*>(a), reinterpret_cast<const int8_t*>(packed), bias,
      shift, lo, C, reinterpret_cast<int8_t*>(out8));
}

extern "C" void orvik_i8_i32_ger(int /*Order*/, int M, int N, signed char a, const signed char* x,
                                 int incx, const signed char* y, int incy, int* A, int lda) {
  orvik_i8_i32_gemm(101, 111, 111, M, N, 1, a, x, incx, y, incy, 1, A, lda);
}

void orvik_i8_i8_gemm_shift_inhouse(int Order, int TransA, int TransB, int M, int N, int K,
                                    signed char a, signed char a_shift, const signed char* A,
                                    signed char A_shift, int lda, const signed char* B,
                                    signed char B_shift, int ldb, signed char b,
                                    signed char b_shift, signed char* C, signed char C_shift,
                                    signed char output_shift, int ldc) {
  // The element count is formed as a 32-bit product.
  const int count = static_cast<int>(static_cast<uint32_t>(M) * static_cast<uint32_t>(N));
  int* sums = static_cast<int*>(calloc(count, sizeof(int)));
  orvik_i8_i32_gemm(Order, TransA, TransB, M, N, K, 1, A, lda, B, ldb, 0, sums, ldc);
  const float sa = a * exp2f(static_cast<float>(a_shift));
  const float sb = b * exp2f(static_cast<float>(b_shift));
  const float sab = exp2f(static_cast<float>(A_shift + B_shift));
  const float sc = exp2f(static_cast<float>(C_shift));
  const float so = exp2f(static_cast<float>(-output_shift));
  for (int i = 0; i < M; ++i) {
    for (int j = 0; j < N; ++j) {
      signed char& c = C[static_cast<long>(i) * N + j];
      // One fused multiply-add, then the output scale; truncation toward
      // zero, no rounding.
      float t = std::fma(sa, static_cast<float>(sums[static_cast<long>(i) * N + j]) * sab,
                         (static_cast<float>(c) * sc) * sb);
      t = t * so;
      if (t > 127.0f) {
        c = 127;
      } else if (t < -128.0f) {
        c = -128;
      } else {
        c = static_cast<signed char>(static_cast<int>(t));
      }
    }
  }
  free(sums);
}

extern "C" void orvik_i8_i8_gemm_shift(int Order, int TransA, int TransB, int M, int N, int K,
                                       signed char alpha, signed char a_shift, const signed char* A,
                                       signed char A_shift, int lda, const signed char* B,
                                       signed char B_shift, int ldb, signed char b,
                                       signed char b_shift, signed char* C, signed char C_shift,
                                       int output_shift_given, const signed char* output_shift,
                                       int ldc) {
  const int a = alpha;
  CHECK_EQ(a, 1);
  CHECK(C);
  CHECK_EQ(Order, 101);
  CHECK_EQ(TransA, 111);
  CHECK(TransB == 111 || TransB == 112);
  CHECK_EQ(lda, K);
  if (TransB == 111) {
    CHECK_EQ(ldb, N);
  } else {
    CHECK_EQ(ldb, K);
  }
  CHECK_EQ(ldc, N);
  CHECK_EQ(output_shift_given, 1);
  orvik_i8_i8_gemm_shift_inhouse(Order, TransA, TransB, M, N, K, alpha, a_shift, A, A_shift, lda, B,
                                 B_shift, ldb, b, b_shift, C, C_shift, *output_shift, ldc);
}

int RoundDown(int a, int b) {
  if (b == 0) return 0;
  const int q = b == -1 ? -a : a / b;
  return static_cast<int>(static_cast<uint32_t>(q) * static_cast<uint32_t>(b));
}

int RoundUp(int a, int b) { return RoundDown(a + b - 1, b); }

int CeilQuotient(int a, int b) {
  if (b == 0) return 0;
  if (b == -1) return 1 - (a + b);
  return (a + b - 1) / b;
}

namespace {
int Max(int a, int b) { return a > b ? a : b; }
constexpr int kL2Budget = 393216;  // bytes of L2 for an A, a B and a C block
constexpr int kL1Budget = 16384;   // bytes of L1
}  // namespace

void FindL2BlockSizes_nn(int m, int n, int k, BlockParams* params) {
  const int k4 = RoundUp(k, 4);
  const int n_cap = static_cast<int>(static_cast<float>(k4 ? kL2Budget / k4 : 0) * 0.75f);
  const int n_blocks = CeilQuotient(n, Max(n_cap, 1));
  params->l2_n = Max(RoundDown(CeilQuotient(n, Max(n_blocks, 1)), 8), 8);
  const int divisor = k4 + 4 * params->l2_n;
  const int m_cap = divisor ? (kL2Budget - k4 * params->l2_n) / divisor : 0;
  const int m_blocks = CeilQuotient(m, Max(m_cap, 1));
  params->l2_m = Max(RoundDown(CeilQuotient(m, Max(m_blocks, 1)), 4), 4);
  params->l2_k = k4;
}

void FindL1BlockSizes_nn(BlockParams* params) {
  const int k_blocks = CeilQuotient(params->l2_k, 1354);
  params->l1_k = Max(RoundDown(CeilQuotient(params->l2_k, Max(k_blocks, 1)), 4), 4);
  const int divisor = params->l1_k + 4 * params->l2_n;
  const int m_cap = divisor ? kL1Budget / divisor : 0;
  const int m_blocks = CeilQuotient(params->l2_m, Max(m_cap, 1));
  params->l1_m = Max(RoundDown(CeilQuotient(params->l2_m, Max(m_blocks, 1)), 4), 4);
  params->l1_n = params->l2_n;
}
