#ifndef ORVIK_BLAS_64_SRC_GEMM_ARGS_H_
#define ORVIK_BLAS_64_SRC_GEMM_ARGS_H_

// The argument checks every GEMM entry point makes (float, double, int8):
// a result pointer, valid Order and Trans codes, and dense leading
// dimensions for the storage order.  A failed check is fatal.
void CheckGemmArgs(int Order, int TransA, int TransB, int M, int N, int K, int lda, int ldb,
                   const void* C, int ldc);

#endif  // ORVIK_BLAS_64_SRC_GEMM_ARGS_H_
