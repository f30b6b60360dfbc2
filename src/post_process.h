#ifndef TOVAD_POST_PROCESS_H_
#define TOVAD_POST_PROCESS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "src/energy_post_process.h"
#include "src/force_cutoff.h"
#include "src/median_filter.h"
#include "src/tovad_config.h"

namespace Tovad_toolkit {

class Debuger;

// Turns per-frame class posteriors into one voice segment: a start and an
// end position, in frames since the last reset, -1 while unset.  It mixes
// the `target_class` posteriors into a wake-up score, smooths it with a
// median of 7, optionally weighs it by energy, runs the hangover over it,
// holds back a short first segment, and lets the force cutoff end a long
// one.  Once a segment has ended, the positions stay frozen until reset.
class Post_process {
 public:
  // Reads its keys from `config`; the suspected path reads the hangovers,
  // leading silence, threshold and first-segment keys with the prefix
  // "suspected_".  Aborts on a missing key or a bad `target_class`.
  Post_process(const ConfigMap& config, bool suspected);
  Post_process(const Post_process&) = delete;
  Post_process& operator=(const Post_process&) = delete;
  ~Post_process();

  // `prior`: n_batch x n_classes posteriors; `energy`: n_batch energies.
  // Always writes both `*vad_start` and `*vad_end`.
  void apply_post_process(const float* prior, const float* energy, int32_t* vad_start,
                          int32_t* vad_end);
  // Whether apply_post_process reads `energy` at all.
  bool uses_energy() const { return energy_post_process != nullptr; }

  // Restarts positions and the frame clock.  `full` also restarts the
  // median and the energy statistics and re-arms the first-segment rule,
  // which otherwise stays off.
  void reset(bool full);

  // `d` is borrowed; null turns recording off.
  void attach_debuger(Debuger* d) { debuger = d; }

  // 1 once the score has stayed below `sil_check_threshold` for more than
  // `n_max_continuous_sil_frame` frames, else 0.
  int32_t check_sil_frame() const { return n_sil_frame > n_max_sil_frame ? 1 : 0; }
  int32_t get_extra_leading_sil() const { return static_cast<int32_t>(extra_leading_sil); }
  int32_t get_voice_to_sil_hangover() const { return static_cast<int32_t>(voice_to_sil_hangover); }
  int32_t get_sil_to_voice_hangover() const { return static_cast<int32_t>(sil_to_voice_hangover); }
  float get_curr_wkp_threshold() const { return wakeup_threshold; }
  // Takes effect from the next frame on.
  void set_wkp_threshold(float threshold) { wakeup_threshold = threshold; }

 private:
  void parse_target_class();
  void apply_hangover();
  void apply_force_cutoff();
  std::string get_config(const ConfigMap& user, std::string key);

  uint32_t sil_to_voice_hangover;
  uint32_t voice_to_sil_hangover;
  uint32_t extra_leading_sil;
  float wakeup_threshold;
  int32_t first_vad_seg_extra_tailing_sil;  // the key's value minus voice_to_sil_hangover
  int32_t first_vad_seg_trigger_threshold;
  int32_t is_first_vad_seg;  // 1 armed, 0 holding, -1 off
  int32_t swap_vad_beg;      // start of the held first segment
  int32_t swap_vad_end;      // planned end of the held first segment
  uint32_t n_voice;
  uint32_t n_sil;
  int32_t n_frame_overflowed;  // frames by which a start fell before frame 0
  int32_t len_vad_prior_history;
  float* vad_prior_history;      // smoothed scores, newest last
  int32_t* vad_label_swap_arry;  // n_batch flags: 1 inside a segment
  int32_t n_sil_frame;
  int32_t n_max_sil_frame;
  float sil_check_threshold;
  uint32_t n_batch;
  uint32_t n_classes;
  uint32_t last_ref_vad_point;  // the frame clock, one past the batch in flight
  int32_t vad_start;
  int32_t vad_end;
  bool is_first_vad_frame;  // true in the call that set vad_start
  float* output_prior;      // the last n_batch places of vad_prior_history
  Energy_post_process* energy_post_process;
  Force_cutoff* force_cutoff;
  Median_Filter* med_filter;
  std::string target_class;
  std::vector<int> final_class;
  std::vector<float> final_factor;
  ConfigMap default_config;
  Debuger* debuger;  // not owned
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_POST_PROCESS_H_
