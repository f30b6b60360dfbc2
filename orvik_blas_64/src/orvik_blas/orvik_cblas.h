#ifndef ORVIK_BLAS_64_SRC_ORVIK_BLAS_ORVIK_CBLAS_H_
#define ORVIK_BLAS_64_SRC_ORVIK_BLAS_ORVIK_CBLAS_H_

// A small CBLAS-shaped float library.  It is not a general BLAS: every
// matrix must be densely packed (the leading dimension equals the row or
// column length) and every vector contiguous; any other call ends in a
// fatal check.  Nothing here takes ownership of a pointer.

#include "tovadmod/export.h"

enum CBLAS_ORDER { CblasRowMajor = 101, CblasColMajor = 102 };
enum CBLAS_TRANSPOSE { CblasNoTrans = 111, CblasTrans = 112 };

#ifdef __cplusplus
extern "C" {
#endif

// C = alpha * op(A) * op(B) + beta * C with op(A) M x K, op(B) K x N.
// beta 0 writes C without reading it; alpha 0 (or K 0) only applies beta.
// Uses one block of the scratch pool while it runs.
TOVAD_EXPORT void cblas_sgemm(enum CBLAS_ORDER Order, enum CBLAS_TRANSPOSE TransA,
                              enum CBLAS_TRANSPOSE TransB, int M, int N, int K, float alpha,
                              const float* A, int lda, const float* B, int ldb, float beta,
                              float* C, int ldc);

// y = alpha * op(A) * x + beta * y.  Unlike standard CBLAS, m is always the
// length of y and n the length of x, so a row-major call with Trans 112
// passes lda == m.
TOVAD_EXPORT void cblas_sgemv(enum CBLAS_ORDER Order, enum CBLAS_TRANSPOSE Trans, int m, int n,
                              float alpha, const float* A, int lda, const float* x, int incX,
                              float beta, float* y, int incY);

// A += alpha * x * y^T, computed as a row-major GEMM with depth 1: incX
// must be 1 and incY must equal N.  Order is ignored.
TOVAD_EXPORT void cblas_sger(enum CBLAS_ORDER Order, int M, int N, float alpha, const float* x,
                             int incX, const float* y, int incY, float* A, int lda);

// Y += alpha * X, each element by one fused multiply-add.
TOVAD_EXPORT void cblas_saxpy(int N, float alpha, const float* X, int incX, float* Y, int incY);
// X *= alpha (alpha 0 writes zeros).
TOVAD_EXPORT void cblas_sscal(int N, float alpha, float* X, int incX);
// Y = alpha * X + beta * Y as cblas_sscal then cblas_saxpy.
TOVAD_EXPORT void cblas_saxpby(int N, float alpha, const float* X, int incX, float beta, float* Y,
                               int incY);
// Sum of magnitudes, accumulated in double.
TOVAD_EXPORT float cblas_sasum(int N, const float* X, int incX);
TOVAD_EXPORT float cblas_sdot(int N, const float* X, int incx, const float* Y, int incy);

// Double forms: plain loops, same checks.
TOVAD_EXPORT void cblas_dgemm(enum CBLAS_ORDER Order, enum CBLAS_TRANSPOSE TransA,
                              enum CBLAS_TRANSPOSE TransB, int M, int N, int K, double alpha,
                              const double* A, int lda, const double* B, int ldb, double beta,
                              double* C, int ldc);
TOVAD_EXPORT void cblas_dgemv(enum CBLAS_ORDER Order, enum CBLAS_TRANSPOSE Trans, int m, int n,
                              double alpha, const double* A, int lda, const double* x, int incX,
                              double beta, double* y, int incY);
TOVAD_EXPORT void cblas_dger(enum CBLAS_ORDER Order, int M, int N, double alpha, const double* x,
                             int incX, const double* y, int incY, double* A, int lda);
TOVAD_EXPORT void cblas_dscal(int N, double alpha, double* X, int incX);
TOVAD_EXPORT double cblas_ddot(int N, const double* X, int incx, const double* Y, int incy);

#ifdef __cplusplus
}
#endif

// Internal entry points (hidden).
void orvik_f32_sgemm(int Order, int TransA, int TransB, int M, int N, int K, const float* A,
                     int lda, const float* B, int ldb, float* C, int ldc, float alpha, float beta);
void orvik_f32_sgemv(int Order, int Trans, int m, int n, float alpha, const float* A, int lda,
                     const float* x, int incX, float beta, float* y, int incY);
void orvik_f32_sger(int Order, int M, int N, float alpha, const float* x, int incX, const float* y,
                    int incY, float* A, int lda);

// Plain reference forms, same checks and results as cblas_sgemm and
// cblas_sgemv (the latter row-major only) without blocking: the oracle of
// the tests.
void orvik_sgemm_inhouse(int Order, int TransA, int TransB, int M, int N, int K, float alpha,
                         const float* A, int lda, const float* B, int ldb, float beta, float* C,
                         int ldc);
void orvik_sgemv_inhouse(int Order, int Trans, int m, int n, float alpha, const float* A, int lda,
                         const float* x, int incX, float beta, float* y, int incY);

#endif  // ORVIK_BLAS_64_SRC_ORVIK_BLAS_ORVIK_CBLAS_H_
