#ifndef TOVAD_API_INTERNAL_H_
#define TOVAD_API_INTERNAL_H_

// The handle record behind the exported toolkit interface
// (include/tovadmod/tovad_api.h).

#include <cstdint>

#include "src/tovad_config.h"

namespace Tovad_toolkit {

class Debuger;
class Tovad_predictor;
class Post_process;

constexpr int kFrameSamples = 160;

struct Tovad_handle {
  Tovad_predictor* predictor = nullptr;
  Debuger* debuger = nullptr;
  Post_process* post_process = nullptr;
  Post_process* suspected_post_process = nullptr;
  int32_t n_batch = 0;
  float* frame_energy = nullptr;
  int32_t suspected_vad_ref_pos = -1;
  int32_t suspected_vad_end = -1;
  int32_t vad_start = -1;
  int32_t frame_cnt = 0;
  int16_t pcm_buff[kFrameSamples] = {};
  int32_t n_remain_sample = 0;
  int16_t* pcm_history = nullptr;  // n_max_history_frame x 160 raw samples, oldest first
  int32_t n_max_history_frame = 0;
  int32_t n_curr_history_frame = 0;
  ConfigMap default_config;
};

// The keys init reads itself, looked up like every class's keys.
std::string get_config(const ConfigMap& user, const ConfigMap& defaults, const std::string& key);

}  // namespace Tovad_toolkit

#endif  // TOVAD_API_INTERNAL_H_
