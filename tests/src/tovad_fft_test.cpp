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

typedef std::complex<double> cd;

// X[k] = sum x[n] exp(-2 pi i k n / N), k = 0 .. N/2, in double.
std::vector<cd> ReferenceDft(const std::vector<float>& x) {
  const size_t n = x.size();
  std::vector<cd> roots(n);
  for (size_t j = 0; j < n; ++j) roots[j] = std::polar(1.0, -2.0 * M_PI * j / n);
  std::vector<cd> out(n / 2 + 1);
  for (size_t k = 0; k <= n / 2; ++k) {
    cd sum = 0;
    for (size_t t = 0; t < n; ++t) sum += static_cast<double>(x[t]) * roots[(k * t) % n];
    out[k] = sum;
  }
  return out;
}

// x[t] = (1/N) sum over all N bins, the upper half being conjugates; the
// imaginary parts of bins 0 and N/2 play no part.
std::vector<double> ReferenceInverse(const std::vector<float>& spectrum, size_t n) {
  std::vector<double> out(n);
  for (size_t t = 0; t < n; ++t) {
    double sum = spectrum[0] + spectrum[n] * ((t % 2) ? -1.0 : 1.0);
    for (size_t k = 1; k < n / 2; ++k) {
      const double a = 2.0 * M_PI * static_cast<double>((k * t) % n) / n;
      sum += 2.0 * (spectrum[2 * k] * std::cos(a) - spectrum[2 * k + 1] * std::sin(a));
    }
    out[t] = sum / n;
  }
  return out;
}

std::vector<float> RandomSignal(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> x(n);
  for (float& v : x) v = dist(gen);
  return x;
}

// A float FFT of length N loses about log2(N) roundings of size eps relative
// to the typical magnitude of its values; 4 x eps x log2(N) leaves room for
// the constants of the butterflies while staying far below any real fault
// (a wrong twiddle gives errors of order 1).
double Tolerance(size_t n) {
  return 4.0 * std::numeric_limits<float>::epsilon() * std::log2(static_cast<double>(n));
}

class TovadFftLengthTest : public testing::TestWithParam<int32_t> {
 protected:
  // About 110 KB of tables: kept off the test's stack.
  std::unique_ptr<Tovad_fft> fft_ = std::make_unique<Tovad_fft>();
};

// Unscaled, as the double DFT is.
TEST_P(TovadFftLengthTest, ForwardMatchesDoubleDft) {
  const int32_t n = GetParam();
  std::vector<float> x = RandomSignal(n, 17u + n);
  const std::vector<float> input = x;
  std::vector<float> out(n + 2, std::nanf(""));
  fft_->fft(out.data(), x.data(), n);
  EXPECT_EQ(x, input) << "the input stays as it was";

  const std::vector<cd> ref = ReferenceDft(input);
  double rms = 0;
  for (const cd& v : ref) rms += std::norm(v);
  rms = std::sqrt(rms / ref.size());
  double worst = 0;
  for (int32_t k = 0; k <= n / 2; ++k) {
    worst = std::max(worst, std::abs(cd(out[2 * k], out[2 * k + 1]) - ref[k]) / rms);
  }
  EXPECT_LT(worst, Tolerance(n));
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[n + 1], 0.0f);
}

TEST_P(TovadFftLengthTest, InverseMatchesDoubleInverseAndIgnoresEdgeImaginaryParts) {
  const int32_t n = GetParam();
  std::vector<float> spectrum = RandomSignal(n + 2, 99u + n);
  for (float& v : spectrum) v *= 20.0f;
  std::vector<float> a(n, std::nanf(""));
  std::vector<float> b(n, std::nanf(""));
  fft_->ifft(a.data(), spectrum.data(), n);
  spectrum[1] = 1e6f;  // neither is read
  spectrum[n + 1] = -3.5f;
  fft_->ifft(b.data(), spectrum.data(), n);
  EXPECT_EQ(a, b);

  const std::vector<double> ref = ReferenceInverse(spectrum, n);
  double rms = 0;
  for (double v : ref) rms += v * v;
  rms = std::sqrt(rms / n);
  double worst = 0;
  for (int32_t t = 0; t < n; ++t) worst = std::max(worst, std::abs(a[t] - ref[t]) / rms);
  EXPECT_LT(worst, Tolerance(n));
}

INSTANTIATE_TEST_SUITE_P(AllLengths, TovadFftLengthTest,
                         testing::Values(256, 512, 1024, 2048, 4096));

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

TEST(TovadFftTest, CallsDoNotDependOnEarlierCalls) {
  auto fft = std::make_unique<Tovad_fft>();
  std::vector<float> x = RandomSignal(512, 3);
  std::vector<float> first(514);
  std::vector<float> again(514);
  fft->fft(first.data(), x.data(), 512);
  std::vector<float> other = RandomSignal(1024, 4);
  std::vector<float> scratch(1026);
  fft->fft(scratch.data(), other.data(), 1024);
  fft->ifft(other.data(), first.data(), 512);
  fft->fft(again.data(), x.data(), 512);
  EXPECT_EQ(first, again);
}

}  // namespace
}  // namespace Tovad_toolkit
