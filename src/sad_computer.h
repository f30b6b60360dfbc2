#ifndef TOVAD_SAD_COMPUTER_H_
#define TOVAD_SAD_COMPUTER_H_

// Four speech-activity cues per frame, each median-filtered over 11 frames:
// 0 harmonicity (peak of the autocorrelation in the pitch range against
// the rest), 1 clarity (depth of the deepest valley of the magnitude
// difference function), 2 the log gain of an order-12 linear predictor,
// 3 the best harmonic sum over the log power spectrum.

#include <cstdint>

#include "src/computer.h"
#include "src/median_filter.h"

namespace Tovad_toolkit {

class Sad_Computer : public Computer {
 public:
  Sad_Computer(Tovad_buff* mem, Tovad_fft* fft);
  ~Sad_Computer() override;

  // Writes 4 floats; returns 4.
  uint32_t compute_feats(float* out) override;
  // Empties the four median filters.
  void reset() override;
  void reset_median_filter() { reset(); }

 private:
  const float* compute_corr();
  void compute_harm_clarity(const float* corr, float* out);
  void compute_lperr(const float* corr, float* out);
  void compute_hps(float* out);
  // Fills a[0 .. 12] with the prediction coefficients of r[0 .. 12] and
  // returns the final prediction error, or 1e-08 when that is not positive.
  static float LevinsonSolver_12points(const float* r, float* a);

  Median_Filter** med_filter;  // one per output
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_SAD_COMPUTER_H_
