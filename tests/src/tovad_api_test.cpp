// The toolkit end to end, through the exported interface of libtovadmod.so:
// the tone model scoring synthesised tone bursts.

#include "tovadmod/tovad_api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "toolkit_harness.h"

namespace {

using namespace toolkit_harness;

class ToolkitTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { audio_ = new std::vector<short>(TwoBursts()); }
  static void TearDownTestSuite() { delete audio_; }
  static std::vector<short>* audio_;
};
std::vector<short>* ToolkitTest::audio_ = nullptr;

TEST_F(ToolkitTest, FirstBurstIsTheSegmentWhateverTheBlockSize) {
  ModelFolder folder("run");
  Handle h = Open(folder.dir);
  const std::vector<Segment> frames = RunPerFrame(h.get(), *audio_);
  const Segment last = frames.back();
  for (int f = 0; f < 100; ++f) ASSERT_EQ(frames[f].start, -1) << "frame " << f;
  // The start is moved back by the opening hangover and the leading
  // silence, which cover the feature and median delays (about 7 frames);
  // the end comes 31 frames below the threshold after, behind the same
  // delays, and is the frame before the deciding one.
  EXPECT_GE(last.start, 88);
  EXPECT_LE(last.start, 106);
  EXPECT_GE(last.end, 185);
  EXPECT_LE(last.end, 225);
  // The first frame whose outputs carry the end.
  const int decided = static_cast<int>(
      std::find_if(frames.begin(), frames.end(), [](Segment s) { return s.end >= 0; }) -
      frames.begin());
  EXPECT_EQ(decided, last.end + 1);
  // Once ended, the pair is frozen through the second burst.
  for (int f = decided; f < kBurstFrames; ++f) ASSERT_EQ(frames[f], last) << "frame " << f;

  // The segment's raw samples, without the pattern the net's copy gets,
  // from its start to the newest frame.
  int n = -1;
  short* data = nullptr;
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  ASSERT_EQ(n, (kBurstFrames - last.start) * kFrame);
  EXPECT_TRUE(std::equal(data, data + n, audio_->begin() + last.start * kFrame));

  // A full reset behaves like a fresh handle, and blocks that straddle
  // frames change nothing.
  Tovad_toolkit_reset(h.get(), true);
  EXPECT_EQ(RunPerFrame(h.get(), *audio_), frames);
  for (size_t block : {1, 159, 161, 320, 16000}) {
    EXPECT_EQ(RunPerFrame(Open(folder.dir).get(), *audio_, block).back(), last) << block;
  }
}

TEST_F(ToolkitTest, GettersAndThresholdSetters) {
  ModelFolder folder("getters");
  Handle h = Open(folder.dir);
  // The hangovers come from the post-processing, not swapped.
  EXPECT_EQ(Tovad_toolkit_get_voice_to_sil_th(h.get()), 30);
  EXPECT_EQ(Tovad_toolkit_get_sil_to_voice_th(h.get()), 5);
  EXPECT_EQ(Tovad_toolkit_get_leading_sil(h.get()), 10);
  EXPECT_EQ(Tovad_toolkit_get_suspected_vad_end(h.get()), -1);
  // No suspected path: 0.0 and no effect.
  TOVAD_toolkit_set_suspected_wkp_threshold(h.get(), 0.9f);
  EXPECT_EQ(TOVAD_toolkit_get_curr_suspected_wkp_threshold(h.get()), 0.0f);
  // A threshold no posterior reaches: nothing ever opens.
  EXPECT_FLOAT_EQ(TOVAD_toolkit_get_curr_wkp_threshold(h.get()), 0.5f);
  TOVAD_toolkit_set_wkp_threshold(h.get(), 1.5f);
  EXPECT_EQ(RunPerFrame(h.get(), *audio_).back(), Segment());
}

