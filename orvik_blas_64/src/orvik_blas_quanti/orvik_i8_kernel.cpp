// Int8 kernels, compiled once per vector width (see kernel_dispatch.h).
// Every sum is exact in wrapping 32-bit arithmetic, so no tile shape or
// summation order changes a result.

#include <string.h>

#include "orvik_blas_64/src/kernel_dispatch.h"

#if defined(__SSE2__)
#include <immintrin.h>
#elif defined(__aarch64__) && defined(__ARM_NEON)
#include <arm_neon.h>
#endif

// On aarch64 the tiles take their own packing (see ArmGemm), and so does
// the byte-quad kernel of the VNNI build (QuadGemm); the pair kernel below
// serves the other targets.
#if defined(__aarch64__) && defined(__ARM_NEON)
#define ORVIK_ARM_TILES 1
#else
#define ORVIK_ARM_TILES 0
#endif
#if !ORVIK_ARM_TILES && !defined(__AVX512VNNI__)
#define ORVIK_PAIR_TILES 1
#else
#define ORVIK_PAIR_TILES 0
#endif

#ifndef ORVIK_KERNEL_VARIANT
#error "ORVIK_KERNEL_VARIANT names the namespace of this build of the kernels"
#endif

namespace orvik_blas_kernels {
namespace ORVIK_KERNEL_VARIANT {
namespace {

// One strip of the result is 16 columns wide; one tile is kRows rows of
// it.  Depth is walked in pairs: two bytes of a row of A, sign-extended to
// 16 bits, meet the matching pair of B and are summed pairwise into 32 bits
// (never into 16-bit lanes, which two products of -128 * -128 overflow).
constexpr int kCols = 16;
#if defined(__AVX512BW__)
constexpr int kVecBytes = 64;
#elif defined(__AVX2__)
constexpr int kVecBytes = 32;
#else
constexpr int kVecBytes = 16;
#endif
#if ORVIK_PAIR_TILES
#if defined(__AVX512BW__)
constexpr int kRows = 8;
#elif defined(__AVX2__)
constexpr int kRows = 4;
#elif defined(__SSE2__)
constexpr int kRows = 2;  // sixteen 128-bit registers
#else
constexpr int kRows = 4;
#endif
#endif
constexpr int kDepthBlock = 256;      // bytes of depth per packed block
constexpr int kColBlock = 4 * kCols;  // columns of B packed at a time
#if ORVIK_PAIR_TILES
constexpr int kPairs = kDepthBlock / 2;
#endif

// Native vectors: kSums 32-bit column sums, or as many 16-bit pairs.
typedef int16_t Vh __attribute__((vector_size(kVecBytes)));
typedef uint32_t Vu __attribute__((vector_size(kVecBytes)));
constexpr int kSums = kVecBytes / 4;
constexpr int kVecsPerStrip = kCols / kSums;

inline int Min(int a, int b) { return a < b ? a : b; }

#if ORVIK_PAIR_TILES
inline Vh LoadH(const int16_t* p) {
  Vh v;
  memcpy(&v, p, sizeof(v));
  return v;
}

// Lane c of the result: a[2c]*b[2c] + a[2c+1]*b[2c+1], in 32 bits.
[[maybe_unused]] inline Vu MaddPairs(Vh a, Vh b) {
#if defined(__AVX512BW__)
  return (Vu)_mm512_madd_epi16((__m512i)a, (__m512i)b);
#elif defined(__AVX2__)
  return (Vu)_mm256_madd_epi16((__m256i)a, (__m256i)b);
#elif defined(__SSE2__)
  return (Vu)_mm_madd_epi16((__m128i)a, (__m128i)b);
#else
  Vu r;
  for (int c = 0; c < kSums; ++c) {
    r[c] = static_cast<uint32_t>(static_cast<int32_t>(a[2 * c]) * b[2 * c] +
                                 static_cast<int32_t>(a[2 * c + 1]) * b[2 * c + 1]);
  }
  return r;
#endif
}

inline Vu MaddAcc(Vu acc, Vh a, Vh b) { return acc + MaddPairs(a, b); }

inline Vh BroadcastPair(uint32_t pair) {
  Vu v = {};
  v += pair;
  return (Vh)v;
}

#endif  // ORVIK_PAIR_TILES

struct Operands {
  int M, N, K;
  const int8_t* A;
  const int8_t* B;
};

template <bool kATrans>
inline int8_t AAt(const Operands& op, int i, int p) {
  return kATrans ? op.A[static_cast<long>(p) * op.M + i] : op.A[static_cast<long>(i) * op.K + p];
}

#if ORVIK_PAIR_TILES
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

// Packs depth [p0, p0 + np) of rows [i0, i0 + ni) (ni <= kR) of A,
// sign-extended to 16 bits, one row after another at a pitch of
// kDepthBlock; so each 32-bit word is the (even, odd) pair of a depth pair.
// An odd last byte pairs with zero; missing rows read as zero.
template <bool kATrans, int kR>
void PackA(const Operands& op, int p0, int np, int i0, int ni, int16_t* dst) {
  const int padded = (np + 1) & ~1;
  for (int r = 0; r < kR; ++r) {
    int16_t* row = dst + r * kDepthBlock;
    if (r >= ni) {
      for (int p = 0; p < padded; ++p) row[p] = 0;
      continue;
    }
    if (!kATrans) {
      const int8_t* src = op.A + static_cast<long>(i0 + r) * op.K + p0;
      for (int p = 0; p < np; ++p) row[p] = src[p];
    } else {
      for (int p = 0; p < np; ++p) row[p] = AAt<true>(op, i0 + r, p0 + p);
    }
    if (padded > np) row[np] = 0;
  }
}

#endif  // ORVIK_PAIR_TILES

// Adds a tile's sums into C; the first depth block also applies beta.
template <int kR>
void WriteTile(const Vu (*acc)[kVecsPerStrip], int ni, int nc, bool first, uint32_t beta,
               int32_t* C, int N) {
  for (int r = 0; r < ni; ++r) {
    int32_t* c = C + static_cast<long>(r) * N;
    if (nc == kCols) {
      for (int v = 0; v < kVecsPerStrip; ++v) {
        Vu old;
        memcpy(&old, c + v * kSums, sizeof(old));
        const Vu out = (first ? old * beta : old) + acc[r][v];
        memcpy(c + v * kSums, &out, sizeof(out));
      }
      continue;
    }
    for (int j = 0; j < nc; ++j) {
      const uint32_t old = static_cast<uint32_t>(c[j]);
      const uint32_t base = first ? beta * old : old;
      c[j] = static_cast<int32_t>(base + acc[r][j / kSums][j % kSums]);
    }
  }
}

#if ORVIK_ARM_TILES || defined(__AVX512VNNI__)
template <bool kBTrans>
inline int8_t BAt(const Operands& op, int p, int j) {
  return kBTrans ? op.B[static_cast<long>(j) * op.K + p] : op.B[static_cast<long>(p) * op.N + j];
}
#endif

#if ORVIK_ARM_TILES
// On aarch64 both tile kernels take one operand of the product by lane
// (the indexed forms of the multiply instructions), so a tile of kArmRows
// rows reads all its A values for a depth group with one 16-byte load.
// Depth is walked in groups of G: the quads of the 8-bit dot product
// (SDOT), or pairs of 16-bit values for the widening multiply-add (SMLAL).
constexpr int kArmRows = 4;

// Packs depth [p0, p0 + np) of columns [j0, j0 + nj) of B per strip of
// kCols columns and per depth group of G: the group's kCols x G values with
// depth inner (SDOT reads a column's quad as one lane) or column inner
// (SMLAL reads one depth across the columns).  Missing columns and depth
// read as zero.
template <typename E, int G, bool kDepthInner, bool kBTrans>
void PackBGroups(const Operands& op, int p0, int np, int j0, int nj, E* dst) {
  const int groups = (np + G - 1) / G;
  for (int s = 0; s < nj; s += kCols) {
    E* d = dst + static_cast<long>(s / kCols) * kDepthBlock * kCols;
    const int nc = Min(kCols, nj - s);
    for (int g = 0; g < groups; ++g) {
      E* out = d + g * G * kCols;
      const int depth = Min(G, np - G * g);
      const int p = p0 + G * g;
      if (nc == kCols && depth == G) {
        // A whole group: fixed trip counts, no edge tests.
        for (int c = 0; c < kCols; ++c) {
          for (int t = 0; t < G; ++t) {
            out[kDepthInner ? c * G + t : t * kCols + c] =
                kBTrans ? op.B[static_cast<long>(j0 + s + c) * op.K + p + t]
                        : op.B[static_cast<long>(p + t) * op.N + j0 + s + c];
          }
        }
        continue;
      }
      for (int t = 0; t < G; ++t) {
        const int8_t* row = t < depth && !kBTrans
                                ? op.B + static_cast<long>(p0 + G * g + t) * op.N + j0 + s
                                : nullptr;
        for (int c = 0; c < kCols; ++c) {
          E v = 0;
          if (c < nc && t < depth) v = row ? row[c] : BAt<kBTrans>(op, p0 + G * g + t, j0 + s + c);
          out[kDepthInner ? c * G + t : t * kCols + c] = v;
        }
      }
    }
  }
}

// Packs depth [p0, p0 + np) of rows [i0, i0 + ni) (ni <= kArmRows) of A:
// per depth group, the G values of each row, row after row.
template <typename E, int G, bool kATrans>
void PackAGroups(const Operands& op, int p0, int np, int i0, int ni, E* dst) {
  const int groups = (np + G - 1) / G;
  if (ni == kArmRows && np % G == 0) {
    for (int g = 0; g < groups; ++g) {
      for (int r = 0; r < kArmRows; ++r) {
        for (int t = 0; t < G; ++t) {
          dst[(g * kArmRows + r) * G + t] = AAt<kATrans>(op, i0 + r, p0 + G * g + t);
        }
      }
    }
    return;
  }
  for (int g = 0; g < groups; ++g) {
    for (int r = 0; r < kArmRows; ++r) {
      for (int t = 0; t < G; ++t) {
        const int p = G * g + t;
        dst[(g * kArmRows + r) * G + t] = r < ni && p < np ? AAt<kATrans>(op, i0 + r, p0 + p) : 0;
      }
    }
  }
}

#if defined(__ARM_FEATURE_DOTPROD)
struct ArmTile {
  typedef int8_t E;
  static constexpr int G = 4;
  static constexpr bool kDepthInner = true;
  // Lane i of acc[r][v] += the quad of column 4v + i times the quad of row r.
  static inline Vu Dot(Vu acc, int8x16_t b, int8x16_t a, int r) {
    const int32x4_t s = (int32x4_t)acc;
    switch (r) {
      case 0: return (Vu)vdotq_laneq_s32(s, b, a, 0);
      case 1: return (Vu)vdotq_laneq_s32(s, b, a, 1);
      case 2: return (Vu)vdotq_laneq_s32(s, b, a, 2);
      default: return (Vu)vdotq_laneq_s32(s, b, a, 3);
    }
  }
  static void Run(const E* apack, const E* bp, int groups, Vu (*acc)[kVecsPerStrip]) {
    for (int g = 0; g < groups; ++g) {
      const int8x16_t av = vld1q_s8(apack + g * 16);
      int8x16_t bv[4];
#pragma GCC unroll 4
      for (int v = 0; v < 4; ++v) bv[v] = vld1q_s8(bp + g * 4 * kCols + v * 16);
#pragma GCC unroll 4
      for (int r = 0; r < kArmRows; ++r) {
#pragma GCC unroll 4
        for (int v = 0; v < 4; ++v) acc[r][v] = Dot(acc[r][v], bv[v], av, r);
      }
    }
  }
};
#else
struct ArmTile {
  typedef int16_t E;
  static constexpr int G = 2;
  static constexpr bool kDepthInner = false;
  // acc[0..3] += columns 0-3, 4-7, 8-11, 12-15 of b (16-bit) times lane l of
  // a, widened to 32 bits; a product fits 16 bits, the sums never do.
  template <int l>
  static inline void Mla(Vu* acc, int16x8_t b0, int16x8_t b1, int16x8_t a) {
    acc[0] = (Vu)vmlal_laneq_s16((int32x4_t)acc[0], vget_low_s16(b0), a, l);
    acc[1] = (Vu)vmlal_high_laneq_s16((int32x4_t)acc[1], b0, a, l);
    acc[2] = (Vu)vmlal_laneq_s16((int32x4_t)acc[2], vget_low_s16(b1), a, l);
    acc[3] = (Vu)vmlal_high_laneq_s16((int32x4_t)acc[3], b1, a, l);
  }
  static void Run(const E* apack, const E* bp, int groups, Vu (*acc)[kVecsPerStrip]) {
    for (int g = 0; g < groups; ++g) {
      const int16x8_t av = vld1q_s16(apack + g * 8);
      const E* b = bp + g * 2 * kCols;
      const int16x8_t e0 = vld1q_s16(b), e1 = vld1q_s16(b + 8);
      const int16x8_t o0 = vld1q_s16(b + 16), o1 = vld1q_s16(b + 24);
      Mla<0>(acc[0], e0, e1, av);
      Mla<1>(acc[0], o0, o1, av);
      Mla<2>(acc[1], e0, e1, av);
      Mla<3>(acc[1], o0, o1, av);
      Mla<4>(acc[2], e0, e1, av);
      Mla<5>(acc[2], o0, o1, av);
      Mla<6>(acc[3], e0, e1, av);
      Mla<7>(acc[3], o0, o1, av);
    }
  }
};
#endif

template <bool kATrans, bool kBTrans>
void ArmGemm(const Operands& op, uint32_t ubeta, int32_t* C) {
  static_assert(kVecsPerStrip == 4 && kSums == 4, "a strip is four vectors of four sums");
  typedef ArmTile::E E;
  constexpr int G = ArmTile::G;
  const int M = op.M, N = op.N, K = op.K;
  alignas(64) E bpack[kColBlock / kCols][kDepthBlock * kCols];
  alignas(64) E apack[kDepthBlock * kArmRows];
  for (int j0 = 0; j0 < N; j0 += kColBlock) {
    const int nj = Min(kColBlock, N - j0);
    for (int p0 = 0; p0 < K; p0 += kDepthBlock) {
      const int np = Min(kDepthBlock, K - p0);
      const int groups = (np + G - 1) / G;
      PackBGroups<E, G, ArmTile::kDepthInner, kBTrans>(op, p0, np, j0, nj, &bpack[0][0]);
      for (int i0 = 0; i0 < M; i0 += kArmRows) {
        const int ni = Min(kArmRows, M - i0);
        PackAGroups<E, G, kATrans>(op, p0, np, i0, ni, apack);
        for (int s = 0; s < nj; s += kCols) {
          Vu acc[kArmRows][kVecsPerStrip] = {};
          ArmTile::Run(apack, bpack[s / kCols], groups, acc);
          WriteTile<kArmRows>(acc, ni, Min(kCols, nj - s), p0 == 0, ubeta,
                              C + static_cast<long>(i0) * N + j0 + s, N);
        }
      }
    }
  }
}
#endif  // aarch64

#if defined(__AVX512VNNI__)
// With VNNI, depth is walked in quads by the unsigned-by-signed byte dot
// product (vpdpbusd: four products summed into each 32-bit lane, wrapping,
// twice the work of the 16-bit pair step per instruction).  A is taken
// unsigned as a + 128 (the byte a ^ 0x80); each column's sums then hold
// 128 * (sum of B over the depth) too much, which seeds the accumulators
// negated.  In wrapping 32-bit arithmetic the result is exact.
constexpr int kQuadRows = 8;  // rows of a tile; a tile is one or two strips

// Packs depth [p0, p0 + np) of rows [i0, i0 + ni) of A as a ^ 0x80, one row
// after another at a pitch of kDepthBlock.  Bytes past np in a row are
// left as they come (B is zero there); rows past ni are never written back.
template <bool kATrans>
void PackAOffset(const Operands& op, int p0, int np, int i0, int ni, uint8_t* dst) {
  const __m512i offset = _mm512_set1_epi8(static_cast<char>(0x80));
  for (int r = 0; r < ni; ++r) {
    uint8_t* row = dst + r * kDepthBlock;
    if (!kATrans) {
      const int8_t* src = op.A + static_cast<long>(i0 + r) * op.K + p0;
      for (int p = 0; p < np; p += 64) {
        const int n = Min(64, np - p);
        const __mmask64 mask = n == 64 ? ~0ull : (1ull << n) - 1;
        const __m512i v = _mm512_maskz_loadu_epi8(mask, src + p);
        _mm512_storeu_si512(row + p, _mm512_xor_si512(v, offset));
      }
    } else {
      for (int p = 0; p < np; ++p) {
        row[p] = static_cast<uint8_t>(AAt<true>(op, i0 + r, p0 + p)) ^ 0x80;
      }
    }
  }
}

// The layout of PackBGroups<int8_t, 4, true>: per strip of kCols columns and
// per depth quad, each column's four depth bytes.  Whole quads of whole
// strips take vector or word moves; the edges go element by element.
template <bool kBTrans>
void PackBQuads(const Operands& op, int p0, int np, int j0, int nj, int8_t* dst) {
  const int quads = (np + 3) / 4;
  const int whole = np / 4;
  for (int s = 0; s < nj; s += kCols) {
    int8_t* d = dst + static_cast<long>(s / kCols) * kDepthBlock * kCols;
    const int nc = Min(kCols, nj - s);
    int g0 = 0;
    if (nc == kCols) {
      g0 = whole;
      if (kBTrans) {
        for (int c = 0; c < kCols; ++c) {
          const int8_t* col = op.B + static_cast<long>(j0 + s + c) * op.K + p0;
          for (int g = 0; g < whole; ++g) memcpy(d + g * 4 * kCols + 4 * c, col + 4 * g, 4);
        }
      } else {
        // Four rows of sixteen bytes interleave into sixteen quads.
        for (int g = 0; g < whole; ++g) {
          const int8_t* b = op.B + static_cast<long>(p0 + 4 * g) * op.N + j0 + s;
          const __m128i r0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
          const __m128i r1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + op.N));
          const __m128i r2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 2 * op.N));
          const __m128i r3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 3 * op.N));
          const __m128i lo01 = _mm_unpacklo_epi8(r0, r1), hi01 = _mm_unpackhi_epi8(r0, r1);
          const __m128i lo23 = _mm_unpacklo_epi8(r2, r3), hi23 = _mm_unpackhi_epi8(r2, r3);
          __m128i* out = reinterpret_cast<__m128i*>(d + g * 4 * kCols);
          _mm_store_si128(out, _mm_unpacklo_epi16(lo01, lo23));
          _mm_store_si128(out + 1, _mm_unpackhi_epi16(lo01, lo23));
          _mm_store_si128(out + 2, _mm_unpacklo_epi16(hi01, hi23));
          _mm_store_si128(out + 3, _mm_unpackhi_epi16(hi01, hi23));
        }
      }
    }
    for (int g = g0; g < quads; ++g) {
      int8_t* out = d + g * 4 * kCols;
      for (int c = 0; c < kCols; ++c) {
        for (int t = 0; t < 4; ++t) {
          const int p = 4 * g + t;
          out[4 * c + t] = c < nc && p < np ? BAt<kBTrans>(op, p0 + p, j0 + s + c) : 0;
        }
      }
    }
  }
}

