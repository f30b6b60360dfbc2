#include "src/tovad_buff.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <vector>

#include "tests/synth/voiced_audio.h"

namespace Tovad_toolkit {
namespace {

using tovad_synth::GaussianNoise;

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
// reset now and then gives the same bits.  The energy is the newest
// frame's, in dB of its power sum(s^2) / 160^2, clipped to 0 below 1.
TEST(TovadBuffTest, SpectrumAndEnergyFollowTheStreamAcrossWrapsAndResets) {
  Tovad_buff buff, with_reset;
  EXPECT_EQ(buff.get_energy_of_current_frame(), 0.0f) << "silence before the first frame";
  std::vector<int16_t> pcm = GaussianNoise(160 * 30, 11, 4000.0f);
  const int16_t levels[] = {0, 12, 13, -32768};  // constant frames 5 .. 8
  for (int k = 0; k < 4; ++k) std::fill_n(pcm.begin() + 160 * (5 + k), 160, levels[k]);
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
    const float energy = buff.get_energy_of_current_frame();
    ASSERT_EQ(energy, with_reset.get_energy_of_current_frame());
    double power = 0;
    for (int i = 0; i < 160; ++i) power += pcm[160 * f + i] * pcm[160 * f + i] / 25600.0;
    // fast_log2 is within 0.01 of log2, so within 0.031 dB.
    EXPECT_NEAR(energy, power < 1 ? 0.0 : 10 * std::log10(power), power < 1 ? 0.0 : 0.035) << f;
  }
}

}  // namespace
}  // namespace Tovad_toolkit
