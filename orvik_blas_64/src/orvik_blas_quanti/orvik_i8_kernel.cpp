// Int8 kernels, compiled once per vector width (see kernel_dispatch.h).
// Every sum is exact in wrapping 32-bit arithmetic, so no tile shape or
// summation order changes a result.

#include <string.h>

#include "orvik_blas_64/src/kernel_dispatch.h"

#if defined(__SSE2__)
#include <immintrin.h>
#endif

#ifndef ORVIK_KERNEL_VARIANT
#error "ORVIK_KERNEL_VARIANT names the namespace of this build of the kernels"
#endif

namespace orvik_blas_kernels {
namespace ORVIK_KERNEL_VARIANT {
namespace {

// One strip of the result is 16 columns wide; one tile is 4 rows of it.
// Depth is walked in pairs: two bytes of a row of A, sign-extended to 16
// bits, meet the matching pair of B and are summed pairwise into 32 bits
// (never into 16-bit lanes, which two products of -128 * -128 overflow).
constexpr int kCols = 16;
#if defined(__AVX512BW__)
constexpr int kRows = 8;  // one 16-lane register per row
#else
constexpr int kRows = 4;
#endif
constexpr int kDepthBlock = 256;      // bytes of depth per packed block
constexpr int kColBlock = 4 * kCols;  // columns of B packed at a time
constexpr int kPairs = kDepthBlock / 2;

typedef int16_t Vh __attribute__((vector_size(64)));   // 16 column pairs
typedef uint32_t Vu __attribute__((vector_size(64)));  // 16 column sums

inline int Min(int a, int b) { return a < b ? a : b; }

inline Vh LoadH(const int16_t* p) {
  Vh v;
  memcpy(&v, p, sizeof(v));
  return v;
}

// Lane c of the result: a[2c]*b[2c] + a[2c+1]*b[2c+1], in 32 bits.
inline Vu MaddPairs(Vh a, Vh b) {
#if defined(__AVX512BW__)
  return (Vu)_mm512_madd_epi16((__m512i)a, (__m512i)b);
#elif defined(__AVX2__)
  __m256i al, ah, bl, bh;
  memcpy(&al, &a, 32);
  memcpy(&ah, reinterpret_cast<const char*>(&a) + 32, 32);
  memcpy(&bl, &b, 32);
  memcpy(&bh, reinterpret_cast<const char*>(&b) + 32, 32);
  const __m256i lo = _mm256_madd_epi16(al, bl);
  const __m256i hi = _mm256_madd_epi16(ah, bh);
  Vu r;
  memcpy(&r, &lo, 32);
  memcpy(reinterpret_cast<char*>(&r) + 32, &hi, 32);
  return r;
#elif defined(__SSE2__)
  __m128i av[4], bv[4], rv[4];
  memcpy(av, &a, 64);
  memcpy(bv, &b, 64);
  for (int i = 0; i < 4; ++i) rv[i] = _mm_madd_epi16(av[i], bv[i]);
  Vu r;
  memcpy(&r, rv, 64);
  return r;
#else
  Vu r;
  for (int c = 0; c < kCols; ++c) {
    r[c] = static_cast<uint32_t>(static_cast<int32_t>(a[2 * c]) * b[2 * c] +
                                 static_cast<int32_t>(a[2 * c + 1]) * b[2 * c + 1]);
  }
  return r;
#endif
}

inline Vh BroadcastPair(uint32_t pair) {
  Vu v = {};
  v += pair;
  return (Vh)v;
}

inline uint32_t MakePair(int8_t lo, int8_t hi) {
  return static_cast<uint16_t>(static_cast<int16_t>(lo)) |
         (static_cast<uint32_t>(static_cast<uint16_t>(static_cast<int16_t>(hi))) << 16);
}

struct Operands {
  int M, N, K;
  const int8_t* A;
  const int8_t* B;
};

template <bool kATrans>
inline int8_t AAt(const Operands& op, int i, int p) {
  return kATrans ? op.A[static_cast<long>(p) * op.M + i] : op.A[static_cast<long>(i) * op.K + p];
}

// Packs depth [p0, p0 + np) of columns [j0, j0 + nj) of B: per strip of
// kCols columns and per depth pair, the kCols (even, odd) pairs in column
// order.  Missing columns and an odd last byte read as zero.
template <bool kBTrans>
void PackB(const Operands& op, int p0, int np, int j0, int nj, int16_t* dst) {
  const int pairs = (np + 1) / 2;
  for (int s = 0; s < nj; s += kCols) {
    int16_t* d = dst + static_cast<long>(s / kCols) * kPairs * 2 * kCols;
    const int nc = Min(kCols, nj - s);
    for (int q = 0; q < pairs; ++q) {
      const int p = p0 + 2 * q;
      const bool has_odd = 2 * q + 1 < np;
      int16_t* row = d + q * 2 * kCols;
      if (!kBTrans) {
        const int8_t* b0 = op.B + static_cast<long>(p) * op.N + j0 + s;
        if (has_odd && nc == kCols) {
          const int8_t* b1 = b0 + op.N;
          for (int c = 0; c < kCols; ++c) {
            row[2 * c] = b0[c];
            row[2 * c + 1] = b1[c];
          }
          continue;
        }
        for (int c = 0; c < nc; ++c) {
          row[2 * c] = b0[c];
          row[2 * c + 1] = has_odd ? b0[c + op.N] : 0;
        }
      } else {
        for (int c = 0; c < nc; ++c) {
          const int8_t* col = op.B + static_cast<long>(j0 + s + c) * op.K + p;
          row[2 * c] = col[0];
          row[2 * c + 1] = has_odd ? col[1] : 0;
        }
      }
      for (int c = nc; c < kCols; ++c) row[2 * c] = row[2 * c + 1] = 0;
    }
  }
}

// Packs depth [p0, p0 + np) of rows [i0, i0 + ni) (ni <= kRows) of A as
// 32-bit pairs, kRows per depth pair; missing rows read as zero.
template <bool kATrans>
void PackA(const Operands& op, int p0, int np, int i0, int ni, uint32_t* dst) {
  const int pairs = (np + 1) / 2;
  const int full_pairs = np / 2;
  for (int r = 0; r < kRows; ++r) {
    if (r >= ni) {
      for (int q = 0; q < pairs; ++q) dst[q * kRows + r] = 0;
      continue;
    }
    for (int q = 0; q < full_pairs; ++q) {
      const int p = p0 + 2 * q;
      dst[q * kRows + r] = MakePair(AAt<kATrans>(op, i0 + r, p), AAt<kATrans>(op, i0 + r, p + 1));
    }
    if (pairs > full_pairs) {
      dst[full_pairs * kRows + r] = MakePair(AAt<kATrans>(op, i0 + r, p0 + np - 1), 0);
    }
  }
}

// Adds a tile's sums into C; the first depth block also applies beta.
void WriteTile(const Vu* acc, int ni, int nc, bool first, uint32_t beta, int32_t* C, int N) {
  if (nc == kCols) {
    for (int r = 0; r < ni; ++r) {
      int32_t* c = C + static_cast<long>(r) * N;
      Vu old;
      memcpy(&old, c, sizeof(old));
      const Vu out = (first ? old * beta : old) + acc[r];
      memcpy(c, &out, sizeof(out));
    }
    return;
  }
  for (int r = 0; r < ni; ++r) {
    int32_t* c = C + static_cast<long>(r) * N;
    for (int j = 0; j < nc; ++j) {
      const uint32_t old = static_cast<uint32_t>(c[j]);
      const uint32_t base = first ? beta * old : old;
      c[j] = static_cast<int32_t>(base + acc[r][j]);
    }
  }
}

}  // namespace

namespace {

template <bool kATrans, bool kBTrans>
void I8Gemm(const Operands& op, uint32_t ubeta, int32_t* C) {
  const int M = op.M, N = op.N, K = op.K;
  alignas(64) int16_t bpack[kColBlock / kCols][kPairs * 2 * kCols];
  alignas(64) uint32_t apack[kPairs * kRows];
  for (int j0 = 0; j0 < N; j0 += kColBlock) {
    const int nj = Min(kColBlock, N - j0);
    for (int p0 = 0; p0 < K; p0 += kDepthBlock) {
      const int np = Min(kDepthBlock, K - p0);
      const int pairs = (np + 1) / 2;
      PackB<kBTrans>(op, p0, np, j0, nj, &bpack[0][0]);
      for (int i0 = 0; i0 < M; i0 += kRows) {
        const int ni = Min(kRows, M - i0);
        PackA<kATrans>(op, p0, np, i0, ni, apack);
        for (int s = 0; s < nj; s += kCols) {
          const int16_t* bp = bpack[s / kCols];
          Vu acc[kRows];
#pragma GCC unroll 8
          for (int r = 0; r < kRows; ++r) acc[r] = Vu{};
          for (int q = 0; q < pairs; ++q) {
            const Vh bv = LoadH(bp + q * 2 * kCols);
#pragma GCC unroll 8
            for (int r = 0; r < kRows; ++r) {
              acc[r] += MaddPairs(BroadcastPair(apack[q * kRows + r]), bv);
            }
          }
          WriteTile(acc, ni, Min(kCols, nj - s), p0 == 0, ubeta,
                    C + static_cast<long>(i0) * N + j0 + s, N);
        }
      }
    }
  }
}

}  // namespace

void i8_gemm(int a_trans, int b_trans, int M, int N, int K, const int8_t* A, const int8_t* B,
             int32_t beta, int32_t* C) {
  if (M < 1 || N < 1) return;
  const uint32_t ubeta = static_cast<uint32_t>(beta);
  if (K < 1) {
    for (long i = 0; i < static_cast<long>(M) * N; ++i) {
      C[i] = static_cast<int32_t>(ubeta * static_cast<uint32_t>(C[i]));
    }
    return;
  }
  const Operands op{M, N, K, A, B};
  if (a_trans) {
    if (b_trans) {
      I8Gemm<true, true>(op, ubeta, C);
    } else {
      I8Gemm<true, false>(op, ubeta, C);
    }
  } else {
    if (b_trans) {
      I8Gemm<false, true>(op, ubeta, C);
    } else {
      I8Gemm<false, false>(op, ubeta, C);
    }
  }
}

int32_t i8_dot(int n, const int8_t* x, const int8_t* y) {
  // Within a chunk the signed sum cannot overflow (65536 * 16384 < 2^31),
  // which lets the compiler use pairwise multiply-adds; chunks are added
  // with wrap-around.
  uint32_t total = 0;
  for (int i0 = 0; i0 < n; i0 += 65536) {
    const int end = Min(n, i0 + 65536);
    int32_t s = 0;
    for (int i = i0; i < end; ++i) s += static_cast<int32_t>(x[i]) * static_cast<int32_t>(y[i]);
    total += static_cast<uint32_t>(s);
  }
  return static_cast<int32_t>(total);
}

}  // namespace ORVIK_KERNEL_VARIANT
}  // namespace orvik_blas_kernels
