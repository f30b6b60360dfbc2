#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "orvik_blas_64/src/kernel_dispatch.h"
#include "orvik_blas_64/src/orvik_blas/orvik_blas_memory.h"
#include "orvik_blas_64/src/orvik_blas/orvik_cblas.h"
#include "orviklog/src/checks.h"

namespace {

// orvik_sgemm_beta for one vector: nothing for n < 1 or a non-positive
// increment, zeros for alpha 0, else a scale.
void cscal_k(int n, float alpha, float* x, int inc) {
  if (n < 1 || inc <= 0) return;
  for (int i = 0; i < n; ++i) {
    if (alpha == 0.0f) {
      x[static_cast<long>(i) * inc] = 0.0f;
    } else {
      x[static_cast<long>(i) * inc] *= alpha;
    }
  }
}

void orvik_sgemv_n(int rows, int cols, const float* a, int lda, const float* x, int /*incx*/,
                   float* y, int /*incy*/, float alpha) {
  orvik_blas_kernels::ActiveKernels().sgemv_n(rows, cols, alpha, a, lda, x, y);
}

void orvik_sgemv_t(int rows, int cols, const float* a, int lda, const float* x, int /*incx*/,
                   float* y, int /*incy*/, float alpha) {
  orvik_blas_kernels::ActiveKernels().sgemv_t(rows, cols, alpha, a, lda, x, y);
}

// The checks shared by the product and its reference form.  In every
// combination m is the length of y and n the length of x.
void CheckGemvArgs(int Order, int Trans, int m, int n, int lda, int incX, int incY) {
  int ldb = incX, ldc = incY;
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
  CHECK_EQ(ldb, 1);
  CHECK_EQ(ldc, 1);
}

}  // namespace

void orvik_f32_sgemv(int Order, int Trans, int m, int n, float alpha, const float* A, int lda,
                     const float* x, int incX, float beta, float* y, int incY) {
  float* C = y;
  CHECK(C);
  CHECK(Order == 101 || Order == 102);
  CHECK(Trans == 111 || Trans == 112);
  CheckGemvArgs(Order, Trans, m, n, lda, incX, incY);

  const bool use_n = (Order == 102) == (Trans == 111);
  const int rows = use_n ? m : n;
  const int cols = use_n ? n : m;

  if (beta != 1.0f) cscal_k(m, beta, y, std::abs(incY));
  if (alpha == 0.0f) return;

  // Scratch of the kernels' size class; small ones stay on the stack behind
  // a guard word.  Neither kernel reads it.
  const int buffer_size = (rows + cols + 35) & ~3;
  volatile int stack_check = 0x7fc01234;
  alignas(32) float stack_buffer[512];
  float* buffer = stack_buffer;
  if (buffer_size > 512) buffer = static_cast<float*>(orvik_blas_memory_alloc(1));

  if (use_n) {
    orvik_sgemv_n(rows, cols, A, lda, x, incX, y, incY, alpha);
  } else {
    orvik_sgemv_t(rows, cols, A, lda, x, incX, y, incY, alpha);
  }

  CHECK(stack_check == 0x7fc01234);
  if (buffer != stack_buffer) orvik_blas_memory_free(buffer);
}

void orvik_sgemv_inhouse(int Order, int Trans, int m, int n, float alpha, const float* A, int lda,
                         const float* x, int incX, float beta, float* y, int incY) {
  float* C = y;
  CHECK(C);
  CHECK_EQ(Order, 101);
  CHECK(Trans == 111 || Trans == 112);
  CheckGemvArgs(Order, Trans, m, n, lda, incX, incY);
  for (int i = 0; i < m; ++i) {
    float dot = 0.0f;
    for (int j = 0; j < n; ++j) {
      const float av =
          Trans == 111 ? A[static_cast<long>(i) * lda + j] : A[static_cast<long>(j) * lda + i];
      dot += av * x[j];
    }
    y[i] = std::fma(alpha, dot, beta * y[i]);
  }
}

extern "C" void cblas_sgemv(enum CBLAS_ORDER Order, enum CBLAS_TRANSPOSE Trans, int m, int n,
                            float alpha, const float* A, int lda, const float* x, int incX,
                            float beta, float* y, int incY) {
  orvik_f32_sgemv(Order, Trans, m, n, alpha, A, lda, x, incX, beta, y, incY);
}
