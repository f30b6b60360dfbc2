// Every exported function given arguments it cannot use: each ends in a
// line that names the call and the argument (an abort where the function
// has no error result, -1 where it has), never in a crash or a read out of
// bounds.  Behaviour the interface already fixes (short blocks, a missing
// conf file) is listed beside it.

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "toolkit_harness.h"
#include "tovadmod/c_predict_api.h"

namespace {

using toolkit_harness::kToolkitData;

// The tone model's conf with the file `from` replaced by `to`.
std::string WriteConf(const std::string& name, const std::string& from = "",
                      const std::string& to = "") {
  std::string conf = toolkit_harness::ToneConf(kToolkitData);
  if (!from.empty()) conf.replace(conf.find(from), from.size(), kToolkitData + to);
  const std::string file = testing::TempDir() + name + "_" + std::to_string(getpid()) + ".conf";
  std::ofstream(file) << conf;
  return file;
}

// Written once by the parent process; death tests fork and see them.
std::string g_good, g_no_meanvar, g_no_symbol;

struct Aborting {
  const char* name;
  std::function<void(void* vad)> call;  // gets a working handle
  const char* report;                   // regular expression of the line
};

class BadArgumentAborts : public testing::TestWithParam<Aborting> {
 public:
  static void SetUpTestSuite() {
    g_good = WriteConf("good");
    g_no_meanvar = WriteConf("nomv", kToolkitData + "tone_meanvar.txt", "none/mv");
    g_no_symbol = WriteConf("nojs", kToolkitData + "tone_model.json", "none/j.json");
  }
  static void TearDownTestSuite() {
    for (const std::string* path : {&g_good, &g_no_meanvar, &g_no_symbol}) remove(path->c_str());
  }
};

TEST_P(BadArgumentAborts, ReportsAndAborts) {
  const Aborting& c = GetParam();
  EXPECT_DEATH(
      {
        void* vad = Tovad_toolkit_init(g_good.c_str(), nullptr);
        c.call(vad);
      },
      c.report);
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
    {"MissingMeanvar", [](void*) { Tovad_toolkit_init(g_no_meanvar.c_str(), nullptr); },
     "src/tovad_predictor:[0-9]+ ERROR: meanvar file not found"},
    {"MissingSymbolFile", [](void*) { Tovad_toolkit_init(g_no_symbol.c_str(), nullptr); },
     "# Fatal error in"},
    {"MissingConf", [](void*) { Tovad_toolkit_init("/nonexistent/vad.conf", nullptr); },
     "ERROR: config file at path </nonexistent/vad.conf> not found"},
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
  const std::string conf = WriteConf("defined");
  void* vad = Tovad_toolkit_init(conf.c_str(), nullptr);
  int start = -7, end = -7;
  EXPECT_EQ(Tovad_toolkit_predict(vad, -160, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Tovad_toolkit_predict(nullptr, 0, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Tovad_toolkit_pre_set_filter(vad, -5, nullptr), 0);
  EXPECT_EQ(Tovad_toolkit_pre_set_filter(vad, 100000, nullptr), 0);
  EXPECT_EQ(Tovad_toolkit_predict(vad, 320, g_pcm, &start, &end), 0);
  EXPECT_EQ(start, -1);
  EXPECT_EQ(end, -1);
  EXPECT_EQ(Tovad_toolkit_destory(vad), 0);
  remove(conf.c_str());

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
  EXPECT_EQ(MXPredFree(nullptr), 0);
}

}  // namespace
