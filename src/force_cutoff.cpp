#include "src/force_cutoff.h"

namespace Tovad_toolkit {

std::string Force_cutoff::get_config(const ConfigMap& user, std::string key) {
  return lookup_config(user, default_config, key, "src/force_cutoff", __LINE__);
}

Force_cutoff::Force_cutoff(const ConfigMap& config) {
  n_frame_max_vad_length =
      static_cast<uint32_t>(config_to_int(get_config(config, "cutoff_n_frame_max_vad_length")));
  n_frame_min_vad_length =
      static_cast<uint32_t>(config_to_int(get_config(config, "cutoff_n_frame_min_vad_length")));
  n_frame_judging =
      static_cast<uint32_t>(config_to_int(get_config(config, "cutoff_n_frame_judging")));
  cutoff_threshold = config_to_float(get_config(config, "cutoff_threshold"));
  buff = new float[n_frame_judging]();
  idx_buff = 0;
  sum_vad_prior = 0.0f;
  sum_judging_prior = 0.0f;
  len_curr_vad = 0;
}

Force_cutoff::~Force_cutoff() { delete[] buff; }

void Force_cutoff::reset() {
  sum_vad_prior = 0.0f;
  sum_judging_prior = 0.0f;
  len_curr_vad = 0;
}

void Force_cutoff::apply_force_cutoff_process(uint32_t n, float* prior, int32_t* labels) {
  for (uint32_t i = 0; i < n; ++i) {
    if (labels != nullptr && labels[i] != 1) {
      reset();
      continue;
    }
    idx_buff = (idx_buff + 1) % n_frame_judging;
    buff[idx_buff] = prior[i];
    sum_vad_prior += prior[i];
    sum_judging_prior += prior[i];
    // The window sum starts dropping one frame late and drops the third
    // score first, so it carries n_frame_judging + 1 scores from then on.
    // The cut decisions depend on exactly this sum; keep it.
    if (len_curr_vad > n_frame_judging) {
      sum_judging_prior -= buff[(n_frame_judging + idx_buff + 1) % n_frame_judging];
    }
    len_curr_vad += 1;
    if (len_curr_vad > n_frame_min_vad_length) {
      const float recent = sum_judging_prior / static_cast<float>(n_frame_judging);
      const float overall = (sum_vad_prior * cutoff_threshold) / static_cast<float>(len_curr_vad);
      if (recent < overall) {
        if (labels != nullptr) labels[i] = 0;
        reset();
      }
    }
    // An equality test on purpose: the length may just have been reset.
    if (len_curr_vad == n_frame_max_vad_length - 1) {
      if (labels != nullptr) labels[i] = 0;
      reset();
    }
  }
}

}  // namespace Tovad_toolkit
