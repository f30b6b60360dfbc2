#include "src/tovad_predictor.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "src/debuger.h"
#include "src/fbank_feature_exactor.h"
#include "src/feature_extractor.h"
#include "src/pcen_feature_extractor.h"
#include "src/tovad_feature_extractor.h"
#include "universal_predictor/include/universal_predictor.h"

namespace Tovad_toolkit {

namespace {

const char kSource[] = "src/tovad_predictor";

// The whole file, or nothing if it can't be read; a bad model shows up as
// the engine's own failure when it is loaded.
std::vector<char> read_file(const std::string& path, bool nul_terminated) {
  std::vector<char> bytes;
  struct stat st;
  // A folder (an empty path behind a prefix names one) reads as empty.
  if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
    FILE* fp = fopen(path.c_str(), "rb");
    if (fp != nullptr) {
      bytes.resize(static_cast<size_t>(st.st_size));
      bytes.resize(fread(bytes.data(), 1, bytes.size(), fp));
      fclose(fp);
    }
  }
  if (nul_terminated) bytes.push_back('\0');
  return bytes;
}

// Reads `n` numbers of the meanvar table.  Every scan result other than 0
// prints one newline to stderr, so a good load prints one empty line per
// number; a 0 result leaves the place unset and moves on.
void read_meanvar_block(FILE* fp, float* table, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) {
    if (feof(fp)) {
      fprintf(stderr, "%s:%d ERROR: meanvar file is broken", kSource, __LINE__);
      abort();
    }
    if (fscanf(fp, "%f", &table[i]) != 0) fputc('\n', stderr);
  }
}

}  // namespace

Tovad_predictor::Tovad_predictor(const ConfigMap& config) {
  init_default_config();
  init_predictor(config);
  init_feature_extractor(config);
  reset();
  debuger = nullptr;
}

Tovad_predictor::~Tovad_predictor() {
  UniversalPredictor::UniversalPredictorFreePredictor(predict_handler);
  delete feature_extractor;
  delete[] feature_buff;
  delete[] int8_feature_buff;
  delete[] last_score;
  delete[] frame_feats;
  delete[] int8_scores;
  delete[] int8_output;
}

std::string Tovad_predictor::get_config(const ConfigMap& user, const std::string& key) {
  return lookup_config(user, default_config, key, kSource, __LINE__);
}

void Tovad_predictor::init_default_config() {
  default_config["path_to_json"] = "";
  default_config["path_to_param"] = "";
  default_config["path_to_obm"] = "";
  default_config["n_classes"] = "2";
  default_config["am_skip_num"] = "0";
  default_config["delta_type"] = "0";
  default_config["dynamic_mean_capacity"] = "500";
  default_config["init_mfcc_mean_by_meanvar"] = "0";
  default_config["target_class"] = "1v1";
}

void Tovad_predictor::init_predictor(const ConfigMap& config) {
  const std::string path_to_json = get_config(config, "path_to_json");
  const std::string path_to_param = get_config(config, "path_to_param");
  const std::string path_to_obm = get_config(config, "path_to_obm");
  n_batch = config_to_int(get_config(config, "n_batch"));
  n_chan = config_to_int(get_config(config, "n_chan"));
  n_height = config_to_int(get_config(config, "n_height"));
  n_width = config_to_int(get_config(config, "n_width"));
  n_classes = config_to_int(get_config(config, "n_classes"));
  am_skip_num = config_to_int(get_config(config, "am_skip_num")) + 1;

  if (!path_to_obm.empty()) loadObmModel(path_to_obm);
  if (path_to_json.empty() || path_to_param.empty()) {
    fprintf(stderr, "致命错误: 请填写模型文件");
    abort();
  }
  loadMxnetModel(path_to_json, path_to_param);
  is_mxnet_model = true;

  const size_t window = static_cast<size_t>(n_batch) * n_height * n_chan * n_width;
  last_score = new float[static_cast<size_t>(n_batch) * n_classes]();
  feature_buff = new float[window]();
  int8_feature_buff = new int8_t[window]();
  // Zeroed: the extractors write nothing during their warm-up calls.
  frame_feats = new float[static_cast<size_t>(n_chan) * n_width]();
  int8_scores = new float[n_classes]();
  int8_output = new int32_t[static_cast<size_t>(n_batch) * n_classes]();
}

