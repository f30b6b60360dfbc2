// The streaming 8-bit VAD net of gen_stream_vad.py as a whole: through the
// prediction interface one frame a call, its logits are the integer numpy
// results bit for bit.  (The toolkit's positions with a net of this kind
// are tested on the bundled streaming model, tests/tools.)

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "tests/ruvo/net_fixture.h"

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

}  // namespace
