// The composite ("vad") front end against an independent float64 model of
// its arithmetic (gen_composite_expect.py, run at test time), and a handle
// with feature_type "vad" through the exported interface.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "src/tovad_fast_math.h"
#include "src/tovad_feature_extractor.h"
#include "toolkit_harness.h"

namespace {

using Tovad_toolkit::Tovad_feature_extractor;
using namespace toolkit_harness;

class CompositeFeaturesTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = testing::TempDir() + "composite_" + std::to_string(getpid());
    const std::string cmd = "mkdir -p " + dir_ + " && /usr/bin/python3 " TOVAD_SOURCE_DIR
                            "/tests/src/gen_composite_expect.py " + dir_;
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
  }
  static void TearDownTestSuite() {
    if (system(("rm -rf " + dir_).c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }
  static std::string dir_;
};
std::string CompositeFeaturesTest::dir_;

TEST_F(CompositeFeaturesTest, FramesMatchTheFloat64Model) {
  const std::vector<float> table = ReadAll<float>(dir_ + "/meanvar.f32");
  std::ifstream cases(dir_ + "/cases.txt");
  std::string name, signal;
  int capacity, with_table, reset_after, n_cases = 0;
  while (cases >> name >> signal >> capacity >> with_table >> reset_after) {
    SCOPED_TRACE(name + " " + std::to_string(++n_cases));
    const std::vector<int16_t> pcm = ReadAll<int16_t>(dir_ + "/" + signal + ".s16");
    const std::vector<double> want = ReadAll<double>(dir_ + "/" + name + ".f64");
    const size_t frames = pcm.size() / 160;
    ASSERT_EQ(want.size(), 48 * frames);
    // The table, when given, is applied and also seeds the running mean.
    const float* mv = with_table ? table.data() : nullptr;
    Tovad_feature_extractor ex(mv, 48, capacity, mv);
    // Per value, the largest error over the case against the value's
    // largest magnitude (the differences of the first ten frames are large).
    std::vector<double> worst(48, 0.0), scale(48, 1.0);
    float got[48];
    for (size_t f = 0; f < frames; ++f) {
      if (static_cast<int>(f) == reset_after && f > 0) ex.reset();
      ex.getFeats(pcm.data() + 160 * f, got);
      for (int i = 0; i < 48; ++i) {
        const double w = want[48 * f + i];
        // Digital silence and full-scale squares stay finite: a zero power
        // goes through the log approximation as its smallest exponent.
        ASSERT_TRUE(std::isfinite(got[i]) && std::isfinite(w)) << "frame " << f << " value " << i;
        worst[i] = std::max(worst[i], std::fabs(got[i] - w));
        scale[i] = std::max(scale[i], 1.0 + std::fabs(w));
      }
    }
    // Float rounding (6e-8) grows by up to ~1e3 in the log of bins far below
    // the spectrum's peak; the differences add up 20 and 400 such values.
    for (int i = 0; i < 48; ++i) EXPECT_LE(worst[i] / scale[i], i < 16 ? 1e-4 : 1e-3) << i;
  }
  EXPECT_EQ(n_cases, 9);
}

// The model shares the log2 and square-root approximations, so they must
// stay exactly these, not the exact functions.  The comparison above sees a
// change to the log2 one only beyond its tolerance, and none to the square
// root's two Newton steps, whose errors are too small to show in the
// features: both are pinned here.
TEST(SharedApproximationTest, ValuesAndErrorBounds) {
  using Tovad_toolkit::fast_log2;
  for (int e = -20; e <= 40; ++e) EXPECT_EQ(fast_log2(std::ldexp(1.0f, e)), e) << "x = 2^" << e;
  // 3 = 4 x 0.75: 2 + 0.75 x (0.75 x -4/3 + 4) - 2/3 - 2 = 1.5833...
  EXPECT_NEAR(fast_log2(3.0f), 1.5833334f, 1e-6f);
  double worst = 0;
  for (float x = 1e-8f; x < 1e12f; x *= 1.0137f) {
    const double exact = std::sqrt(static_cast<double>(x));
    worst = std::max(worst, std::fabs(Tovad_toolkit::fast_sqrt(x) - exact) / exact);
  }
  // A few millionths.
  EXPECT_LT(worst, 1e-5);
  EXPECT_GT(worst, 1e-7);
}

TEST(CompositeFeaturesDeathTest, MeanvarOfAnotherSizeAbortsAtTheFirstFrame) {
  std::vector<float> table(2 * 64, 1.0f);
  Tovad_feature_extractor ex(table.data(), 64, 0, nullptr);
  std::vector<int16_t> pcm(160, 0);
  float out[64];
  EXPECT_DEATH(ex.getFeats(pcm.data(), out),
               "^src/tovad_feature_extractor:29 :ERROR: internal dim is 48, but meanvar dim is 64$");
}

// The small model written by the generator scores the clarity (value 13)
// over five frames of the sample recording.
TEST_F(CompositeFeaturesTest, HandleFindsTheFirstSentenceInBlocksOfAnySize) {
  std::ofstream(dir_ + "/vad.conf")
      << "path_to_json=vad_model.json\npath_to_param=vad_model.params\n"
         "path_to_meanvar=vad_meanvar.txt\nfeature_type=vad\n"
         "n_batch=1\nn_chan=1\nn_height=5\nn_width=48\nn_classes=2\ntarget_class=1\n"
         "wakeup_threshold=0.5\nsil_to_voice_hangover=5\nvoice_to_sil_hangover=30\n"
         "extra_leading_sil=10\ncutoff_n_frame_max_vad_length=0\n";
  const std::vector<short> pcm =
      ReadAll<short>(TOVAD_SOURCE_DIR "/tests/data/tovad_sample.wav", 44);  // past the header
  const Segment seg = RunPerFrame(Open(dir_).get(), pcm).back();
  // The first sentence is spoken from 0.81 s to 3.29 s; the end comes
  // after 30 frames of closing hangover and the median delay.
  EXPECT_TRUE(seg.start >= 60 && seg.start <= 85) << seg.start;
  EXPECT_TRUE(seg.end >= 330 && seg.end <= 400) << seg.end;
  for (size_t block : {1, 16000}) EXPECT_EQ(RunPerFrame(Open(dir_).get(), pcm, block).back(), seg);
}

}  // namespace