void Tovad_predictor::loadObmModel(const std::string&) {
  fprintf(stderr, "致命错误: OBM模型支持已关闭，请关闭DISABLE_K2_PREDICTOR后重新编译解码器\n");
  abort();
}

void Tovad_predictor::loadMxnetModel(const std::string& json_path, const std::string& param_path) {
  std::vector<char> json = read_file(json_path, true);
  std::vector<char> params = read_file(param_path, false);
  const char* input_keys[] = {"data"};
  const unsigned int shape_indptr[] = {0, 4};
  const unsigned int shape_data[] = {n_batch, n_height, n_chan, n_width};
  int ret = UniversalPredictor::UniversalPredictorCreateMxnetPredictor(
      json.data(), params.data(), static_cast<int>(params.size()), 1, 0, 1, input_keys,
      shape_indptr, shape_data, &predict_handler, nullptr);
  if (ret == 0) return;
  fprintf(stderr, "%s\n", UniversalPredictor::UniversalPredictorGetLastError(predict_handler));
  fprintf(stderr, "致命错误: 加载MXNET模型失败，请检查相关配置项\n");
  abort();
}

void Tovad_predictor::init_feature_extractor(const ConfigMap& config) {
  const std::string path_to_meanvar = get_config(config, "path_to_meanvar");
  const uint32_t block = n_chan * n_width;
  float* table = new float[2 * static_cast<size_t>(block)]();

  FILE* fp = fopen(path_to_meanvar.c_str(), "r");
  if (fp == nullptr) {
    fprintf(stderr, "%s:%d ERROR: meanvar file not found", kSource, __LINE__);
    abort();
  }
  read_meanvar_block(fp, table, block);
  read_meanvar_block(fp, table + block, block);
  float scratch;
  if (fscanf(fp, "%f", &scratch) != -1) {
    fprintf(stderr, "%s:%d ERROR: meanvar contains too much params, n_chan or n_width is wrong?",
            kSource, __LINE__);
    abort();
  }
  fclose(fp);

  dynamic_mean_capacity = config_to_int(get_config(config, "dynamic_mean_capacity"));
  const std::string feature_type = get_config(config, "feature_type");
  if (feature_type == "pcen") {
    feature_extractor = new PcenFeatureExtractor(n_width, table);
  } else if (feature_type == "fbank") {
    feature_extractor = new FbankFeatureExtractor(n_width, table);
  } else if (feature_type == "vad") {
    const int capacity = static_cast<int>(dynamic_mean_capacity);
    const float* mfcc_mean = nullptr;
    // The seeding key matters only with a running mean, and is read only then.
    if (capacity != 0 && config_to_int(get_config(config, "init_mfcc_mean_by_meanvar")) != 0) {
      mfcc_mean = table;
    }
    feature_extractor =
        new Tovad_feature_extractor(table, static_cast<int>(block), capacity, mfcc_mean);
  } else {
    abort();  // an unknown type ends here without a message
  }
  delete[] table;
}

void Tovad_predictor::push_float_frame(const float* frame) {
  const size_t block = static_cast<size_t>(n_chan) * n_width;
  if (n_height > 1) {
    memmove(feature_buff, feature_buff + block, (n_height - 1) * block * sizeof(float));
  }
  memcpy(feature_buff + (n_height - 1) * block, frame, block * sizeof(float));
}

