#include "orvik_blas_64/src/math_functions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

namespace orvik {
namespace ruvo {
namespace math {
namespace {

// 20 elements: one block of 16 and a tail of 4 give the same results.
TEST(MathAxpbTest, FloatToInt8TruncatesKeepsTheLowByteAndIntToFloatIsFused) {
  const struct {
    float x, a, b;
    signed char expected;
  } kCases[] = {
      {200.7f, 1.0f, 0.0f, -56},   // 200 -> low byte 0xC8
      {-1.9f, 1.0f, 0.0f, -1},     // truncation toward zero
      {1.0f, 2.5f, 0.75f, 3},      // 3.25
      {384.0f, 1.0f, 1.0f, -127},  // 385 = 0x181
  };
  for (const auto& c : kCases) {
    std::vector<float> x(20, c.x);
    std::vector<signed char> y(20, 0);
    orvik_cpu_axpb<float, signed char>(20, c.a, c.b, x.data(), y.data());
    EXPECT_EQ(y, std::vector<signed char>(20, c.expected)) << c.x;
  }
  // The fused multiply-add decides: 0.1f*10 + -1 is not zero when fused.
  float x = 0.1f;
  signed char y = 0;
  neon_axpb<signed char, float>(&y, &x, 10.0f * 1024, -1024.0f, 1);
  EXPECT_EQ(y, static_cast<signed char>(static_cast<int>(std::fma(0.1f, 10240.0f, -1024.0f))));
  int ints[17];
  std::iota(ints, ints + 16, 1);
  ints[16] = 16777217;
  float out[17];
  orvik_cpu_axpb<int, float>(17, 0.5f, -1.0f, ints, out);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(out[i], ints[i] * 0.5f - 1.0f) << i;
  EXPECT_EQ(out[16], std::fma(16777216.0f, 0.5f, -1.0f));
}

TEST(MathMpxTest, AddsOneRowToEveryRow) {
  int Y[6] = {1, 2, 3, 4, 5, std::numeric_limits<int>::max()};
  const int X[3] = {10, 20, 1};
  orvik_cpu_mpx<int, int>(2, 3, Y, X);
  EXPECT_EQ(std::vector<int>(Y, Y + 6),
            (std::vector<int>{11, 22, 4, 14, 25, std::numeric_limits<int>::min()}));  // wraps
}

TEST(MathMinMaxTest, ExtendsTheCallersBoundsInEveryForm) {
  std::vector<float> x(37);
  for (int i = 0; i < 37; ++i) x[i] = std::sin(static_cast<float>(i)) * 10.0f;
  x[21] = -42.0f;  // inside the vector blocks
  x[35] = 43.0f;   // in the tail
  using Form = void (*)(int, const float*, float*, float*);
  for (Form form : {&orvik_cpu_min_max<float>, &orvik_cpu_min_max_kernel<float>,
                    &orvik_cpu_min_max_neon<float>, &orvik_cpu_min_max_naive<float>}) {
    float lo = 3.4028235e+38f, hi = -3.4028235e+38f;
    form(37, x.data(), &lo, &hi);
    EXPECT_EQ(lo, -42.0f);
    EXPECT_EQ(hi, 43.0f);
    // Bounds already wider stay; N of 0 changes nothing.
    float wide_lo = -100.0f, wide_hi = 100.0f;
    form(37, x.data(), &wide_lo, &wide_hi);
    form(0, x.data(), &wide_lo, &wide_hi);
    EXPECT_EQ(wide_lo, -100.0f);
    EXPECT_EQ(wide_hi, 100.0f);
  }
  // A NaN never becomes a bound in the naive form.
  const float with_nan[3] = {1.0f, std::numeric_limits<float>::quiet_NaN(), 2.0f};
  float lo = 5.0f, hi = -5.0f;
  orvik_cpu_min_max_naive(3, with_nan, &lo, &hi);
  EXPECT_EQ(lo, 1.0f);
  EXPECT_EQ(hi, 2.0f);
}

// out[a][d][c][b][e] = in[a][b][c][d][e], checked element by element
// against the index formula, for every branch of the routine.
TEST(MathSwapAxisTest, SwapsAxesOneAndThree) {
  const int kDims[][5] = {
      {2, 3, 2, 4, 3}, {1, 5, 1, 3, 1}, {2, 1, 1, 4, 2}, {1, 3, 1, 1, 4}, {2, 2, 3, 2, 1}};
  for (const auto& dims : kDims) {
    const int d0 = dims[0], d1 = dims[1], d2 = dims[2], d3 = dims[3], d4 = dims[4];
    const int n = d0 * d1 * d2 * d3 * d4;
    std::vector<float> in(n), out(n, -1.0f);
    std::iota(in.begin(), in.end(), 0.0f);
    std::vector<signed char> in8(n), out8(n, -1);
    for (int i = 0; i < n; ++i) in8[i] = static_cast<signed char>(i * 7);
    SwapAxis1VS3<float>(in.data(), out.data(), dims);
    SwapAxis1VS3<signed char>(in8.data(), out8.data(), dims);
    for (int src = 0; src < n; ++src) {
      const int e = src % d4, d = src / d4 % d3, c = src / (d4 * d3) % d2,
                b = src / (d4 * d3 * d2) % d1, a = src / (d4 * d3 * d2 * d1);
      const int dst = (((a * d3 + d) * d2 + c) * d1 + b) * d4 + e;
      ASSERT_EQ(out[dst], in[src]) << d0 << d1 << d2 << d3 << d4;
      ASSERT_EQ(out8[dst], in8[src]);
    }
  }
}

// The first n & ~3 elements go through exp_approx (a polynomial good to a
// few float ulps) with inputs clamped at -64, the rest through expf
// unclamped.
TEST(MathSoftmaxTest, VectorPartClampedAndTailExact) {
  for (float x = -64.0f; x <= 0.0f; x += 0.37f)
    EXPECT_NEAR(exp_approx(x), std::exp(x), std::exp(x) * 4e-7f) << x;
  EXPECT_EQ(exp_approx(0.0f), 1.0f);

  const float in[5] = {0.5f, -1.0f, 2.0f, 0.0f, 1.0f};
  float out[5];
  softmax(in, out, 5);
  const float e[5] = {exp_approx(0.5f - 2.0f), exp_approx(-3.0f), exp_approx(0.0f),
                      exp_approx(-2.0f), expf(1.0f - 2.0f)};
  const float sum = ((e[0] + e[1]) + (e[2] + e[3])) + e[4];
  for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i], e[i] * (1.0f / sum)) << i;
  EXPECT_EQ(out[4], e[4] / sum);
  // Equal inputs give 1/n within float rounding, in place.
  std::vector<float> same(11, 3.0f);
  softmax(same.data(), same.data(), 11);
  for (float v : same) EXPECT_NEAR(v, 1.0f / 11, 1e-7f);

  // 100 below the maximum counts as exp(-64) in the vector part, as exp(-100)
  // in the tail.
  const float far[5] = {100.0f, 0.0f, 100.0f, 100.0f, 0.0f};
  softmax(far, out, 5);
  EXPECT_NEAR(out[1] / out[0], std::exp(-64.0), std::exp(-64.0) * 1e-5);
  EXPECT_EQ(out[4], expf(-100.0f) / 3.0f);
}

}  // namespace
}  // namespace math
}  // namespace ruvo
}  // namespace orvik
