// Every exported function given arguments it cannot use, and start-up given
// files it cannot use: each ends in a line that names the call, the argument
// or the file (an abort where the function has no error result, -1 where it
// has), never in a crash or a read out of bounds.  Behaviour the interface
// already fixes (short blocks) is listed beside it.

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "toolkit_harness.h"
#include "tovadmod/c_predict_api.h"

namespace {

using namespace toolkit_harness;

// The tone model and broken copies of its files, made once by the parent;
// death tests fork and see them.
std::unique_ptr<ModelFolder> g_folder;

// Writes `conf` as the folder's vad.conf and starts a handle from it, through
// the prefix or (prefixed false) by the file's full path.
void* InitConf(const std::string& conf, bool prefixed = true) {
  const std::string& dir = g_folder->dir;
  std::ofstream(dir + "/vad.conf") << conf;
  return prefixed ? Tovad_toolkit_init("vad.conf", dir.c_str())
                  : Tovad_toolkit_init((dir + "/vad.conf").c_str(), nullptr);
}

// The tone conf (model paths behind `model_dir`) with `from` replaced by `to`.
std::string Edit(const std::string& from, const std::string& to,
                 const std::string& model_dir = "") {
  std::string conf = ToneConf(model_dir);
  return conf.replace(conf.find(from), from.size(), to);
}

struct Aborting {
  const char* name;
  std::function<void(void* vad)> call;  // gets a working handle
  const char* report;                   // regular expression of the line
};

class BadArgumentAborts : public testing::TestWithParam<Aborting> {
 public:
  static void SetUpTestSuite() {
    g_folder.reset(new ModelFolder("bad_args"));
    ASSERT_EQ(system(("cd " + g_folder->dir +
                      " && (cat tone_meanvar.txt; echo 1) > long_mv.txt"
                      " && head -c 200 tone_meanvar.txt > short_mv.txt"
                      " && sed s/SoftmaxActivation/NoSuchOperator/ tone_model.json > bad.json")
                         .c_str()),
              0);
  }
  static void TearDownTestSuite() { g_folder.reset(); }
};

TEST_P(BadArgumentAborts, ReportsAndAborts) {
  const Aborting& c = GetParam();
  EXPECT_DEATH(c.call(InitConf(ToneConf())), c.report);
}

short g_pcm[320];
int g_pos = -1;
short* g_data = nullptr;
float g_in[600];

const Aborting kAborting[] = {
    {"InitNullConf", [](void*) { Tovad_toolkit_init(nullptr, "/tmp"); },
     "ERROR: Tovad_toolkit_init called with a null config_file"},
    {"PredictNullHandle", [](void*) { Tovad_toolkit_predict(nullptr, 160, g_pcm, &g_pos, &g_pos); },
     "src/tovad_api:[0-9]+ ERROR: Tovad_toolkit_predict called with a null handle"},
    {"PredictNullPcm", [](void* v) { Tovad_toolkit_predict(v, 160, nullptr, &g_pos, &g_pos); },
     "Tovad_toolkit_predict called with a null pcm"},
    {"PredictNullStart", [](void* v) { Tovad_toolkit_predict(v, 160, g_pcm, nullptr, &g_pos); },
     "Tovad_toolkit_predict called with a null vad_start"},
    {"PredictNullEnd", [](void* v) { Tovad_toolkit_predict(v, 160, g_pcm, &g_pos, nullptr); },
     "Tovad_toolkit_predict called with a null vad_end"},
    {"SegmentNullCount",
     [](void* v) { Tovad_toolkit_get_vad_segment_raw_data(v, nullptr, &g_data); },
     "Tovad_toolkit_get_vad_segment_raw_data called with a null n_samples"},
    {"SegmentNullData", [](void* v) { Tovad_toolkit_get_vad_segment_raw_data(v, &g_pos, nullptr); },
     "Tovad_toolkit_get_vad_segment_raw_data called with a null data"},
    {"ResetNullHandle", [](void*) { Tovad_toolkit_reset(nullptr, true); },
     "Tovad_toolkit_reset called with a null handle"},
    {"DestroyNullHandle", [](void*) { Tovad_toolkit_destory(nullptr); },
     "Tovad_toolkit_destory called with a null handle"},
    {"PreSetNullHandle", [](void*) { Tovad_toolkit_pre_set_filter(nullptr, 0, nullptr); },
     "Tovad_toolkit_pre_set_filter called with a null handle"},
    {"GettersNullHandle", [](void*) { Tovad_toolkit_check_sil_frame(nullptr); },
     "Tovad_toolkit_check_sil_frame called with a null handle"},
    {"SetterNullHandle", [](void*) { TOVAD_toolkit_set_wkp_threshold(nullptr, 0.5f); },
     "TOVAD_toolkit_set_wkp_threshold called with a null handle"},
    {"MissingConf", [](void*) { Tovad_toolkit_init("/nonexistent/vad.conf", nullptr); },
     "ERROR: config file at path </nonexistent/vad.conf> not found"},
    {"MissingMeanvar", [](void*) { InitConf(Edit("tone_meanvar.txt", "none.txt")); },
     "src/tovad_predictor:[0-9]+ ERROR: meanvar file not found"},
    {"MeanvarOneTooMany", [](void*) { InitConf(Edit("tone_meanvar.txt", "long_mv.txt")); },
     "src/tovad_predictor:[0-9]+ ERROR: meanvar contains too much params, n_chan or n_width "
     "is wrong\\?"},
    {"MeanvarShort", [](void*) { InitConf(Edit("tone_meanvar.txt", "short_mv.txt")); },
     "src/tovad_predictor:[0-9]+ ERROR: meanvar file is broken"},
    {"MissingSymbolFile", [](void*) { InitConf(Edit("tone_model.json", "none.json")); },
     "# Fatal error in"},
    {"UnloadableModel", [](void*) { InitConf(Edit("tone_model.json", "bad.json")); },
     "not support MXGetLastErr currently!\n致命错误: 加载MXNET模型失败，请检查相关配置项"},
    // An empty model path behind a prefix names the folder; without one it
    // stays empty.
    {"EmptyModelPathBehindPrefix", [](void*) { InitConf(Edit("tone_model.json", "")); },
     "# Check failed: cJSON_HasObjectItem\\(symbol_str, \"nodes\"\\) == 1"},
    {"EmptyModelPathWithoutPrefix",
     [](void*) {
       InitConf(Edit(g_folder->dir + "/tone_model.json", "", g_folder->dir + "/"), false);
     },
     "致命错误: 请填写模型文件"},
    {"ObmPathSet", [](void*) { InitConf(ToneConf() + "path_to_obm=model.obm\n"); },
     "致命错误: OBM模型支持已关闭，请关闭DISABLE_K2_PREDICTOR后重新编译解码器"},
    {"FeatureTypeFbank", [](void*) { InitConf(ToneConf() + "feature_type=fbank\n"); },
     "错误: fbank的特征维度只能为40或者80, 输入的维度为0"},
    {"FeatureTypeCapitalised", [](void*) { InitConf(ToneConf() + "feature_type=Fbank\n"); }, ""},
    {"PredForwardNullHandle", [](void*) { MXPredForward(nullptr); },
     "MXPredForward: null predictor handle"},
    {"PredSetInputNullHandle", [](void*) { MXPredSetInput(nullptr, "data", g_in, 600); },
     "MXPredSetInput: null predictor handle"},
    {"PredGetOutputNullHandle", [](void*) { MXPredGetOutput(nullptr, 0, g_in, 2); },
     "MXPredGetOutput: null predictor handle"},
};

INSTANTIATE_TEST_SUITE_P(Cases, BadArgumentAborts, testing::ValuesIn(kAborting),
                         [](const testing::TestParamInfo<Aborting>& i) { return i.param.name; });

// Arguments the interface defines a result for: the call returns it and
// the handle keeps working.
TEST(BadArguments, DefinedResults) {
  ModelFolder folder("defined");
  Handle h = Open(folder.dir);
  void* vad = h.get();
  int start = 123, end = 456;
  EXPECT_EQ(Tovad_toolkit_predict(vad, -160, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Tovad_toolkit_predict(nullptr, 0, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Tovad_toolkit_pre_set_filter(vad, -5, nullptr), 0);
  EXPECT_EQ(Tovad_toolkit_pre_set_filter(vad, 100000, nullptr), 0);
  // Part of a frame leaves the outputs untouched; the sample that completes
  // it writes both.
  for (int n : {0, -5, 159}) EXPECT_EQ(Tovad_toolkit_predict(vad, n, g_pcm, &start, &end), 0);
  EXPECT_TRUE(start == 123 && end == 456);
  EXPECT_EQ(Tovad_toolkit_predict(vad, 1, g_pcm, &start, &end), 0);
  EXPECT_TRUE(start == -1 && end == -1);

  // The create calls' failure result, with *out as each one defines it.
  const char* keys[] = {"data"};
  const uint32_t indptr[] = {0, 4};
  const uint32_t shape[] = {1, 5, 3, 40};
  const char bytes[8] = {};
  PredictorHandle out = &out;
  testing::internal::CaptureStderr();
  EXPECT_EQ(MXPredCreate(nullptr, bytes, 8, 1, 0, 1, keys, indptr, shape, &out), -1);
  EXPECT_EQ(MXPredCreate("{}", bytes, -8, 1, 0, 1, keys, indptr, shape, &out), -1);
  EXPECT_EQ(MXPredCreate("{}", nullptr, 8, 1, 0, 1, keys, indptr, shape, &out), -1);
  EXPECT_EQ(MXPredCreate("{}", bytes, 8, 1, 0, 1, nullptr, indptr, shape, &out), -1);
  EXPECT_EQ(MXPredCreate("{}", bytes, 8, 1, 0, 1, keys, indptr, shape, nullptr), -1);
  EXPECT_EQ(out, &out);
  EXPECT_EQ(MXPredCreatePartialOut("{}", bytes, 8, 1, 0, 1, keys, indptr, shape, 1, nullptr, &out),
            -1);
  EXPECT_EQ(out, nullptr);
  const std::string err = testing::internal::GetCapturedStderr();
  for (const char* line :
       {"MXPredCreate: null symbol text\n", "MXPredCreate: bad parameter block\n",
        "MXPredCreate: null input description\n", "MXPredCreate: null handle pointer\n",
        "MXPredCreatePartialOut: null output keys\n"}) {
    EXPECT_NE(err.find(line), std::string::npos) << line << err;
  }
}

}  // namespace
