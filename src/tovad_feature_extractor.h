#ifndef TOVAD_TOVAD_FEATURE_EXTRACTOR_H_
#define TOVAD_TOVAD_FEATURE_EXTRACTOR_H_

// The composite front end, `feature_type` "vad": per frame 12 cepstra and 4
// speech-activity cues, their first and second running differences (48
// values), then the stored mean and variance terms.  Every call writes a
// full vector; there is no warm-up.

#include <cstdint>

#include "src/feature_extractor.h"
#include "src/mfcc_computer.h"
#include "src/sad_computer.h"
#include "src/tovad_buff.h"
#include "src/tovad_fft.h"

namespace Tovad_toolkit {

class Tovad_feature_extractor : public FeatureExtractor {
 public:
  // No mean and variance terms.  A capacity above 0 enables the running
  // cepstral mean over that many frames, starting from zero.
  explicit Tovad_feature_extractor(int dynamic_mean_capacity);
  // `meanvar`, if not null, holds 2 x `dim` floats: the values added
  // (negated means), then the factors multiplied (inverse deviations); it
  // is copied, and `dim` must be 48 by the first frame.  `mfcc_mean`, if
  // not null, seeds the running mean with its first 12 floats.
  Tovad_feature_extractor(const float* meanvar, int dim, int dynamic_mean_capacity,
                          const float* mfcc_mean);
  ~Tovad_feature_extractor() override;
  Tovad_feature_extractor(const Tovad_feature_extractor&) = delete;
  Tovad_feature_extractor& operator=(const Tovad_feature_extractor&) = delete;

  // Takes 160 samples; writes 48 floats.
  void getFeats(const int16_t* wav, float* feats) override;
  float get_energy_of_current_frame() override;
  // Restarts the median filters, the running mean and the differences.
  // The sample history stays, so the next spectrum still sees the frames
  // from before.
  void reset() override;

 private:
  static const uint32_t n_static = 16;  // 12 cepstra, 4 cues
  static const uint32_t n_feats = 48;   // with the two differences

  void apply_unname_delta2(float* feats, int dim);
  void apply_meanvar(float* feats);
  void reset_delta_buff();

  Tovad_buff* mem;
  // Apart from the one inside `mem`: the computers' inverse transforms.
  Tovad_fft* fft;
  float* delta_buff;  // 10 rows of 32: past static values and first differences
  uint32_t delta_buff_idx;
  uint32_t delta_buff_capacity;
  uint32_t delta_buff_byte_size;
  float* meanvar;
  uint32_t max_dim;
  Mfcc_Computer* mfcc_computer;
  Sad_Computer* sad_computer;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_TOVAD_FEATURE_EXTRACTOR_H_
