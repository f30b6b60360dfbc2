// Fbank and PCEN extractors.  The fbank constructor of the system always
// aborts, so its behaviour is reached through the protected constructor
// that takes the dimensions directly.

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <vector>

#include "src/fbank_feature_exactor.h"
#include "src/pcen_feature_extractor.h"
#include "tests/synth/voiced_audio.h"

namespace Tovad_toolkit {
namespace {

using tovad_synth::GaussianNoise;

const float kEps = 1.1920929e-07f;

// Means 0 and variance terms 1, so PCEN's output is the raw feature.
std::vector<float> IdentityMeanvar(int32_t dim) {
  std::vector<float> mv(2 * dim, 0.0f);
  std::fill(mv.begin() + dim, mv.end(), 1.0f);
  return mv;
}

// Mel tables are shared by both extractors; this reads them back.
template <class Base>
class MelTables : public Base {
 public:
  using Base::Base;
  std::vector<int32_t> offsets() const {
    return {this->mel_bank_fft_offset_, this->mel_bank_fft_offset_ + this->n_mel_banks_};
  }
  // Weights of bank b, from its offset.
  std::vector<float> weights(int32_t b) const {
    const float* w = this->mel_bank_coefficents_;
    for (int32_t i = 0; i < b; ++i) w += this->mel_bank_width_[i];
    return {w, w + this->mel_bank_width_[b]};
  }
  const float* window() const { return this->hamming_window_; }
};

class FbankProbe : public MelTables<FbankFeatureExtractor> {
 public:
  FbankProbe(int32_t banks, int32_t delta_order, const float* meanvar)
      : MelTables<FbankFeatureExtractor>(meanvar, banks, delta_order) {}
};

class PcenProbe : public MelTables<PcenFeatureExtractor> {
 public:
  using MelTables<PcenFeatureExtractor>::MelTables;
  int32_t impulse_count() const { return pcen_impulse_frame_cnt_; }
  double mean_smooth_energy() const {
    double sum = 0;
    for (int32_t k = 0; k < n_mel_banks_; ++k) sum += smooth_energy_[k];
    return sum / n_mel_banks_;
  }
};

std::unique_ptr<FeatureExtractor> Make(bool pcen, int32_t banks, const float* mv) {
  if (pcen) return std::make_unique<PcenProbe>(banks, mv);
  return std::make_unique<FbankProbe>(banks, 2, mv);
}

TEST(MelFeaturesDeathTest, DimensionIsCheckedBeforeDeltaOrder) {
  const std::vector<float> mv = IdentityMeanvar(1000);
  const std::string kDim = "^错误: fbank的特征维度只能为40或者80, 输入的维度为";
  const std::string kOrder = "^错误: delta_order的值只能为0、1、2中的一个, 输入的值为";
  // The public fbank constructor never sets a dimension.
  EXPECT_DEATH(FbankFeatureExtractor(40, mv.data()), kDim + "0\n$");
  EXPECT_DEATH(PcenFeatureExtractor(64, mv.data()), kDim + "64\n$");
  EXPECT_DEATH(FbankProbe(41, 7, mv.data()), kDim + "41\n$");
  EXPECT_DEATH(FbankProbe(40, 3, mv.data()), kOrder + "3\n$");
  EXPECT_DEATH(FbankProbe(80, -1, mv.data()), kOrder + "-1\n$");  // compared as unsigned
}

// Triangles on the mel scale 1127 ln(1 + f/700) over 0 .. 8000 Hz, bank b
// spanning (b, b + 2) spacings, over the bins 0 .. 255 strictly inside (no
// bin lies within 2e-5, relative, of an edge, so double gives the same
// bins).  Of delta order 0 the fbank output of call t is the log of those
// banks over the power of stream samples (t-3)*160 .. +399, unscaled and
// Hamming-windowed: checked against a double DFT.  PCEN shares the tables;
// its window is the exact one rounded to float.
TEST(MelBankTest, LogMelOfTheTrianglesOverADoubleDft) {
  const std::vector<int16_t> pcm = GaussianNoise(160 * 8, 5, 3000.0f);
  for (int32_t banks : {40, 80}) {
    const std::vector<float> mv = IdentityMeanvar(3 * banks);
    auto pcen = std::make_unique<PcenProbe>(banks, mv.data());
    auto fbank = std::make_unique<FbankProbe>(banks, 0, mv.data());
    EXPECT_EQ(pcen->feature_dim(), 3 * banks);
    EXPECT_EQ(fbank->feature_dim(), banks);
    EXPECT_EQ(fbank->offsets(), pcen->offsets());
    for (int32_t b = 0; b < banks; ++b) ASSERT_EQ(fbank->weights(b), pcen->weights(b)) << b;
    const double spacing = 1127.0 * std::log(1.0 + 8000.0 / 700.0) / (banks + 1);
    std::vector<float> feats(banks);
    for (int32_t call = 1; call <= 8; ++call) {
      fbank->getFeats(pcm.data() + 160 * (call - 1), feats.data());
      if (call < 3) continue;
      for (int32_t b = 0; b < banks; ++b) {
        double mel = 0;
        for (int k = 0; k < 256; ++k) {
          const double m = 1127.0 * std::log(1.0 + k * 31.25 / 700.0) / spacing - b;
          if (m <= 0.0 || m >= 2.0) continue;
          std::complex<double> sum = 0;
          for (int t = 0; t < 400; ++t) {
            const double w = 0.54 - 0.46 * std::cos(2 * M_PI * t / 399);
            sum += pcm[(call - 3) * 160 + t] * w *
                   std::polar(1.0, -2.0 * M_PI * ((k * t) % 512) / 512);
          }
          mel += (m <= 1.0 ? m : 2.0 - m) * std::norm(sum);
        }
        // Noise at this level fills every bank; float rounding of the frame
        // and the FFT stays far below 1e-4 in the log.
        ASSERT_NEAR(feats[b], std::log(mel), 1e-4)
            << banks << " banks, call " << call << ", bank " << b;
      }
    }
    for (int i = 0; i < 400; ++i) {
      const double exact = 0.54 - 0.46 * std::cos(2 * M_PI * i / 399);
      ASSERT_EQ(pcen->window()[i], static_cast<float>(exact)) << i;
    }
  }
}

// Steady sound gives zero deltas (the scales of orders 1 and 2 sum to 0,
// up to their float rounding); silence gives the floor: log(eps) for
// fbank, the compression of eps for PCEN.
TEST(MelFeaturesTest, SilenceGivesTheFloorAndSteadySoundZeroDeltas) {
  std::vector<int16_t> tone(160);
  for (int t = 0; t < 160; ++t) tone[t] = static_cast<int16_t>(6000 * std::sin(2 * M_PI * t / 16));
  const double pcen_floor = std::sqrt(kEps / std::pow(kEps + 1e-6, 0.98) + 2) - std::sqrt(2.0);
  const struct {
    bool pcen, silent;
    int32_t banks;
    double floor;
  } cases[] = {{false, true, 40, std::log(kEps)},
               {false, false, 40, NAN},
               {true, true, 40, pcen_floor},
               {true, true, 80, pcen_floor}};
  for (const auto& c : cases) {
    const std::vector<float> mv = IdentityMeanvar(3 * c.banks);
    auto ex = Make(c.pcen, c.banks, mv.data());
    const std::vector<int16_t> frame = c.silent ? std::vector<int16_t>(160, 0) : tone;
    std::vector<float> feats(3 * c.banks);
    for (int call = 0; call < 12; ++call) ex->getFeats(frame.data(), feats.data());
    for (int k = 0; k < c.banks; ++k) {
      if (c.silent) {
        ASSERT_NEAR(feats[k], c.floor, 1e-5) << c.pcen << " " << k;
      }
      ASSERT_NEAR(feats[c.banks + k], 0.0f, 1e-4f) << c.pcen << " " << k;
      ASSERT_NEAR(feats[2 * c.banks + k], 0.0f, 1e-4f) << c.pcen << " " << k;
    }
  }
}

TEST(PcenTest, WarmupRewritesTheCallersBufferThenWritesFeatures) {
  std::vector<float> mv(240);
  std::fill(mv.begin(), mv.begin() + 120, 1.0f);  // added
  std::fill(mv.begin() + 120, mv.end(), 2.0f);    // multiplied
  auto pcen = std::make_unique<PcenProbe>(40, mv.data());
  const std::vector<float> plain_mv = IdentityMeanvar(120);
  auto plain = std::make_unique<PcenProbe>(40, plain_mv.data());
  const std::vector<int16_t> pcm = GaussianNoise(160 * 10, 7, 3000.0f);
  for (int call = 1; call <= 10; ++call) {
    std::vector<float> feats(120, 5.0f);
    std::vector<float> raw(120, 5.0f);
    pcen->getFeats(pcm.data() + 160 * (call - 1), feats.data());
    plain->getFeats(pcm.data() + 160 * (call - 1), raw.data());
    for (int i = 0; i < 120; ++i) {
      if (call < 3) {
        ASSERT_EQ(feats[i], 5.0f) << "call " << call;  // nothing happens
      } else if (call < 7) {
        ASSERT_EQ(feats[i], 12.0f) << "call " << call;  // (1 + 5) * 2 over no features
      } else {
        ASSERT_NE(raw[i], 5.0f) << "call " << call;
        ASSERT_EQ(feats[i], (1.0f + raw[i]) * 2.0f) << "call " << call;
      }
    }
  }
}

// A loud burst lifts the smoother far above 1e9 per bank; quiet noise keeps
// the mel energies far below 1.5e7.
TEST(PcenTest, SmootherRestartsAtTheEighthQuietFrame) {
  const std::vector<float> mv = IdentityMeanvar(120);
  auto pcen = std::make_unique<PcenProbe>(40, mv.data());
  const std::vector<int16_t> loud = GaussianNoise(160 * 20, 41, 15000.0f);
  const std::vector<int16_t> quiet = GaussianNoise(160 * 20, 43, 20.0f);
  std::vector<float> feats(120);
  auto feed = [&](const std::vector<int16_t>& pcm, int n) {
    for (int f = 0; f < n; ++f) pcen->getFeats(pcm.data() + 160 * f, feats.data());
  };
  feed(loud, 20);
  EXPECT_GT(pcen->mean_smooth_energy(), 1e10);
  // The first two quiet calls still see loud samples in their window.
  const int expected_count[] = {0, 0, 1, 2, 3, 4, 5, 6, 7, 0};
  for (int q = 0; q < 10; ++q) {
    pcen->getFeats(quiet.data() + 160 * q, feats.data());
    EXPECT_EQ(pcen->impulse_count(), expected_count[q]) << "quiet call " << q;
    EXPECT_EQ(pcen->mean_smooth_energy() > 1e9, q < 9) << "quiet call " << q;
  }
  // Restarted from the quiet frame itself: four calls later the order-0
  // output sits near sqrt(1 + 2) - sqrt(2); without the restart near 0.
  EXPECT_LT(pcen->mean_smooth_energy(), 1.5e7);
  for (int q = 10; q < 14; ++q) pcen->getFeats(quiet.data() + 160 * q, feats.data());
  for (int k = 0; k < 40; ++k) EXPECT_NEAR(feats[k], std::sqrt(3.0) - std::sqrt(2.0), 0.02) << k;

  // One loud frame after seven quiet ones clears the count and only smooths.
  feed(loud, 20);
  feed(quiet, 9);
  ASSERT_EQ(pcen->impulse_count(), 7);
  const double before = pcen->mean_smooth_energy();
  feed(loud, 1);
  EXPECT_EQ(pcen->impulse_count(), 0);
  EXPECT_GT(pcen->mean_smooth_energy(), 0.9 * before);
}

// A reset object gives the features of a fresh one.  The energy is that of
// the last 10 ms of the window: after three calls, samples 240 .. 399 of
// the stream, unscaled.
TEST(MelFeaturesTest, ResetGivesAFreshObjectAndTheEnergyOfTheLastTenMilliseconds) {
  const std::vector<float> mv = IdentityMeanvar(120);
  const std::vector<int16_t> history = GaussianNoise(160 * 30, 61, 8000.0f);
  std::vector<int16_t> pcm = GaussianNoise(160 * 15, 67, 3000.0f);
  std::fill(pcm.begin(), pcm.begin() + 480, 0);
  std::fill(pcm.begin() + 240, pcm.begin() + 320, 1000);
  std::fill(pcm.begin() + 400, pcm.begin() + 480, 30000);  // behind the window
  // 80 samples of 1000^2 times 2^30/160^2: fast_log2 is within 0.01 of log2.
  const double energy = 10 * std::log10(80 * 1e6 * 41943.04);
  for (bool pcen : {true, false}) {
    auto used = Make(pcen, 40, mv.data()), fresh = Make(pcen, 40, mv.data());
    std::vector<float> scratch(120);
    for (int f = 0; f < 30; ++f) used->getFeats(history.data() + 160 * f, scratch.data());
    used->reset();
    for (int f = 0; f < 15; ++f) {
      std::vector<float> a(120, 0.0f), b(120, 0.0f);
      used->getFeats(pcm.data() + 160 * f, a.data());
      fresh->getFeats(pcm.data() + 160 * f, b.data());
      ASSERT_EQ(a, b) << (pcen ? "PCEN" : "fbank") << ", frame " << f;
      ASSERT_EQ(used->get_energy_of_current_frame(), fresh->get_energy_of_current_frame());
      if (f == 2) {
        EXPECT_NEAR(used->get_energy_of_current_frame(), energy, 0.035) << pcen;
      }
    }
  }
}

}  // namespace
}  // namespace Tovad_toolkit
