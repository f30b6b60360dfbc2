#ifndef TOVAD_PREDICTOR_H_
#define TOVAD_PREDICTOR_H_

#include <cstdint>
#include <string>

#include "src/tovad_config.h"

namespace UniversalPredictor {
class UniversalPredictorHandle;
}

namespace Tovad_toolkit {

class Debuger;
class FeatureExtractor;

// Turns one 160-sample frame into class posteriors: features from the
// configured extractor, a sliding window of them as the net's input, the
// net behind the predictor facade, and the frame-skipping logic.
class Tovad_predictor {
 public:
  // Loads the net and the meanvar table; any failure prints its message
  // and aborts.
  explicit Tovad_predictor(const ConfigMap& config);
  ~Tovad_predictor();
  Tovad_predictor(const Tovad_predictor&) = delete;
  Tovad_predictor& operator=(const Tovad_predictor&) = delete;

  // One frame: `prior` receives n_classes floats; `energy`, if not null,
  // the frame's energy.
  void predict(const int16_t* pcm, float* prior, float* energy);
  // Runs the extractor over the first frame of `pcm` once per frame of
  // the running-mean window, filling its statistics and the input window.
  void pre_set_filter(const int16_t* pcm, int32_t n_frames);
  void reset();
  void attach_debuger(Debuger* d) { debuger = d; }

  uint32_t get_n_classes() const { return n_classes; }

 private:
  void init_default_config();
  void init_predictor(const ConfigMap& config);
  void init_feature_extractor(const ConfigMap& config);
  [[noreturn]] void loadObmModel(const std::string& path);
  void loadMxnetModel(const std::string& json_path, const std::string& param_path);
  std::string get_config(const ConfigMap& user, const std::string& key);

  void push_float_frame(const float* frame);
  void push_int8_frame(const float* frame);

  ConfigMap default_config;
  FeatureExtractor* feature_extractor = nullptr;
  UniversalPredictor::UniversalPredictorHandle* predict_handler = nullptr;
  bool is_mxnet_model = false;
  float* feature_buff = nullptr;
  int8_t* int8_feature_buff = nullptr;
  [[maybe_unused]] int32_t delta_type = 0;  // kept in the record; nothing reads it
  uint32_t n_batch = 0;
  uint32_t n_height = 0;
  uint32_t n_chan = 0;
  uint32_t n_width = 0;
  uint32_t n_classes = 0;
  uint32_t am_skip_num = 1;  // net runs every am_skip_num frames
  uint32_t am_skip_num_counter = 0;
  float* last_score = nullptr;
  uint32_t dynamic_mean_capacity = 0;
  Debuger* debuger = nullptr;

  // Per-frame scratch kept as members so the frame path allocates nothing.
  float* frame_feats = nullptr;  // n_chan x n_width
  float* int8_scores = nullptr;  // n_classes, for the 8-bit net form
  int32_t* int8_output = nullptr;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_PREDICTOR_H_
