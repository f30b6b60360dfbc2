// The toolkit end to end, through the exported interface of libtovadmod.so:
// the tone model scoring synthesised tone bursts.

#include "tovadmod/tovad_api.h"

#include <gtest/gtest.h>

#include <fstream>
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

// The index of the first frame whose outputs carry an end.
int FirstEnd(const std::vector<Segment>& frames) {
  for (size_t i = 0; i < frames.size(); ++i) {
    if (frames[i].end >= 0) return static_cast<int>(i);
  }
  return -1;
}

TEST_F(ToolkitTest, FirstBurstIsTheSegmentWhateverTheBlockSize) {
  ModelFolder folder("run");
  Handle h(folder.dir);
  int n = -1;
  short* data = reinterpret_cast<short*>(1);
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(n, 0);

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
  const int decided = FirstEnd(frames);
  EXPECT_EQ(decided, last.end + 1);
  // Once ended, the pair is frozen through the second burst.
  for (int f = decided; f < kBurstFrames; ++f) ASSERT_EQ(frames[f], last) << "frame " << f;

  // The segment's raw samples, without the pattern the net's copy gets,
  // from its start to the newest frame.
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  ASSERT_EQ(n, (kBurstFrames - last.start) * kFrame);
  EXPECT_TRUE(std::equal(data, data + n, audio_->begin() + last.start * kFrame));

  // A full reset behaves like a fresh handle, and blocks that straddle
  // frames change nothing.
  Tovad_toolkit_reset(h.get(), true);
  EXPECT_EQ(RunPerFrame(h.get(), *audio_), frames);
  for (size_t block : {1, 159, 161, 320, 16000}) {
    Handle other(folder.dir);
    EXPECT_EQ(RunPerFrame(other.get(), *audio_, block).back(), last) << "block " << block;
  }
}

TEST_F(ToolkitTest, PartialFramesLeaveTheOutputsUntouched) {
  ModelFolder folder("partial");
  Handle h(folder.dir);
  int start = 123, end = 456;
  for (int n : {0, -5, 159}) {
    EXPECT_EQ(Tovad_toolkit_predict(h.get(), n, audio_->data(), &start, &end), 0);
  }
  EXPECT_EQ(start, 123);
  EXPECT_EQ(end, 456);
  // The 160th sample completes a frame, which writes both.
  Tovad_toolkit_predict(h.get(), 1, audio_->data() + 159, &start, &end);
  EXPECT_EQ(start, -1);
  EXPECT_EQ(end, -1);
}

TEST_F(ToolkitTest, ResetFalseCountsFromZeroAndFindsTheNextSegment) {
  ModelFolder folder("reset_false");
  Handle h(folder.dir);
  std::vector<int> reset_at;
  const std::vector<Segment> segments = Segments(h.get(), *audio_, kFrame, &reset_at);
  ASSERT_EQ(segments.size(), 2u);
  // The reset came after the deciding frame; the second burst (frames
  // 280-330) is measured from there.
  const int base = segments[0].end + 2;
  EXPECT_EQ(reset_at[0], base);
  EXPECT_GE(segments[1].start, 268 - base);
  EXPECT_LE(segments[1].start, 286 - base);
  EXPECT_GE(segments[1].end, 335 - base);
  EXPECT_LE(segments[1].end, 375 - base);
  // After a reset nothing is there to fetch.
  int n = -1;
  short* data = reinterpret_cast<short*>(1);
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(data, nullptr);
}

TEST_F(ToolkitTest, GettersAndThresholdSetters) {
  ModelFolder folder("getters");
  Handle h(folder.dir);
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
  Handle h(folder.dir);
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
  const std::vector<short> voice = ToneAudio(201, {{10, 201}}, 3);
  Handle h(folder.dir);
  const Segment seg =
      RunPerFrame(h.get(), std::vector<short>(voice.begin(), voice.begin() + 200 * kFrame)).back();
  ASSERT_GE(seg.start, 0);
  ASSERT_GE(seg.end, 0) << "the cutoff ends the segment";
  int n = 0;
  short* data = nullptr;
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  EXPECT_EQ(n, (200 - seg.start) * kFrame);

  int start, end;
  Tovad_toolkit_predict(h.get(), kFrame, voice.data() + 200 * kFrame, &start, &end);
  testing::internal::CaptureStderr();
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  const std::string warning = testing::internal::GetCapturedStderr();
  ASSERT_EQ(n, 101 * kFrame);
  EXPECT_EQ(warning, "WARNING: vad segment too long, drop " +
                         std::to_string((201 - seg.start - 101) * kFrame) + " samples\n");
  // The ring now starts at frame 100.
  EXPECT_TRUE(std::equal(data, data + n, voice.begin() + 100 * kFrame));
}

