// The toolkit end to end, through the exported interface of libtovadmod.so:
// a conf file, a meanvar file and a small dense model scoring harmonic
// tone bursts (tests/data/toolkit/gen_toolkit_model.py), fed synthesised
// audio.

#include "tovadmod/tovad_api.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace {

const std::string kDataDir = std::string(TOVAD_TEST_DATA_DIR) + "/toolkit";
constexpr int kFrame = 160;

// Voiced stretches, in frames of 10 ms.
struct Region {
  int begin, end;
};

// Low-level noise everywhere, and in each region a tone with four
// harmonics, a wandering pitch and a syllable-rate envelope.
std::vector<short> MakeAudio(int n_frames, const std::vector<Region>& voiced, uint32_t seed = 7) {
  std::vector<short> pcm(static_cast<size_t>(n_frames) * kFrame);
  uint64_t state = seed;
  auto uniform = [&state]() {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return ((state >> 11) + 0.5) / 9007199254740992.0;
  };
  double phase = 0.0;
  for (int f = 0; f < n_frames; ++f) {
    const Region* region = nullptr;
    for (const Region& r : voiced) {
      if (f >= r.begin && f < r.end) region = &r;
    }
    for (int i = 0; i < kFrame; ++i) {
      // Box-Muller: Gaussian noise of deviation 30.
      double v = 30.0 * std::sqrt(-2.0 * std::log(uniform())) * std::cos(2 * M_PI * uniform());
      if (region != nullptr) {
        const double t = (f - region->begin) / 100.0 + i / 16000.0;
        phase += 2 * M_PI * (180.0 + 40.0 * std::sin(2 * M_PI * 1.5 * t)) / 16000.0;
        const double env = 0.6 + 0.4 * std::sin(2 * M_PI * 4.0 * t);
        v += 3000.0 * env *
             (std::sin(phase) + 0.6 * std::sin(2 * phase) + 0.4 * std::sin(3 * phase) +
              0.2 * std::sin(4 * phase));
      }
      pcm[static_cast<size_t>(f) * kFrame + i] = static_cast<short>(std::lround(v));
    }
  }
  return pcm;
}

// Two bursts: frames 100-180 and 280-330, in 4.8 s.
const std::vector<Region> kTwoBursts = {{100, 180}, {280, 330}};
constexpr int kTwoBurstsFrames = 480;

std::string BaseConf() {
  return "path_to_json=tone_model.json\n"
         "path_to_param=tone_model.params\n"
         "path_to_meanvar=tone_meanvar.txt\n"
         "feature_type=pcen\n"
         "n_batch=1\nn_chan=3\nn_height=5\nn_width=40\nn_classes=2\n"
         "target_class=1\n"
         "wakeup_threshold=0.5\n"
         "sil_to_voice_hangover=5\n"
         "voice_to_sil_hangover=30\n"
         "extra_leading_sil=10\n"
         "cutoff_n_frame_max_vad_length=0\n";
}

// Writes `text` as a conf file next to the copied-in model, so the model
// paths resolve through the prefix rule.
std::string WriteConf(const std::string& name, const std::string& text) {
  // Per process: CTest runs the cases in parallel, also from other builds.
  const std::string dir = testing::TempDir() + "/toolkit_" + std::to_string(getpid()) + "_" + name;
  EXPECT_EQ(system(("mkdir -p " + dir + " && cp " + kDataDir + "/tone_* " + dir).c_str()), 0);
  std::ofstream(dir + "/vad.conf") << text;
  return dir;
}

// Removes this process's conf folders when the cases are done.
class ConfFolders : public testing::Environment {
 public:
  void TearDown() override {
    const std::string pattern = testing::TempDir() + "/toolkit_" + std::to_string(getpid()) + "_*";
    if (system(("rm -rf " + pattern).c_str()) != 0) ADD_FAILURE() << "could not remove " << pattern;
  }
};
testing::Environment* const conf_folders = testing::AddGlobalTestEnvironment(new ConfFolders);

