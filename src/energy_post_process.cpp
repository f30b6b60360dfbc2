#include "src/energy_post_process.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace Tovad_toolkit {

Energy_post_process::Energy_post_process(const ConfigMap& config)
    : E_med_filter(nullptr),
      E_post_process_type(0),
      E_energy_buff(nullptr),
      E_energy_buff_sorted(nullptr),
      E_buffed_origin_vad(nullptr),
      E_buff_length(0),  // modes 2 and 3 rely on starting at 0
      E_high_percent(0.0f),
      E_low_percent(0.0f),
      E_high_th(0.0f),
      E_low_th(0.0f),
      E_pow_factor(0.0f),
      E_curr_idx(0),
      max_n_frame(4096) {
  init_default_config();
  E_post_process_type =
      static_cast<uint32_t>(config_to_int(get_config(config, "E_post_process_type")));
  switch (E_post_process_type) {
    case 0:
      return;
    case 1:
      E_buff_length = static_cast<uint32_t>(config_to_int(get_config(config, "E_buff_length")));
      E_energy_buff = new float[E_buff_length]();
      E_energy_buff_sorted = new float[E_buff_length]();
      break;
    case 2:
      E_energy_buff = new float[max_n_frame]();
      E_energy_buff_sorted = new float[max_n_frame]();
      break;
    case 3:
      E_energy_buff = new float[max_n_frame]();
      E_energy_buff_sorted = new float[max_n_frame]();
      E_buffed_origin_vad = new float[max_n_frame]();
      break;
    default:
      fprintf(stderr, "%s:%d %s%u", "src/energy_post_process", __LINE__,
              "ERROR: E_post_process_type should be 0、1、2、3, not ", E_post_process_type);
      abort();
  }
  E_high_percent = config_to_float(get_config(config, "E_high_percent"));
  E_low_percent = config_to_float(get_config(config, "E_low_percent"));
  E_high_th = config_to_float(get_config(config, "E_high_th"));
  E_low_th = config_to_float(get_config(config, "E_low_th"));
  E_pow_factor = config_to_float(get_config(config, "E_pow_factor"));
  E_curr_idx = 0;
  E_med_filter = new Median_Filter(11);
}

Energy_post_process::~Energy_post_process() {
  delete E_med_filter;
  delete[] E_energy_buff;
  delete[] E_energy_buff_sorted;
  delete[] E_buffed_origin_vad;
}

std::string Energy_post_process::get_config(const ConfigMap& user, std::string key) {
  return lookup_config(user, default_config, key, "src/energy_post_process", __LINE__);
}

void Energy_post_process::init_default_config() {
  default_config["E_post_process_type"] = "0";
  default_config["E_buff_length"] = "1000";
  default_config["E_high_percent"] = "0.8";
  default_config["E_low_percent"] = "0.4";
  default_config["E_high_th"] = "60";
  default_config["E_low_th"] = "40";
  default_config["E_pow_factor"] = "0.4";
}

float Energy_post_process::append_wav(float energy) {
  const float e = E_med_filter->insert(energy);
  sorted_window_replace(E_energy_buff_sorted, E_buff_length, E_energy_buff[E_curr_idx], e);
  E_energy_buff[E_curr_idx] = e;
  E_curr_idx = (E_curr_idx + 1) % E_buff_length;
  return e;
}

float Energy_post_process::process_vad(float e, float vad) {
  // Quantile places: single-precision product, truncated.
  float high =
      E_energy_buff_sorted[static_cast<int>(static_cast<float>(E_buff_length) * E_high_percent)];
  float low =
      E_energy_buff_sorted[static_cast<int>(static_cast<float>(E_buff_length) * E_low_percent)];
  if (high < E_high_th) high = E_high_th;
  if (low < E_low_th) low = E_low_th;
  if (e > high) return vad;
  if (e > low) {
    // The ratio in single precision; pow and the product in double.
    const float ratio = (e - low) / (high - low);
    return static_cast<float>(
        static_cast<double>(vad) *
        std::pow(static_cast<double>(ratio), static_cast<double>(E_pow_factor)));
  }
  return 0.0f;
}

void Energy_post_process::apply_energy_post_process(uint32_t n, const float* energy, float* vad) {
  if (E_post_process_type == 0) return;
  if (n > max_n_frame) {
    fprintf(stderr, "%s:%d %s%d%s%d", "src/energy_post_process", __LINE__,
            "ERROR: energy post process support max n_frame at ", static_cast<int>(max_n_frame),
            ", your n_frame is ", static_cast<int>(n));
    abort();
  }
  switch (E_post_process_type) {
    case 1:
      for (uint32_t i = 0; i < n; ++i) {
        const float e = append_wav(energy[i]);
        vad[i] = process_vad(e, vad[i]);
      }
      break;
    case 2:
      memset(E_energy_buff, 0, n * sizeof(float));
      memset(E_energy_buff_sorted, 0, n * sizeof(float));
      E_buff_length = n;
      E_curr_idx = 0;
      for (uint32_t i = 0; i < n; ++i) append_wav(energy[i]);
      for (uint32_t i = 0; i < n; ++i) vad[i] = process_vad(E_energy_buff[i], vad[i]);
      break;
    case 3:
      // Past 4096 calls without a full reset the window would overrun;
      // such streams are outside what this mode supports.
      E_buff_length += 1;
      for (uint32_t i = 0; i < n; ++i) {
        E_buffed_origin_vad[E_curr_idx] = vad[i];
        append_wav(energy[i]);
      }
      break;
    default:
      break;
  }
}

void Energy_post_process::get_energy_post_process_result(float* out) {
  if (E_post_process_type != 3 || E_curr_idx == 0) return;
  for (uint32_t i = 0; i < E_curr_idx; ++i) {
    out[i] = process_vad(E_energy_buff[i], E_buffed_origin_vad[i]);
  }
}

void Energy_post_process::reset() {
  switch (E_post_process_type) {
    case 1:
      memset(E_energy_buff, 0, E_buff_length * sizeof(float));
      memset(E_energy_buff_sorted, 0, E_buff_length * sizeof(float));
      break;
    case 2:
      memset(E_energy_buff, 0, max_n_frame * sizeof(float));
      memset(E_energy_buff_sorted, 0, max_n_frame * sizeof(float));
      break;
    case 3:
      memset(E_energy_buff, 0, max_n_frame * sizeof(float));
      memset(E_energy_buff_sorted, 0, max_n_frame * sizeof(float));
      E_buff_length = 0;
      break;
    default:
      break;
  }
  E_curr_idx = 0;
}

}  // namespace Tovad_toolkit