// kS strips (16 columns each) of a tile of kQuadRows rows over `quads`
// quads of one depth block; `first` applies beta to C, later blocks add.
template <int kS>
void QuadTile(const uint8_t* apack, const int8_t* const* bstrip, const int32_t* seed, int quads,
              int ni, int nj, bool first, uint32_t ubeta, int32_t* C, int N) {
  __m512i acc[kQuadRows][kS];
  for (int v = 0; v < kS; ++v) {
    const __m512i s = _mm512_load_si512(seed + v * kCols);
#pragma GCC unroll 8
    for (int r = 0; r < kQuadRows; ++r) acc[r][v] = s;
  }
  for (int g = 0; g < quads; ++g) {
    __m512i b[kS];
#pragma GCC unroll 2
    for (int v = 0; v < kS; ++v) b[v] = _mm512_load_si512(bstrip[v] + g * 4 * kCols);
#pragma GCC unroll 8
    for (int r = 0; r < kQuadRows; ++r) {
      int32_t quad;
      memcpy(&quad, apack + r * kDepthBlock + 4 * g, sizeof(quad));
      const __m512i a = _mm512_set1_epi32(quad);
#pragma GCC unroll 2
      for (int v = 0; v < kS; ++v) acc[r][v] = _mm512_dpbusd_epi32(acc[r][v], a, b[v]);
    }
  }
  const __m512i beta = _mm512_set1_epi32(static_cast<int32_t>(ubeta));
  for (int r = 0; r < ni; ++r) {
    for (int v = 0; v < kS; ++v) {
      int32_t* c = C + static_cast<long>(r) * N + v * kCols;
      const int nc = Min(kCols, nj - v * kCols);
      const __mmask16 mask = static_cast<__mmask16>((1u << nc) - 1u);
      __m512i out = acc[r][v];
      if (!first || ubeta != 0) {
        __m512i old = _mm512_maskz_loadu_epi32(mask, c);
        if (first) old = _mm512_mullo_epi32(old, beta);
        out = _mm512_add_epi32(out, old);
      }
      _mm512_mask_storeu_epi32(c, mask, out);
    }
  }
}

