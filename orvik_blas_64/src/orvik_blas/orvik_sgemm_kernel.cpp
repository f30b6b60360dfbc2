// Float kernels, compiled once per vector width (see kernel_dispatch.h).
// Only C headers here, and everything but the entry points has internal
// linkage.

#include <string.h>

#include "orvik_blas_64/src/kernel_dispatch.h"

#ifndef ORVIK_KERNEL_VARIANT
#error "ORVIK_KERNEL_VARIANT names the namespace of this build of the kernels"
#endif

namespace orvik_blas_kernels {
namespace ORVIK_KERNEL_VARIANT {
namespace {

// The register tile is kMR rows by kNR columns of the column-major result:
// kMR / kLanes vectors along the rows times kNR broadcasts, which fills most
// of the vector registers of each instruction set.
#if defined(__AVX512F__)
constexpr int kVecBytes = 64;
constexpr int kMR = 32;
constexpr int kNR = 8;
#elif defined(__AVX2__)
constexpr int kVecBytes = 32;
constexpr int kMR = 16;
constexpr int kNR = 6;
#else
constexpr int kVecBytes = 16;
constexpr int kMR = 16;
constexpr int kNR = 4;
#endif
constexpr int kLanes = kVecBytes / 4;
constexpr int kMV = kMR / kLanes;
typedef float Vf __attribute__((vector_size(kVecBytes)));

constexpr int GEMM_P = 128;
constexpr int GEMM_Q = 240;
constexpr int GEMM_R = 12288;

inline int Min(int a, int b) { return a < b ? a : b; }

inline Vf Load(const float* p) {
  Vf v;
  memcpy(&v, p, sizeof(v));
  return v;
}
inline void Store(float* p, Vf v) { memcpy(p, &v, sizeof(v)); }
// x - (+0.0) is x for every x, so this folds to a plain broadcast (x plus
// a zero vector would not: 0.0 + -0.0 is +0.0, and costs a real add).
inline Vf Splat(float x) { return x - Vf{}; }
inline float HSum(Vf v) {
  float s = 0.0f;
  for (int i = 0; i < kLanes; ++i) s += v[i];
  return s;
}

// Rows of op(a) handled by one block: all of m when it fits, otherwise
// GEMM_P, or half of m rounded to 4 so that two blocks share the work.
inline int BlockRows(int m, int* l1) {
  if (m <= GEMM_P) {
    *l1 = 0;
    return m;
  }
  *l1 = 1;
  if (m >= 2 * GEMM_P) return GEMM_P;
  return ((m >> 1) + 3) & ~3;
}

inline int BlockDepth(int rest) {
  if (rest >= 2 * GEMM_Q) return GEMM_Q;
  if (rest > GEMM_Q) return ((rest >> 1) + 3) & ~3;
  return rest;
}

// Packs rows [i0, i0 + mi) and depth [l0, l0 + ml) of op(a) into panels of
// kMR rows, each ml deep and contiguous in depth; a last partial panel is
// padded with zero rows.
void PackA(int a_trans, const float* a, int lda, int i0, int mi, int l0, int ml, float* dst) {
  for (int ip = 0; ip < mi; ip += kMR) {
    const int mr = Min(kMR, mi - ip);
    float* d = dst + static_cast<long>(ip) * ml;
    if (!a_trans) {
      // op(a)(i, l) = a[i + l*lda]: each depth step is a contiguous run.
      const float* s = a + (i0 + ip) + static_cast<long>(l0) * lda;
      if (mr == kMR) {
        for (int l = 0; l < ml; ++l) {
          for (int v = 0; v < kMV; ++v)
            Store(d + l * kMR + v * kLanes, Load(s + l * static_cast<long>(lda) + v * kLanes));
        }
      } else {
        for (int l = 0; l < ml; ++l) {
          for (int r = 0; r < mr; ++r) d[l * kMR + r] = s[l * static_cast<long>(lda) + r];
          for (int r = mr; r < kMR; ++r) d[l * kMR + r] = 0.0f;
        }
      }
    } else {
      // op(a)(i, l) = a[l + i*lda]: each row is contiguous in depth.  Read
      // the kMR rows side by side in short depth runs so that the writes
      // stay contiguous and the source lines stay in L1.
      const float* s = a + l0 + static_cast<long>(i0 + ip) * lda;
      constexpr int kRun = 16;
      for (int l = 0; l < ml; l += kRun) {
        const int run = Min(kRun, ml - l);
        for (int r = 0; r < mr; ++r) {
          const float* row = s + static_cast<long>(r) * lda + l;
          float* out = d + l * kMR + r;
          for (int ll = 0; ll < run; ++ll) out[ll * kMR] = row[ll];
        }
        for (int r = mr; r < kMR; ++r) {
          for (int ll = 0; ll < run; ++ll) d[(l + ll) * kMR + r] = 0.0f;
        }
      }
    }
  }
}

// Packs columns [j0, j0 + nj) and depth [l0, l0 + ml) of op(b) into panels
// of kNR columns, padded with zero columns.
void PackB(int b_trans, const float* b, int ldb, int j0, int nj, int l0, int ml, float* dst) {
  for (int jp = 0; jp < nj; jp += kNR) {
    const int nr = Min(kNR, nj - jp);
    float* d = dst + static_cast<long>(jp) * ml;
    if (!b_trans) {
      // op(b)(l, j) = b[l + j*ldb]
      for (int c = 0; c < nr; ++c) {
        const float* s = b + l0 + static_cast<long>(j0 + jp + c) * ldb;
        for (int l = 0; l < ml; ++l) d[l * kNR + c] = s[l];
      }
    } else {
      // op(b)(l, j) = b[j + l*ldb]
      const float* s = b + (j0 + jp) + static_cast<long>(l0) * ldb;
      for (int l = 0; l < ml; ++l) {
        for (int c = 0; c < nr; ++c) d[l * kNR + c] = s[l * static_cast<long>(ldb) + c];
      }
    }
    for (int c = nr; c < kNR; ++c) {
      for (int l = 0; l < ml; ++l) d[l * kNR + c] = 0.0f;
    }
  }
}

// c[0..mr) x [0..nr) += alpha * (a panel) * (packed b panel).  Alpha is
// applied once, at write-back.  Depth step l of the a panel starts at
// pa + l * a_step: kMR for a packed panel, the leading dimension for kMR
// rows read in place.
inline void MicroKernel(int k, float alpha, const float* pa, long a_step, const float* pb, float* c,
                        int ldc, int mr, int nr) {
  Vf acc[kMV][kNR];
#pragma GCC unroll 16
  for (int v = 0; v < kMV; ++v) {
#pragma GCC unroll 16
    for (int j = 0; j < kNR; ++j) acc[v][j] = Vf{};
  }
#pragma GCC unroll 2
  for (int l = 0; l < k; ++l) {
    Vf av[kMV];
#pragma GCC unroll 16
    for (int v = 0; v < kMV; ++v) av[v] = Load(pa + l * a_step + v * kLanes);
#pragma GCC unroll 16
    for (int j = 0; j < kNR; ++j) {
      const Vf bj = Splat(pb[l * kNR + j]);
#pragma GCC unroll 16
      for (int v = 0; v < kMV; ++v) acc[v][j] += av[v] * bj;
    }
  }
  if (mr == kMR && nr == kNR) {
#pragma GCC unroll 16
    for (int j = 0; j < kNR; ++j) {
#pragma GCC unroll 16
      for (int v = 0; v < kMV; ++v) {
        float* p = c + static_cast<long>(j) * ldc + v * kLanes;
        Store(p, Load(p) + acc[v][j] * alpha);
      }
    }
    return;
  }
  float tile[kNR][kMR];
  for (int j = 0; j < kNR; ++j) {
    for (int v = 0; v < kMV; ++v) Store(&tile[j][v * kLanes], acc[v][j]);
  }
  for (int j = 0; j < nr; ++j) {
    for (int i = 0; i < mr; ++i) c[i + static_cast<long>(j) * ldc] += alpha * tile[j][i];
  }
}

// The product of one packed a block (m rows) with packed b panels (n
// columns), both `k` deep.
void Kernel(int m, int n, int k, float alpha, const float* sa, const float* sb, float* c, int ldc) {
  for (int j = 0; j < n; j += kNR) {
    const int nr = Min(kNR, n - j);
    for (int i = 0; i < m; i += kMR) {
      MicroKernel(k, alpha, sa + static_cast<long>(i) * k, kMR, sb + static_cast<long>(j) * k,
                  c + i + static_cast<long>(j) * ldc, ldc, Min(kMR, m - i), nr);
    }
  }
}

// The sum of the lanes: halves are folded with vector adds first.
#if defined(__AVX512F__) || defined(__AVX2__)
typedef float V4 __attribute__((vector_size(16)));
inline float FoldSum(Vf v) {
  V4 parts[kLanes / 4];
  memcpy(parts, &v, sizeof(v));
  V4 s = parts[0];
  for (int i = 1; i < kLanes / 4; ++i) s += parts[i];
  return (s[0] + s[1]) + (s[2] + s[3]);
}
// Lane c of the result is the sum of the lanes of acc[c], c < 8: eight
// reductions share their shuffles, halving the vectors at each step.
typedef float V8 __attribute__((vector_size(32)));
inline V8 PairSums(V8 a, V8 b) {
  return __builtin_shufflevector(a, b, 0, 2, 4, 6, 8, 10, 12, 14) +
         __builtin_shufflevector(a, b, 1, 3, 5, 7, 9, 11, 13, 15);
}
inline V8 SumEight(const Vf* acc) {
  V8 h[8];
  for (int c = 0; c < 8; ++c) {
    V8 parts[kLanes / 8];
    memcpy(parts, &acc[c], sizeof(Vf));
    h[c] = parts[0];
    for (int i = 1; i < kLanes / 8; ++i) h[c] += parts[i];
  }
  // [a01 a23 a45 a67 b01 ..], then [a0..3 a4..7 b0..3 ..], then [a b c ..].
  const V8 q0 = PairSums(PairSums(h[0], h[1]), PairSums(h[2], h[3]));
  const V8 q1 = PairSums(PairSums(h[4], h[5]), PairSums(h[6], h[7]));
  return PairSums(q0, q1);
}
#else
inline float FoldSum(Vf v) { return HSum(v); }
#endif

// Adds x[i] * col_c[i] for i in [0, n), n < kLanes, to sums[c], with
// 4-wide vectors and then single elements.
template <int kCount>
inline void DotTail(int n, const float* x, const float* const* cols, float* sums) {
  typedef float V4t __attribute__((vector_size(16)));
  int i = 0;
  if (n >= 4 && kLanes > 4) {
    V4t acc[kCount];
    for (int c = 0; c < kCount; ++c) acc[c] = V4t{};
    for (; i + 4 <= n; i += 4) {
      V4t xv;
      memcpy(&xv, x + i, sizeof(xv));
      for (int c = 0; c < kCount; ++c) {
        V4t av;
        memcpy(&av, cols[c] + i, sizeof(av));
        acc[c] += av * xv;
      }
    }
    for (int c = 0; c < kCount; ++c) sums[c] += (acc[c][0] + acc[c][1]) + (acc[c][2] + acc[c][3]);
  }
  for (; i < n; ++i) {
    for (int c = 0; c < kCount; ++c) sums[c] += cols[c][i] * x[i];
  }
}

// Few columns with a read transposed (a weight matrix stored one output per
// row, the fully connected layer's case).  Packing a into panels would cost
// as much as the product, since a serves only a handful of columns; so only
// op(b) is packed, transposed so that each depth step holds its columns
// side by side, and rows of a are read in place, one broadcast per element.
constexpr int kRowsAtOnce = 8;
constexpr int kFewColumns = 32;

void FewColumnsBlock(int m, int n, int k, float alpha, const float* a, int lda, int b_trans,
                     const float* b, int ldb, float* c, int ldc, float* sb) {
  const int np = (n + kLanes - 1) / kLanes * kLanes;
  for (int ls = 0; ls < k; ls += GEMM_Q) {
    const int ml = Min(GEMM_Q, k - ls);
    // bt[l*np + j] = op(b)(ls + l, j), zero past n.
    for (int l = 0; l < ml; ++l) {
      float* row = sb + static_cast<long>(l) * np;
      for (int j = 0; j < n; ++j) {
        row[j] = b_trans ? b[j + static_cast<long>(ls + l) * ldb]
                         : b[ls + l + static_cast<long>(j) * ldb];
      }
      for (int j = n; j < np; ++j) row[j] = 0.0f;
    }
    for (int i = 0; i < m; i += kRowsAtOnce) {
      const int nr = Min(kRowsAtOnce, m - i);
      const float* ap[kRowsAtOnce];
      // Past the edge, repeat the last row; its sums are not written.
      for (int r = 0; r < kRowsAtOnce; ++r)
        ap[r] = a + ls + static_cast<long>(i + Min(r, nr - 1)) * lda;
      for (int jv = 0; jv < np; jv += kLanes) {
        Vf acc[kRowsAtOnce];
#pragma GCC unroll 8
        for (int r = 0; r < kRowsAtOnce; ++r) acc[r] = Vf{};
        const float* bv_at = sb + jv;
        for (int l = 0; l < ml; ++l) {
          const Vf bv = Load(bv_at + static_cast<long>(l) * np);
#pragma GCC unroll 8
          for (int r = 0; r < kRowsAtOnce; ++r) acc[r] += Splat(ap[r][l]) * bv;
        }
        const int nc = Min(kLanes, n - jv);
        for (int r = 0; r < nr; ++r) {
          float* out = c + i + r + static_cast<long>(jv) * ldc;
          for (int cc = 0; cc < nc; ++cc) out[static_cast<long>(cc) * ldc] += alpha * acc[r][cc];
        }
      }
    }
  }
}

// Few columns with a read as stored (columns of a contiguous).  Packing a
// would copy all of it for a handful of uses, so whole kMR-row panels of a
// are read in place, straight from its columns; only op(b), small, is
// packed, and the last partial panel of rows, which needs zero padding.
void FewColumnsInPlace(int m, int n, int k, float alpha, const float* a, int lda, int b_trans,
                       const float* b, int ldb, float* c, int ldc, float* sa, float* sb) {
  const int body = m - m % kMR;
  int ml = 0;
  for (int ls = 0; ls < k; ls += ml) {
    ml = BlockDepth(k - ls);
    PackB(b_trans, b, ldb, 0, n, ls, ml, sb);
    const float* a_at = a + static_cast<long>(ls) * lda;
    // Each panel of a serves every column panel while it is in L1.
    for (int i = 0; i < body; i += kMR) {
      for (int j = 0; j < n; j += kNR) {
        MicroKernel(ml, alpha, a_at + i, lda, sb + static_cast<long>(j) * ml,
                    c + i + static_cast<long>(j) * ldc, ldc, kMR, Min(kNR, n - j));
      }
    }
    if (body < m) {
      PackA(0, a, lda, body, m - body, ls, ml, sa);
      for (int j = 0; j < n; j += kNR) {
        MicroKernel(ml, alpha, sa, kMR, sb + static_cast<long>(j) * ml,
                    c + body + static_cast<long>(j) * ldc, ldc, m - body, Min(kNR, n - j));
      }
    }
  }
}

// The even and the odd lanes of two vectors side by side.
#if defined(__AVX512F__)
#define ORVIK_EVEN_LANES 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30
#define ORVIK_ODD_LANES 1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31
#elif defined(__AVX2__)
#define ORVIK_EVEN_LANES 0, 2, 4, 6, 8, 10, 12, 14
#define ORVIK_ODD_LANES 1, 3, 5, 7, 9, 11, 13, 15
#else
#define ORVIK_EVEN_LANES 0, 2, 4, 6
#define ORVIK_ODD_LANES 1, 3, 5, 7
#endif

// y[0..2) += alpha * a * x for a dense matrix of two rows (lda 2): the rows
// are interleaved in memory, so each pair of vectors is split into its even
// (row 0) and odd (row 1) lanes against one vector of x.  Done one element
// at a time, the product would wait on the latency of every add.
void GemvTwoRows(int cols, float alpha, const float* a, const float* x, float* y) {
  Vf even[2] = {}, odd[2] = {};
  int j = 0;
  for (; j + 2 * kLanes <= cols; j += 2 * kLanes) {
#pragma GCC unroll 2
    for (int u = 0; u < 2; ++u) {
      const float* at = a + 2 * static_cast<long>(j + u * kLanes);
      const Vf lo = Load(at), hi = Load(at + kLanes);
      const Vf xv = Load(x + j + u * kLanes);
      even[u] += __builtin_shufflevector(lo, hi, ORVIK_EVEN_LANES) * xv;
      odd[u] += __builtin_shufflevector(lo, hi, ORVIK_ODD_LANES) * xv;
    }
  }
  for (; j + kLanes <= cols; j += kLanes) {
    const float* at = a + 2 * static_cast<long>(j);
    const Vf lo = Load(at), hi = Load(at + kLanes);
    const Vf xv = Load(x + j);
    even[0] += __builtin_shufflevector(lo, hi, ORVIK_EVEN_LANES) * xv;
    odd[0] += __builtin_shufflevector(lo, hi, ORVIK_ODD_LANES) * xv;
  }
  float s0 = FoldSum(even[0] + even[1]);
  float s1 = FoldSum(odd[0] + odd[1]);
  for (; j < cols; ++j) {
    s0 += x[j] * a[2 * static_cast<long>(j)];
    s1 += x[j] * a[2 * static_cast<long>(j) + 1];
  }
  y[0] += alpha * s0;
  y[1] += alpha * s1;
}

#undef ORVIK_EVEN_LANES
#undef ORVIK_ODD_LANES

}  // namespace

void sgemm_blocked(int a_trans, int b_trans, int m, int n, int k, float alpha, const float* a,
                   int lda, const float* b, int ldb, float* c, int ldc, float* sa, float* sb) {
  if (a_trans && n <= kFewColumns) {
    FewColumnsBlock(m, n, k, alpha, a, lda, b_trans, b, ldb, c, ldc, sb);
    return;
  }
  if (!a_trans && n <= kFewColumns) {
    FewColumnsInPlace(m, n, k, alpha, a, lda, b_trans, b, ldb, c, ldc, sa, sb);
    return;
  }
  for (int js = 0; js < n; js += GEMM_R) {
    const int min_j = Min(n - js, GEMM_R);
    int min_l = 0;
    for (int ls = 0; ls < k; ls += min_l) {
      min_l = BlockDepth(k - ls);
      int l1 = 0;
      int min_i = BlockRows(m, &l1);
      PackA(a_trans, a, lda, 0, min_i, ls, min_l, sa);
      int min_jj = 0;
      for (int jjs = js; jjs < js + min_j; jjs += min_jj) {
        const int rest = js + min_j - jjs;
        if (rest >= 3 * kNR) {
          min_jj = 3 * kNR;
        } else if (rest >= 2 * kNR) {
          min_jj = 2 * kNR;
        } else if (rest >= kNR) {
          min_jj = kNR;
        } else {
          min_jj = rest;
        }
        // When all rows fit one block each strip is used once, so the
        // strips share one place in sb.
        float* strip = sb + static_cast<long>(jjs - js) * min_l * l1;
        PackB(b_trans, b, ldb, jjs, min_jj, ls, min_l, strip);
        Kernel(min_i, min_jj, min_l, alpha, sa, strip, c + static_cast<long>(jjs) * ldc, ldc);
      }
      for (int is = min_i; is < m; is += min_i) {
        int unused = 0;
        min_i = BlockRows(m - is, &unused);
        PackA(a_trans, a, lda, is, min_i, ls, min_l, sa);
        Kernel(min_i, min_j, min_l, alpha, sa, sb, c + is + static_cast<long>(js) * ldc, ldc);
      }
    }
  }
}

void sgemv_n(int rows, int cols, float alpha, const float* a, int lda, const float* x, float* y) {
  if (rows == 2 && lda == 2) {
    GemvTwoRows(cols, alpha, a, x, y);
    return;
  }
  // A chunk of y stays in registers while every column streams past it.
  constexpr int kChunk = 8;
  int i = 0;
  for (; i + kChunk * kLanes <= rows; i += kChunk * kLanes) {
    Vf acc[kChunk];
    for (int v = 0; v < kChunk; ++v) acc[v] = Load(y + i + v * kLanes);
    for (int j = 0; j < cols; ++j) {
      const Vf t = Splat(alpha * x[j]);
      const float* col = a + i + static_cast<long>(j) * lda;
#pragma GCC unroll 8
      for (int v = 0; v < kChunk; ++v) acc[v] += t * Load(col + v * kLanes);
    }
    for (int v = 0; v < kChunk; ++v) Store(y + i + v * kLanes, acc[v]);
  }
  for (; i + kLanes <= rows; i += kLanes) {
    Vf acc = Load(y + i);
    for (int j = 0; j < cols; ++j)
      acc += Splat(alpha * x[j]) * Load(a + i + static_cast<long>(j) * lda);
    Store(y + i, acc);
  }
  // The last rows one at a time, four partial sums each so that the adds
  // do not wait on one another (a product with only a row or two spends
  // all its time here).
  for (; i < rows; ++i) {
    const float* row = a + i;
    float s[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    int j = 0;
    for (; j + 4 <= cols; j += 4) {
      for (int u = 0; u < 4; ++u) s[u] += x[j + u] * row[static_cast<long>(j + u) * lda];
    }
    for (; j < cols; ++j) s[0] += x[j] * row[static_cast<long>(j) * lda];
    y[i] += alpha * ((s[0] + s[1]) + (s[2] + s[3]));
  }
}

void sgemv_t(int rows, int cols, float alpha, const float* a, int lda, const float* x, float* y) {
  constexpr int kCols = 8;
  const int body = rows - rows % kLanes;
  int j = 0;
  for (; j + kCols <= cols; j += kCols) {
    const float* col[kCols];
    for (int c = 0; c < kCols; ++c) col[c] = a + static_cast<long>(j + c) * lda;
    Vf acc[kCols];
    for (int c = 0; c < kCols; ++c) acc[c] = Vf{};
    for (int i = 0; i < body; i += kLanes) {
      const Vf xv = Load(x + i);
#pragma GCC unroll 8
      for (int c = 0; c < kCols; ++c) acc[c] += Load(col[c] + i) * xv;
    }
    float sums[kCols];
#if defined(__AVX512F__) || defined(__AVX2__)
    static_assert(kCols == 8, "one lane per column");
    const V8 folded = SumEight(acc);
    memcpy(sums, &folded, sizeof(sums));
#else
    for (int c = 0; c < kCols; ++c) sums[c] = FoldSum(acc[c]);
#endif
    const float* tails[kCols];
    for (int c = 0; c < kCols; ++c) tails[c] = col[c] + body;
    DotTail<kCols>(rows - body, x + body, tails, sums);
    for (int c = 0; c < kCols; ++c) y[j + c] += alpha * sums[c];
  }
  for (; j < cols; ++j) {
    // Four partial sums, so that the adds do not wait on one another.
    const float* col = a + static_cast<long>(j) * lda;
    Vf acc[4] = {};
    int i = 0;
    for (; i + 4 * kLanes <= body; i += 4 * kLanes) {
#pragma GCC unroll 4
      for (int v = 0; v < 4; ++v) acc[v] += Load(col + i + v * kLanes) * Load(x + i + v * kLanes);
    }
    for (; i < body; i += kLanes) acc[0] += Load(col + i) * Load(x + i);
    float sum = FoldSum((acc[0] + acc[1]) + (acc[2] + acc[3]));
    const float* tail = col + body;
    DotTail<1>(rows - body, x + body, &tail, &sum);
    y[j] += alpha * sum;
  }
}

void saxpy(int n, float alpha, const float* x, float* y) {
  // Fused: the result is exact to one rounding on every machine.
  for (int i = 0; i < n; ++i) y[i] = __builtin_fmaf(alpha, x[i], y[i]);
}

float sdot(int n, const float* x, const float* y) {
  Vf acc[4] = {};
  int i = 0;
  for (; i + 4 * kLanes <= n; i += 4 * kLanes) {
    for (int v = 0; v < 4; ++v) acc[v] += Load(x + i + v * kLanes) * Load(y + i + v * kLanes);
  }
  for (; i + kLanes <= n; i += kLanes) acc[0] += Load(x + i) * Load(y + i);
  float s = HSum((acc[0] + acc[1]) + (acc[2] + acc[3]));
  for (; i < n; ++i) s += x[i] * y[i];
  return s;
}

}  // namespace ORVIK_KERNEL_VARIANT
}  // namespace orvik_blas_kernels