class Handle {
 public:
  explicit Handle(const std::string& dir, bool quiet = true) {
    if (quiet) testing::internal::CaptureStderr();
    h_ = Tovad_toolkit_init("vad.conf", dir.c_str());
    if (quiet) testing::internal::GetCapturedStderr();
  }
  ~Handle() { Tovad_toolkit_destory(h_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  void* get() const { return h_; }

 private:
  void* h_;
};

struct Outputs {
  int start = -1;
  int end = -1;
  bool operator==(const Outputs& o) const { return start == o.start && end == o.end; }
};

// Feeds `pcm` frame by frame; returns the outputs after each frame.
std::vector<Outputs> RunPerFrame(void* h, const std::vector<short>& pcm) {
  std::vector<Outputs> out;
  Outputs cur;
  for (size_t at = 0; at + kFrame <= pcm.size(); at += kFrame) {
    Tovad_toolkit_predict(h, kFrame, pcm.data() + at, &cur.start, &cur.end);
    out.push_back(cur);
  }
  return out;
}

// The first frame (1-based, as frames are counted) at which `end` is set.
int FirstEndFrame(const std::vector<Outputs>& per_frame) {
  for (size_t i = 0; i < per_frame.size(); ++i) {
    if (per_frame[i].end >= 0) return static_cast<int>(i) + 1;
  }
  return -1;
}

class ToolkitTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    audio_ = new std::vector<short>(MakeAudio(kTwoBurstsFrames, kTwoBursts));
  }
  static void TearDownTestSuite() { delete audio_; }
  static std::vector<short>* audio_;
};
std::vector<short>* ToolkitTest::audio_ = nullptr;

TEST_F(ToolkitTest, SegmentOpensAndClosesAroundTheFirstBurst) {
  const std::string dir = WriteConf("base", BaseConf());
  Handle h(dir);
  std::vector<Outputs> frames = RunPerFrame(h.get(), *audio_);

  for (int f = 0; f < 100; ++f) ASSERT_EQ(frames[f].start, -1) << "frame " << f + 1;
  const Outputs final_out = frames.back();
  // The start is moved back by the opening hangover and the leading
  // silence, which cover the feature and median delays (about 7 frames).
  EXPECT_GE(final_out.start, 88);
  EXPECT_LE(final_out.start, 106);
  // The end is the frame before the one that decides, after 31 frames
  // below the threshold, behind the same delays.  Positions count frames
  // from 0, so the deciding frame is the (end + 2)th fed.
  EXPECT_GE(final_out.end, 185);
  EXPECT_LE(final_out.end, 225);
  const int end_frame = FirstEndFrame(frames);
  EXPECT_EQ(end_frame, final_out.end + 2);

  // Once ended, the pair is frozen through the second burst.
  for (int f = end_frame - 1; f < kTwoBurstsFrames; ++f) {
    ASSERT_TRUE(frames[f] == final_out) << "frame " << f + 1;
  }
}

TEST_F(ToolkitTest, PositionsDoNotDependOnTheBlockSize) {
  const std::string dir = WriteConf("blocks", BaseConf());
  Outputs reference;
  {
    Handle h(dir);
    reference = RunPerFrame(h.get(), *audio_).back();
  }
  ASSERT_GE(reference.end, 0);
  for (int block : {1, 159, 160, 161, 320, 16000}) {
    Handle h(dir);
    Outputs out;
    for (size_t at = 0; at < audio_->size(); at += block) {
      const int n = static_cast<int>(std::min<size_t>(block, audio_->size() - at));
      Tovad_toolkit_predict(h.get(), n, audio_->data() + at, &out.start, &out.end);
    }
    EXPECT_EQ(out.start, reference.start) << "block " << block;
    EXPECT_EQ(out.end, reference.end) << "block " << block;
  }
}

TEST_F(ToolkitTest, PartialFramesLeaveTheOutputsUntouched) {
  const std::string dir = WriteConf("partial", BaseConf());
  Handle h(dir);
  int start = 123, end = 456;
  for (int n : {0, -5, 159}) EXPECT_EQ(Tovad_toolkit_predict(h.get(), n, audio_->data(), &start, &end), 0);
  EXPECT_EQ(start, 123);
  EXPECT_EQ(end, 456);
  // The 160th sample completes a frame, which writes both.
  Tovad_toolkit_predict(h.get(), 1, audio_->data() + 159, &start, &end);
  EXPECT_EQ(start, -1);
  EXPECT_EQ(end, -1);
}

