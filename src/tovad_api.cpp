#include "tovadmod/tovad_api.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "src/debuger.h"
#include "src/internal_init_wav.h"
#include "src/post_process.h"
#include "src/tovad_api.h"
#include "src/tovad_predictor.h"

namespace Tovad_toolkit {

namespace {

// Frames dropped at once when the history ring is full.
constexpr int32_t kHistoryDropFrames = 100;
// The toolkit's posterior array; nets have no more classes than this.
constexpr int kMaxClasses = 8;

inline Tovad_handle* as_handle(void* handle) { return static_cast<Tovad_handle*>(handle); }

// The exported functions return no error value, and a null handle or
// buffer would be dereferenced at once: stop with a line that names the
// call and the argument instead of a crash somewhere inside.
void require(bool ok, const char* function, const char* argument, int line) {
  if (ok) return;
  fprintf(stderr, "src/tovad_api:%d ERROR: %s called with a null %s\n", line, function, argument);
  abort();
}
#define TOVAD_REQUIRE(ptr, argument) \
  Tovad_toolkit::require((ptr) != nullptr, __func__, argument, __LINE__)

void run_frame(Tovad_handle* h, int* vad_start, int* vad_end) {
  h->n_remain_sample = 0;
  h->frame_cnt += 1;

  // Keep the ring contiguous: drop its oldest 100 frames in one move, once
  // in 100 frames, so a segment can be handed out as a plain pointer.
  if (h->n_curr_history_frame == h->n_max_history_frame) {
    h->n_curr_history_frame -= kHistoryDropFrames;
    memmove(h->pcm_history, h->pcm_history + kHistoryDropFrames * kFrameSamples,
            static_cast<size_t>(h->n_curr_history_frame) * kFrameSamples * sizeof(int16_t));
  }
  memcpy(h->pcm_history + static_cast<size_t>(h->n_curr_history_frame) * kFrameSamples, h->pcm_buff,
         sizeof(h->pcm_buff));
  h->n_curr_history_frame += 1;

  // The net sees the frame with a fixed low-level pattern added; the sum
  // wraps in 16 bits rather than saturating.
  int16_t frame[kFrameSamples];
  for (int j = 0; j < kFrameSamples; ++j) {
    frame[j] = static_cast<int16_t>(h->pcm_buff[j] + (internal_init_wav[j] >> 3));
  }

  Debuger* debuger = h->debuger;
  if (debuger != nullptr) {
    debuger->dump_add_pcm_data(frame, kFrameSamples);
    debuger->rt_record_start_time(h->n_batch);
  }

  float posteriors[kMaxClasses];
  // The frame's energy only feeds the energy rule; without one it is not
  // worth its serial sum over the frame.
  const bool energy = h->post_process->uses_energy() ||
                      (h->suspected_post_process != nullptr &&
                       h->suspected_post_process->uses_energy());
  h->predictor->predict(frame, posteriors, energy ? h->frame_energy : nullptr);
  if (debuger != nullptr) debuger->rt_record_predict_time();
  h->post_process->apply_post_process(posteriors, h->frame_energy, vad_start, vad_end);
  h->vad_start = *vad_start;

  if (h->suspected_post_process != nullptr) {
    int32_t s_start = -1;
    int32_t s_end = -1;
    h->suspected_post_process->apply_post_process(posteriors, h->frame_energy, &s_start, &s_end);
    if (s_start != -1) {
      if (s_end == -1) {
        h->suspected_vad_end = -1;
      } else {
        // Positions restart at 0 after each suspected reset; the running
        // base carries them on from -1.
        h->suspected_vad_ref_pos += s_end;
        h->suspected_vad_end = h->suspected_vad_ref_pos;
        h->suspected_post_process->reset(false);
      }
    }
  }

  if (debuger != nullptr) {
    debuger->rt_record_post_process_time();
    debuger->rt_record_total_time();
    debuger->rt_save_debug_info();
  }
}

}  // namespace

std::string get_config(const ConfigMap& user, const ConfigMap& defaults, const std::string& key) {
  return lookup_config(user, defaults, key, "src/tovad_api", __LINE__);
}

}  // namespace Tovad_toolkit