TEST_F(ToolkitTest, SuspectedPathReportsAnEarlierEnd) {
  ModelFolder folder("suspected", ToneConf() +
                                      "compute_suspected_vad_end=1\n"
                                      "suspected_sil_to_voice_hangover=5\n"
                                      "suspected_voice_to_sil_hangover=20\n"
                                      "suspected_extra_leading_sil=10\n"
                                      "suspected_wakeup_threshold=0.5\n"
                                      "suspected_first_vad_seg_trigger_threshold=-1\n"
                                      "suspected_first_vad_seg_extra_tailing_sil=-1\n");
  Handle h = Open(folder.dir);
  EXPECT_FLOAT_EQ(TOVAD_toolkit_get_curr_suspected_wkp_threshold(h.get()), 0.5f);
  Segment out;
  int suspected_at = -1, suspected_end = -1;
  for (int f = 0; f < kBurstFrames && out.end < 0; ++f) {
    Tovad_toolkit_predict(h.get(), kFrame, audio_->data() + f * kFrame, &out.start, &out.end);
    const int s = Tovad_toolkit_get_suspected_vad_end(h.get());
    if (s >= 0 && suspected_at < 0) {
      suspected_at = f + 1;
      suspected_end = s;
    }
  }
  ASSERT_GE(out.end, 0);
  ASSERT_GT(suspected_at, 0) << "no suspected end before the main end";
  // A shorter closing hangover ends earlier.  The path's own end is the
  // frame before its deciding one (so the deciding frame fed is end + 2),
  // and the first suspected end counts from a base of -1: one less.
  EXPECT_LT(suspected_at, out.end + 2);
  EXPECT_EQ(suspected_end, suspected_at - 3);
}

TEST_F(ToolkitTest, HistoryRingOf200FramesDrops100AtFrame201) {
  // cutoff 100 frames: a ring of 200, and segments cut at 100 frames.
  ModelFolder folder("ring", ToneConf() +
                                 "cutoff_n_frame_max_vad_length=100\n"
                                 "cutoff_n_frame_min_vad_length=60\n"
                                 "cutoff_n_frame_judging=20\ncutoff_threshold=0.5\n");
  const std::vector<short> voice = ToneAudio(201, {10}, 3);
  Handle h = Open(folder.dir);
  const Segment seg = RunPerFrame(h.get(), voice).back();
  ASSERT_GE(seg.end, 0) << "the cutoff ends the segment";
  int n = 0;
  short* data = nullptr;
  testing::internal::CaptureStderr();
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  const std::string warning = testing::internal::GetCapturedStderr();
  ASSERT_EQ(n, 101 * kFrame);
  EXPECT_EQ(warning, "WARNING: vad segment too long, drop " +
                         std::to_string((201 - seg.start - 101) * kFrame) + " samples\n");
  // The ring now starts at frame 100.
  EXPECT_TRUE(std::equal(data, data + n, voice.begin() + 100 * kFrame));
}

// After each end the caller resets with `full` false: positions count from
// the deciding frame, and nothing is left to fetch.  Priming the front end
// (with the stored sound or a voiced frame) still finds both bursts; the
// voiced frame lifts the smoother, which delays the first opening.
TEST_F(ToolkitTest, ResetFalseCountsFromZeroWithOrWithoutPriming) {
  ModelFolder folder("reset_false");
  std::vector<Segment> plain;
  for (int prime : {-1, 0, 1}) {  // none, the stored sound, a voiced frame
    Handle h = Open(folder.dir);
    if (prime >= 0) {
      EXPECT_EQ(Tovad_toolkit_pre_set_filter(h.get(), 16000,
                                             prime ? audio_->data() + 120 * kFrame : nullptr),
                0);
    }
    std::vector<int> reset_at;
    const std::vector<Segment> segments = Segments(h.get(), *audio_, kFrame, &reset_at);
    ASSERT_EQ(segments.size(), 2u) << prime;
    const int base = segments[0].end + 2;  // the frames fed up to the deciding one
    EXPECT_EQ(reset_at[0], base);
    EXPECT_TRUE(segments[0].start >= 88 && segments[0].end <= 225) << prime;
    EXPECT_TRUE(segments[1].start >= 268 - base && segments[1].start <= 286 - base) << prime;
    EXPECT_TRUE(segments[1].end >= 335 - base && segments[1].end <= 375 - base) << prime;
    int n = -1;
    short* data = reinterpret_cast<short*>(1);
    Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
    EXPECT_TRUE(n == 0 && data == nullptr);
    if (prime < 0) plain = segments;
    EXPECT_EQ(segments[0].start > plain[0].start, prime == 1) << prime;
  }
}

}  // namespace
