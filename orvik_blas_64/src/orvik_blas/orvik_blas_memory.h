#ifndef ORVIK_BLAS_64_SRC_ORVIK_BLAS_ORVIK_BLAS_MEMORY_H_
#define ORVIK_BLAS_64_SRC_ORVIK_BLAS_ORVIK_BLAS_MEMORY_H_

#include "tovadmod/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Lends one of four process-wide 16 MiB scratch blocks; `procpos` is not
// used.  Returns null (and prints two lines to stdout) when all four are
// lent out.  Blocks are created on first use and live until the process
// ends; their content is not cleared between uses.
TOVAD_EXPORT void* orvik_blas_memory_alloc(int procpos);

// Gives a block back.  A pointer that is not a block prints a line to stdout
// and changes nothing.
TOVAD_EXPORT void orvik_blas_memory_free(void* buffer);

#ifdef __cplusplus
}
#endif

// Bytes of a block as mapped, and as allocated by the malloc fallback.
constexpr unsigned long kOrvikBlasBufferSize = 0x1000000UL;
constexpr unsigned long kOrvikBlasMallocSize = 16781312UL;
// The float GEMM packs `a` in the first bytes of a block and `b` after them.
constexpr unsigned long kOrvikBlasSbOffset = 131072UL;

#endif  // ORVIK_BLAS_64_SRC_ORVIK_BLAS_ORVIK_BLAS_MEMORY_H_