using Tovad_toolkit::as_handle;
using Tovad_toolkit::Tovad_handle;

void* Tovad_toolkit_init(const char* config_file, const char* config_path) {
  using namespace Tovad_toolkit;
  TOVAD_REQUIRE(config_file, "config_file");
  fprintf(stderr, "INFO: confirmed little-endian (o ^v^)o\n");
  ConfigMap user = load_conf_with_prefix(config_file, config_path);

  Tovad_handle* h = new Tovad_handle();
  h->default_config["use_debug_function"] = "0";
  h->default_config["compute_suspected_vad_end"] = "0";
  h->default_config["cutoff_n_frame_max_vad_length"] = "1500";

  h->predictor = new Tovad_predictor(user);
  h->post_process = new Post_process(user, false);
  h->n_batch = config_to_int(get_config(user, h->default_config, "n_batch"));
  h->frame_energy = new float[h->n_batch]();
  h->frame_cnt = 0;
  h->n_remain_sample = 0;
  h->suspected_vad_ref_pos = -1;
  h->suspected_vad_end = -1;
  h->vad_start = -1;

  if (config_to_int(get_config(user, h->default_config, "compute_suspected_vad_end")) == 1) {
    h->suspected_post_process = new Post_process(user, true);
  }

  const int32_t max_vad_length =
      config_to_int(get_config(user, h->default_config, "cutoff_n_frame_max_vad_length"));
  // 100 spare frames keep a segment of the longest length whole across a
  // drop of the ring; 0 (no cutoff) gets 51 s.
  h->n_max_history_frame = max_vad_length == 0 ? 5100 : max_vad_length + 100;
  h->pcm_history = new int16_t[static_cast<size_t>(h->n_max_history_frame) * kFrameSamples];
  h->n_curr_history_frame = 0;

  // The suspected path is not recorded.
  if (config_to_int(get_config(user, h->default_config, "use_debug_function")) == 1) {
    h->debuger = new Debuger(user);
    h->predictor->attach_debuger(h->debuger);
    h->post_process->attach_debuger(h->debuger);
  }
  return h;
}

int Tovad_toolkit_predict(void* handle, int n_samples, const short* pcm, int* vad_start,
                          int* vad_end) {
  if (n_samples < 1) return 0;
  TOVAD_REQUIRE(handle, "handle");
  TOVAD_REQUIRE(pcm, "pcm");
  TOVAD_REQUIRE(vad_start, "vad_start");
  TOVAD_REQUIRE(vad_end, "vad_end");
  Tovad_handle* h = as_handle(handle);
  // Whole runs of samples at a time: a per-sample store of the count would
  // cost more than the copy.
  for (int i = 0; i < n_samples;) {
    const int take = std::min(n_samples - i, Tovad_toolkit::kFrameSamples - h->n_remain_sample);
    memcpy(h->pcm_buff + h->n_remain_sample, pcm + i, static_cast<size_t>(take) * sizeof(short));
    h->n_remain_sample += take;
    i += take;
    if (h->n_remain_sample == Tovad_toolkit::kFrameSamples) {
      Tovad_toolkit::run_frame(h, vad_start, vad_end);
    }
  }
  return 0;
}

int Tovad_toolkit_reset(void* handle, bool full) {
  TOVAD_REQUIRE(handle, "handle");
  Tovad_handle* h = as_handle(handle);
  if (h->debuger != nullptr) {
    h->debuger->dump_save_debug_info();
    h->debuger->log_reset();
  }
  if (full) h->predictor->reset();
  h->post_process->reset(full);
  if (h->suspected_post_process != nullptr) {
    h->suspected_post_process->reset(full);
    h->suspected_vad_ref_pos = -1;
    h->suspected_vad_end = -1;
  }
  h->n_remain_sample = 0;
  h->n_curr_history_frame = 0;
  h->vad_start = -1;
  h->frame_cnt = 0;
  return 0;
}

