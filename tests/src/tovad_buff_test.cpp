#include "src/tovad_buff.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
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
// zero-padded to 512; in double.
std::vector<std::complex<double>> ReferenceSpectrum(const std::vector<int16_t>& pcm, size_t end) {
  std::vector<double> a(480, 0.0);
  for (int i = 0; i < 480; ++i) {
    const long idx = static_cast<long>(end) - 480 + i;
    if (idx >= 0) a[i] = pcm[idx] / 32768.0;
  }
  std::vector<double> in(512, 0.0);
  for (int i = 1; i < 480; ++i) {
    in[i] = (a[i] - static_cast<double>(0.97f) * a[i - 1]) * Tovad_buff::harmming_window[i];
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

TEST(TovadBuffTest, WindowTableEntries) {
  const float* w = Tovad_buff::harmming_window;
  EXPECT_FLOAT_EQ(w[0], -1.38778e-17f);
  EXPECT_FLOAT_EQ(w[479], -1.38778e-17f);
  EXPECT_FLOAT_EQ(w[1], 1.54867e-05f);
  EXPECT_FLOAT_EQ(w[100], 0.222411f);
  EXPECT_FLOAT_EQ(w[239], 0.999982f);
  EXPECT_FLOAT_EQ(w[240], 0.999982f);
  EXPECT_EQ(w[480], 0.0f);
  for (int i = 0; i < 480; ++i) {
    ASSERT_EQ(w[i], w[479 - i]) << "symmetric about 239.5, entry " << i;
    const double exact =
        0.42 - 0.5 * std::cos(2 * M_PI * i / 479) + 0.08 * std::cos(4 * M_PI * i / 479);
    // Six significant digits.
    ASSERT_NEAR(w[i], exact, 5e-6 * std::max(std::abs(exact), 1e-16)) << "entry " << i;
  }
}

TEST(TovadBuffTest, SpectrumFollowsTheStreamAcrossWraps) {
  Tovad_buff buff;
  const std::vector<int16_t> pcm = RandomPcm(160 * 25, 11);
  for (size_t f = 0; f < 25; ++f) {  // wraps at the 10th and 20th frame
    buff.append_wave_frame(pcm.data() + 160 * f);
    const std::vector<std::complex<double>> ref = ReferenceSpectrum(pcm, 160 * (f + 1));
    const float* got = buff.get_wave_fft();
    ASSERT_EQ(got, buff.wave_fft);
    double rms = 0;
    for (const auto& v : ref) rms += std::norm(v);
    rms = std::sqrt(rms / ref.size());
    double worst = 0;
    for (int k = 0; k <= 256; ++k) {
      worst = std::max(worst,
                       std::abs(std::complex<double>(got[2 * k], got[2 * k + 1]) - ref[k]) / rms);
    }
    // Float rounding of the samples, the window products and the FFT:
    // a few hundred eps at most; a misplaced sample or slot is of order 1e-2.
    EXPECT_LT(worst, 1e-5) << "after frame " << f;
  }
}

TEST(TovadBuffTest, ImpulseAtTheFrameStartIsLost) {
  // Three frames in: the analysis frame is exactly frames 0..2, and the
  // first sample of frame 0 only reaches the FFT through -0.97 times the
  // near-zero window entry 1.
  Tovad_buff buff;
  std::vector<int16_t> pcm(480, 0);
  pcm[0] = 32767;
  for (int f = 0; f < 3; ++f) buff.append_wave_frame(pcm.data() + 160 * f);
  const float* spectrum = buff.get_wave_fft();
  for (int i = 0; i < 514; ++i) ASSERT_LT(std::abs(spectrum[i]), 2e-5f) << "float " << i;
}

struct EnergyCase {
  const char* name;
  int16_t level;  // every sample of the frame
  float expected_db;
};

void PrintTo(const EnergyCase& c, std::ostream* os) { *os << c.name; }

class TovadBuffEnergyTest : public testing::TestWithParam<EnergyCase> {};

TEST_P(TovadBuffEnergyTest, DecibelsOfNewestFrame) {
  Tovad_buff buff;
  EXPECT_EQ(buff.get_energy_of_current_frame(), 0.0f) << "silence before the first frame";
  // Two loud frames before the one measured: only the newest counts.
  std::vector<int16_t> loud(160, 20000);
  std::vector<int16_t> frame(160, GetParam().level);
  for (int f = 0; f < 12; ++f) {  // crosses a wrap
    buff.append_wave_frame(loud.data());
    buff.append_wave_frame(frame.data());
    const float db = buff.get_energy_of_current_frame();
    if (GetParam().expected_db == 0.0f) {
      ASSERT_EQ(db, 0.0f);
    } else {
      // fast_log2 is within 0.01 of log2, so within 0.031 dB.
      ASSERT_NEAR(db, GetParam().expected_db, 0.035f);
    }
  }
}

// A constant frame of level A has power A^2 / 160 on this scale.
INSTANTIATE_TEST_SUITE_P(
    Levels, TovadBuffEnergyTest,
    testing::Values(EnergyCase{"Zero", 0, 0.0f},
                    // A = 12: power 0.9 < 1, clipped to 0 instead of a small negative value.
                    EnergyCase{"BelowOne", 12, 0.0f},
                    EnergyCase{"JustAboveOne", 13,
                               static_cast<float>(10 * std::log10(169 / 160.0))},
                    EnergyCase{"Speech", 4000, 50.0f},
                    EnergyCase{"FullScale", -32768,
                               static_cast<float>(10 * std::log10(32768.0 * 32768 / 160))}),
    [](const testing::TestParamInfo<EnergyCase>& info) { return info.param.name; });

TEST(TovadBuffTest, ResetLeavesTheNextSpectrumAsIs) {
  // The reset clears three samples that the next analysis frame no longer
  // contains, so it changes nothing there; a wider reset would.
  Tovad_buff plain;
  Tovad_buff with_reset;
  const std::vector<int16_t> pcm = RandomPcm(160 * 30, 23);
  for (size_t f = 0; f < 30; ++f) {
    if (f % 4 == 1) with_reset.reset();
    plain.append_wave_frame(pcm.data() + 160 * f);
    with_reset.append_wave_frame(pcm.data() + 160 * f);
    ASSERT_EQ(0, std::memcmp(plain.get_wave_fft(), with_reset.get_wave_fft(), 514 * sizeof(float)))
        << "frame " << f;
    ASSERT_EQ(plain.get_energy_of_current_frame(), with_reset.get_energy_of_current_frame());
  }
}

TEST(TovadBuffTest, ResetClearsOnlyThreeSamplesOfTheOldestFrame) {
  Tovad_buff buff;
  const std::vector<int16_t> pcm = RandomPcm(160 * 5, 31);
  for (size_t f = 0; f < 5; ++f) buff.append_wave_frame(pcm.data() + 160 * f);
  // Next slot 8; the analysis frame was slots 5..7.
  std::vector<float> before(buff.get_wave_frame(0), buff.get_wave_frame(0) + 1920);
  buff.reset();
  std::vector<float> after(buff.get_wave_frame(0), buff.get_wave_frame(0) + 1920);
  for (int i = 0; i < 1920; ++i) {
    if (i >= 5 * 160 && i < 5 * 160 + 3) {
      EXPECT_EQ(after[i], 0.0f) << i;
    } else {
      ASSERT_EQ(after[i], before[i]) << i;
    }
  }
  EXPECT_NE(before[5 * 160], 0.0f);
}

}  // namespace
}  // namespace Tovad_toolkit