void Tovad_predictor::push_int8_frame(const float* frame) {
  // Fixed-point window, channel-last: value w of channel c goes to c + w * n_chan.
  const size_t block = static_cast<size_t>(n_chan) * n_width;
  if (n_height > 1) memmove(int8_feature_buff, int8_feature_buff + block, (n_height - 1) * block);
  int8_t* newest = int8_feature_buff + (n_height - 1) * block;
  for (uint32_t c = 0; c < n_chan; ++c) {
    for (uint32_t w = 0; w < n_width; ++w) {
      const float v = frame[c * n_width + w];
      int8_t q;
      if (v >= 0.9921875f) {
        q = 127;
      } else if (v <= -1.0f) {
        q = -128;
      } else if (v == v) {
        q = static_cast<int8_t>(static_cast<int32_t>(v * 128.0f));  // truncates toward zero
      } else {
        q = 0;  // NaN: what the target's conversion gives
      }
      newest[c + w * n_chan] = q;
    }
  }
}

void Tovad_predictor::predict(const int16_t* pcm, float* prior, float* energy) {
  feature_extractor->getFeats(pcm, frame_feats);
  if (n_chan == 4) memset(frame_feats + 3 * n_width, 0, n_width * sizeof(float));
  if (energy != nullptr) *energy = feature_extractor->get_energy_of_current_frame();

  if (is_mxnet_model) {
    push_float_frame(frame_feats);
  } else {
    push_int8_frame(frame_feats);
  }
  if (debuger != nullptr) debuger->rt_record_compute_feats_time();

  // A period of 0 (key -1) lets only a counter of 0 through.
  const bool run_net =
      am_skip_num == 0 ? am_skip_num_counter == 0 : am_skip_num_counter % am_skip_num == 0;
  if (run_net) {
    const uint32_t window = n_height * n_chan * n_width;
    if (is_mxnet_model) {
      UniversalPredictor::UniversalPredictorSetInput(predict_handler, "data",
                                                     reinterpret_cast<const char*>(feature_buff),
                                                     UniversalPredictor::DTFloat32, window);
      UniversalPredictor::UniversalPredictorForward(predict_handler);
      UniversalPredictor::UniversalPredictorGetOutput(
          predict_handler, 0, reinterpret_cast<char*>(prior), UniversalPredictor::DTFloat32,
          n_classes, true);
    } else {
      UniversalPredictor::UniversalPredictorSetInput(
          predict_handler, "data", reinterpret_cast<const char*>(int8_feature_buff),
          UniversalPredictor::DTInt8, n_batch * window);
      UniversalPredictor::UniversalPredictorForward(predict_handler);
      UniversalPredictor::UniversalPredictorGetOutput(
          predict_handler, 0, reinterpret_cast<char*>(int8_output), UniversalPredictor::DTInt32,
          n_batch * n_classes, true);
      float sum = 0.0f;
      for (uint32_t k = 0; k < n_classes; ++k) {
        int8_scores[k] = expf(static_cast<float>(int8_output[k]));
        sum += int8_scores[k];
      }
      for (uint32_t k = 0; k < n_classes; ++k) prior[k] = int8_scores[k] / sum;
    }
    memcpy(last_score, prior, n_classes * sizeof(float));
    am_skip_num_counter = 1;
  } else {
    memcpy(prior, last_score, n_classes * sizeof(float));
    ++am_skip_num_counter;
  }
  if (debuger != nullptr) debuger->softmax_save_debug_info(prior, static_cast<int32_t>(n_classes));
}

void Tovad_predictor::pre_set_filter(const int16_t* pcm, int32_t n_frames) {
  // Only the first frame of `pcm` is fed, once per frame of the running
  // mean; the rest of the caller's audio has no effect, so it is not read
  // (the built-in noise table holds fewer frames than its caller claims).
  (void)n_frames;
  const size_t block = static_cast<size_t>(n_chan) * n_width;
  for (uint32_t i = 0; i < dynamic_mean_capacity; ++i) {
    if (n_height > 1) {
      memmove(feature_buff, feature_buff + block, (n_height - 1) * block * sizeof(float));
    }
    feature_extractor->getFeats(pcm, feature_buff + (n_height - 1) * block);
  }
}

void Tovad_predictor::reset() {
  feature_extractor->reset();
  am_skip_num_counter = 0;
  memset(feature_buff, 0,
         static_cast<size_t>(n_batch) * n_height * n_chan * n_width * sizeof(float));
}

}  // namespace Tovad_toolkit