int Tovad_toolkit_destory(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  Tovad_handle* h = as_handle(handle);
  delete h->predictor;
  // Reports what is pending, flushes and closes its files.
  delete h->debuger;
  delete h->post_process;
  delete h->suspected_post_process;
  delete[] h->frame_energy;
  delete[] h->pcm_history;
  delete h;
  return 0;
}

int Tovad_toolkit_pre_set_filter(void* handle, int n_samples, const short* pcm) {
  TOVAD_REQUIRE(handle, "handle");
  Tovad_handle* h = as_handle(handle);
  if (pcm == nullptr || n_samples < Tovad_toolkit::kInternalInitWavLength) {
    // The second argument counts frames: 8000 here is a frame count.
    h->predictor->pre_set_filter(Tovad_toolkit::internal_init_wav, 8000);
  } else {
    h->predictor->pre_set_filter(pcm, n_samples / Tovad_toolkit::kFrameSamples);
  }
  return 0;
}

int Tovad_toolkit_get_vad_segment_raw_data(void* handle, int* n_samples, short** data) {
  TOVAD_REQUIRE(handle, "handle");
  TOVAD_REQUIRE(n_samples, "n_samples");
  TOVAD_REQUIRE(data, "data");
  Tovad_handle* h = as_handle(handle);
  if (h->vad_start == -1) {
    *data = nullptr;
    *n_samples = 0;
    return 0;
  }
  // Reckoned back from the newest frame, so a move of the ring does not
  // disturb it.
  const int32_t len = h->frame_cnt - h->vad_start;
  if (len > h->n_curr_history_frame) {
    *data = h->pcm_history;
    *n_samples = h->n_curr_history_frame * Tovad_toolkit::kFrameSamples;
    fprintf(stderr, "WARNING: vad segment too long, drop %d samples\n",
            (len - h->n_curr_history_frame) * Tovad_toolkit::kFrameSamples);
  } else {
    *data = h->pcm_history +
            static_cast<size_t>(h->n_curr_history_frame - len) * Tovad_toolkit::kFrameSamples;
    *n_samples = len * Tovad_toolkit::kFrameSamples;
  }
  return 0;
}

int Tovad_toolkit_get_batch_size(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  return as_handle(handle)->n_batch;
}

int Tovad_toolkit_get_suspected_vad_end(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  return as_handle(handle)->suspected_vad_end;
}

int Tovad_toolkit_check_sil_frame(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  return as_handle(handle)->post_process->check_sil_frame();
}

int Tovad_toolkit_get_leading_sil(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  return as_handle(handle)->post_process->get_extra_leading_sil();
}

int Tovad_toolkit_get_voice_to_sil_th(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  return as_handle(handle)->post_process->get_voice_to_sil_hangover();
}

int Tovad_toolkit_get_sil_to_voice_th(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  return as_handle(handle)->post_process->get_sil_to_voice_hangover();
}

float TOVAD_toolkit_get_curr_wkp_threshold(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  return as_handle(handle)->post_process->get_curr_wkp_threshold();
}

float TOVAD_toolkit_get_curr_suspected_wkp_threshold(void* handle) {
  TOVAD_REQUIRE(handle, "handle");
  Tovad_handle* h = as_handle(handle);
  if (h->suspected_post_process == nullptr) return 0.0f;
  return h->suspected_post_process->get_curr_wkp_threshold();
}

void TOVAD_toolkit_set_wkp_threshold(void* handle, float threshold) {
  TOVAD_REQUIRE(handle, "handle");
  as_handle(handle)->post_process->set_wkp_threshold(threshold);
}

void TOVAD_toolkit_set_suspected_wkp_threshold(void* handle, float threshold) {
  TOVAD_REQUIRE(handle, "handle");
  Tovad_handle* h = as_handle(handle);
  if (h->suspected_post_process != nullptr) {
    h->suspected_post_process->set_wkp_threshold(threshold);
  }
}
