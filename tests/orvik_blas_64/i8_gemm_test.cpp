#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "orvik_blas_64/src/orvik_blas_quanti/orvik_blas_i8.h"
#include "tests/orvik_blas_64/kernel_test_util.h"

namespace {

using orvik_test::ForEachKernelVariant;
using orvik_test::RandomBytes;

using SeqLoop = void (*)(int, int, int, signed char, const signed char*, const signed char*,
                         signed char, int*);
// Indexed by 2 * (A transposed) + (B transposed), like the dispatch table.
const SeqLoop kSeq[4] = {seq_matrix_mul_i8_i32_nn_c, seq_matrix_mul_i8_i32_nt_c,
                         seq_matrix_mul_i8_i32_tn_c, seq_matrix_mul_i8_i32_tt_c};
using Kernel = void (*)(int, int, int, signed char, const signed char*, const signed char*, int*,
                        signed char);
const Kernel kInstrics[4] = {
    orvik_i8_i32_gemm_nn_instrics_kernel, orvik_i8_i32_gemm_nt_instrics_kernel,
    orvik_i8_i32_gemm_tn_instrics_kernel, orvik_i8_i32_gemm_tt_instrics_kernel};

std::vector<int> RandomInts(std::mt19937* rng, size_t n) {
  std::uniform_int_distribution<int> dist(-100000, 100000);
  std::vector<int> v(n);
  for (int& x : v) x = dist(*rng);
  return v;
}

// Runs the exported entry in the given order against the reference loop of
// the same form and requires equal bits.
void CompareEntry(int order, int ta, int tb, int M, int N, int K, signed char beta,
                  std::mt19937* rng, const std::string& variant) {
  const std::vector<signed char> A = RandomBytes(rng, static_cast<size_t>(M) * K);
  const std::vector<signed char> B = RandomBytes(rng, static_cast<size_t>(K) * N);
  const std::vector<int> C0 = RandomInts(rng, static_cast<size_t>(M) * N);
  std::vector<int> ours = C0, ref = C0;
  const bool row = order == 101;
  const int lda = row ? (ta ? M : K) : (ta ? K : M);
  const int ldb = row ? (tb ? K : N) : (tb ? N : K);
  const int ldc = row ? N : M;
  orvik_i8_i32_gemm(order, ta ? 112 : 111, tb ? 112 : 111, M, N, K, 1, A.data(), lda, B.data(), ldb,
                    beta, ours.data(), ldc);
  if (row) {
    kSeq[2 * ta + tb](M, N, K, 1, A.data(), B.data(), beta, ref.data());
  } else {
    // Column-major C is the row-major transpose with the operands swapped.
    kSeq[2 * tb + ta](N, M, K, 1, B.data(), A.data(), beta, ref.data());
  }
  ASSERT_EQ(ours, ref) << variant << " order " << order << " ta " << ta << " tb " << tb << " M "
                       << M << " N " << N << " K " << K << " beta " << int(beta);
}

// Random shapes, shapes past the kernels' depth block (256), column block
// (64) and row tile, and the one-row shapes of a one-frame net (past its
// 256-column block too, and with depth and column counts off the vector
// steps), in both orders and all four transpose forms.
TEST(I8GemmTest, ShapesAreBitEqualToReferenceInEveryForm) {
  std::vector<std::array<int, 3>> shapes = {
      {1, 256, 120}, {1, 67, 513}, {5, 130, 257}, {67, 3, 300}, {9, 65, 1}, {2, 1, 600},
      {64, 64, 64},  {1, 300, 40}, {1, 32, 99},   {1, 45, 130}, {1, 17, 64}};
  std::mt19937 rng(42);
  std::uniform_int_distribution<int> dim(1, 20);
  for (int rep = 0; rep < 40; ++rep) shapes.push_back({dim(rng), dim(rng), dim(rng)});
  const signed char kBetas[] = {0, 1, -3, 2};
  ForEachKernelVariant([&](const std::string& variant) {
    for (size_t i = 0; i < shapes.size(); ++i) {
      for (int f = 0; f < 8; ++f) {
        CompareEntry(f < 4 ? 101 : 102, (f >> 1) & 1, f & 1, shapes[i][0], shapes[i][1],
                     shapes[i][2], kBetas[i % 4], &rng, variant);
      }
    }
  });
}

// Every four-form entry against the reference loop: the fast kernels ignore
// alpha and honour beta; the table forms narrow alpha and beta to 8 bits
// (258 is 2); the size-selected forms (one row, small, mid-size assembly,
// past the cache limits) agree at alpha 1, beta 0, the one-row kernel
// overwriting C whatever beta says.
TEST(I8GemmTest, FourFormEntriesFollowTheirAlphaBetaRules) {
  using Form = void (*)(int, int, int, int, const signed char*, const signed char*, int, int*);
  const Form kNeon[4] = {orvik_i8_i32_gemm_nn_neon, orvik_i8_i32_gemm_nt_neon,
                         orvik_i8_i32_gemm_tn_neon, orvik_i8_i32_gemm_tt_neon};
  struct Case {
    int entry, forms, M, N, K, alpha, beta, ref_beta;
  };
  const Case kCases[] = {{0, 4, 7, 11, 13, 5, -2, -2},  {1, 4, 7, 11, 13, 1, 258, 2},
                         {2, 4, 1, 16, 16, 1, 0, 0},    {2, 1, 1, 16, 16, 1, 1, 0},
                         {2, 4, 3, 5, 2, 1, 0, 0},      {2, 4, 8, 16, 16, 1, 0, 0},
                         {2, 4, 220, 300, 200, 1, 0, 0}};
  std::mt19937 rng(44);
  for (const Case& c : kCases) {
    const std::vector<signed char> A = RandomBytes(&rng, c.M * c.K),
                                   B = RandomBytes(&rng, c.K * c.N);
    for (int form = 0; form < c.forms; ++form) {
      std::vector<int> ours = RandomInts(&rng, c.M * c.N), ref = ours;
      if (c.entry == 0) {
        kInstrics[form](c.M, c.N, c.K, c.alpha, A.data(), B.data(), ours.data(), c.beta);
      } else if (c.entry == 1) {
        func_gemm_i8_i32[form](c.M, c.N, c.K, c.alpha, A.data(), B.data(), c.beta, ours.data());
      } else {
        kNeon[form](c.M, c.N, c.K, c.alpha, A.data(), B.data(), c.beta, ours.data());
      }
      kSeq[form](c.M, c.N, c.K, 1, A.data(), B.data(), c.ref_beta, ref.data());
      EXPECT_EQ(ours, ref) << "entry " << c.entry << " form " << form << " M " << c.M << " N "
                           << c.N << " K " << c.K << " beta " << c.beta;
    }
  }
}

TEST(I8GemmTest, EdgeSizesAndWrapAround) {
  // K of 0 scales C by beta; M or N of 0 touches nothing.
  int C[4] = {1, -2, 3, 4};
  const signed char none[1] = {0};
  orvik_i8_i32_gemm(101, 111, 111, 2, 2, 0, 1, none, 0, none, 2, 3, C, 2);
  EXPECT_EQ(C[0], 3);
  EXPECT_EQ(C[1], -6);
  orvik_i8_i32_gemm(101, 111, 111, 0, 2, 5, 1, none, 5, none, 2, 0, C, 2);
  EXPECT_EQ(C[0], 3);

  // 131072 products of -128 * -128 sum to 2^31, which wraps to INT32_MIN.
  const int K = 131072;
  std::vector<signed char> ones(K, -128);
  ForEachKernelVariant([&](const std::string& variant) {
    int out = 12345;
    orvik_i8_i32_gemm(101, 111, 111, 1, 1, K, 1, ones.data(), K, ones.data(), 1, 0, &out, 1);
    EXPECT_EQ(out, INT32_MIN) << variant;
    EXPECT_EQ(orvik_i8_i32_dot(K, ones.data(), 1, ones.data(), 1), INT32_MIN) << variant;
  });
}

// The packed one-row product against the reference loop, in both B forms,
// storing 32-bit sums (with and without bias) or narrowing them: shapes off
// the 16-column strip and the depth quad, the net's own, and one whose sum
// wraps (2^31 of -128s).
TEST(I8GemmTest, PackedOneRowMatchesReferenceAndNarrowing) {
  const int kShapes[][2] = {{1, 1},  {2, 32},   {32, 96},   {32, 360},  {17, 5},
                            {64, 7}, {80, 130}, {33, 1027}, {1, 131072}};
  std::mt19937 rng(47);
  ForEachKernelVariant([&](const std::string& variant) {
    for (const auto& [N, K] : kShapes) {
      const bool extreme = K == 131072;
      const size_t nk = static_cast<size_t>(N) * K;
      const std::vector<signed char> a =
          extreme ? std::vector<signed char>(K, -128) : RandomBytes(&rng, K);
      const std::vector<signed char> B =
          extreme ? std::vector<signed char>(nk, -128) : RandomBytes(&rng, nk);
      std::vector<int> ref(N, 0);
      seq_matrix_mul_i8_i32_nt_c(1, N, K, 1, a.data(), B.data(), 0, ref.data());
      if (extreme) {
        EXPECT_EQ(ref[0], INT32_MIN);
      }
      const std::vector<int> bias = RandomInts(&rng, N);
      std::vector<unsigned char> shift(N);
      for (unsigned char& v : shift) v = static_cast<unsigned char>(rng() % 32);
      for (int tb = 0; tb < 2; ++tb) {
        // B(p, j) is B[j*K + p] either way; the untransposed form holds it as K x N.
        std::vector<signed char> form = B;
        for (size_t i = 0; tb == 0 && i < nk; ++i) form[(i % K) * N + i / K] = B[i];
        std::vector<signed char> packed(orvik_i8_packed_b_bytes(N, K));
        orvik_i8_pack_b(tb, N, K, form.data(), packed.data());
        const std::string where = variant + " N " + std::to_string(N) + " K " + std::to_string(K) +
                                  " tb " + std::to_string(tb);
        std::vector<int> sums(N, 7), with_bias(N, 7), biased(N);
        orvik_i8_gemv_packed(N, K, a.data(), packed.data(), nullptr, nullptr, 0, sums.data(),
                             nullptr);
        orvik_i8_gemv_packed(N, K, a.data(), packed.data(), bias.data(), nullptr, 0,
                             with_bias.data(), nullptr);
        for (int j = 0; j < N; ++j) {
          biased[j] =
              static_cast<int>(static_cast<unsigned>(ref[j]) + static_cast<unsigned>(bias[j]));
        }
        EXPECT_EQ(sums, ref) << where;
        EXPECT_EQ(with_bias, biased) << where;
        for (int lo : {-128, 0}) {
          std::vector<signed char> out(N + 1, 99),
              expect(N + 1, 99);  // the byte past N is untouched
          orvik_i8_gemv_packed(N, K, a.data(), packed.data(), bias.data(), shift.data(), lo,
                               nullptr, out.data());
          for (int j = 0; j < N; ++j) {
            expect[j] = static_cast<signed char>(std::clamp(biased[j] >> shift[j], lo, 127));
          }
          EXPECT_EQ(out, expect) << where << " lo " << lo;
        }
      }
    }
  });
}

TEST(I8GemmTest, UnsignedReferenceLoopsZeroExtend) {
  const unsigned char A[2] = {200, 255}, B[2] = {255, 2};
  const int expected = 200 * 255 + 255 * 2;
  using U8Loop = void (*)(int, int, int, signed char, const unsigned char*, const unsigned char*,
                          signed char, int*);
  const U8Loop kLoops[4] = {seq_matrix_mul_u8_i32_nn_c, seq_matrix_mul_u8_i32_nt_c,
                            seq_matrix_mul_u8_i32_tn_c, seq_matrix_mul_u8_i32_tt_c};
  for (U8Loop loop : kLoops) {
    int c = 10;
    loop(1, 1, 2, -1, A, B, 2, &c);  // -acc + 2*c
    EXPECT_EQ(c, -expected + 20);
  }
}

TEST(I8DotGerTest, DotAndRankOneUpdate) {
  std::mt19937 rng(46);
  ForEachKernelVariant([&](const std::string& variant) {
    for (int n : {0, 1, 15, 16, 17, 100}) {
      const std::vector<signed char> x = RandomBytes(&rng, n + 1), y = RandomBytes(&rng, n + 1);
      int expected = 0;
      for (int i = 0; i < n; ++i) expected += x[i] * y[i];
      EXPECT_EQ(orvik_i8_i32_dot(n, x.data(), 1, y.data(), 1), expected) << variant << " " << n;
    }
  });
  const signed char x[2] = {2, -3}, y[3] = {1, 5, -7};
  int A[6] = {1, 1, 1, 1, 1, 1};
  orvik_i8_i32_ger(999, 2, 3, 1, x, 1, y, 3, A, 3);
  const int expected[6] = {3, 11, -13, -2, -14, 22};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(A[i], expected[i]) << i;
}

// Each call breaks one argument rule; messages name the first failed check.
TEST(I8GemmDeathTest, ChecksInOrder) {
  signed char A[64] = {}, B[64] = {};
  int C[64] = {};
  struct Case {
    int order, ta, tb, M, alpha, lda, ldb, ldc;
    bool null_c;
    const char* message;
  };
  const Case kCases[] = {
      {101, 111, 111, 2, 2, 5, 3, 3, false, "a == 1 \\(2 vs\\. 1\\)"},
      {101, 111, 111, 2, 1, 5, 3, 3, true, "C\n"},
      {103, 111, 111, 2, 1, 5, 3, 3, false, "Order == 101 \\|\\| Order == 102\n"},
      {101, 110, 111, 2, 1, 5, 3, 3, false, "TransA == 111 \\|\\| TransA == 112\n"},
      {101, 111, 0, 2, 1, 5, 3, 3, false, "TransB == 111 \\|\\| TransB == 112\n"},
      {101, 111, 111, 2, 1, 4, 3, 3, false, "lda == K \\(4 vs\\. 5\\)"},
      {101, 112, 112, 2, 1, 2, 3, 3, false, "ldb == K \\(3 vs\\. 5\\)"},
      {102, 111, 111, 2, 1, 2, 5, 3, false, "ldc == M \\(3 vs\\. 2\\)"},
      {101, 111, 111, 0, 1, 4, 3, 3, false, "lda == K \\(4 vs\\. 5\\)"},  // M of 0 is checked too
  };
  for (const Case& c : kCases) {
    EXPECT_DEATH(orvik_i8_i32_gemm(c.order, c.ta, c.tb, c.M, 3, 5, c.alpha, A, c.lda, B, c.ldb, 0,
                                   c.null_c ? nullptr : C, c.ldc),
                 std::string("# Check failed: ") + c.message);
  }
  EXPECT_DEATH(orvik_i8_i32_dot(4, A, 1, B, 2), "# Check failed: incy == 1 \\(2 vs\\. 1\\)");
  EXPECT_DEATH(orvik_i8_i32_ger(101, 2, 3, 1, A, 1, B, 1, C, 3),
               "# Check failed: ldb == N \\(1 vs\\. 3\\)");
}

// t = fma(sa, sum * sab, (C * sc) * sb) * so, truncated toward zero and
// saturated to int8.
TEST(I8GemmShiftTest, ScalesTruncatesAndSaturates) {
  struct Case {
    signed char a_value, b_value, c_in, out_shift;
    signed char expected;
  };
  // A 1x1 product of A = a_value and B = 1 at every shift 0, plus b * C.
  const Case kCases[] = {
      {127, 1, 1, 0, 127},     // 128 saturates to 127
      {-128, 0, 5, 0, -128},   // -128 stays
      {-128, 1, -1, 0, -128},  // -129 saturates to -128
      {-9, 0, 0, 1, -4},       // -4.5 truncates toward zero
      {1, 0, 0, 1, 0},         // 0.5 truncates to 0
      {-1, 1, 0, 1, 0},        // -0.5 truncates to 0, not -1
      {100, 1, 27, 0, 127},    // 127 exactly is kept
  };
  for (const Case& c : kCases) {
    const signed char A[1] = {c.a_value}, B[1] = {1};
    signed char C[1] = {c.c_in};
    const signed char out_shift = c.out_shift;
    orvik_i8_i8_gemm_shift(101, 111, 111, 1, 1, 1, 1, 0, A, 0, 1, B, 0, 1, c.b_value, 0, C, 0, 1,
                           &out_shift, 1);
    EXPECT_EQ(C[0], c.expected) << int(c.a_value) << " " << int(c.c_in);
  }
  // Shifts combine: sa = 2, sab = 2^-2, sc = 2, sb = 0.5, so = 2:
  // (2 * 6 * 0.25 + 4 * 2 * 0.5) * 2 = 14.
  const signed char A[1] = {3}, B[1] = {2};
  signed char C[1] = {4};
  orvik_i8_i8_gemm_shift_inhouse(101, 111, 111, 1, 1, 1, 1, 1, A, -1, 1, B, -1, 1, 1, -1, C, 1, -1,
                                 1);
  EXPECT_EQ(C[0], 14);
}

TEST(I8GemmShiftTest, MatchesFloatModelOnRandomData) {
  std::mt19937 rng(47);
  const int M = 3, N = 5, K = 7;
  const std::vector<signed char> A = RandomBytes(&rng, M * K), B = RandomBytes(&rng, K * N);
  std::vector<signed char> C = RandomBytes(&rng, M * N);
  const std::vector<signed char> C0 = C;
  const signed char out_shift = 8;
  orvik_i8_i8_gemm_shift(101, 111, 112, M, N, K, 1, 0, A.data(), -1, K, B.data(), 0, K, 1, 0,
                         C.data(), 0, 1, &out_shift, N);
  for (int i = 0; i < M; ++i) {
    for (int j = 0; j < N; ++j) {
      int sum = 0;
      for (int p = 0; p < K; ++p) sum += A[i * K + p] * B[j * K + p];
      float t = std::fma(1.0f, static_cast<float>(sum) * 0.5f, static_cast<float>(C0[i * N + j]));
      t *= 1.0f / 256.0f;
      const int expected = t > 127 ? 127 : t < -128 ? -128 : static_cast<int>(t);
      EXPECT_EQ(C[i * N + j], expected) << i << " " << j;
    }
  }
}

TEST(I8GemmShiftDeathTest, OnlyRowMajorUntransposedA) {
  signed char A[16] = {}, B[16] = {}, C[16] = {};
  const signed char s = 0;
  struct Case {
    int order, ta, tb, N, K, a, ldb, given;
    const char* message;
  };
  const Case kCases[] = {{101, 111, 111, 2, 2, 3, 2, 1, "a == 1 \\(3 vs\\. 1\\)"},
                         {102, 111, 111, 2, 2, 1, 2, 1, "Order == 101 \\(102 vs\\. 101\\)"},
                         {101, 112, 111, 2, 2, 1, 2, 1, "TransA == 111 \\(112 vs\\. 111\\)"},
                         {101, 111, 112, 3, 4, 1, 3, 1, "ldb == K \\(3 vs\\. 4\\)"},
                         {101, 111, 111, 2, 2, 1, 2, 0, "output_shift_given == 1 \\(0 vs\\. 1\\)"}};
  for (const Case& c : kCases) {
    EXPECT_DEATH(orvik_i8_i8_gemm_shift(c.order, c.ta, c.tb, 2, c.N, c.K, c.a, 0, A, 0, c.K, B, 0,
                                        c.ldb, 1, 0, C, 0, c.given, &s, c.N),
                 std::string("# Check failed: ") + c.message);
  }
}

}  // namespace
