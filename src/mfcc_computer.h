#ifndef TOVAD_MFCC_COMPUTER_H_
#define TOVAD_MFCC_COMPUTER_H_

// Twelve cepstra per frame: the magnitude spectrum resampled on a warped
// frequency axis, its logarithm, and the inverse transform of that.  An
// optional running mean is subtracted, and each value is median-filtered
// over 11 frames.

#include <cstdint>

#include "src/computer.h"
#include "src/median_filter.h"

namespace Tovad_toolkit {

class Mfcc_Computer : public Computer {
 public:
  Mfcc_Computer(Tovad_buff* mem, Tovad_fft* fft);
  ~Mfcc_Computer() override;

  // Writes 12 floats; returns 12.
  uint32_t compute_feats(float* out) override;
  // Empties the median filters and, when enabled, restarts the running
  // mean from its starting value.
  void reset() override;
  // Subtracts from each frame the mean of the last `capacity` frames, the
  // frame itself included.  The ring starts filled with `init_mean` (12
  // floats, taken as they stand) or with zeros.  Allowed once.
  void enable_dynamic_mean(int capacity, const float* init_mean);

 private:
  static const uint32_t n_cepstra = 12;

  void reset_dynamic_mean();
  void reset_median_filter();
  void apply_dynamic_mean(float* x);
  void interp1(const float* in, float* out);
  static float abs_complex(float re, float im);

  Median_Filter** med_filter;  // 13 filters; the last is kept but never fed
  float* mean;                 // starting mean, 12 floats
  float* dynamic_mean;         // capacity rows of past frames, then their sum
  uint32_t dynamic_mean_idx;   // row replaced next
  uint32_t dynamic_mean_capacity;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_MFCC_COMPUTER_H_
