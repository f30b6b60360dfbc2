#include <cmath>
#include <cstdint>

#include "orvik_blas_64/src/gemm_args.h"
#include "orvik_blas_64/src/kernel_dispatch.h"
#include "orvik_blas_64/src/orvik_blas/orvik_blas_memory.h"
#include "orvik_blas_64/src/orvik_blas/orvik_cblas.h"
#include "orviklog/src/checks.h"

namespace {

// The argument record of the level-3 routines: the inner problem is
// column-major, c (m x n) += alpha * op(a) (m x k) * op(b) (k x n).
struct blas_arg_t {
  const float* a;
  const float* b;
  float* c;
  float alpha;
  float beta;
  int32_t m, n, k;
  int32_t lda, ldb, ldc;
};

// For n of 1 columns, scales (beta 0 writes zeros without reading, so NaN
// in c is cleared).
void orvik_sgemm_beta(int m, int n, float* c, int ldc, float beta) {
  for (int j = 0; j < n; ++j) {
    float* col = c + static_cast<long>(j) * ldc;
    if (beta == 0.0f) {
      for (int i = 0; i < m; ++i) col[i] = 0.0f;
    } else {
      for (int i = 0; i < m; ++i) col[i] *= beta;
    }
  }
}

// The shared body of orvik_sgemm_nn/_nt/_tn/_tt.  With all matrices dense,
// a product with a single row or column has contiguous vectors and runs as
// a matrix-vector product with no packing, the net's common case.
void orvik_sgemm_xy(const blas_arg_t& args, int a_trans, int b_trans, float* sa, float* sb) {
  const int m = args.m, n = args.n, k = args.k;
  if (args.beta != 1.0f) orvik_sgemm_beta(m, n, args.c, args.ldc, args.beta);
  if (args.alpha == 0.0f || k == 0 || n < 1) return;
  if (m < 1) return;
  const orvik_blas_kernels::KernelTable& kt = orvik_blas_kernels::ActiveKernels();
  if (n == 1) {
    // op(b) is one contiguous column; c is one contiguous column.
    if (!a_trans) {
      kt.sgemv_n(m, k, args.alpha, args.a, args.lda, args.b, args.c);
    } else {
      kt.sgemv_t(k, m, args.alpha, args.a, args.lda, args.b, args.c);
    }
    return;
  }
  if (m == 1) {
    // op(a) is one contiguous row; c is one contiguous row.
    if (!b_trans) {
      kt.sgemv_t(k, n, args.alpha, args.b, args.ldb, args.a, args.c);
    } else {
      kt.sgemv_n(n, k, args.alpha, args.b, args.ldb, args.a, args.c);
    }
    return;
  }
  kt.sgemm_blocked(a_trans, b_trans, m, n, k, args.alpha, args.a, args.lda, args.b, args.ldb,
                   args.c, args.ldc, sa, sb);
}

void orvik_sgemm_nn(const blas_arg_t& args, float* sa, float* sb) {
  orvik_sgemm_xy(args, 0, 0, sa, sb);
}
void orvik_sgemm_nt(const blas_arg_t& args, float* sa, float* sb) {
  orvik_sgemm_xy(args, 0, 1, sa, sb);
}
void orvik_sgemm_tn(const blas_arg_t& args, float* sa, float* sb) {
  orvik_sgemm_xy(args, 1, 0, sa, sb);
}
void orvik_sgemm_tt(const blas_arg_t& args, float* sa, float* sb) {
  orvik_sgemm_xy(args, 1, 1, sa, sb);
}

void (*const sgemm_routines[4])(const blas_arg_t&, float*, float*) = {
    orvik_sgemm_nn, orvik_sgemm_nt, orvik_sgemm_tn, orvik_sgemm_tt};

// Plain row-major triple loops of the reference form: C (m x n) with
// A(i, l) = a_trans ? a[l*lda + i] : a[i*lda + l] and B(l, j) = b_trans ?
// b[j*ldb + l] : b[l*ldb + j].  Each entry sums into a float from zero in
// order of depth, then fma(alpha, sum, beta * c).
template <bool kATrans, bool kBTrans>
void seq_matrix_mul_f32_c(int m, int n, int k, float alpha, const float* a, int lda, const float* b,
                          int ldb, float beta, float* c, int ldc) {
  for (int i = 0; i < m; ++i) {
    for (int j = 0; j < n; ++j) {
      float sum = 0.0f;
      for (int l = 0; l < k; ++l) {
        const float av =
            kATrans ? a[static_cast<long>(l) * lda + i] : a[static_cast<long>(i) * lda + l];
        const float bv =
            kBTrans ? b[static_cast<long>(j) * ldb + l] : b[static_cast<long>(l) * ldb + j];
        sum += av * bv;
      }
      float& out = c[static_cast<long>(i) * ldc + j];
      out = std::fma(alpha, sum, beta * out);
    }
  }
}

}  // namespace

