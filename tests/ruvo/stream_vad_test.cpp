// The streaming 8-bit VAD net of gen_stream_vad.py as a whole: through the
// prediction interface one frame a call, its logits are the integer numpy
// results bit for bit; through a toolkit handle on the sample recording,
// the positions do not depend on how the audio is split into calls.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "tests/ruvo/net_fixture.h"
#include "tovadmod/tovad_api.h"

namespace {

constexpr uint32_t kFrame = 3 * 40;  // features of one frame

TEST(StreamVadTest, LogitsOneFrameACallMatchNumpy) {
  net_test::Model m = net_test::LoadModel("stream_vad");
  const net_test::Tensor& feats = m.cases.at(0).inputs.at(0).second;
  const std::vector<float>& want = m.cases.at(0).outputs.at("fc3").values;
  PredictorHandle h = net_test::CreateForData(m, {1, 1, 3, 40});
  ASSERT_NE(h, nullptr);
  MXResetInterBuff(h);
  std::vector<float> logits, posteriors(2);
  for (uint32_t t = 0; t < feats.shape[0]; ++t) {
    MXPredSetInput(h, "data", feats.values.data() + t * kFrame, kFrame);
    MXPredForward(h);
    float l[2];
    MXPredGetOutput(h, 1, l, 2);
    logits.insert(logits.end(), l, l + 2);
    MXPredGetOutput(h, 0, posteriors.data(), 2);
    // The softmax is float arithmetic: only its sense is checked here.
    EXPECT_NEAR(posteriors[1], 1.0f / (1.0f + std::exp(l[0] - l[1])), 1e-6f) << "frame " << t;
  }
  EXPECT_EQ(logits, want);
  MXPredFree(h);
}

// 16-bit mono samples of a canonical WAV file.
std::vector<short> ReadWav(const std::string& path) {
  const std::string bytes = net_test::ReadFile(path);
  for (size_t at = 12; at + 8 <= bytes.size();) {
    uint32_t size = 0;
    std::memcpy(&size, bytes.data() + at + 4, 4);
    if (bytes.compare(at, 4, "data") == 0) {
      std::vector<short> pcm(std::min<size_t>(size, bytes.size() - at - 8) / 2);
      std::memcpy(pcm.data(), bytes.data() + at + 8, pcm.size() * 2);
      return pcm;
    }
    at += 8 + size + (size & 1);
  }
  ADD_FAILURE() << "no data chunk in " << path;
  return {};
}

TEST(StreamVadTest, ToolkitPositionsDoNotDependOnTheBlockSize) {
  const std::string data = TOVAD_TEST_DATA_DIR;
  const std::string dir = testing::TempDir() + "/stream_vad_" + std::to_string(getpid());
  ASSERT_EQ(system(("mkdir -p " + dir + " && cp " + data + "/net/stream_vad-symbol.json " + data +
                    "/net/stream_vad.params " + TOVAD_SOURCE_DIR +
                    "/models/dense/tovad.meanvar " + dir)
                       .c_str()),
            0);
  // The dense model's front end and decisions, with a window of one frame:
  // the net keeps the history itself.
  std::ofstream(dir + "/vad.conf") << "path_to_json=stream_vad-symbol.json\n"
                                      "path_to_param=stream_vad.params\n"
                                      "path_to_meanvar=tovad.meanvar\n"
                                      "feature_type=pcen\n"
                                      "n_batch=1\nn_chan=3\nn_height=1\nn_width=40\nn_classes=2\n"
                                      "target_class=1\nam_skip_num=0\n"
                                      "sil_to_voice_hangover=9\nvoice_to_sil_hangover=29\n"
                                      "extra_leading_sil=20\nwakeup_threshold=0.2\n"
                                      "cutoff_n_frame_max_vad_length=0\n";
  const std::vector<short> pcm = ReadWav(data + "/tovad_sample.wav");
  ASSERT_GE(pcm.size(), 16000u * 3);

  // Positions at every second of audio, where all block sizes meet.
  std::vector<std::vector<int>> seen;
  for (int block : {1, 160, 16000}) {
    testing::internal::CaptureStderr();
    void* h = Tovad_toolkit_init("vad.conf", dir.c_str());
    testing::internal::GetCapturedStderr();
    std::vector<int> positions;
    int start = -1, end = -1;
    for (size_t at = 0; at < pcm.size(); at += block) {
      const int n = static_cast<int>(std::min<size_t>(block, pcm.size() - at));
      Tovad_toolkit_predict(h, n, pcm.data() + at, &start, &end);
      if ((at + n) % 16000 == 0) positions.insert(positions.end(), {start, end});
    }
    Tovad_toolkit_destory(h);
    seen.push_back(positions);
  }
  EXPECT_EQ(seen[1], seen[0]) << "blocks of 160 against 1";
  EXPECT_EQ(seen[2], seen[0]) << "blocks of 16000 against 1";
  // Speech starts 0.81 s in and pauses at 3.29 s: a segment opens (moved
  // 20 frames back) and closes within the first five seconds.
  ASSERT_GE(seen[0].size(), 10u);
  EXPECT_GE(seen[0][8], 0) << "start by 5 s";
  EXPECT_GT(seen[0][9], seen[0][8]) << "end by 5 s";
  EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

}  // namespace
