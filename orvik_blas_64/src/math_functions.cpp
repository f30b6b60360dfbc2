#include "orvik_blas_64/src/math_functions.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "orvik_blas_64/src/orvik_blas_quanti/orvik_blas_i8.h"

namespace orvik {
namespace ruvo {
namespace math {

template <>
void orvik_cpu_gemm<float, float>(int TransA, int TransB, int M, int N, int K, float alpha,
                                  const float* A, const float* B, float beta, float* C) {
  const int lda = TransA == CblasNoTrans ? K : M;
  const int ldb = TransB == CblasNoTrans ? N : K;
  cblas_sgemm(CblasRowMajor, static_cast<CBLAS_TRANSPOSE>(TransA),
              static_cast<CBLAS_TRANSPOSE>(TransB), M, N, K, alpha, A, lda, B, ldb, beta, C, N);
}

template <>
void orvik_cpu_gemm<signed char, int>(int TransA, int TransB, int M, int N, int K,
                                      signed char alpha, const signed char* A, const signed char* B,
                                      signed char beta, int* C) {
  const int lda = TransA == CblasNoTrans ? K : M;
  const int ldb = TransB == CblasNoTrans ? N : K;
  orvik_i8_i32_gemm(CblasRowMajor, TransA, TransB, M, N, K, alpha, A, lda, B, ldb, beta, C, N);
}

template <>
void orvik_cpu_axpy<float>(int N, float alpha, const float* X, float* Y) {
  cblas_saxpy(N, alpha, X, 1, Y, 1);
}

namespace {

// Truncation toward zero into int32.  Out of range (and NaN) is the
// caller's error; it gives INT32_MIN rather than undefined behaviour.
inline int32_t TruncateToInt32(float v) {
  if (!(v > -2147483904.0f && v < 2147483648.0f)) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// The low byte of v, as a signed byte: plain narrowing, no saturation.
inline signed char LowByte(int32_t v) {
  return static_cast<signed char>(static_cast<uint8_t>(static_cast<uint32_t>(v) & 0xffu));
}

}  // namespace

template <>
void neon_axpb<signed char, float>(signed char* Y, const float* X, float a, float b, int N) {
  // Blocks of 16, then the tail, with the same arithmetic: one fused
  // multiply-add, truncation, then the low byte.
  int i = 0;
  for (; i + 16 <= N; i += 16) {
    for (int l = 0; l < 16; ++l) Y[i + l] = LowByte(TruncateToInt32(std::fma(X[i + l], a, b)));
  }
  for (; i < N; ++i) Y[i] = LowByte(TruncateToInt32(std::fma(X[i], a, b)));
}

template <>
void neon_axpb<float, int>(float* Y, const int* X, float a, float b, int N) {
  int i = 0;
  for (; i + 16 <= N; i += 16) {
    for (int l = 0; l < 16; ++l) Y[i + l] = std::fma(static_cast<float>(X[i + l]), a, b);
  }
  for (; i < N; ++i) Y[i] = std::fma(static_cast<float>(X[i]), a, b);
}

template <typename T1, typename T2>
void orvik_cpu_axpb_kernel(int N, float alpha, float beta, const T1* X, T2* Y) {
  neon_axpb<T2, T1>(Y, X, alpha, beta, N);
}
template <typename T1, typename T2>
void orvik_cpu_axpb(int N, float alpha, float beta, const T1* X, T2* Y) {
  orvik_cpu_axpb_kernel<T1, T2>(N, alpha, beta, X, Y);
}
template void orvik_cpu_axpb_kernel<float, signed char>(int, float, float, const float*,
                                                        signed char*);
template void orvik_cpu_axpb_kernel<int, float>(int, float, float, const int*, float*);
template void orvik_cpu_axpb<float, signed char>(int, float, float, const float*, signed char*);
template void orvik_cpu_axpb<int, float>(int, float, float, const int*, float*);

template <>
void orvik_cpu_mpx<int, int>(int M, int N, int* Y, const int* X) {
  for (int row = 0; row < M; ++row) {
    int* y = Y + static_cast<long>(row) * N;
    for (int j = 0; j < N; ++j) {
      y[j] = static_cast<int>(static_cast<uint32_t>(y[j]) + static_cast<uint32_t>(X[j]));
    }
  }
}

template <typename T>
void orvik_cpu_min_max_naive(int N, const T* X, T* min, T* max) {
  for (int i = 0; i < N; ++i) {
    if (X[i] < *min) *min = X[i];
    if (X[i] > *max) *max = X[i];
  }
}

namespace {
// Lane-wise minimum and maximum of a vector unit: a NaN operand wins.
inline float VecMin(float a, float b) { return (std::isnan(a) || a < b) ? a : b; }
inline float VecMax(float a, float b) { return (std::isnan(a) || a > b) ? a : b; }
}  // namespace

template <typename T>
void orvik_cpu_min_max_neon(int N, const T* X, T* min, T* max) {
  if (N < 1) return;
  int i = 0;
  if (N >= 16) {
    T lo[16], hi[16];
    for (int l = 0; l < 16; ++l) lo[l] = hi[l] = X[l];
    for (i = 16; i + 16 <= N; i += 16) {
      for (int l = 0; l < 16; ++l) {
        lo[l] = VecMin(X[i + l], lo[l]);
        hi[l] = VecMax(X[i + l], hi[l]);
      }
    }
    for (int l = 0; l < 16; ++l) {
      *min = VecMin(lo[l], *min);
      *max = VecMax(hi[l], *max);
    }
  }
  orvik_cpu_min_max_naive(N - i, X + i, min, max);
}

template <typename T>
void orvik_cpu_min_max_kernel(int N, const T* X, T* min, T* max) {
  orvik_cpu_min_max_neon(N, X, min, max);
}
template <typename T>
void orvik_cpu_min_max(int N, const T* X, T* min, T* max) {
  orvik_cpu_min_max_kernel(N, X, min, max);
}
template void orvik_cpu_min_max<float>(int, const float*, float*, float*);
template void orvik_cpu_min_max_kernel<float>(int, const float*, float*, float*);
template void orvik_cpu_min_max_neon<float>(int, const float*, float*, float*);
template void orvik_cpu_min_max_naive<float>(int, const float*, float*, float*);

template <>
void orvik_set<float>(int N, float value, float* Y) {
  if (N < 1) return;
  if (value == 0.0f) {
    // Also turns -0.0 into +0.0.
    memset(Y, 0, sizeof(float) * static_cast<size_t>(N));
    return;
  }
  for (int i = 0; i < N; ++i) Y[i] = value;
}

template <>
void orvik_set<signed char>(int N, signed char value, signed char* Y) {
  if (N < 1) return;
  memset(Y, value, static_cast<size_t>(N));
}

template <typename T>
void orvik_copy(int N, const T* X, T* Y) {
  if (N < 1 || X == Y) return;
  memcpy(Y, X, sizeof(T) * static_cast<size_t>(N));
}
template void orvik_copy<float>(int, const float*, float*);
template void orvik_copy<signed char>(int, const signed char*, signed char*);

namespace {

template <typename T>
void SwapAxis1VS3Plain(const T* in, T* out, const int* dims) {
  const long d0 = dims[0], d1 = dims[1], d2 = dims[2], d3 = dims[3], d4 = dims[4];
  if ((d1 == 1 && d2 == 1) || (d3 == 1 && d2 == 1)) {
    memcpy(out, in, sizeof(T) * static_cast<size_t>(d0 * d1 * d2 * d3 * d4));
    return;
  }
  for (long a = 0; a < d0; ++a) {
    for (long b = 0; b < d1; ++b) {
      for (long c = 0; c < d2; ++c) {
        for (long d = 0; d < d3; ++d) {
          const T* src = in + (((a * d1 + b) * d2 + c) * d3 + d) * d4;
          T* dst = out + (((a * d3 + d) * d2 + c) * d1 + b) * d4;
          if (d4 == 1) {
            *dst = *src;
          } else {
            for (long e = 0; e < d4; ++e) dst[e] = src[e];
          }
        }
      }
    }
  }
}

}  // namespace

void SwapAxis1VS3_neon(const signed char* in, signed char* out, const int* dims) {
  SwapAxis1VS3Plain(in, out, dims);
}

template <>
void SwapAxis1VS3<float>(const float* in, float* out, const int* dims) {
  SwapAxis1VS3Plain(in, out, dims);
}

template <>
void SwapAxis1VS3<signed char>(const signed char* in, signed char* out, const int* dims) {
  SwapAxis1VS3_neon(in, out, dims);
}

}  // namespace math
}  // namespace ruvo
}  // namespace orvik
