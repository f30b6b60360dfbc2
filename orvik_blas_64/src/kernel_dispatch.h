#ifndef ORVIK_BLAS_64_SRC_KERNEL_DISPATCH_H_
#define ORVIK_BLAS_64_SRC_KERNEL_DISPATCH_H_

// The hot kernels are written once and compiled several times, once per
// vector width the processor may offer (the baseline of the architecture,
// on x86-64 also AVX2+FMA, AVX-512 and AVX-512 with VNNI, on aarch64 also
// the 8-bit dot-product instructions).  The variant is picked once at first
// use from what the running processor supports.
//
// Kernel translation units include only this header and C headers: a
// variant compiled for wider vectors must not emit shared inline functions
// that the linker could pick for the baseline code.

#include <stdint.h>

namespace orvik_blas_kernels {

struct KernelTable {
  const char* name;
  // Steps 3 to 7 of the blocked column-major product: c += alpha * op(a) *
  // op(b) with op(a) m x k and op(b) k x n.  `a_trans`/`b_trans` say
  // whether a and b are read transposed.  `sa` and `sb` are the packing
  // areas of a pool block.
  void (*sgemm_blocked)(int a_trans, int b_trans, int m, int n, int k, float alpha, const float* a,
                        int lda, const float* b, int ldb, float* c, int ldc, float* sa, float* sb);
  // y[i] += alpha * sum_j a[i + j*lda] * x[j], i < rows, j < cols.
  void (*sgemv_n)(int rows, int cols, float alpha, const float* a, int lda, const float* x,
                  float* y);
  // y[j] += alpha * sum_i a[i + j*lda] * x[i], i < rows, j < cols.
  void (*sgemv_t)(int rows, int cols, float alpha, const float* a, int lda, const float* x,
                  float* y);
  // y[i] = fma(alpha, x[i], y[i]).
  void (*saxpy)(int n, float alpha, const float* x, float* y);
  float (*sdot)(int n, const float* x, const float* y);
  // C[i*N + j] = acc(i, j) + beta * C[i*N + j], exact in wrapping 32-bit
  // arithmetic, with A(i, p) = a_trans ? A[p*M + i] : A[i*K + p] and
  // B(p, j) = b_trans ? B[j*K + p] : B[p*N + j].
  void (*i8_gemm)(int a_trans, int b_trans, int M, int N, int K, const int8_t* A, const int8_t* B,
                  int32_t beta, int32_t* C);
  int32_t (*i8_dot)(int n, const int8_t* x, const int8_t* y);
  // One row a (K bytes) against a B packed once by orvik_i8_pack_b (layout
  // in orvik_blas_i8.h): c_j = sum_p a[p] * B(p, j) + bias[j], wrapping,
  // bias optional.  With out8 null, C[j] = c_j; otherwise
  // out8[j] = clamp(c_j >> shift[j], lo, 127), the shift arithmetic.
  void (*i8_gemv_packed)(int N, int K, const int8_t* a, const int8_t* packed, const int32_t* bias,
                         const uint8_t* shift, int32_t lo, int32_t* C, int8_t* out8);
};

// The variant in use.  Chosen on the first call.
const KernelTable& ActiveKernels();

// Every variant the running processor can execute, baseline first, ending
// with null.  For tests and benchmarks.
const KernelTable* const* SupportedKernels();

// Makes `table` the variant in use (null restores the automatic choice).
// For tests, which run every fast path of every variant.
void OverrideKernelsForTesting(const KernelTable* table);

#define ORVIK_DECLARE_KERNEL_VARIANT(ns)                                                         \
  namespace ns {                                                                                 \
  void sgemm_blocked(int a_trans, int b_trans, int m, int n, int k, float alpha, const float* a, \
                     int lda, const float* b, int ldb, float* c, int ldc, float* sa, float* sb); \
  void sgemv_n(int rows, int cols, float alpha, const float* a, int lda, const float* x,         \
               float* y);                                                                        \
  void sgemv_t(int rows, int cols, float alpha, const float* a, int lda, const float* x,         \
               float* y);                                                                        \
  void saxpy(int n, float alpha, const float* x, float* y);                                      \
  float sdot(int n, const float* x, const float* y);                                             \
  void i8_gemm(int a_trans, int b_trans, int M, int N, int K, const int8_t* A, const int8_t* B,  \
               int32_t beta, int32_t* C);                                                        \
  int32_t i8_dot(int n, const int8_t* x, const int8_t* y);                                       \
  void i8_gemv_packed(int N, int K, const int8_t* a, const int8_t* packed, const int32_t* bias,   \
                      const uint8_t* shift, int32_t lo, int32_t* C, int8_t* out8);               \
  }

ORVIK_DECLARE_KERNEL_VARIANT(generic)
#if defined(__x86_64__)
ORVIK_DECLARE_KERNEL_VARIANT(avx2)
ORVIK_DECLARE_KERNEL_VARIANT(avx512)
ORVIK_DECLARE_KERNEL_VARIANT(avx512vnni)
#elif defined(__aarch64__)
ORVIK_DECLARE_KERNEL_VARIANT(dotprod)
#endif

}  // namespace orvik_blas_kernels

#endif  // ORVIK_BLAS_64_SRC_KERNEL_DISPATCH_H_
