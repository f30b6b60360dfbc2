#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <algorithm>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvik_blas_64/src/orvik_blas/orvik_cblas.h"
#include "tests/orvik_blas_64/kernel_test_util.h"

namespace {

using orvik_test::ForEachKernelVariant;
using orvik_test::RandomFloats;

struct GemmShape {
  int order, trans_a, trans_b, M, N, K;
  float alpha, beta;
};

// Dense leading dimensions for a shape.
void LeadingDims(const GemmShape& s, int* lda, int* ldb, int* ldc) {
  const bool row = s.order == CblasRowMajor;
  const bool ta = s.trans_a == CblasTrans, tb = s.trans_b == CblasTrans;
  *lda = row ? (ta ? s.M : s.K) : (ta ? s.K : s.M);
  *ldb = row ? (tb ? s.K : s.N) : (tb ? s.N : s.K);
  *ldc = row ? s.N : s.M;
}

// C = alpha op(A) op(B) + beta C for the shape, on dense operands; a GEMV
// takes B as the vector x and C as y.
using Product = std::function<void(const GemmShape& s, const float* A, int lda, const float* B,
                                   int ldb, float* C, int ldc)>;

void Sgemm(const GemmShape& s, const float* A, int lda, const float* B, int ldb, float* C,
           int ldc) {
  cblas_sgemm(static_cast<CBLAS_ORDER>(s.order), static_cast<CBLAS_TRANSPOSE>(s.trans_a),
              static_cast<CBLAS_TRANSPOSE>(s.trans_b), s.M, s.N, s.K, s.alpha, A, lda, B, ldb,
              s.beta, C, ldc);
}
void Sgemv(const GemmShape& s, const float* A, int lda, const float* x, int, float* y, int) {
  cblas_sgemv(static_cast<CBLAS_ORDER>(s.order), static_cast<CBLAS_TRANSPOSE>(s.trans_a), s.M, s.K,
              s.alpha, A, lda, x, 1, s.beta, y, 1);
}
void PlainSgemv(const GemmShape& s, const float* A, int lda, const float* x, int, float* y, int) {
  orvik_sgemv_inhouse(s.order, s.trans_a, s.M, s.K, s.alpha, A, lda, x, 1, s.beta, y, 1);
}
// The double forms, on the float operands widened and the result narrowed.
template <bool kGemv>
void Double(const GemmShape& s, const float* A, int lda, const float* B, int ldb, float* C,
            int ldc) {
  std::vector<double> a(A, A + s.M * s.K), b(B, B + s.K * s.N), c(C, C + s.M * s.N);
  const auto order = static_cast<CBLAS_ORDER>(s.order);
  const auto ta = static_cast<CBLAS_TRANSPOSE>(s.trans_a);
  if (kGemv) {
    cblas_dgemv(order, ta, s.M, s.K, s.alpha, a.data(), lda, b.data(), 1, s.beta, c.data(), 1);
  } else {
    cblas_dgemm(order, ta, static_cast<CBLAS_TRANSPOSE>(s.trans_b), s.M, s.N, s.K, s.alpha,
                a.data(), lda, b.data(), ldb, s.beta, c.data(), ldc);
  }
  std::copy(c.begin(), c.end(), C);
}

// Runs `product` and the plain GEMM reference on the same random data and
// compares each entry.  The two differ only in summation order and fusing,
// each within k roundings of the sum of magnitudes, so the bound is that
// sum (itself summed in float, hence a little slack) times 2 (k + 2) float
// epsilons.  With beta 0 the product starts from NaN, which it must
// overwrite unread (the plain GEMV reads it).
void CompareWithReference(const GemmShape& s, std::mt19937* rng, const std::string& variant,
                          const Product& product, bool reads_c = false) {
  int lda, ldb, ldc;
  LeadingDims(s, &lda, &ldb, &ldc);
  const std::vector<float> A = RandomFloats(rng, static_cast<size_t>(s.M) * s.K);
  const std::vector<float> B = RandomFloats(rng, static_cast<size_t>(s.K) * s.N);
  const std::vector<float> C0 = RandomFloats(rng, static_cast<size_t>(s.M) * s.N);
  std::vector<float> ours = C0, ref = C0, magnitude(C0.size());
  if (s.beta == 0.0f && !reads_c) ours.assign(C0.size(), std::numeric_limits<float>::quiet_NaN());
  product(s, A.data(), lda, B.data(), ldb, ours.data(), ldc);
  orvik_sgemm_inhouse(s.order, s.trans_a, s.trans_b, s.M, s.N, s.K, s.alpha, A.data(), lda,
                      B.data(), ldb, s.beta, ref.data(), ldc);
  std::vector<float> abs_a(A.size()), abs_b(B.size());
  std::transform(A.begin(), A.end(), abs_a.begin(), [](float v) { return std::fabs(v); });
  std::transform(B.begin(), B.end(), abs_b.begin(), [](float v) { return std::fabs(v); });
  orvik_sgemm_inhouse(s.order, s.trans_a, s.trans_b, s.M, s.N, s.K, 1.0f, abs_a.data(), lda,
                      abs_b.data(), ldb, 0.0f, magnitude.data(), ldc);
  int bad = 0;
  for (size_t at = 0; at < C0.size() && bad < 5; ++at) {
    const double sum = magnitude[at] * std::fabs(s.alpha) + std::fabs(s.beta * C0[at]);
    const double tol = 2.0 * (s.K + 2) * FLT_EPSILON * sum * 1.001 + 1e-30;
    if (!(std::fabs(ours[at] - ref[at]) <= tol)) {
      ++bad;
      ADD_FAILURE() << variant << " order " << s.order << " ta " << s.trans_a << " tb "
                    << s.trans_b << " " << s.M << "x" << s.N << "x" << s.K << " alpha " << s.alpha
                    << " beta " << s.beta << " at " << at << ": " << ours[at] << " vs reference "
                    << ref[at] << ", tolerance " << tol;
    }
  }
}

const int kOrders[] = {CblasRowMajor, CblasColMajor};
const int kTrans[] = {CblasNoTrans, CblasTrans};

struct Size {
  int M, N, K;
  float alpha, beta;
};

// Sizes that cross each blocking boundary: two row blocks (130), three depth
// blocks (500), column strips with a tail (13), a second outer column block
// (12288 + 1), few columns read in place with a partial row panel (16 x
// 250), one or two outputs of a long dot product, the matrix-vector shapes
// of a one-frame net, no depth, alpha 0.  Then random small sizes.  Each in
// all eight forms; GEMV takes M and K of each, past 512 of them (rows plus
// columns) with pooled scratch.
TEST(SgemmTest, EveryFormMatchesReference) {
  std::vector<Size> sizes = {
      {130, 7, 9, 1, 0},
      {300, 5, 17, 1, 0.5f},
      {6, 130, 500, 1, 0},
      {9, 13, 500, 2, 1},
      {13, 21, 241, 1, 0},
      {5, 12289, 3, 1, 1},
      {3, 12289, 2, -1, 0},
      {16, 256, 120, 1, 0},
      {16, 250, 120, 1, 0},
      {101, 27, 500, -0.5f, 1},
      {1, 2, 256, 1, 0},
      {3, 1, 257, 0.5f, 1},
      {1, 37, 29, 1, 1},
      {45, 1, 67, 1, 2},
      {2, 3, 0, 1, 0.5f},
      {7, 5, 3, 0, 2},
  };
  std::mt19937 rng(1234);
  std::uniform_int_distribution<int> dim(1, 20);
  const float kScalars[][2] = {{1.0f, 0.0f}, {0.5f, 1.0f}, {-1.5f, 0.25f}};
  for (int rep = 0; rep < 40; ++rep)
    sizes.push_back({dim(rng), dim(rng), dim(rng), kScalars[rep % 3][0], kScalars[rep % 3][1]});
  std::string first;  // the kernel-free forms once
  ForEachKernelVariant([&](const std::string& variant) {
    if (first.empty()) first = variant;
    for (const Size& z : sizes) {
      for (int form = 0; form < 8; ++form) {
        GemmShape s{kOrders[form / 4], kTrans[form / 2 % 2], kTrans[form % 2], z.M, z.N, z.K,
                    z.alpha, z.beta};
        CompareWithReference(s, &rng, variant, Sgemm);
        if (variant == first) CompareWithReference(s, &rng, "double", Double<false>);
        if (s.trans_b == CblasTrans || z.K == 0) continue;
        s.N = 1;
        CompareWithReference(s, &rng, variant, Sgemv);
        if (variant != first) continue;
        CompareWithReference(s, &rng, "double", Double<true>, true);
        if (s.order == CblasRowMajor) CompareWithReference(s, &rng, "plain", PlainSgemv, true);
      }
    }
  });
}

// Four products at once each hold their own pool block.
TEST(SgemmTest, ConcurrentCallsGiveTheSameResults) {
  std::mt19937 rng(11);
  const int M = 70, N = 90, K = 300;
  const std::vector<float> A = RandomFloats(&rng, M * K), B = RandomFloats(&rng, K * N);
  const GemmShape s{CblasRowMajor, CblasNoTrans, CblasNoTrans, M, N, K, 1.0f, 0.0f};
  std::vector<float> expected(M * N);
  Sgemm(s, A.data(), K, B.data(), N, expected.data(), N);
  std::vector<std::vector<float>> results(4, std::vector<float>(M * N));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int rep = 0; rep < 20; ++rep) Sgemm(s, A.data(), K, B.data(), N, results[t].data(), N);
    });
  }
  for (std::thread& th : threads) th.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(results[t], expected) << "thread " << t;
}

