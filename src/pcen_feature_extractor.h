#ifndef TOVAD_PCEN_FEATURE_EXTRACTOR_H_
#define TOVAD_PCEN_FEATURE_EXTRACTOR_H_

// Mel energies compressed by per-channel energy normalisation, with deltas,
// normalised by the stored mean and variance terms; `feature_type` "pcen".
// A guard restarts the smoother when the level stays far below a smoother
// still high from a loud event.

#include <cstdint>
#include <map>
#include <string>

#include "src/mel_feature_base.h"

namespace Tovad_toolkit {

class PcenFeatureExtractor : public MelFeatureBase {
 public:
  // `n_mel_banks` must be 40 or 80, else the process ends.  `meanvar` holds
  // 2 x feature_dim() floats, the values added (negated means) and then the
  // factors multiplied (inverse deviations); it is copied.
  PcenFeatureExtractor(int32_t n_mel_banks, const float* meanvar);
  ~PcenFeatureExtractor() override;

  // Takes 160 samples.  From the third call on writes feature_dim() floats
  // as (mean + feature) * var; before call 2 x (delta order + 1) + 1 the
  // "feature" is whatever `feats` held, so those values mean nothing.
  void getFeats(const int16_t* wav, float* feats) override;
  // Decibels of samples 240 .. 399 of the buffer.
  float get_energy_of_current_frame() override;
  // Restarts the warm-up; the smoother reloads at the third frame.
  void reset() override;

 protected:
  void computePcenEnergy(float* out, const float* mel);
  void computePcenSmoothEnergy(float* smooth, const float* mel, float coefficient);

  int32_t pcen_impulse_frame_cnt_;  // frames in a row meeting the impulse condition
  int32_t pcen_min_mel_bins_;       // first bank of the smooth-energy average
  int32_t pcen_impulse_frame_cnt_threadhold_;
  float max_smooth_energy_;
  float min_mel_energy_;
  float pcen_inverse_alpha_;
  float* smooth_energy_;  // per bank
  // Fixed values kept as text; there is no way to override them.
  const std::map<std::string, std::string> default_config;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_PCEN_FEATURE_EXTRACTOR_H_
