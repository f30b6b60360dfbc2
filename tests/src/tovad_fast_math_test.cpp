#include "src/tovad_fast_math.h"

#include <gtest/gtest.h>

#include <cmath>

namespace Tovad_toolkit {
namespace {

TEST(FastLog2Test, ExactAtPowersOfTwo) {
  for (int e = -20; e <= 40; ++e) {
    const float x = std::ldexp(1.0f, e);
    EXPECT_FLOAT_EQ(fast_log2(x), static_cast<float>(e)) << "x = 2^" << e;
  }
}

TEST(FastLog2Test, IsTheQuadraticApproximationNotTheExactLogarithm) {
  // 3 = 4 * 0.75: 2 + 0.75 * (0.75 * -4/3 + 4) - 2/3 - 2 = 1.5833...,
  // against log2(3) = 1.58496.
  EXPECT_NEAR(fast_log2(3.0f), 1.5833334f, 1e-6f);
  // Everywhere within 0.01 of the true value (the fit's worst case is
  // about 0.005), over many octaves and mantissas.
  double worst = 0;
  for (float x = 1e-6f; x < 1e12f; x *= 1.0137f) {
    worst = std::max(worst, std::abs(fast_log2(x) - std::log2(static_cast<double>(x))));
  }
  EXPECT_LT(worst, 0.01);
  EXPECT_GT(worst, 1e-3) << "an exact logarithm would not be the required approximation";
}

TEST(FastSqrtTest, CloseToTheSquareRootAndZeroAtZero) {
  EXPECT_EQ(fast_sqrt(0.0f), 0.0f);
  double worst = 0;
  for (float x = 1e-8f; x < 1e12f; x *= 1.0137f) {
    const double exact = std::sqrt(static_cast<double>(x));
    worst = std::max(worst, std::abs(fast_sqrt(x) - exact) / exact);
  }
  // Two Newton steps from the bit-trick seed leave a relative error of a
  // few millionths.
  EXPECT_LT(worst, 1e-5);
  EXPECT_GT(worst, 1e-7) << "an exact square root would not be the required approximation";
}

}  // namespace
}  // namespace Tovad_toolkit
