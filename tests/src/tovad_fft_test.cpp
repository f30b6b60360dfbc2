#include "src/tovad_fft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace Tovad_toolkit {
namespace {

std::vector<float> RandomSignal(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> x(n);
  for (float& v : x) v = dist(gen);
  return x;
}

// The forward transform against a double DFT (unscaled), the inverse as
// its exact undoing (every half spectrum with real edge bins is the
// transform of some real signal, so this pins the inverse down), over all
// lengths with one object, so no call may depend on an earlier one.
TEST(TovadFftTest, MatchesDoubleDftAndInverseUndoesIt) {
  // About 110 KB of tables: kept off the test's stack.
  auto fft = std::make_unique<Tovad_fft>();
  std::vector<float> first;
  for (int32_t n : {512, 256, 1024, 2048, 4096, 512}) {
    std::vector<float> x = RandomSignal(n, 17u + n);
    const std::vector<float> input = x;
    std::vector<float> out(n + 2, std::nanf(""));
    fft->fft(out.data(), x.data(), n);
    EXPECT_EQ(x, input) << "the input stays as it was";
    if (first.empty()) {
      first = out;
    } else if (n == 512) {
      EXPECT_EQ(out, first) << "after the other lengths";
    }
    // A float FFT loses about log2(n) roundings of eps against the typical
    // magnitude; 4 x eps x log2(n) leaves room for the butterflies' constants
    // and stays far below any real fault (a wrong twiddle is of order 1).
    const double tolerance = 4.0 * std::numeric_limits<float>::epsilon() * std::log2(n);
    double rms = 0, worst = 0;
    std::vector<std::complex<double>> ref(n / 2 + 1);
    for (int32_t k = 0; k <= n / 2; ++k) {
      for (int32_t t = 0; t < n; ++t) {
        ref[k] += static_cast<double>(input[t]) * std::polar(1.0, -2.0 * M_PI * ((k * t) % n) / n);
      }
      rms += std::norm(ref[k]);
    }
    rms = std::sqrt(rms / ref.size());
    for (int32_t k = 0; k <= n / 2; ++k) {
      worst = std::max(worst, std::abs(std::complex<double>(out[2 * k], out[2 * k + 1]) - ref[k]));
    }
    EXPECT_LT(worst / rms, tolerance) << n;
    EXPECT_EQ(out[1], 0.0f);
    EXPECT_EQ(out[n + 1], 0.0f);

    // The imaginary parts of the edge bins are not read.
    out[1] = 1e6f;
    out[n + 1] = -3.5f;
    std::vector<float> back(n, std::nanf(""));
    fft->ifft(back.data(), out.data(), n);
    worst = 0;
    for (int32_t t = 0; t < n; ++t) worst = std::max<double>(worst, std::fabs(back[t] - input[t]));
    EXPECT_LT(worst, tolerance) << n;  // the signal's rms is about 0.6
  }
}

TEST(TovadFftTest, UnsupportedLengthsLeaveOutputAlone) {
  auto fft = std::make_unique<Tovad_fft>();
  std::vector<float> in(8192, 1.0f);
  for (int32_t n : {300, 0, -512, 128, 511, 513, 8192}) {
    std::vector<float> out(8194, -7.0f);
    testing::internal::CaptureStderr();
    fft->fft(out.data(), in.data(), n);
    fft->ifft(out.data(), in.data(), n);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "n = " << n;
    EXPECT_EQ(out, std::vector<float>(8194, -7.0f)) << "n = " << n;
  }
}

}  // namespace
}  // namespace Tovad_toolkit