TEST(Level1Test, AxpyIsFusedAndTheOthersAreExact) {
  // 1 + 2^-24 squared needs the fused form to keep its last bit.
  const float e = std::ldexp(1.0f, -12);
  ForEachKernelVariant([&](const std::string& variant) {
    std::vector<float> x(37, 1.0f + e), y(37, -1.0f);
    cblas_saxpy(37, 1.0f + e, x.data(), 1, y.data(), 1);
    for (float v : y) ASSERT_EQ(v, std::fma(1.0f + e, 1.0f + e, -1.0f)) << variant;
    std::vector<float> a(53), b(53);
    double dot = 0.0;
    for (int i = 0; i < 53; ++i) {
      a[i] = static_cast<float>(i % 7) - 3.0f;
      b[i] = static_cast<float>(i % 5) * 0.5f;
      dot += a[i] * b[i];
    }
    EXPECT_FLOAT_EQ(cblas_sdot(53, a.data(), 1, b.data(), 1), static_cast<float>(dot)) << variant;
  });
  // The rank-one update with its odd strides.
  const float x[2] = {1.0f, 2.0f}, y[3] = {1.0f, 10.0f, 100.0f};
  std::vector<float> A(6, 1.0f);
  cblas_sger(CblasColMajor, 2, 3, 0.5f, x, 1, y, 3, A.data(), 3);
  EXPECT_EQ(A, (std::vector<float>{1.5f, 6.0f, 51.0f, 2.0f, 11.0f, 101.0f}));
  float v[3] = {1.0f, -2.0f, std::numeric_limits<float>::quiet_NaN()};
  cblas_sscal(3, 0.0f, v, 1);
  EXPECT_EQ(v[2], 0.0f);
  std::vector<float> w = {1.0f, -2.0f, 4.0f};
  cblas_saxpby(3, 2.0f, y, 1, 3.0f, w.data(), 1);
  EXPECT_EQ(w, (std::vector<float>{5, 14, 212}));
  // Accumulated in double: 2^24 + 1 + 1 would stay 2^24 in float.
  const float big[3] = {16777216.0f, -1.0f, 1.0f};
  EXPECT_EQ(cblas_sasum(3, big, 1), 16777218.0f);
  EXPECT_EQ(cblas_sasum(0, big, 1), 0.0f);
  EXPECT_EQ(cblas_sdot(0, big, 1, big, 1), 0.0f);
  const double dx[3] = {1, 1, 2}, dy[3] = {1, 10, 100};
  double G[6] = {}, ds[2] = {2, 3};
  cblas_dger(CblasRowMajor, 2, 3, 1.0, dx, 1, dy, 3, G, 3);
  EXPECT_EQ(std::vector<double>(G, G + 6), (std::vector<double>{1, 10, 100, 1, 10, 100}));
  EXPECT_EQ(cblas_ddot(3, dx, 1, dx, 1), 6.0);
  cblas_dscal(2, 0.5, ds, 1);
  EXPECT_EQ(ds[1], 1.5);
}

