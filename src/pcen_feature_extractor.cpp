#include "src/pcen_feature_extractor.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "src/tovad_fast_math.h"

namespace Tovad_toolkit {
namespace {

// The first-order smoother: smooth = mel * s + (1 - s) * smooth, fused.
TOVAD_FMA_CLONES void smooth_step(float* smooth, const float* mel, float s, int32_t n) {
  const float keep = 1.0f - s;
  for (int32_t k = 0; k < n; ++k) smooth[k] = std::fma(mel[k], s, keep * smooth[k]);
}

}  // namespace

PcenFeatureExtractor::PcenFeatureExtractor(int32_t n_mel_banks, const float* meanvar)
    : pcen_impulse_frame_cnt_(0),
      smooth_energy_(nullptr),
      default_config{{"feature_dim", "40"},
                     {"delta_order", "2"},
                     {"pcen_min_mel_bins", "0"},
                     {"pcen_max_smooth_energy", "1e9"},
                     {"pcen_min_mel_energy", "1.5e7"},
                     {"pcen_inverse_alpha", "1.02"},
                     {"pcen_impulse_frame_threshold", "8"}} {
  const int32_t delta_order =
      static_cast<int32_t>(strtol(default_config.at("delta_order").c_str(), nullptr, 10));
  pcen_min_mel_bins_ =
      static_cast<int32_t>(strtol(default_config.at("pcen_min_mel_bins").c_str(), nullptr, 10));
  max_smooth_energy_ =
      static_cast<float>(strtod(default_config.at("pcen_max_smooth_energy").c_str(), nullptr));
  min_mel_energy_ =
      static_cast<float>(strtod(default_config.at("pcen_min_mel_energy").c_str(), nullptr));
  pcen_inverse_alpha_ =
      static_cast<float>(strtod(default_config.at("pcen_inverse_alpha").c_str(), nullptr));
  pcen_impulse_frame_cnt_threadhold_ = static_cast<int32_t>(
      strtol(default_config.at("pcen_impulse_frame_threshold").c_str(), nullptr, 10));
  check_dims(n_mel_banks, delta_order);

  setup(n_mel_banks, delta_order, meanvar);
  smooth_energy_ = new float[n_mel_banks_];
  std::fill(smooth_energy_, smooth_energy_ + n_mel_banks_, 0.0f);
  // Computed in double, then narrowed.
  for (int32_t i = 0; i < samples_per_window_; ++i) {
    const double c = std::cos(i * 6.283185307179586 / 399);
    hamming_window_[i] = static_cast<float>(0.54 - c * 0.46);
  }
  initMelBankCoefficents(2840.0378f / (n_mel_banks_ + 1));
  reset();
}

PcenFeatureExtractor::~PcenFeatureExtractor() { delete[] smooth_energy_; }

void PcenFeatureExtractor::getFeats(const int16_t* wav, float* feats) {
  ++frame_cnt_;
  appendWav(wav);
  if (frame_cnt_ < 3) return;
  float* row = computeFrameMelEnergy();
  for (int32_t k = 0; k < n_mel_banks_; ++k) row[k] = std::max(row[k], 1.1920929e-07f);
  // The smoother starts on the first real frame.
  if (frame_cnt_ == 3) std::copy(row, row + n_mel_banks_, smooth_energy_);
  computePcenEnergy(row, row);
  if (frame_cnt_ == 3) seedHistory();
  writeDeltasIfReady(feats);
  // Runs also while no deltas exist yet: the stored terms are the negated
  // mean and the inverse deviation.
  for (int32_t i = 0; i < final_feature_dim_; ++i) feats[i] = (mean_[i] + feats[i]) * var_[i];
}

void PcenFeatureExtractor::computePcenEnergy(float* out, const float* mel) {
  computePcenSmoothEnergy(smooth_energy_, mel, 0.025f);
  // Gain exponent 0.98, bias 2, root 1/2; 1.4142135 is the bias to the root.
  for (int32_t k = 0; k < n_mel_banks_; ++k) {
    out[k] =
        std::pow(mel[k] / std::pow(smooth_energy_[k] + 1e-06f, 0.98f) + 2.0f, 0.5f) - 1.4142135f;
  }
}

void PcenFeatureExtractor::computePcenSmoothEnergy(float* smooth, const float* mel,
                                                   float coefficient) {
  double mel_sum = 0.0;
  for (int32_t k = 0; k < n_mel_banks_; ++k) mel_sum += mel[k];
  double smooth_sum = 0.0;
  for (int32_t k = pcen_min_mel_bins_; k < n_mel_banks_; ++k) smooth_sum += smooth[k];

  // A smoother still high from a loud event over a quiet frame.
  if (smooth_sum / (n_mel_banks_ - pcen_min_mel_bins_) > max_smooth_energy_ &&
      mel_sum / n_mel_banks_ < min_mel_energy_) {
    ++pcen_impulse_frame_cnt_;
  } else {
    pcen_impulse_frame_cnt_ = 0;
  }

  if (pcen_impulse_frame_cnt_ < pcen_impulse_frame_cnt_threadhold_) {
    smooth_step(smooth, mel, coefficient, n_mel_banks_);
  } else {
    // Restart from this frame; the exponent undoes the gain exponent, so the
    // normalised value lands near 1.
    for (int32_t k = 0; k < n_mel_banks_; ++k) smooth[k] = std::pow(mel[k], pcen_inverse_alpha_);
    pcen_impulse_frame_cnt_ = 0;
  }
}

float PcenFeatureExtractor::get_energy_of_current_frame() { return bufferEnergy(240); }

void PcenFeatureExtractor::reset() {
  resetHistory();
  pcen_impulse_frame_cnt_ = 0;
}

}  // namespace Tovad_toolkit