TEST_F(ToolkitTest, PreSetFilterPrimesTheFrontEnd) {
  ModelFolder folder("preset");
  std::vector<Segment> plain;
  {
    Handle h(folder.dir);
    plain = RunPerFrame(h.get(), *audio_);
  }
  for (bool own_audio : {false, true}) {
    Handle h(folder.dir), again(folder.dir);
    const short* audio = own_audio ? audio_->data() : nullptr;
    EXPECT_EQ(Tovad_toolkit_pre_set_filter(h.get(), own_audio ? 16000 : 0, audio), 0);
    // Primed with the recording's own audio, the smoother starts where that
    // audio is, which changes the first decisions...
    EXPECT_FALSE(own_audio && RunPerFrame(h.get(), *audio_) == plain);
    // ...and the bursts are still found.
    Tovad_toolkit_pre_set_filter(again.get(), 16000, audio);
    std::vector<int> reset_at;
    const std::vector<Segment> segments = Segments(again.get(), *audio_, kFrame, &reset_at);
    auto covers = [&](int frame) {
      for (size_t k = 0; k < segments.size(); ++k) {
        const int base = k == 0 ? 0 : reset_at[k - 1];
        if (base + segments[k].start <= frame && frame <= base + segments[k].end) return true;
      }
      return false;
    };
    EXPECT_TRUE(covers(140) && covers(305) && !covers(250)) << own_audio;
  }
}

// Start-up failures print their line and abort.
struct InitFailure {
  const char* name;
  std::string conf;
  std::string extra;    // shell command run in the model folder first
  std::string message;  // regex
};

void PrintTo(const InitFailure& c, std::ostream* os) { *os << c.name; }

std::string EmptyJsonPath(const std::string& conf) {
  return "path_to_json=\n" + conf.substr(conf.find('\n') + 1);
}

class ToolkitInitDeathTest : public testing::TestWithParam<InitFailure> {};

TEST_P(ToolkitInitDeathTest, AbortsWithItsMessage) {
  const InitFailure& c = GetParam();
  ModelFolder folder(std::string("death_") + c.name, c.conf);
  if (!c.extra.empty()) {
    ASSERT_EQ(system(("cd " + folder.dir + " && " + c.extra).c_str()), 0);
  }
  EXPECT_DEATH(Tovad_toolkit_init("vad.conf", folder.dir.c_str()), c.message);
}

INSTANTIATE_TEST_SUITE_P(
    Toolkit, ToolkitInitDeathTest,
    testing::Values(
        InitFailure{"MeanvarOneTooMany", ToneConf(), "echo 1 >> tone_meanvar.txt",
                    "src/tovad_predictor:[0-9]+ ERROR: meanvar contains too much params, "
                    "n_chan or n_width is wrong\\?"},
        InitFailure{"MeanvarShort", ToneConf(),
                    "head -c 200 tone_meanvar.txt > m && mv m tone_meanvar.txt",
                    "src/tovad_predictor:[0-9]+ ERROR: meanvar file is broken"},
        InitFailure{"ObmPathSet", ToneConf() + "path_to_obm=model.obm\n", "",
                    "致命错误: OBM模型支持已关闭，请关闭DISABLE_K2_PREDICTOR后重新编译解码器"},
        // An empty value behind a prefix names the model folder, no model.
        InitFailure{"EmptyModelPathBehindPrefix", EmptyJsonPath(ToneConf()), "",
                    "# Check failed: cJSON_HasObjectItem\\(symbol_str, \"nodes\"\\) == 1"},
        InitFailure{"FeatureTypeFbank", ToneConf() + "feature_type=fbank\n", "",
                    "错误: fbank的特征维度只能为40或者80, 输入的维度为0"},
        InitFailure{"FeatureTypeCapitalised", ToneConf() + "feature_type=Fbank\n", "", ""},
        InitFailure{
            "UnloadableModel", ToneConf(),
            "sed -i 's/SoftmaxActivation/NoSuchOperator/' tone_model.json",
            "not support MXGetLastErr currently!\n致命错误: 加载MXNET模型失败，请检查相关配置项"}),
    [](const testing::TestParamInfo<InitFailure>& info) { return info.param.name; });

TEST(ToolkitInitDeathTest, EmptyModelPathWithoutPrefixIsRefused) {
  // Without a prefix an empty path stays empty.
  ModelFolder folder("empty_path_plain");
  std::ofstream(folder.dir + "/vad.conf") << EmptyJsonPath(ToneConf(folder.dir + "/"));
  EXPECT_DEATH(Tovad_toolkit_init((folder.dir + "/vad.conf").c_str(), nullptr),
               "致命错误: 请填写模型文件");
}

}  // namespace
