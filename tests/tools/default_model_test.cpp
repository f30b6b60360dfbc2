// The bundled model through the engine's prediction interface: on windows
// taken from held-out features, its posteriors must match those PyTorch
// computed when the model was exported (training/export.py --check-out).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tovadmod/c_predict_api.h"

namespace {

const std::string kModel = TOVAD_MODEL_DIR;
const std::string kData = TOVAD_TEST_DATA_DIR;
constexpr uint32_t kHeight = 20, kChan = 3, kWidth = 40;
constexpr size_t kWindow = kHeight * kChan * kWidth;

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

TEST(DefaultModelTest, EnginePosteriorsMatchTraining) {
  const std::string json = ReadBytes(kModel + "/tovad.json");
  const std::string params = ReadBytes(kModel + "/tovad.params");
  const std::string input_bytes = ReadBytes(kData + "/default_model_input.f32");
  ASSERT_EQ(input_bytes.size() % (kWindow * sizeof(float)), 0u);
  const size_t n = input_bytes.size() / (kWindow * sizeof(float));
  std::vector<float> input(n * kWindow);
  std::memcpy(input.data(), input_bytes.data(), input_bytes.size());
  std::istringstream expected_text(ReadBytes(kData + "/default_model_posteriors.txt"));
  std::vector<float> expected;
  for (float v; expected_text >> v;) expected.push_back(v);
  ASSERT_EQ(expected.size(), 2 * n);

  const char* keys[] = {"data"};
  const uint32_t indptr[] = {0, 4};
  const uint32_t shape[] = {1, kHeight, kChan, kWidth};
  PredictorHandle h = nullptr;
  ASSERT_EQ(MXPredCreate(json.c_str(), params.data(), static_cast<int>(params.size()), 1, 0, 1,
                         keys, indptr, shape, &h),
            0);
  ASSERT_NE(h, nullptr);
  for (size_t w = 0; w < n; ++w) {
    float out[2] = {-1.0f, -1.0f};
    MXPredSetInput(h, "data", input.data() + w * kWindow, kWindow);
    MXPredForward(h);
    MXPredGetOutput(h, 0, out, 2);
    // Float32 sums of 2400 products in another order: far below 1e-4.
    EXPECT_NEAR(out[0], expected[2 * w], 1e-4) << "window " << w;
    EXPECT_NEAR(out[1], expected[2 * w + 1], 1e-4) << "window " << w;
  }
  MXPredFree(h);
}

}  // namespace
