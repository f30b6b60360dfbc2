#include "src/tovad_fast_math.h"

#include <gtest/gtest.h>

#include <cmath>

namespace Tovad_toolkit {
namespace {

// Both are the fixed approximations (other code and the composite model
// depend on their exact values), not the exact functions: the worst error
// over many octaves and mantissas is bounded from both sides.
TEST(FastMathTest, ApproximationsWithinTheirBounds) {
  for (int e = -20; e <= 40; ++e) EXPECT_EQ(fast_log2(std::ldexp(1.0f, e)), e) << "x = 2^" << e;
  // 3 = 4 * 0.75: 2 + 0.75 * (0.75 * -4/3 + 4) - 2/3 - 2 = 1.5833...
  EXPECT_NEAR(fast_log2(3.0f), 1.5833334f, 1e-6f);
  EXPECT_EQ(fast_sqrt(0.0f), 0.0f);
  double log_worst = 0, sqrt_worst = 0;
  for (float x = 1e-8f; x < 1e12f; x *= 1.0137f) {
    const double exact = std::sqrt(static_cast<double>(x));
    log_worst = std::max(log_worst, std::abs(fast_log2(x) - std::log2(static_cast<double>(x))));
    sqrt_worst = std::max(sqrt_worst, std::abs(fast_sqrt(x) - exact) / exact);
  }
  // The quadratic fit's worst case is about 0.005; two Newton steps from
  // the bit-trick seed leave a few millionths.
  EXPECT_LT(log_worst, 0.01);
  EXPECT_GT(log_worst, 1e-3);
  EXPECT_LT(sqrt_worst, 1e-5);
  EXPECT_GT(sqrt_worst, 1e-7);
}

}  // namespace
}  // namespace Tovad_toolkit
