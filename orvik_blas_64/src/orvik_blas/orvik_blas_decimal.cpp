// Level-1 functions and the plain double forms.

#include <cmath>

#include "orvik_blas_64/src/gemm_args.h"
#include "orvik_blas_64/src/kernel_dispatch.h"
#include "orvik_blas_64/src/orvik_blas/orvik_cblas.h"
#include "orviklog/src/checks.h"

extern "C" void cblas_saxpy(int N, float alpha, const float* X, int incX, float* Y, int incY) {
  CHECK(incX == 1 && incY == 1);
  if (N < 1) return;
  orvik_blas_kernels::ActiveKernels().saxpy(N, alpha, X, Y);
}

extern "C" void cblas_sscal(int N, float alpha, float* X, int incX) {
  CHECK_EQ(incX, 1);
  if (N < 1) return;
  if (alpha == 0.0f) {
    for (int i = 0; i < N; ++i) X[i] = 0.0f;
  } else {
    for (int i = 0; i < N; ++i) X[i] *= alpha;
  }
}

extern "C" void cblas_saxpby(int N, float alpha, const float* X, int incX, float beta, float* Y,
                             int incY) {
  CHECK(incX == 1 && incY == 1);
  if (N < 1) return;
  cblas_sscal(N, beta, Y, incY);
  cblas_saxpy(N, alpha, X, incX, Y, incY);
}

extern "C" float cblas_sasum(int N, const float* X, int incX) {
  CHECK_EQ(incX, 1);
  double sum = 0.0;
  for (int i = 0; i < N; ++i) sum += std::fabs(static_cast<double>(X[i]));
  return static_cast<float>(sum);
}

extern "C" float cblas_sdot(int N, const float* X, int incx, const float* Y, int incy) {
  CHECK_EQ(incx, 1);
  CHECK_EQ(incy, 1);
  if (N < 1) return 0.0f;
  return orvik_blas_kernels::ActiveKernels().sdot(N, X, Y);
}

extern "C" void cblas_dgemm(enum CBLAS_ORDER Order, enum CBLAS_TRANSPOSE TransA,
                            enum CBLAS_TRANSPOSE TransB, int M, int N, int K, double alpha,
                            const double* A, int lda, const double* B, int ldb, double beta,
                            double* C, int ldc) {
  CheckGemmArgs(Order, TransA, TransB, M, N, K, lda, ldb, C, ldc);
  // Element (i, j) of the row-major view; a column-major call is the same
  // product transposed.
  const bool row = Order == 101;
  const bool ta = TransA == 112, tb = TransB == 112;
  for (int i = 0; i < M; ++i) {
    for (int j = 0; j < N; ++j) {
      double sum = 0.0;
      for (int l = 0; l < K; ++l) {
        // Row-major A(i, l) is A[i*lda + l]; column-major it is A[i + l*lda].
        const bool a_rowwise = row != ta;
        const bool b_rowwise = row != tb;
        const double av =
            a_rowwise ? A[static_cast<long>(i) * lda + l] : A[i + static_cast<long>(l) * lda];
        const double bv =
            b_rowwise ? B[static_cast<long>(l) * ldb + j] : B[l + static_cast<long>(j) * ldb];
        sum += av * bv;
      }
      double& out = row ? C[static_cast<long>(i) * ldc + j] : C[i + static_cast<long>(j) * ldc];
      out = beta == 0.0 ? alpha * sum : alpha * sum + beta * out;
    }
  }
}

extern "C" void cblas_dgemv(enum CBLAS_ORDER Order, enum CBLAS_TRANSPOSE Trans, int m, int n,
                            double alpha, const double* A, int lda, const double* x, int incX,
                            double beta, double* y, int incY) {
  double* C = y;
  CHECK(C);
  CHECK(Order == 101 || Order == 102);
  CHECK(Trans == 111 || Trans == 112);
  if (Order == 101) {
    if (Trans == 111) {
      CHECK_EQ(lda, n);
    } else {
      CHECK_EQ(lda, m);
    }
  } else {
    if (Trans == 111) {
      CHECK_EQ(lda, m);
    } else {
      CHECK_EQ(lda, n);
    }
  }
  int ldb = incX, ldc = incY;
  CHECK_EQ(ldb, 1);
  CHECK_EQ(ldc, 1);
  // m is the length of y and n of x, as in the float form.
  const bool rowwise = (Order == 101) == (Trans == 111);
  for (int i = 0; i < m; ++i) {
    double dot = 0.0;
    for (int j = 0; j < n; ++j) {
      dot +=
          (rowwise ? A[static_cast<long>(i) * lda + j] : A[i + static_cast<long>(j) * lda]) * x[j];
    }
    y[i] = beta == 0.0 ? alpha * dot : alpha * dot + beta * y[i];
  }
}

extern "C" void cblas_dger(enum CBLAS_ORDER Order, int M, int N, double alpha, const double* x,
                           int incX, const double* y, int incY, double* A, int lda) {
  cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, M, N, 1, alpha, x, incX, y, incY, 1.0, A,
              lda);
  (void)Order;
}

extern "C" void cblas_dscal(int N, double alpha, double* X, int incX) {
  CHECK_EQ(incX, 1);
  for (int i = 0; i < N; ++i) X[i] = alpha == 0.0 ? 0.0 : X[i] * alpha;
}

extern "C" double cblas_ddot(int N, const double* X, int incx, const double* Y, int incy) {
  CHECK_EQ(incx, 1);
  CHECK_EQ(incy, 1);
  double sum = 0.0;
  for (int i = 0; i < N; ++i) sum += X[i] * Y[i];
  return sum;
}
