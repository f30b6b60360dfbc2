#ifndef TOVAD_FORCE_CUTOFF_H_
#define TOVAD_FORCE_CUTOFF_H_

#include <cstdint>
#include <string>

#include "src/tovad_config.h"

namespace Tovad_toolkit {

// Ends a voice segment that runs on: at the maximum length, or when the
// recent score falls below a fraction of the segment's own average.  It
// clears the flag of the frame where it cuts.
class Force_cutoff {
 public:
  // Reads cutoff_n_frame_max_vad_length, cutoff_n_frame_min_vad_length,
  // cutoff_n_frame_judging and cutoff_threshold; all are required.
  explicit Force_cutoff(const ConfigMap& config);
  Force_cutoff(const Force_cutoff&) = delete;
  Force_cutoff& operator=(const Force_cutoff&) = delete;
  ~Force_cutoff();

  // Feeds `n` scores.  `labels` holds `n` flags (1 inside the segment), or
  // is null when the call only brings the sums up to date.
  void apply_force_cutoff_process(uint32_t n, float* prior, int32_t* labels);

  // Clears the sums and the length; the ring stays.
  void reset();

 private:
  std::string get_config(const ConfigMap& user, std::string key);

  ConfigMap default_config;  // empty: every key is required
  float* buff;               // ring of the last n_frame_judging scores
  uint32_t idx_buff;         // place of the newest score
  float sum_vad_prior;       // sum over the current segment
  float sum_judging_prior;   // sum over the judging window
  uint32_t len_curr_vad;
  uint32_t n_frame_max_vad_length;
  uint32_t n_frame_min_vad_length;
  uint32_t n_frame_judging;
  float cutoff_threshold;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_FORCE_CUTOFF_H_