template <bool kATrans, bool kBTrans>
void QuadGemm(const Operands& op, uint32_t ubeta, int32_t* C) {
  constexpr int kStrips = kColBlock / kCols;
  const int M = op.M, N = op.N, K = op.K;
  alignas(64) int8_t bpack[kStrips][kDepthBlock * kCols];
  alignas(64) uint8_t apack[kQuadRows * kDepthBlock];
  alignas(64) int32_t seed[kColBlock];  // -128 * column sums of B in the block
  const __m512i offset = _mm512_set1_epi8(static_cast<char>(0x80));
  for (int j0 = 0; j0 < N; j0 += kColBlock) {
    const int nj = Min(kColBlock, N - j0);
    const int strips = (nj + kCols - 1) / kCols;
    for (int p0 = 0; p0 < K; p0 += kDepthBlock) {
      const int np = Min(kDepthBlock, K - p0);
      const int quads = (np + 3) / 4;
      PackBQuads<kBTrans>(op, p0, np, j0, nj, &bpack[0][0]);
      for (int s = 0; s < strips; ++s) {
        __m512i sum = _mm512_setzero_si512();
        for (int g = 0; g < quads; ++g) {
          sum = _mm512_dpbusd_epi32(sum, offset, _mm512_load_si512(bpack[s] + g * 4 * kCols));
        }
        _mm512_store_si512(seed + s * kCols, _mm512_sub_epi32(_mm512_setzero_si512(), sum));
      }
      for (int i0 = 0; i0 < M; i0 += kQuadRows) {
        const int ni = Min(kQuadRows, M - i0);
        PackAOffset<kATrans>(op, p0, np, i0, ni, apack);
        int32_t* c = C + static_cast<long>(i0) * N + j0;
        int s = 0;
        for (; s + 2 <= strips; s += 2) {
          const int8_t* b[2] = {bpack[s], bpack[s + 1]};
          QuadTile<2>(apack, b, seed + s * kCols, quads, ni, nj - s * kCols, p0 == 0, ubeta,
                      c + s * kCols, N);
        }
        if (s < strips) {
          const int8_t* b[1] = {bpack[s]};
          QuadTile<1>(apack, b, seed + s * kCols, quads, ni, nj - s * kCols, p0 == 0, ubeta,
                      c + s * kCols, N);
        }
      }
    }
  }
}
#endif  // __AVX512VNNI__


}  // namespace