TEST_F(ToolkitTest, RawSegmentIsTheCallersAudioFromStartToNewestFrame) {
  const std::string dir = WriteConf("raw", BaseConf());
  Handle h(dir);
  int n = -1;
  short* data = reinterpret_cast<short*>(1);
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(n, 0);

  std::vector<Outputs> frames = RunPerFrame(h.get(), *audio_);
  const int end_frame = FirstEndFrame(frames);
  ASSERT_GT(end_frame, 0);
  const int start = frames.back().start;
  const int fed = kTwoBurstsFrames;
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  ASSERT_EQ(n, (fed - start) * kFrame);
  // Raw samples, without the pattern the net's copy gets.
  EXPECT_TRUE(std::equal(data, data + n, audio_->begin() + static_cast<long>(start) * kFrame));
}

TEST_F(ToolkitTest, ResetFalseCountsFromZeroAndFindsTheNextSegment) {
  const std::string dir = WriteConf("reset_false", BaseConf());
  Handle h(dir);
  // The caller's loop: after an end, fetch and reset.
  std::vector<Outputs> segments;
  Outputs out;
  for (size_t at = 0; at < audio_->size(); at += kFrame) {
    Tovad_toolkit_predict(h.get(), kFrame, audio_->data() + at, &out.start, &out.end);
    if (out.end >= 0) {
      segments.push_back(out);
      EXPECT_EQ(Tovad_toolkit_reset(h.get(), false), 0);
      // After a reset nothing is there to fetch.
      int n = -1;
      short* data = nullptr;
      Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
      EXPECT_EQ(n, 0);
      EXPECT_EQ(data, nullptr);
      out = Outputs();
    }
  }
  ASSERT_EQ(segments.size(), 2u);
  // The reset came after the deciding frame, the (end + 2)th.
  const int first_end_frame = segments[0].end + 2;
  // The second burst (frames 280-330) measured from the reset.
  EXPECT_GE(segments[1].start, 268 - first_end_frame);
  EXPECT_LE(segments[1].start, 286 - first_end_frame);
  EXPECT_GE(segments[1].end, 335 - first_end_frame);
  EXPECT_LE(segments[1].end, 375 - first_end_frame);
}

TEST_F(ToolkitTest, ResetTrueBehavesLikeAFreshHandle) {
  const std::string dir = WriteConf("reset_true", BaseConf());
  std::vector<Outputs> fresh;
  {
    Handle h(dir);
    fresh = RunPerFrame(h.get(), *audio_);
  }
  Handle h(dir);
  const std::vector<short> other = MakeAudio(250, {{20, 90}}, 99);
  RunPerFrame(h.get(), other);
  Tovad_toolkit_reset(h.get(), true);
  std::vector<Outputs> again = RunPerFrame(h.get(), *audio_);
  EXPECT_TRUE(again == fresh);
}

TEST_F(ToolkitTest, GettersAndThresholdSetters) {
  const std::string dir = WriteConf("getters", BaseConf());
  Handle h(dir);
  // The hangovers come from the post-processing, not swapped.
  EXPECT_EQ(Tovad_toolkit_get_voice_to_sil_th(h.get()), 30);
  EXPECT_EQ(Tovad_toolkit_get_sil_to_voice_th(h.get()), 5);
  EXPECT_EQ(Tovad_toolkit_get_leading_sil(h.get()), 10);
  EXPECT_EQ(Tovad_toolkit_get_suspected_vad_end(h.get()), -1);
  // No suspected path: 0.0 and no effect.
  TOVAD_toolkit_set_suspected_wkp_threshold(h.get(), 0.9f);
  EXPECT_EQ(TOVAD_toolkit_get_curr_suspected_wkp_threshold(h.get()), 0.0f);
  // A threshold no posterior reaches: nothing ever opens.
  TOVAD_toolkit_set_wkp_threshold(h.get(), 1.5f);
  EXPECT_FLOAT_EQ(TOVAD_toolkit_get_curr_wkp_threshold(h.get()), 1.5f);
  EXPECT_TRUE(RunPerFrame(h.get(), *audio_).back() == Outputs());
}

