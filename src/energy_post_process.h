#ifndef TOVAD_ENERGY_POST_PROCESS_H_
#define TOVAD_ENERGY_POST_PROCESS_H_

#include <cstdint>
#include <string>

#include "src/median_filter.h"
#include "src/tovad_config.h"

namespace Tovad_toolkit {

// Weighs the wake-up score by the frame's loudness relative to recent
// loudness, so that quiet sound can't open a segment.  The mode comes from
// `E_post_process_type`:
//   1  running window of `E_buff_length` frames,
//   2  the window is the call's own batch,
//   3  growing window; scores are only stored, nothing is changed.
class Energy_post_process {
 public:
  // Reads the keys and aborts on a mode other than 0 to 3.
  explicit Energy_post_process(const ConfigMap& config);
  Energy_post_process(const Energy_post_process&) = delete;
  Energy_post_process& operator=(const Energy_post_process&) = delete;
  ~Energy_post_process();

  // `energy` and `vad` hold `n` values each; `vad` is weighed in place
  // (not in mode 3).  Aborts if `n` exceeds 4096.
  void apply_energy_post_process(uint32_t n, const float* energy, float* vad);

  // Mode 3 only: writes the weighed scores of the stored frames to `out`.
  void get_energy_post_process_result(float* out);

  // Clears the loudness window.  The energy median keeps its state.
  void reset();

 private:
  void init_default_config();
  std::string get_config(const ConfigMap& user, std::string key);
  float append_wav(float energy);
  float process_vad(float e, float vad);

  ConfigMap default_config;
  Median_Filter* E_med_filter;
  uint32_t E_post_process_type;
  float* E_energy_buff;         // filtered energies in order of arrival, as a ring
  float* E_energy_buff_sorted;  // the same values, ascending
  float* E_buffed_origin_vad;   // mode 3: the unweighed scores
  uint32_t E_buff_length;       // window length in force
  float E_high_percent;
  float E_low_percent;
  float E_high_th;
  float E_low_th;
  float E_pow_factor;
  uint32_t E_curr_idx;  // ring place of the next value
  const uint32_t max_n_frame;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_ENERGY_POST_PROCESS_H_
