#include "src/tovad_buff.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

namespace Tovad_toolkit {
namespace {

std::vector<int16_t> RandomPcm(size_t n, uint32_t seed, float sigma = 4000.0f) {
  std::mt19937 gen(seed);
  std::normal_distribution<float> dist(0.0f, sigma);
  std::vector<int16_t> pcm(n);
  for (int16_t& s : pcm)
    s = static_cast<int16_t>(std::max(-32768.0f, std::min(32767.0f, dist(gen))));
  return pcm;
}

// The spectrum the buffer should hold after the frames up to `end` (a
// multiple of 160) of `pcm` went in: the last 480 samples, with silence
// before the stream, pre-emphasised except at the first sample, windowed,
// zero-padded to 512; in double, the window from its formula.
std::vector<std::complex<double>> ReferenceSpectrum(const std::vector<int16_t>& pcm, size_t end) {
  std::vector<double> a(480, 0.0);
  for (int i = 0; i < 480; ++i) {
    const long idx = static_cast<long>(end) - 480 + i;
    if (idx >= 0) a[i] = pcm[idx] / 32768.0;
  }
  std::vector<double> in(512, 0.0);
  for (int i = 1; i < 480; ++i) {
    const double w =
        0.42 - 0.5 * std::cos(2 * M_PI * i / 479) + 0.08 * std::cos(4 * M_PI * i / 479);
    in[i] = (a[i] - static_cast<double>(0.97f) * a[i - 1]) * w;
  }
  std::vector<std::complex<double>> out(257);
  for (int k = 0; k <= 256; ++k) {
    std::complex<double> sum = 0;
    for (int t = 0; t < 512; ++t)
      sum += in[t] * std::polar(1.0, -2.0 * M_PI * ((k * t) % 512) / 512);
    out[k] = sum;
  }
  return out;
}

// A reset clears three samples that the next analysis frame no longer
// contains, so it changes nothing there (a wider reset would): a buffer
// reset now and then gives the same bits.
TEST(TovadBuffTest, SpectrumFollowsTheStreamAcrossWrapsAndResets) {
  Tovad_buff buff, with_reset;
  const std::vector<int16_t> pcm = RandomPcm(160 * 30, 11);
  for (size_t f = 0; f < 30; ++f) {  // wraps at the 10th, 20th and 30th frame
    if (f % 4 == 1) with_reset.reset();
    buff.append_wave_frame(pcm.data() + 160 * f);
    with_reset.append_wave_frame(pcm.data() + 160 * f);
    const std::vector<std::complex<double>> ref = ReferenceSpectrum(pcm, 160 * (f + 1));
    const float* got = buff.get_wave_fft();
    double rms = 0;
    for (const auto& v : ref) rms += std::norm(v);
    rms = std::sqrt(rms / ref.size());
    double worst = 0;
    for (int k = 0; k <= 256; ++k) {
      worst = std::max(worst,
                       std::abs(std::complex<double>(got[2 * k], got[2 * k + 1]) - ref[k]) / rms);
    }
    // Float rounding of the samples, the window table and the FFT: a few
    // hundred eps at most; a misplaced sample or slot is of order 1e-2.
    EXPECT_LT(worst, 1e-5) << "after frame " << f;
    ASSERT_EQ(0, std::memcmp(got, with_reset.get_wave_fft(), 514 * sizeof(float))) << f;
    ASSERT_EQ(buff.get_energy_of_current_frame(), with_reset.get_energy_of_current_frame());
  }
}

TEST(TovadBuffTest, DecibelsOfTheNewestFrame) {
  // A constant frame of level A has power A^2 / 160 on this scale; below 1
  // it is clipped to 0 instead of a small negative value.
  const struct {
    int16_t level;
    float db;
  } cases[] = {{0, 0.0f},
               {12, 0.0f},
               {13, static_cast<float>(10 * std::log10(169 / 160.0))},
               {4000, 50.0f},
               {-32768, static_cast<float>(10 * std::log10(32768.0 * 32768 / 160))}};
  for (const auto& c : cases) {
    Tovad_buff buff;
    EXPECT_EQ(buff.get_energy_of_current_frame(), 0.0f) << "silence before the first frame";
    // A loud frame before each measured one: only the newest counts.
    std::vector<int16_t> loud(160, 20000), frame(160, c.level);
    for (int f = 0; f < 12; ++f) {  // crosses a wrap
      buff.append_wave_frame(loud.data());
      buff.append_wave_frame(frame.data());
      // fast_log2 is within 0.01 of log2, so within 0.031 dB.
      ASSERT_NEAR(buff.get_energy_of_current_frame(), c.db, c.db == 0.0f ? 0.0f : 0.035f)
          << c.level;
    }
  }
}

}  // namespace
}  // namespace Tovad_toolkit