TEST_F(ToolkitTest, SuspectedPathReportsAnEarlierEnd) {
  const std::string dir =
      WriteConf("suspected", BaseConf() +
                                 "compute_suspected_vad_end=1\n"
                                 "suspected_sil_to_voice_hangover=5\n"
                                 "suspected_voice_to_sil_hangover=20\n"
                                 "suspected_extra_leading_sil=10\n"
                                 "suspected_wakeup_threshold=0.5\n"
                                 "suspected_first_vad_seg_trigger_threshold=-1\n"
                                 "suspected_first_vad_seg_extra_tailing_sil=-1\n");
  Handle h(dir);
  EXPECT_FLOAT_EQ(TOVAD_toolkit_get_curr_suspected_wkp_threshold(h.get()), 0.5f);
  Outputs out;
  int suspected_at = -1, suspected_end = -1;
  for (size_t at = 0; at < audio_->size() && out.end < 0; at += kFrame) {
    Tovad_toolkit_predict(h.get(), kFrame, audio_->data() + at, &out.start, &out.end);
    const int s = Tovad_toolkit_get_suspected_vad_end(h.get());
    if (s >= 0 && suspected_at < 0) {
      suspected_at = static_cast<int>(at / kFrame) + 1;
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
  const std::string dir = WriteConf("ring", BaseConf() +
                                                "cutoff_n_frame_max_vad_length=100\n"
                                                "cutoff_n_frame_min_vad_length=60\n"
                                                "cutoff_n_frame_judging=20\n"
                                                "cutoff_threshold=0.5\n");
  const std::vector<short> long_voice = MakeAudio(260, {{10, 260}}, 3);
  Handle h(dir);
  std::vector<Outputs> frames = RunPerFrame(
      h.get(), std::vector<short>(long_voice.begin(), long_voice.begin() + 200 * kFrame));
  const int start = frames.back().start;
  ASSERT_GE(start, 0);
  ASSERT_GE(frames.back().end, 0) << "the cutoff ends the segment";
  int n = 0;
  short* data = nullptr;
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  EXPECT_EQ(n, (200 - start) * kFrame);

  Outputs out;
  Tovad_toolkit_predict(h.get(), kFrame, long_voice.data() + 200 * kFrame, &out.start, &out.end);
  testing::internal::CaptureStderr();
  Tovad_toolkit_get_vad_segment_raw_data(h.get(), &n, &data);
  const std::string warning = testing::internal::GetCapturedStderr();
  ASSERT_EQ(n, 101 * kFrame);
  EXPECT_EQ(warning, "WARNING: vad segment too long, drop " +
                         std::to_string((201 - start - 101) * kFrame) + " samples\n");
  // The ring now starts at frame 101 (0-based 100).
  EXPECT_TRUE(std::equal(data, data + n, long_voice.begin() + 100 * kFrame));
}

// The caller's loop over a whole recording: after each end, reset with
// `full` false; positions are returned counted from the first sample.
std::vector<Outputs> Segments(void* h, const std::vector<short>& pcm) {
  std::vector<Outputs> segments;
  int base = 0, fed = 0;
  Outputs out;
  for (size_t at = 0; at + kFrame <= pcm.size(); at += kFrame) {
    Tovad_toolkit_predict(h, kFrame, pcm.data() + at, &out.start, &out.end);
    ++fed;
    if (out.end >= 0) {
      segments.push_back({base + out.start, base + out.end});
      Tovad_toolkit_reset(h, false);
      base = fed;
      out = Outputs();
    }
  }
  return segments;
}

bool Covers(const std::vector<Outputs>& segments, int frame) {
  for (const Outputs& s : segments) {
    if (s.start <= frame && frame <= s.end) return true;
  }
  return false;
}

TEST_F(ToolkitTest, PreSetFilterPrimesTheFrontEnd) {
  const std::string dir = WriteConf("preset", BaseConf());
  std::vector<Outputs> plain;
  {
    Handle h(dir);
    plain = RunPerFrame(h.get(), *audio_);
  }
  for (bool own_audio : {false, true}) {
    Handle h(dir), again(dir);
    const short* audio = own_audio ? audio_->data() : nullptr;
    EXPECT_EQ(Tovad_toolkit_pre_set_filter(h.get(), own_audio ? 16000 : 0, audio), 0);
    // Primed with the recording's own first frame, the smoother starts
    // where that audio is, which changes the first decisions...
    const bool same = RunPerFrame(h.get(), *audio_) == plain;
    EXPECT_FALSE(own_audio && same);
    // ...and the bursts are still found.
    Tovad_toolkit_pre_set_filter(again.get(), 16000, audio);
    const std::vector<Outputs> segments = Segments(again.get(), *audio_);
    EXPECT_TRUE(Covers(segments, 140) && Covers(segments, 305) && !Covers(segments, 250))
        << own_audio;
  }
}

// Start-up failures print their line and abort.
struct InitFailure {
  const char* name;
  std::string conf;     // conf text
  std::string extra;    // shell command run in the model folder first
  std::string message;  // regex
};

void PrintTo(const InitFailure& c, std::ostream* os) { *os << c.name; }

class ToolkitInitDeathTest : public testing::TestWithParam<InitFailure> {};

TEST_P(ToolkitInitDeathTest, AbortsWithItsMessage) {
  const InitFailure& c = GetParam();
  const std::string dir = WriteConf(std::string("death_") + c.name, c.conf);
  if (!c.extra.empty()) {
    ASSERT_EQ(system(("cd " + dir + " && " + c.extra).c_str()), 0);
  }
  EXPECT_DEATH(Tovad_toolkit_init("vad.conf", dir.c_str()), c.message);
}

std::string WithKey(const std::string& key, const std::string& value) {
  return BaseConf() + key + "=" + value + "\n";
}

INSTANTIATE_TEST_SUITE_P(
    Toolkit, ToolkitInitDeathTest,
    testing::Values(
        InitFailure{"MeanvarOneTooMany", BaseConf(), "echo 1 >> tone_meanvar.txt",
                    "src/tovad_predictor:[0-9]+ ERROR: meanvar contains too much params, "
                    "n_chan or n_width is wrong\\?"},
        InitFailure{"MeanvarShort", BaseConf(), "head -c 200 tone_meanvar.txt > m && mv m tone_meanvar.txt",
                    "src/tovad_predictor:[0-9]+ ERROR: meanvar file is broken"},
        InitFailure{"ObmPathSet", WithKey("path_to_obm", "model.obm"), "",
                    "致命错误: OBM模型支持已关闭，请关闭DISABLE_K2_PREDICTOR后重新编译解码器"},
        // An empty value behind a prefix names the model folder, no model.
        InitFailure{"EmptyModelPathBehindPrefix",
                    "path_to_json=\n" + BaseConf().substr(BaseConf().find("path_to_param")), "",
                    "# Check failed: cJSON_HasObjectItem\\(symbol_str, \"nodes\"\\) == 1"},
        InitFailure{"FeatureTypeFbank", WithKey("feature_type", "fbank"), "",
                    "错误: fbank的特征维度只能为40或者80, 输入的维度为0"},
        InitFailure{"FeatureTypeCapitalised", WithKey("feature_type", "Fbank"), "", ""},
        InitFailure{"UnloadableModel", BaseConf(), "sed -i 's/SoftmaxActivation/NoSuchOperator/' tone_model.json",
                    "not support MXGetLastErr currently!\n致命错误: 加载MXNET模型失败，请检查相关配置项"}),
    [](const testing::TestParamInfo<InitFailure>& info) { return info.param.name; });

TEST(ToolkitInitDeathTest, EmptyModelPathWithoutPrefixIsRefused) {
  // Without a prefix an empty path stays empty.
  const std::string dir = WriteConf("empty_path_plain", "");
  std::string conf = BaseConf();
  conf.replace(0, conf.find('\n'), "path_to_json=");
  conf.replace(conf.find("path_to_meanvar=") + 16, 16, dir + "/tone_meanvar.txt");
  std::ofstream(dir + "/plain.conf") << conf;
  EXPECT_DEATH(Tovad_toolkit_init((dir + "/plain.conf").c_str(), nullptr),
               "致命错误: 请填写模型文件");
}

}  // namespace