// Each check names what failed, a comparison with both values, in the
// order the arguments are checked.  The GEMM's leading dimensions are
// checked at M 2, N 3, K 5.
TEST(BlasDeathTest, ArgumentChecks) {
  float A[64] = {}, B[64] = {}, x[4] = {}, y[64] = {};
  double d[4] = {};
  const CBLAS_ORDER row = CblasRowMajor, col = CblasColMajor;
  const CBLAS_TRANSPOSE no = CblasNoTrans, tr = CblasTrans;
  auto gemm = [&](CBLAS_ORDER o, CBLAS_TRANSPOSE ta, CBLAS_TRANSPOSE tb, int lda, int ldb, int ldc) {
    cblas_sgemm(o, ta, tb, 2, 3, 5, 1, A, lda, B, ldb, 0, y, ldc);
  };
  const std::pair<std::function<void()>, const char*> kCases[] = {
      {[&] { gemm(row, no, no, 7, 3, 3); }, "lda == K \\(7 vs\\. 5\\)"},
      {[&] { gemm(row, tr, no, 5, 3, 3); }, "lda == M \\(5 vs\\. 2\\)"},
      {[&] { gemm(row, no, no, 5, 5, 3); }, "ldb == N \\(5 vs\\. 3\\)"},
      {[&] { gemm(row, no, tr, 5, 3, 3); }, "ldb == K \\(3 vs\\. 5\\)"},
      {[&] { gemm(row, no, no, 5, 3, 2); }, "ldc == N \\(2 vs\\. 3\\)"},
      {[&] { gemm(col, no, no, 5, 5, 2); }, "lda == M \\(5 vs\\. 2\\)"},
      {[&] { gemm(col, tr, no, 2, 5, 2); }, "lda == K \\(2 vs\\. 5\\)"},
      {[&] { gemm(col, no, no, 2, 3, 2); }, "ldb == K \\(3 vs\\. 5\\)"},
      {[&] { gemm(col, no, tr, 2, 5, 2); }, "ldb == N \\(5 vs\\. 3\\)"},
      {[&] { gemm(col, no, no, 2, 5, 3); }, "ldc == M \\(3 vs\\. 2\\)"},
      {[&] { cblas_sgemm(row, no, no, 2, 2, 2, 1, A, 2, B, 2, 0, nullptr, 2); }, "C\n"},
      {[&] { cblas_sgemm(CBLAS_ORDER(100), no, no, 2, 2, 2, 1, A, 9, B, 2, 0, y, 2); },
       "Order == 101 \\|\\| Order == 102\n"},
      {[&] { cblas_sgemm(row, CBLAS_TRANSPOSE(113), no, 2, 2, 2, 1, A, 9, B, 2, 0, y, 2); },
       "TransA == 111 \\|\\| TransA == 112\n"},
      {[&] { cblas_sgemm(row, no, CBLAS_TRANSPOSE(0), 2, 2, 2, 1, A, 9, B, 2, 0, y, 2); },
       "TransB == 111 \\|\\| TransB == 112\n"},
      // incY 1 with N above 1 ends in the GEMM's ldb check.
      {[&] { cblas_sger(row, 2, 3, 1, x, 1, y, 1, A, 3); }, "ldb == N \\(1 vs\\. 3\\)"},
      {[&] { cblas_sgemv(row, no, 2, 4, 1, A, 4, x, 1, 0, nullptr, 1); }, "C\n"},
      {[&] { cblas_sgemv(row, tr, 4, 8, 1, A, 8, x, 1, 0, y, 1); }, "lda == m \\(8 vs\\. 4\\)"},
      {[&] { cblas_sgemv(col, no, 2, 4, 1, A, 4, x, 1, 0, y, 1); }, "lda == m \\(4 vs\\. 2\\)"},
      {[&] { cblas_sgemv(row, no, 2, 4, 1, A, 4, x, 2, 0, y, 1); }, "ldb == 1 \\(2 vs\\. 1\\)"},
      {[&] { cblas_sgemv(row, no, 2, 4, 1, A, 4, x, 1, 0, y, -1); }, "ldc == 1 \\(-1 vs\\. 1\\)"},
      {[&] { orvik_sgemv_inhouse(102, 111, 2, 4, 1, A, 2, x, 1, 0, y, 1); },
       "Order == 101 \\(102 vs\\. 101\\)"},
      {[&] { cblas_saxpy(4, 1, x, 2, y, 1); }, "incX == 1 && incY == 1\n"},
      {[&] { cblas_saxpby(4, 1, x, 1, 1, y, 3); }, "incX == 1 && incY == 1\n"},
      {[&] { cblas_sscal(4, 1, x, 2); }, "incX == 1 \\(2 vs\\. 1\\)"},
      {[&] { cblas_sasum(4, x, 0); }, "incX == 1 \\(0 vs\\. 1\\)"},
      {[&] { cblas_sdot(4, x, 1, y, 2); }, "incy == 1 \\(2 vs\\. 1\\)"},
      {[&] { cblas_dscal(4, 1, d, 2); }, "incX == 1 \\(2 vs\\. 1\\)"},
      {[&] { cblas_ddot(4, d, 3, d, 1); }, "incx == 1 \\(3 vs\\. 1\\)"},
  };
  for (const auto& [call, report] : kCases)
    EXPECT_DEATH(call(), std::string("# Check failed: ") + report) << report;
}

}  // namespace
