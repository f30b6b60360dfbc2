// The two bundled models.  The float dense net (models/dense), on windows
// taken from held-out features: its posteriors match those PyTorch computed
// when it was exported (training/export.py --check-out).  The 8-bit
// streaming default (models/default): through the engine, one frame per
// call over a whole stretch of held-out speech, every 8-bit layer output and
// the float logits equal the integer simulation that trained it
// (training/export_stream.py --check-out), bit for bit.  Through the
// toolkit, the positions do not depend on how the audio is cut into blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tools/tool_test_util.h"
#include "tovadmod/c_predict_api.h"
#include "tovadmod/tovad_api.h"

namespace {

using tovad_test::ReadBytes;

const std::string kModel = TOVAD_MODEL_DIR;
const std::string kDense = TOVAD_DENSE_MODEL_DIR;
const std::string kData = TOVAD_TEST_DATA_DIR;
constexpr uint32_t kFrameValues = 3 * 40;
// The 8-bit layers and their widths, then the dense layer's two logits.
const char* kLayers[] = {"tconv1", "tconv2", "tconv3", "tconv4", "tconv5", "fc"};
constexpr size_t kConvs = 5, kFilters = 32, kClasses = 2;
constexpr size_t kRecord = kConvs * kFilters + kClasses * sizeof(float);

TEST(StreamingModelTest, EngineOutputsEqualTheIntegerSimulationFrameByFrame) {
  const std::string json = ReadBytes(kModel + "/tovad.json");
  const std::string params = ReadBytes(kModel + "/tovad.params");
  const std::string input = ReadBytes(kData + "/streaming_model_input.f32");
  const std::string expected = ReadBytes(kData + "/streaming_model_outputs.bin");
  const size_t frames = input.size() / (kFrameValues * sizeof(float));
  ASSERT_GT(frames, 100u);
  ASSERT_EQ(input.size(), frames * kFrameValues * sizeof(float));
  ASSERT_EQ(expected.size(), frames * kRecord);

  const char* keys[] = {"data"};
  const uint32_t indptr[] = {0, 4};
  const uint32_t shape[] = {1, 1, 3, 40};
  PredictorHandle h = nullptr;
  ASSERT_EQ(MXPredCreatePartialOut(json.c_str(), params.data(), static_cast<int>(params.size()), 1,
                                   0, 1, keys, indptr, shape, kConvs + 1, kLayers, &h),
            0);
  std::vector<float> frame(kFrameValues), out(kFilters);
  size_t mismatched_frames = 0;
  for (size_t t = 0; t < frames; ++t) {
    std::memcpy(frame.data(), input.data() + t * kFrameValues * sizeof(float),
                kFrameValues * sizeof(float));
    MXPredSetInput(h, "data", frame.data(), kFrameValues);
    MXPredForward(h);
    std::string got;
    for (uint32_t i = 0; i < kConvs; ++i) {
      // An 8-bit output is copied out at its own element size.
      MXPredGetOutput(h, i, out.data(), kFilters);
      got.append(reinterpret_cast<const char*>(out.data()), kFilters);
    }
    MXPredGetOutput(h, kConvs, out.data(), kClasses);
    got.append(reinterpret_cast<const char*>(out.data()), kClasses * sizeof(float));
    if (got != expected.substr(t * kRecord, kRecord) && ++mismatched_frames <= 3) {
      ADD_FAILURE() << "frame " << t << " differs from the integer simulation";
    }
  }
  EXPECT_EQ(mismatched_frames, 0u) << "of " << frames << " frames";
  MXPredFree(h);
}

constexpr uint32_t kHeight = 20, kChan = 3, kWidth = 40;
constexpr size_t kWindow = kHeight * kChan * kWidth;

TEST(DenseModelTest, EnginePosteriorsMatchTraining) {
  const std::string json = ReadBytes(kDense + "/tovad.json");
  const std::string params = ReadBytes(kDense + "/tovad.params");
  const std::string input_bytes = ReadBytes(kData + "/default_model_input.f32");
  const size_t n = input_bytes.size() / (kWindow * sizeof(float));
  std::vector<float> input(input_bytes.size() / sizeof(float));
  std::memcpy(input.data(), input_bytes.data(), input_bytes.size());
  std::istringstream expected_text(ReadBytes(kData + "/default_model_posteriors.txt"));
  std::vector<float> expected;
  for (float v; expected_text >> v;) expected.push_back(v);
  ASSERT_EQ(expected.size(), 2 * n);  // and the input whole windows
  ASSERT_EQ(input.size(), n * kWindow);

  const char* keys[] = {"data"};
  const uint32_t indptr[] = {0, 4};
  const uint32_t shape[] = {1, kHeight, kChan, kWidth};
  PredictorHandle h = nullptr;
  ASSERT_EQ(MXPredCreate(json.c_str(), params.data(), static_cast<int>(params.size()), 1, 0, 1,
                         keys, indptr, shape, &h),
            0);
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

// Positions after each second of audio, fed in blocks of `block` samples;
// a closed segment is taken and the handle reset at that point.
std::vector<std::pair<int, int>> PositionsPerSecond(const std::vector<short>& pcm, int block) {
  void* h = Tovad_toolkit_init("tovad.conf", kModel.c_str());
  std::vector<std::pair<int, int>> out;
  int start = -1, end = -1;
  for (size_t at = 0; at < pcm.size(); at += block) {
    const int n = static_cast<int>(std::min<size_t>(block, pcm.size() - at));
    Tovad_toolkit_predict(h, n, pcm.data() + at, &start, &end);
    if ((at + n) % 16000 != 0) continue;
    out.emplace_back(start, end);
    if (end >= 0) Tovad_toolkit_reset(h, false);
  }
  Tovad_toolkit_destory(h);
  return out;
}

TEST(StreamingModelTest, ToolkitPositionsDoNotDependOnTheBlockSize) {
  const std::vector<short> pcm = tovad_test::ReadAudio(kData + "/tovad_sample.wav");
  ASSERT_GE(pcm.size(), 16000u * 5);
  const auto reference = PositionsPerSecond(pcm, 160);
  int segments = 0;
  for (const auto& p : reference) segments += p.second >= 0;
  EXPECT_GE(segments, 2);
  EXPECT_EQ(PositionsPerSecond(pcm, 1), reference);
  EXPECT_EQ(PositionsPerSecond(pcm, 16000), reference);
}

// Noise that starts after digital silence is not speech: a second of zeros
// in front of the recording moves its first segment by that second.
TEST(StreamingModelTest, ZerosInFrontDelayTheFirstSegmentByTheirLength) {
  const std::vector<short> pcm = tovad_test::ReadAudio(kData + "/tovad_sample.wav");
  std::vector<short> padded(16000, 0);
  padded.insert(padded.end(), pcm.begin(), pcm.end());
  // The start of the first segment, as the first second that has one says.
  auto first_start = [](const std::vector<short>& audio) {
    for (const auto& p : PositionsPerSecond(audio, 160))
      if (p.first >= 0) return p.first;
    return -1;
  };
  const int start = first_start(pcm);
  ASSERT_GE(start, 0);
  EXPECT_NEAR(first_start(padded), start + 100, 3);
}

}  // namespace
