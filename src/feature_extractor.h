#ifndef TOVAD_FEATURE_EXTRACTOR_H_
#define TOVAD_FEATURE_EXTRACTOR_H_

#include <cstdint>

namespace Tovad_toolkit {

// One frame of 160 samples in, one block of features out.  The frame
// predictor owns one extractor, chosen by `feature_type`.
class FeatureExtractor {
 public:
  virtual ~FeatureExtractor() {}
  // Takes 160 samples; writes the frame's block of features to `feats`.
  // During warm-up an implementation may leave `feats` unwritten.
  virtual void getFeats(const int16_t* pcm, float* feats) = 0;
  // Energy in decibels of the frame last given to getFeats.
  virtual float get_energy_of_current_frame() = 0;
  // Forgets the history, as if no frame had been given.
  virtual void reset() = 0;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_FEATURE_EXTRACTOR_H_