namespace {

#if ORVIK_PAIR_TILES
template <bool kATrans, bool kBTrans, int kR>
void I8Gemm(const Operands& op, uint32_t ubeta, int32_t* C) {
  const int M = op.M, N = op.N, K = op.K;
  alignas(64) int16_t bpack[kColBlock / kCols][kPairs * 2 * kCols];
  alignas(64) int16_t apack[kR * kDepthBlock];
  for (int j0 = 0; j0 < N; j0 += kColBlock) {
    const int nj = Min(kColBlock, N - j0);
    for (int p0 = 0; p0 < K; p0 += kDepthBlock) {
      const int np = Min(kDepthBlock, K - p0);
      const int pairs = (np + 1) / 2;
      PackB<kBTrans>(op, p0, np, j0, nj, &bpack[0][0]);
      for (int i0 = 0; i0 < M; i0 += kR) {
        const int ni = Min(kR, M - i0);
        PackA<kATrans, kR>(op, p0, np, i0, ni, apack);
        for (int s = 0; s < nj; s += kCols) {
          const int16_t* bp = bpack[s / kCols];
          Vu acc[kR][kVecsPerStrip];
#pragma GCC unroll 8
          for (int r = 0; r < kR; ++r) {
#pragma GCC unroll 4
            for (int v = 0; v < kVecsPerStrip; ++v) acc[r][v] = Vu{};
          }
          for (int q = 0; q < pairs; ++q) {
            Vh bv[kVecsPerStrip];
#pragma GCC unroll 4
            for (int v = 0; v < kVecsPerStrip; ++v)
              bv[v] = LoadH(bp + q * 2 * kCols + v * 2 * kSums);
#pragma GCC unroll 8
            for (int r = 0; r < kR; ++r) {
              uint32_t pair;
              memcpy(&pair, apack + r * kDepthBlock + 2 * q, sizeof(pair));
              const Vh av = BroadcastPair(pair);
#pragma GCC unroll 4
              for (int v = 0; v < kVecsPerStrip; ++v) acc[r][v] = MaddAcc(acc[r][v], av, bv[v]);
            }
          }
          WriteTile<kR>(acc, ni, Min(kCols, nj - s), p0 == 0, ubeta,
                        C + static_cast<long>(i0) * N + j0 + s, N);
        }
      }
    }
  }
}

#endif  // ORVIK_PAIR_TILES

#if defined(__AVX512VNNI__)
// One row of A against B stored row by row (B(p, j) = B[p*N + j]), 64
// columns at a time.  Four rows of B interleave in registers into each
// column's depth quad (per 128-bit lane, so lane L of quad vector k holds
// columns 16L + 4k .. 16L + 4k + 3), taken unsigned as b + 128 against the
// broadcast signed quad of A; every column then holds 128 * (sum of A) too
// much, taken off at the end.  Exact in wrapping 32-bit arithmetic.
void SingleRowByRows(const Operands& op, uint32_t ubeta, int32_t* C) {
  const int N = op.N, K = op.K;
  const int8_t* a = op.A;
  uint32_t asum = 0;
  for (int p = 0; p < K; ++p) asum += static_cast<uint32_t>(static_cast<int32_t>(a[p]));
  const __m512i offset = _mm512_set1_epi8(static_cast<char>(0x80));
  const __m512i zero = _mm512_setzero_si512();
  for (int j0 = 0; j0 < N; j0 += 64) {
    const int nj = Min(64, N - j0);
    const __mmask64 cols = nj == 64 ? ~0ull : (1ull << nj) - 1;
    const int8_t* b = op.B + j0;
    __m512i acc[4] = {zero, zero, zero, zero};
    // Interleaves rows p .. p + 3 into quads and adds their products.
    auto step = [&](const __m512i* r, int32_t quad) {
      const __m512i av = _mm512_set1_epi32(quad);
      const __m512i lo01 = _mm512_unpacklo_epi8(r[0], r[1]), hi01 = _mm512_unpackhi_epi8(r[0], r[1]);
      const __m512i lo23 = _mm512_unpacklo_epi8(r[2], r[3]), hi23 = _mm512_unpackhi_epi8(r[2], r[3]);
      acc[0] = _mm512_dpbusd_epi32(acc[0], _mm512_unpacklo_epi16(lo01, lo23), av);
      acc[1] = _mm512_dpbusd_epi32(acc[1], _mm512_unpackhi_epi16(lo01, lo23), av);
      acc[2] = _mm512_dpbusd_epi32(acc[2], _mm512_unpacklo_epi16(hi01, hi23), av);
      acc[3] = _mm512_dpbusd_epi32(acc[3], _mm512_unpackhi_epi16(hi01, hi23), av);
    };
    int p = 0;
    for (; p + 4 <= K; p += 4) {
      __m512i r[4];
      for (int t = 0; t < 4; ++t) {
        r[t] = _mm512_xor_si512(_mm512_maskz_loadu_epi8(cols, b + static_cast<long>(p + t) * N),
                                offset);
      }
      int32_t quad;
      memcpy(&quad, a + p, sizeof(quad));
      step(r, quad);
    }
    if (p < K) {
      // Missing rows read as b = 0 (so as 128 unsigned) against a = 0.
      __m512i r[4];
      uint32_t quad = 0;
      for (int t = 0; t < 4; ++t) {
        const bool in = p + t < K;
        r[t] = _mm512_xor_si512(
            in ? _mm512_maskz_loadu_epi8(cols, b + static_cast<long>(p + t) * N) : zero, offset);
        if (in) quad |= static_cast<uint32_t>(static_cast<uint8_t>(a[p + t])) << (8 * t);
      }
      step(r, static_cast<int32_t>(quad));
    }
    alignas(64) uint32_t sums[4][16];
    for (int k = 0; k < 4; ++k) _mm512_store_si512(sums[k], acc[k]);
    const uint32_t excess = 128u * asum;
    for (int j = 0; j < nj; ++j) {
      const uint32_t dot = sums[(j >> 2) & 3][4 * (j >> 4) + (j & 3)] - excess;
      C[j0 + j] = static_cast<int32_t>(ubeta * static_cast<uint32_t>(C[j0 + j]) + dot);
    }
  }
}
#else
// One row of A against B stored row by row (B(p, j) = B[p*N + j]): rows
// of B are added in, scaled by one byte of A each, into 32-bit sums held in
// registers for a strip of 32 columns.  A product always fits 16 bits, so
// the multiply runs in 16-bit lanes.
typedef int8_t RowBytes __attribute__((vector_size(32)));
typedef int16_t RowHalves __attribute__((vector_size(64)));
typedef int32_t RowSums __attribute__((vector_size(128)));
void SingleRowByRows(const Operands& op, uint32_t ubeta, int32_t* C) {
  constexpr int kStrip = 32;
  const int N = op.N, K = op.K;
  int j0 = 0;
  for (; j0 + kStrip <= N; j0 += kStrip) {
    RowSums acc = {};
    for (int p = 0; p < K; ++p) {
      RowBytes row;
      memcpy(&row, op.B + static_cast<long>(p) * N + j0, sizeof(row));
      const RowHalves prod = __builtin_convertvector(row, RowHalves) * static_cast<int16_t>(op.A[p]);
      acc += __builtin_convertvector(prod, RowSums);
    }
    for (int j = 0; j < kStrip; ++j) {
      C[j0 + j] = static_cast<int32_t>(ubeta * static_cast<uint32_t>(C[j0 + j]) +
                                       static_cast<uint32_t>(acc[j]));
    }
  }
  // The last columns, fewer than a strip.
  const int nj = N - j0;
  if (nj == 0) return;
  uint32_t acc[kStrip] = {};
  for (int p = 0; p < K; ++p) {
    const int16_t a = op.A[p];
    const int8_t* b = op.B + static_cast<long>(p) * N + j0;
    for (int j = 0; j < nj; ++j) {
      acc[j] += static_cast<uint32_t>(static_cast<int32_t>(static_cast<int16_t>(a * b[j])));
    }
  }
  for (int j = 0; j < nj; ++j) {
    C[j0 + j] = static_cast<int32_t>(ubeta * static_cast<uint32_t>(C[j0 + j]) + acc[j]);
  }
}
#endif

#if defined(__AVX512VNNI__)
// GCC 12 takes the unused pass-through operand of the 512-bit shuffles for
// an uninitialised read; the shuffles below read only their two inputs.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// Adds the sixteen lanes of each of four vectors: lanes of the result, per
// 128-bit quarter, are the partial sums of c[0], c[1], c[2], c[3].
inline __m512i SumQuarters(const __m512i* c) {
  const __m512i t01 = _mm512_add_epi32(_mm512_unpacklo_epi32(c[0], c[1]),
                                       _mm512_unpackhi_epi32(c[0], c[1]));
  const __m512i t23 = _mm512_add_epi32(_mm512_unpacklo_epi32(c[2], c[3]),
                                       _mm512_unpackhi_epi32(c[2], c[3]));
  return _mm512_add_epi32(_mm512_unpacklo_epi64(t01, t23), _mm512_unpackhi_epi64(t01, t23));
}

// One row of A against B stored transposed: sixteen columns at a time,
// each a dot product of contiguous rows in 64-byte steps, B taken unsigned
// as b + 128 against signed A (so 128 * (sum of A) too much in every
// column); the sixteen vectors of partial sums are then folded into one.
void SingleRowDots(const Operands& op, uint32_t ubeta, int32_t* C) {
  const int N = op.N, K = op.K;
  const int8_t* a = op.A;
  uint32_t asum = 0;
  for (int p = 0; p < K; ++p) asum += static_cast<uint32_t>(static_cast<int32_t>(a[p]));
  const __m512i excess = _mm512_set1_epi32(static_cast<int32_t>(128u * asum));
  const __m512i offset = _mm512_set1_epi8(static_cast<char>(0x80));
  const __m512i beta = _mm512_set1_epi32(static_cast<int32_t>(ubeta));
  for (int j0 = 0; j0 < N; j0 += 16) {
    const int nc = Min(16, N - j0);
    __m512i acc[16];
    for (int c = 0; c < 16; ++c) acc[c] = _mm512_setzero_si512();
    for (int p = 0; p < K; p += 64) {
      const __mmask64 depth = K - p >= 64 ? ~0ull : (1ull << (K - p)) - 1;
      const __m512i av = _mm512_maskz_loadu_epi8(depth, a + p);
      const int8_t* b = op.B + static_cast<long>(j0) * K + p;
      for (int c = 0; c < nc; ++c) {
        const __m512i bv = _mm512_maskz_loadu_epi8(depth, b + static_cast<long>(c) * K);
        acc[c] = _mm512_dpbusd_epi32(acc[c], _mm512_xor_si512(bv, offset), av);
      }
    }
    const __m512i u0 = SumQuarters(acc), u1 = SumQuarters(acc + 4);
    const __m512i u2 = SumQuarters(acc + 8), u3 = SumQuarters(acc + 12);
    const __m512i x01 = _mm512_add_epi32(_mm512_shuffle_i32x4(u0, u1, 0x44),
                                         _mm512_shuffle_i32x4(u0, u1, 0xEE));
    const __m512i x23 = _mm512_add_epi32(_mm512_shuffle_i32x4(u2, u3, 0x44),
                                         _mm512_shuffle_i32x4(u2, u3, 0xEE));
    __m512i out = _mm512_sub_epi32(_mm512_add_epi32(_mm512_shuffle_i32x4(x01, x23, 0x88),
                                                    _mm512_shuffle_i32x4(x01, x23, 0xDD)),
                                   excess);
    const __mmask16 cols = static_cast<__mmask16>((1u << nc) - 1u);
    if (ubeta != 0) {
      const __m512i old = _mm512_maskz_loadu_epi32(cols, C + j0);
      out = _mm512_add_epi32(out, _mm512_mullo_epi32(old, beta));
    }
    _mm512_mask_storeu_epi32(C + j0, cols, out);
  }
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#else
// One row of A against B stored transposed: dot products of contiguous
// rows, four columns per pass so that each load of A serves four sums.
// Within a chunk of 65536 bytes a signed sum cannot overflow, which lets the
// compiler use pairwise multiply-adds; chunks are added with wrap-around.
void SingleRowDots(const Operands& op, uint32_t ubeta, int32_t* C) {
  const int8_t* a = op.A;
  const int K = op.K;
  int j = 0;
  for (; j + 4 <= op.N; j += 4) {
    const int8_t* b0 = op.B + static_cast<long>(j) * K;
    const int8_t* b1 = b0 + K;
    const int8_t* b2 = b1 + K;
    const int8_t* b3 = b2 + K;
    uint32_t total[4] = {0, 0, 0, 0};
    for (int p0 = 0; p0 < K; p0 += 65536) {
      const int end = Min(K, p0 + 65536);
      int32_t s0 = 0, s1 = 0, s2 = 0, s3 = 0;
      for (int p = p0; p < end; ++p) {
        const int32_t av = a[p];
        s0 += av * b0[p];
        s1 += av * b1[p];
        s2 += av * b2[p];
        s3 += av * b3[p];
      }
      total[0] += static_cast<uint32_t>(s0);
      total[1] += static_cast<uint32_t>(s1);
      total[2] += static_cast<uint32_t>(s2);
      total[3] += static_cast<uint32_t>(s3);
    }
    for (int c = 0; c < 4; ++c) {
      C[j + c] = static_cast<int32_t>(ubeta * static_cast<uint32_t>(C[j + c]) + total[c]);
    }
  }
  for (; j < op.N; ++j) {
    const uint32_t dot = static_cast<uint32_t>(i8_dot(K, a, op.B + static_cast<long>(j) * K));
    C[j] = static_cast<int32_t>(ubeta * static_cast<uint32_t>(C[j]) + dot);
  }
}
#endif

// A single row (the net's one-frame case) needs no packing: with B stored
// transposed each entry is a dot product of two contiguous rows, otherwise
// rows of B are accumulated.  A of one row is contiguous in either form.
template <bool kATrans, bool kBTrans>
void I8GemmRows(const Operands& op, uint32_t ubeta, int32_t* C) {
  if (op.M == 1) {
    if (kBTrans) {
      SingleRowDots(op, ubeta, C);
    } else {
      SingleRowByRows(op, ubeta, C);
    }
    return;
  }
#if ORVIK_ARM_TILES
  ArmGemm<kATrans, kBTrans>(op, ubeta, C);
#elif defined(__AVX512VNNI__)
  QuadGemm<kATrans, kBTrans>(op, ubeta, C);
#else
  I8Gemm<kATrans, kBTrans, kRows>(op, ubeta, C);
#endif
}

// The packed one-row product (layout in orvik_blas_i8.h): per strip of 16
// columns the depth quads lie one after another, so a strip is one pass
// over contiguous bytes whatever the shape.
inline int PackedCols(int N) { return (N + 15) / 16 * 16; }

// The quad of A at depth 4q, bytes past K read as zero.
inline uint32_t AQuad(const int8_t* a, int K, int q) {
  uint32_t quad = 0;
  if (4 * q + 4 <= K) {
    memcpy(&quad, a + 4 * q, sizeof(quad));
    return quad;
  }
  for (int t = 0; 4 * q + t < K; ++t) quad |= static_cast<uint32_t>(static_cast<uint8_t>(a[4 * q + t])) << (8 * t);
  return quad;
}

// The end of a strip of nc columns: bias added, then stored as 32 bits or
// narrowed to 8.
[[maybe_unused]] inline void FinishStrip(const uint32_t* sums, int nc, const int32_t* bias,
                                         const uint8_t* shift, int32_t lo, int32_t* C,
                                         int8_t* out8) {
  for (int c = 0; c < nc; ++c) {
    const int32_t v = static_cast<int32_t>(sums[c] + (bias ? static_cast<uint32_t>(bias[c]) : 0u));
    if (out8 == nullptr) {
      C[c] = v;
      continue;
    }
    const int32_t r = v >> shift[c];
    out8[c] = static_cast<int8_t>(r < lo ? lo : (r > 127 ? 127 : r));
  }
}

#if defined(__AVX512VNNI__)
// GCC 12 takes the unused pass-through operand of the 512-bit epilogue
// steps for an uninitialised read, as above.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// kS strips at once; A taken unsigned as a + 128 against signed B, each
// column starting from its packed -128 * (sum of B).  Four accumulators per
// strip (quads taken round-robin) keep the dependency chains short.
template <int kS>
void PackedStrips(int N, int K, const int8_t* a, const int8_t* bp, const int8_t* seed, int j0,
                  const int32_t* bias, const uint8_t* shift, int32_t lo, int32_t* C,
                  int8_t* out8) {
  constexpr int kU = 4;
  const int quads = (K + 3) / 4;
  const long pitch = static_cast<long>(quads) * 64;
  const __m512i offset = _mm512_set1_epi8(static_cast<char>(0x80));
  __m512i acc[kU][kS];
  for (int u = 0; u < kU; ++u) {
    for (int s = 0; s < kS; ++s) acc[u][s] = _mm512_setzero_si512();
  }
  int q = 0;
  for (; q + kU <= K / 4; q += kU) {
    __m512i av[kU];
#pragma GCC unroll 4
    for (int u = 0; u < kU; ++u) {
      int32_t quad;
      memcpy(&quad, a + 4 * (q + u), 4);
      av[u] = _mm512_xor_si512(_mm512_set1_epi32(quad), offset);
    }
#pragma GCC unroll 4
    for (int s = 0; s < kS; ++s) {
#pragma GCC unroll 4
      for (int u = 0; u < kU; ++u) {
        acc[u][s] = _mm512_dpbusd_epi32(acc[u][s], av[u],
                                        _mm512_loadu_si512(bp + s * pitch + (q + u) * 64));
      }
    }
  }
  for (; q < quads; ++q) {
    const __m512i a0 =
        _mm512_xor_si512(_mm512_set1_epi32(static_cast<int32_t>(AQuad(a, K, q))), offset);
#pragma GCC unroll 4
    for (int s = 0; s < kS; ++s) {
      acc[0][s] = _mm512_dpbusd_epi32(acc[0][s], a0, _mm512_loadu_si512(bp + s * pitch + q * 64));
    }
  }
  const __m512i low = _mm512_set1_epi32(lo), high = _mm512_set1_epi32(127);
  for (int s = 0; s < kS; ++s) {
    const int j = j0 + 16 * s;
    const int nc = Min(16, N - j);
    const __mmask16 cols = static_cast<__mmask16>((1u << nc) - 1u);
    __m512i sum = _mm512_add_epi32(_mm512_add_epi32(acc[0][s], acc[1][s]),
                                   _mm512_add_epi32(acc[2][s], acc[3][s]));
    sum = _mm512_add_epi32(sum, _mm512_loadu_si512(seed + 4 * j));
    if (bias != nullptr) sum = _mm512_add_epi32(sum, _mm512_maskz_loadu_epi32(cols, bias + j));
    if (out8 == nullptr) {
      _mm512_mask_storeu_epi32(C + j, cols, sum);
      continue;
    }
    const __m512i count = _mm512_cvtepu8_epi32(_mm_maskz_loadu_epi8(cols, shift + j));
    const __m512i r = _mm512_min_epi32(_mm512_max_epi32(_mm512_srav_epi32(sum, count), low), high);
    _mm512_mask_cvtepi32_storeu_epi8(out8 + j, cols, r);
  }
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#elif defined(__aarch64__) && defined(__ARM_FEATURE_DOTPROD)
// One strip: lane i of acc[v] is column 4v + i, its quad against A's.
void PackedStrip(int K, const int8_t* a, const int8_t* bp, uint32_t* sums) {
  int32x4_t acc[4] = {vdupq_n_s32(0), vdupq_n_s32(0), vdupq_n_s32(0), vdupq_n_s32(0)};
  const int quads = (K + 3) / 4;
  for (int q = 0; q < quads; ++q) {
    const int8x16_t av = vreinterpretq_s8_u32(vdupq_n_u32(AQuad(a, K, q)));
#pragma GCC unroll 4
    for (int v = 0; v < 4; ++v) acc[v] = vdotq_s32(acc[v], vld1q_s8(bp + q * 64 + v * 16), av);
  }
  for (int v = 0; v < 4; ++v) vst1q_u32(sums + 4 * v, vreinterpretq_u32_s32(acc[v]));
}
#elif defined(__aarch64__) && defined(__ARM_NEON)
// One strip without the dot product.  Each 16 bytes of a quad row are four
// columns' quads: a widening multiply against A's quad (twice over) gives
// two columns' products as 16 bits (-128 * -128 fits), and a pairwise
// widening add folds each neighbouring pair into a 32-bit lane, two lanes a
// column, added at the end.
void PackedStrip(int K, const int8_t* a, const int8_t* bp, uint32_t* sums) {
  int32x4_t acc[8];
  for (int32x4_t& v : acc) v = vdupq_n_s32(0);
  const int quads = (K + 3) / 4;
  for (int q = 0; q < quads; ++q) {
    const int8x16_t av = vreinterpretq_s8_u32(vdupq_n_u32(AQuad(a, K, q)));
    const int8x8_t alo = vget_low_s8(av);
#pragma GCC unroll 4
    for (int v = 0; v < 4; ++v) {
      const int8x16_t b = vld1q_s8(bp + q * 64 + v * 16);
      acc[2 * v] = vpadalq_s16(acc[2 * v], vmull_s8(vget_low_s8(b), alo));
      acc[2 * v + 1] = vpadalq_s16(acc[2 * v + 1], vmull_high_s8(b, av));
    }
  }
  for (int v = 0; v < 4; ++v) {
    vst1q_u32(sums + 4 * v, vreinterpretq_u32_s32(vpaddq_s32(acc[2 * v], acc[2 * v + 1])));
  }
}
#else
// One strip: lane 4c + t holds the products of column c at depth t of each
// quad, summed per column at the end.  A product fits 16 bits.
typedef int8_t QuadBytes __attribute__((vector_size(64)));
typedef int16_t QuadHalves __attribute__((vector_size(128)));
typedef int32_t QuadWide __attribute__((vector_size(256)));
typedef uint32_t QuadSums __attribute__((vector_size(256)));
typedef uint32_t QuadWords __attribute__((vector_size(64)));
void PackedStrip(int K, const int8_t* a, const int8_t* bp, uint32_t* sums) {
  QuadSums acc = {};
  const int quads = (K + 3) / 4;
  for (int q = 0; q < quads; ++q) {
    QuadWords aw = {};
    aw += AQuad(a, K, q);
    QuadBytes bb;
    memcpy(&bb, bp + q * 64, sizeof(bb));
    const QuadHalves prod = __builtin_convertvector(bb, QuadHalves) *
                            __builtin_convertvector((QuadBytes)aw, QuadHalves);
    acc += (QuadSums)__builtin_convertvector(prod, QuadWide);
  }
  for (int c = 0; c < 16; ++c) sums[c] = acc[4 * c] + acc[4 * c + 1] + acc[4 * c + 2] + acc[4 * c + 3];
}
#endif

}  // namespace

void i8_gemv_packed(int N, int K, const int8_t* a, const int8_t* packed, const int32_t* bias,
                    const uint8_t* shift, int32_t lo, int32_t* C, int8_t* out8) {
  const int cols = PackedCols(N);
  const long pitch = static_cast<long>((K + 3) / 4) * 64;
  const int8_t* strips = packed + 4 * cols;
#if defined(__AVX512VNNI__)
  int j0 = 0;
  for (; j0 + 64 <= N; j0 += 64) {
    PackedStrips<4>(N, K, a, strips + j0 / 16 * pitch, packed, j0, bias, shift, lo, C, out8);
  }
  const int rest = (N - j0 + 15) / 16;
  const int8_t* bp = strips + j0 / 16 * pitch;
  if (rest == 3) PackedStrips<3>(N, K, a, bp, packed, j0, bias, shift, lo, C, out8);
  if (rest == 2) PackedStrips<2>(N, K, a, bp, packed, j0, bias, shift, lo, C, out8);
  if (rest == 1) PackedStrips<1>(N, K, a, bp, packed, j0, bias, shift, lo, C, out8);
#else
  for (int j0 = 0; j0 < N; j0 += 16) {
    uint32_t sums[16];
    PackedStrip(K, a, strips + j0 / 16 * pitch, sums);
    FinishStrip(sums, Min(16, N - j0), bias ? bias + j0 : nullptr, shift ? shift + j0 : nullptr,
                lo, C ? C + j0 : nullptr, out8 ? out8 + j0 : nullptr);
  }
#endif
}

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
      I8GemmRows<true, true>(op, ubeta, C);
    } else {
      I8GemmRows<true, false>(op, ubeta, C);
    }
  } else {
    if (b_trans) {
      I8GemmRows<false, true>(op, ubeta, C);
    } else {
      I8GemmRows<false, false>(op, ubeta, C);
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
