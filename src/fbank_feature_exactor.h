#ifndef TOVAD_FBANK_FEATURE_EXACTOR_H_
#define TOVAD_FBANK_FEATURE_EXACTOR_H_

// Log mel filter-bank energies with optional first and second deltas, for
// `feature_type` "fbank".
//
// The public constructor never finishes: it reads its dimensions from a
// configuration that nothing fills, so they read as 0 and the dimension
// check ends the process.  The fbank type is therefore unavailable, and
// that is intended.  The rest of the class is reachable through the
// protected constructor (used by the tests).

#include <cstdint>
#include <string>
#include <unordered_map>

#include "src/mel_feature_base.h"

namespace Tovad_toolkit {

class FbankFeatureExtractor : public MelFeatureBase {
 public:
  // The integer is ignored.  `meanvar` is copied; the means and variances
  // are stored but not applied to the features.
  FbankFeatureExtractor(int32_t, const float* meanvar);

  // Takes 160 samples.  From the first call past 2 x (delta order + 1)
  // writes feature_dim() floats: all banks of order 0, then order 1, then
  // order 2, describing the frame of 2 x delta order calls ago.  Earlier
  // calls leave `feats` untouched.
  void getFeats(const int16_t* wav, float* feats) override;
  // Decibels of samples 240 .. 399 of the buffer: the last 10 ms of the
  // analysis window.
  float get_energy_of_current_frame() override;
  void reset() override;

 protected:
  // Builds with the given, valid, values instead of the configuration.
  FbankFeatureExtractor(const float* meanvar, int32_t n_mel_banks, int32_t delta_order);

 private:
  void init(int32_t n_mel_banks, int32_t delta_order, const float* meanvar);

  const int32_t FRAME_SHIFT;   // ms
  const int32_t FRAME_LENGTH;  // ms
  const int32_t SAMPLE_RATE;
  std::unordered_map<std::string, std::string> config_;
  const std::unordered_map<std::string, std::string> default_config_;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_FBANK_FEATURE_EXACTOR_H_