void CheckGemmArgs(int Order, int TransA, int TransB, int M, int N, int K, int lda, int ldb,
                   const void* C, int ldc) {
  CHECK(C);
  CHECK(Order == 101 || Order == 102);
  CHECK(TransA == 111 || TransA == 112);
  CHECK(TransB == 111 || TransB == 112);
  if (Order == 101) {
    if (TransA == 111) {
      CHECK_EQ(lda, K);
    } else {
      CHECK_EQ(lda, M);
    }
    if (TransB == 111) {
      CHECK_EQ(ldb, N);
    } else {
      CHECK_EQ(ldb, K);
    }
    CHECK_EQ(ldc, N);
  } else {
    if (TransA == 111) {
      CHECK_EQ(lda, M);
    } else {
      CHECK_EQ(lda, K);
    }
    if (TransB == 111) {
      CHECK_EQ(ldb, K);
    } else {
      CHECK_EQ(ldb, N);
    }
    CHECK_EQ(ldc, M);
  }
}

// The four loops by name.  A column-major call runs them on the transposed
// problem, with the operands swapped.
void seq_matrix_mul_f32_nn_c(int m, int n, int k, float alpha, const float* a, int lda,
                             const float* b, int ldb, float beta, float* c, int ldc) {
  seq_matrix_mul_f32_c<false, false>(m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
void seq_matrix_mul_f32_nt_c(int m, int n, int k, float alpha, const float* a, int lda,
                             const float* b, int ldb, float beta, float* c, int ldc) {
  seq_matrix_mul_f32_c<false, true>(m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
void seq_matrix_mul_f32_tn_c(int m, int n, int k, float alpha, const float* a, int lda,
                             const float* b, int ldb, float beta, float* c, int ldc) {
  seq_matrix_mul_f32_c<true, false>(m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
void seq_matrix_mul_f32_tt_c(int m, int n, int k, float alpha, const float* a, int lda,
                             const float* b, int ldb, float beta, float* c, int ldc) {
  seq_matrix_mul_f32_c<true, true>(m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}

void orvik_f32_sgemm(int Order, int TransA, int TransB, int M, int N, int K, const float* A,
                     int lda, const float* B, int ldb, float* C, int ldc, float alpha, float beta) {
  CheckGemmArgs(Order, TransA, TransB, M, N, K, lda, ldb, C, ldc);
  blas_arg_t args;
  int x, y;
  if (Order == 102) {
    args = {A, B, C, alpha, beta, M, N, K, lda, ldb, ldc};
    x = TransA == 112;
    y = TransB == 112;
  } else {
    // Row-major C is the column-major C^T = op(B)^T op(A)^T.
    args = {B, A, C, alpha, beta, N, M, K, ldb, lda, ldc};
    x = TransB == 112;
    y = TransA == 112;
  }
  // Matrix-vector shaped products need no scratch and skip the pool.
  const bool needs_scratch = args.m > 1 && args.n > 1 && K > 0 && alpha != 0.0f;
  float* sa = nullptr;
  float* sb = nullptr;
  if (needs_scratch) {
    sa = static_cast<float*>(orvik_blas_memory_alloc(0));
    sb = reinterpret_cast<float*>(reinterpret_cast<char*>(sa) + kOrvikBlasSbOffset);
  }
  sgemm_routines[x * 2 + y](args, sa, sb);
  if (needs_scratch) orvik_blas_memory_free(sa);
}

void orvik_sgemm_inhouse(int Order, int TransA, int TransB, int M, int N, int K, float alpha,
                         const float* A, int lda, const float* B, int ldb, float beta, float* C,
                         int ldc) {
  CheckGemmArgs(Order, TransA, TransB, M, N, K, lda, ldb, C, ldc);
  using Loop =
      void (*)(int, int, int, float, const float*, int, const float*, int, float, float*, int);
  static const Loop kLoops[4] = {seq_matrix_mul_f32_nn_c, seq_matrix_mul_f32_nt_c,
                                 seq_matrix_mul_f32_tn_c, seq_matrix_mul_f32_tt_c};
  const int ta = TransA == 112, tb = TransB == 112;
  if (Order == 101) {
    kLoops[ta * 2 + tb](M, N, K, alpha, A, lda, B, ldb, beta, C, ldc);
  } else {
    kLoops[tb * 2 + ta](N, M, K, alpha, B, ldb, A, lda, beta, C, ldc);
  }
}

void orvik_f32_sger(int /*Order*/, int M, int N, float alpha, const float* x, int incX,
                    const float* y, int incY, float* A, int lda) {
  orvik_f32_sgemm(101, 111, 111, M, N, 1, x, incX, y, incY, A, lda, alpha, 1.0f);
}

extern "C" void cblas_sgemm(enum CBLAS_ORDER Order, enum CBLAS_TRANSPOSE TransA,
                            enum CBLAS_TRANSPOSE TransB, int M, int N, int K, float alpha,
                            const float* A, int lda, const float* B, int ldb, float beta, float* C,
                            int ldc) {
  orvik_f32_sgemm(Order, TransA, TransB, M, N, K, A, lda, B, ldb, C, ldc, alpha, beta);
}

extern "C" void cblas_sger(enum CBLAS_ORDER Order, int M, int N, float alpha, const float* x,
                           int incX, const float* y, int incY, float* A, int lda) {
  orvik_f32_sger(Order, M, N, alpha, x, incX, y, incY, A, lda);
}
