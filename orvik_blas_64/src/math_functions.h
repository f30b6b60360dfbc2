#ifndef ORVIK_BLAS_64_SRC_MATH_FUNCTIONS_H_
#define ORVIK_BLAS_64_SRC_MATH_FUNCTIONS_H_

// Array arithmetic for the layers: GEMM wrappers with fixed row-major form
// and derived leading dimensions, fill and copy, scale-and-offset
// conversions, a min/max scan and an axis swap.  All plain free functions
// on caller-owned buffers; N below 1 makes each a no-op.

#include "orvik_blas_64/src/orvik_blas/orvik_cblas.h"
#include "orvik_blas_64/src/softmax_function.h"

namespace orvik {
namespace ruvo {
namespace math {

// C (M x N) = alpha * op(A) (M x K) * op(B) (K x N) + beta * C, all dense
// row-major: lda = K (111) or M (112), ldb = N (111) or K (112), ldc = N.
// TransA and TransB are CBLAS codes (CblasNoTrans 111, CblasTrans 112).
// Instances: <float> through cblas_sgemm, <signed char, int> through
// orvik_i8_i32_gemm (alpha must be 1; exact wrapping int32 sums).
template <typename Dtype, typename Otype = Dtype>
void orvik_cpu_gemm(int TransA, int TransB, int M, int N, int K, Dtype alpha, const Dtype* A,
                    const Dtype* B, Dtype beta, Otype* C);
template <>
void orvik_cpu_gemm<float, float>(int TransA, int TransB, int M, int N, int K, float alpha,
                                  const float* A, const float* B, float beta, float* C);
template <>
void orvik_cpu_gemm<signed char, int>(int TransA, int TransB, int M, int N, int K,
                                      signed char alpha, const signed char* A, const signed char* B,
                                      signed char beta, int* C);

// Y += alpha * X by fused multiply-adds (cblas_saxpy).
template <typename Dtype>
void orvik_cpu_axpy(int N, Dtype alpha, const Dtype* X, Dtype* Y);
template <>
void orvik_cpu_axpy<float>(int N, float alpha, const float* X, float* Y);

// Y[i] = convert(fma(X[i], a, b)).  <signed char, float>: the float is
// truncated toward zero to int32 and its low byte kept (no saturation, no
// rounding).  <float, int>: Y[i] = fma((float)X[i], a, b).
template <typename TY, typename TX>
void neon_axpb(TY* Y, const TX* X, float a, float b, int N);
template <>
void neon_axpb<signed char, float>(signed char* Y, const float* X, float a, float b, int N);
template <>
void neon_axpb<float, int>(float* Y, const int* X, float a, float b, int N);

// Y = convert(alpha * X + beta), forwarding to neon_axpb<T2, T1>.
// Instances (float, signed char) and (int, float).
template <typename T1, typename T2>
void orvik_cpu_axpb(int N, float alpha, float beta, const T1* X, T2* Y);
template <typename T1, typename T2>
void orvik_cpu_axpb_kernel(int N, float alpha, float beta, const T1* X, T2* Y);

// For each of M rows of N: Y[row][j] += X[j] (wrapping).
template <typename T1, typename T2>
void orvik_cpu_mpx(int M, int N, T1* Y, const T2* X);
template <>
void orvik_cpu_mpx<int, int>(int M, int N, int* Y, const int* X);

// Lowers *min and raises *max to cover X[0..N).  Neither is initialised
// here: the caller sets the starting bounds.  The naive form compares
// plainly (a NaN never becomes a bound); the vector form takes lane-wise
// minima and maxima, in which a NaN wins.
template <typename T>
void orvik_cpu_min_max(int N, const T* X, T* min, T* max);
template <typename T>
void orvik_cpu_min_max_kernel(int N, const T* X, T* min, T* max);
template <typename T>
void orvik_cpu_min_max_neon(int N, const T* X, T* min, T* max);
template <typename T>
void orvik_cpu_min_max_naive(int N, const T* X, T* min, T* max);

// Fill (float 0.0, either sign, is one memset and so writes +0.0).
template <typename T>
void orvik_set(int N, T value, T* Y);
template <>
void orvik_set<float>(int N, float value, float* Y);
template <>
void orvik_set<signed char>(int N, signed char value, signed char* Y);
// Copy; nothing when X and Y are the same pointer.
template <typename T>
void orvik_copy(int N, const T* X, T* Y);

// out[a][d][c][b][e] = in[a][b][c][d][e] for dims = {d0, d1, d2, d3, d4}:
// axes 1 and 3 swapped, so out has sizes d0, d3, d2, d1, d4.  Instances
// float and signed char.
template <typename T>
void SwapAxis1VS3(const T* in, T* out, const int* dims);
template <>
void SwapAxis1VS3<float>(const float* in, float* out, const int* dims);
template <>
void SwapAxis1VS3<signed char>(const signed char* in, signed char* out, const int* dims);
void SwapAxis1VS3_neon(const signed char* in, signed char* out, const int* dims);

}  // namespace math
}  // namespace ruvo
}  // namespace orvik

#endif  // ORVIK_BLAS_64_SRC_MATH_FUNCTIONS_H_
