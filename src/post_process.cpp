#include "src/post_process.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "src/debuger.h"

namespace Tovad_toolkit {

std::string Post_process::get_config(const ConfigMap& user, std::string key) {
  return lookup_config(user, default_config, key, "src/post_process", __LINE__);
}

Post_process::Post_process(const ConfigMap& config, bool suspected)
    : swap_vad_beg(-1),
      swap_vad_end(-1),
      vad_prior_history(nullptr),
      vad_label_swap_arry(nullptr),
      is_first_vad_frame(false),
      output_prior(nullptr),
      energy_post_process(nullptr),
      force_cutoff(nullptr),
      med_filter(nullptr),
      debuger(nullptr) {
  // The suspected_ keys deliberately have no defaults.
  default_config["sil_check_threshold"] = "-1";
  default_config["n_max_continuous_sil_frame"] = "1000";
  default_config["E_post_process_type"] = "0";
  default_config["first_vad_seg_trigger_threshold"] = "-1";
  default_config["first_vad_seg_extra_tailing_sil"] = "-1";

  target_class = get_config(config, "target_class");
  n_batch = static_cast<uint32_t>(config_to_int(get_config(config, "n_batch")));
  n_classes = static_cast<uint32_t>(config_to_int(get_config(config, "n_classes")));
  parse_target_class();

  med_filter = new Median_Filter(7);

  const std::string prefix = suspected ? "suspected_" : "";
  sil_to_voice_hangover =
      static_cast<uint32_t>(config_to_int(get_config(config, prefix + "sil_to_voice_hangover")));
  voice_to_sil_hangover =
      static_cast<uint32_t>(config_to_int(get_config(config, prefix + "voice_to_sil_hangover")));
  extra_leading_sil =
      static_cast<uint32_t>(config_to_int(get_config(config, prefix + "extra_leading_sil")));
  wakeup_threshold = config_to_float(get_config(config, prefix + "wakeup_threshold"));
  first_vad_seg_trigger_threshold =
      config_to_int(get_config(config, prefix + "first_vad_seg_trigger_threshold"));
  first_vad_seg_extra_tailing_sil =
      config_to_int(get_config(config, prefix + "first_vad_seg_extra_tailing_sil")) -
      static_cast<int32_t>(voice_to_sil_hangover);

  n_voice = 0;
  n_sil = 0;
  n_frame_overflowed = 0;
  n_sil_frame = 0;
  is_first_vad_seg = 1;

  // Shared by the main and the suspected path: no suspected_ form.
  n_max_sil_frame = config_to_int(get_config(config, "n_max_continuous_sil_frame"));
  sil_check_threshold = config_to_float(get_config(config, "sil_check_threshold"));

  if (config_to_int(get_config(config, "E_post_process_type")) != 0) {
    energy_post_process = new Energy_post_process(config);
  }
  if (config_to_int(get_config(config, "cutoff_n_frame_max_vad_length")) >= 51) {
    force_cutoff = new Force_cutoff(config);
  }

  last_ref_vad_point = 0;
  // Long enough to reach back to a new segment's start from the frame that
  // opens it, for the force cutoff's catch-up.
  const uint32_t reach = extra_leading_sil + sil_to_voice_hangover;
  len_vad_prior_history = static_cast<int32_t>(1 + (reach > n_batch ? reach : n_batch));
  vad_prior_history = new float[len_vad_prior_history]();
  vad_label_swap_arry = new int32_t[n_batch]();
  vad_start = -1;
  vad_end = -1;
}

Post_process::~Post_process() {
  delete energy_post_process;
  delete force_cutoff;
  delete med_filter;
  delete[] vad_prior_history;
  delete[] vad_label_swap_arry;
}

// Entries "class" or "class" 'v' "factor", separated by commas.  The factor
// is not put back to 1 between entries: a bare class takes the factor of
// the entry before it ("1v0.5,2" weighs class 2 by 0.5).
void Post_process::parse_target_class() {
  const char* text = target_class.c_str();
  const size_t size = target_class.size();
  int32_t curr_class = -1;
  float curr_factor = 1.0f;
  size_t token = 0;
  for (size_t i = 0; i <= size; ++i) {
    if (i < size && text[i] == 'v') {
      curr_class = static_cast<int32_t>(strtol(text + token, nullptr, 10));
      token = i + 1;
    } else if (i == size || text[i] == ',') {
      if (curr_class == -1) {
        curr_class = static_cast<int32_t>(strtol(text + token, nullptr, 10));
      } else {
        curr_factor = static_cast<float>(strtod(text + token, nullptr));
      }
      token = i + 1;
      // Signed comparison: a negative class is let through.
      if (static_cast<int64_t>(n_classes) <= curr_class) {
        fprintf(stderr, "%s:%d %s", "src/post_process", __LINE__,
                "ERROR: the val of `classes` should be unsinged int and smaller then `n_class`");
        abort();
      }
      if (curr_class == 0) {
        fprintf(stderr, "%s:%d %s", "src/post_process", __LINE__,
                "WARNING: are you sure you want to use `class 0` as a `wkp class`?");
      }
      final_class.push_back(curr_class);
      final_factor.push_back(curr_factor);
      curr_class = -1;
    }
  }
}

void Post_process::apply_post_process(const float* prior, const float* energy,
                                      int32_t* out_vad_start, int32_t* out_vad_end) {
  memmove(vad_prior_history, vad_prior_history + n_batch,
          (len_vad_prior_history - n_batch) * sizeof(float));
  output_prior = vad_prior_history + len_vad_prior_history - n_batch;
  last_ref_vad_point += n_batch;

  for (uint32_t b = 0; b < n_batch; ++b) {
    const float* frame = prior + b * n_classes;
    float score = 0.0f;
    for (size_t k = 0; k < final_class.size(); ++k) {
      score += frame[final_class[k]] * final_factor[k];
    }
    output_prior[b] = score;
  }
  // The history keeps the smoothed score, 3 frames behind the net.
  for (uint32_t b = 0; b < n_batch; ++b) output_prior[b] = med_filter->insert(output_prior[b]);
  if (energy_post_process != nullptr) {
    energy_post_process->apply_energy_post_process(n_batch, energy, output_prior);
  }

  apply_hangover();

  // First-segment rule.  L is the net length of a finished segment, from
  // the first to the last voice frame; unset positions enter as -1.
  const int32_t seg_len = vad_end - vad_start - static_cast<int32_t>(extra_leading_sil) -
                          static_cast<int32_t>(voice_to_sil_hangover) + n_frame_overflowed;
  bool check_hold_end = false;
  if (seg_len > first_vad_seg_trigger_threshold) {
    // Long enough to report (this also gives up a hold).
    is_first_vad_seg = -1;
    *out_vad_start = vad_start;
    *out_vad_end = vad_end;
  } else if (is_first_vad_seg == 1 && vad_start != -1 && vad_end != -1) {
    // Hold a short first segment and listen on for its tail.  The frame
    // clock goes back to the end and stays behind the true count.
    is_first_vad_seg = 0;
    swap_vad_beg = vad_start;
    swap_vad_end = vad_end + first_vad_seg_extra_tailing_sil;
    last_ref_vad_point = static_cast<uint32_t>(vad_end);
    *out_vad_start = vad_start;
    vad_start = -1;
    vad_end = -1;
    n_voice = 0;
    n_sil = 0;
    n_sil_frame = 0;
    check_hold_end = true;
  } else if (is_first_vad_seg != 0) {
    *out_vad_start = vad_start;
    *out_vad_end = vad_end;
  } else if (vad_start != -1) {
    // Voice came back during the hold: one segment from the held start.
    vad_start = swap_vad_beg;
    is_first_vad_seg = -1;
    *out_vad_start = swap_vad_beg;
    *out_vad_end = -1;
  } else {
    *out_vad_start = swap_vad_beg;
    check_hold_end = true;
  }
  if (check_hold_end) {
    if (static_cast<int64_t>(last_ref_vad_point) >= swap_vad_end) {
      // The tail has run out without new voice.
      vad_start = swap_vad_beg;
      vad_end = swap_vad_end;
      is_first_vad_seg = -1;
      *out_vad_end = swap_vad_end;
    } else {
      *out_vad_end = -1;
    }
  }

  // Runs after the outputs are written: a cut shows on the next frame.
  if (force_cutoff != nullptr) apply_force_cutoff();

  if (debuger != nullptr) {
    // A segment that opened in this call reaches back to vad_start: mark
    // the frames already recorded.
    if (is_first_vad_frame) debuger->dump_change_vad_status(vad_start, 1);
    debuger->dump_add_vad_data(vad_label_swap_arry, static_cast<int32_t>(n_batch));
    debuger->dump_add_prior_data(output_prior, static_cast<int32_t>(n_batch));
  }
}

void Post_process::apply_hangover() {
  is_first_vad_frame = false;
  for (uint32_t b = 0; b < n_batch; ++b) {
    const float p = output_prior[b];
    const int32_t index = static_cast<int32_t>(last_ref_vad_point - n_batch + b);
    // Strict: a score equal to the threshold is not voice.
    if (p > wakeup_threshold) {
      n_voice += 1;
      n_sil = 0;
    } else {
      n_sil += 1;
      n_voice = 0;
    }
    if (p < sil_check_threshold) {
      n_sil_frame += 1;
    } else {
      n_sil_frame = 0;
    }
    if (vad_start == -1) {
      if (n_voice <= sil_to_voice_hangover) {
        vad_label_swap_arry[b] = 0;
        continue;
      }
      vad_start = index - static_cast<int32_t>(sil_to_voice_hangover) -
                  static_cast<int32_t>(extra_leading_sil);
      is_first_vad_frame = true;
      if (vad_start < 0) {
        n_frame_overflowed = -vad_start;
        vad_start = 0;
      }
    }
    if (vad_end != -1) {
      vad_label_swap_arry[b] = 0;
      continue;
    }
    if (n_sil <= voice_to_sil_hangover) {
      vad_label_swap_arry[b] = 1;
      continue;
    }
    // The end is the frame before the deciding one, so the hangover tail
    // belongs to the segment.
    vad_end = index - 1;
    vad_label_swap_arry[b] = vad_end == -1 ? 1 : 0;
  }
}

void Post_process::apply_force_cutoff() {
  if (vad_start == -1 || vad_end != -1) {
    force_cutoff->reset();
    return;
  }
  if (is_first_vad_frame && last_ref_vad_point >= n_batch) {
    // Catch up on the frames from the start up to this batch.  After a
    // merge the start lies further back than the history reaches; only the
    // frames still held are fed then, so the length counts short.
    int64_t count = static_cast<int64_t>(last_ref_vad_point) - n_batch - vad_start;
    int64_t offset = static_cast<int64_t>(vad_start) + len_vad_prior_history - last_ref_vad_point;
    if (offset < 0) {
      count += offset;
      offset = 0;
    }
    if (count > 0) {
      force_cutoff->apply_force_cutoff_process(static_cast<uint32_t>(count),
                                               vad_prior_history + offset, nullptr);
    }
  }
  // Nothing inside the batch follows a frame outside the segment.
  bool seen_zero = false;
  for (uint32_t b = 0; b < n_batch; ++b) {
    if (seen_zero) vad_label_swap_arry[b] = 0;
    if (vad_label_swap_arry[b] == 0) seen_zero = true;
  }
  force_cutoff->apply_force_cutoff_process(
      n_batch, vad_prior_history + len_vad_prior_history - n_batch, vad_label_swap_arry);
  for (uint32_t b = 0; b < n_batch; ++b) {
    if (vad_end != -1) vad_label_swap_arry[b] = 0;
    if (vad_label_swap_arry[b] == 0) {
      vad_end = static_cast<int32_t>(last_ref_vad_point - 1 + b - n_batch);
    }
  }
}

void Post_process::reset(bool full) {
  n_voice = 0;
  n_sil = 0;
  n_frame_overflowed = 0;
  n_sil_frame = 0;
  last_ref_vad_point = 0;
  vad_start = -1;
  vad_end = -1;
  is_first_vad_seg = -1;
  if (full) {
    med_filter->reset();
    if (energy_post_process != nullptr) energy_post_process->reset();
    is_first_vad_seg = 1;
  }
}

}  // namespace Tovad_toolkit
