#include "src/post_process.h"

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace Tovad_toolkit {
namespace {

// Two classes, class 1 is voice; 2 frames to open, 3 to close, 1 frame of
// leading silence, no forced cutoff, first-segment rule off.
ConfigMap BaseConfig() {
  return {{"target_class", "1"},          {"n_batch", "1"},
          {"n_classes", "2"},             {"sil_to_voice_hangover", "2"},
          {"voice_to_sil_hangover", "3"}, {"extra_leading_sil", "1"},
          {"wakeup_threshold", "0.5"},    {"cutoff_n_frame_max_vad_length", "0"}};
}

ConfigMap With(ConfigMap config, const ConfigMap& overrides) {
  for (const auto& kv : overrides) config[kv.first] = kv.second;
  return config;
}

// Constructs quietly; the INFO lines of the reads go to `log` if given.
std::unique_ptr<Post_process> MakePost(const ConfigMap& config, bool suspected = false,
                                       std::string* log = nullptr) {
  testing::internal::CaptureStderr();
  std::unique_ptr<Post_process> pp(new Post_process(config, suspected));
  const std::string text = testing::internal::GetCapturedStderr();
  if (log != nullptr) *log = text;
  return pp;
}

// Score runs: {value, frames}.
std::vector<float> Runs(std::initializer_list<std::pair<float, int>> runs) {
  std::vector<float> scores;
  for (const auto& r : runs) scores.insert(scores.end(), r.second, r.first);
  return scores;
}

using Pos = std::pair<int32_t, int32_t>;  // start, end

// Feeds `batch` frames per call with the class-1 posteriors `scores`;
// returns what each call wrote.
std::vector<Pos> Feed(Post_process& pp, const std::vector<float>& scores, float energy = 100.0f,
                      size_t batch = 1) {
  std::vector<Pos> out;
  for (size_t f = 0; f + batch <= scores.size(); f += batch) {
    std::vector<float> prior, energies(batch, energy);
    for (size_t k = f; k < f + batch; ++k) prior.insert(prior.end(), {1.0f - scores[k], scores[k]});
    Pos p = {-7, -7};  // both must be overwritten
    pp.apply_post_process(prior.data(), energies.data(), &p.first, &p.second);
    out.push_back(p);
  }
  return out;
}

// From frame `frame` on (until the next change) the outputs are start, end.
struct Change {
  int frame;
  int32_t start, end;
};

// The outputs of `n` frames that `changes` describe.
std::vector<Pos> Timeline(const std::vector<Change>& changes, size_t n) {
  std::vector<Pos> out;
  for (size_t f = 0, c = 0; f < n; ++f) {
    while (c + 1 < changes.size() && changes[c + 1].frame <= static_cast<int>(f)) ++c;
    out.emplace_back(changes[c].start, changes[c].end);
  }
  return out;
}

// The score goes through a median of 7 first: a run of 4 or more frames
// shows 3 frames later, so input voice at frames 10..29 is voice at 13..32.
struct TimelineCase {
  const char* name;
  ConfigMap overrides;
  std::vector<float> scores;
  std::vector<Change> changes;
  float energy = 100.0f;
  size_t batch = 1;  // frames per call
};

void PrintTo(const TimelineCase& c, std::ostream* os) { *os << c.name; }

class PostProcessTimelineTest : public testing::TestWithParam<TimelineCase> {};

TEST_P(PostProcessTimelineTest, OutputsFrameByFrame) {
  const TimelineCase& c = GetParam();
  auto pp = MakePost(With(BaseConfig(), c.overrides));
  EXPECT_EQ(Feed(*pp, c.scores, c.energy, c.batch),
            Timeline(c.changes, c.scores.size() / c.batch));
}

const float kSil = 0.1f;
const float kVoice = 0.9f;
const ConfigMap kFirstSeg = {{"first_vad_seg_trigger_threshold", "20"},
                             {"first_vad_seg_extra_tailing_sil", "10"}};
const ConfigMap kCutAt60 = {{"cutoff_n_frame_max_vad_length", "60"},
                            {"cutoff_n_frame_min_vad_length", "1000"},
                            {"cutoff_n_frame_judging", "10"},
                            {"cutoff_threshold", "0.5"}};
const ConfigMap kStartClamped = {
    {"sil_to_voice_hangover", "5"}, {"extra_leading_sil", "10"}, {"voice_to_sil_hangover", "2"}};
const std::vector<float> kBurst = Runs({{kSil, 10}, {kVoice, 20}, {kSil, 10}});
const std::vector<float> kShortBurst = Runs({{kSil, 10}, {kVoice, 10}, {kSil, 30}});
const std::vector<float> kTwoShort =
    Runs({{kSil, 10}, {kVoice, 10}, {kSil, 5}, {kVoice, 15}, {kSil, 20}});

const TimelineCase kTimelines[] = {
    // Hangover.  Voice 13..32: the third voice frame (15) opens at
    // 15 - 2 - 1; the fourth silent frame (36) closes, with the end at
    // 35 = 32 + 3.  Voice after the end changes nothing.
    TimelineCase{"OpenCloseAndFreeze", {},
                 Runs({{kSil, 10}, {kVoice, 20}, {kSil, 10}, {kVoice, 20}, {kSil, 10}}),
                 {{0, -1, -1}, {15, 12, -1}, {36, 12, 35}}},
    // Voice from frame 3 (the median's zeros) opens at 3 + 5; the start
    // 8 - 5 - 10 = -7 is clamped to 0.
    TimelineCase{"StartClampedAtZero", kStartClamped, Runs({{kVoice, 20}, {kSil, 20}}),
                 {{0, -1, -1}, {8, 0, -1}, {25, 0, 24}}},
    // A score equal to the threshold is not voice.
    TimelineCase{"ThresholdScoreCloses", {}, Runs({{kSil, 10}, {kVoice, 20}, {0.5f, 15}}),
                 {{0, -1, -1}, {15, 12, -1}, {36, 12, 35}}},
    // No open hangover, no leading silence: the first voice frame opens
    // at its own index.
    TimelineCase{"NoHangoverOpensAtOnce",
                 {{"sil_to_voice_hangover", "0"}, {"extra_leading_sil", "0"}}, kBurst,
                 {{0, -1, -1}, {13, 13, -1}, {36, 13, 35}}},
    // The first-segment rule with a trigger of 20 frames.  A tail of 10
    // frames after the last voice frame is stored as 10 - 3; the clock goes
    // back from 27 to the end (25) when the hold begins, so it lags 2 frames
    // from then on.
    // L = 25 - 12 - 1 - 3 = 9: held.  The planned end 25 + 7 = 32 is
    // reached by the lagging clock at frame 33.
    TimelineCase{"HeldSegmentRunsOut", kFirstSeg, kShortBurst,
                 {{0, -1, -1}, {15, 12, -1}, {33, 12, 32}}},
    // Voice again at 28..42 opens at frame 30, within the tail: one
    // segment from the held start.  It closes at frame 46, where the
    // lagging clock says 44, so the end is 43.
    TimelineCase{"HeldSegmentMerges", kFirstSeg, kTwoShort,
                 {{0, -1, -1}, {15, 12, -1}, {46, 12, 43}}},
    // The same with a force cutoff: the catch-up after the merge can
    // only reach back as far as the score history.
    TimelineCase{"HeldSegmentMergesUnderCutoff",
                 With(kFirstSeg, {{"cutoff_n_frame_max_vad_length", "1000"},
                                  {"cutoff_n_frame_min_vad_length", "1000"},
                                  {"cutoff_n_frame_judging", "10"},
                                  {"cutoff_threshold", "0.5"}}),
                 kTwoShort, {{0, -1, -1}, {15, 12, -1}, {46, 12, 43}}},
    // A tail below the closing hangover: planned end 25 - 1, already
    // behind the clock, so the hold ends in the call that begins it.
    TimelineCase{"HoldEndsInTheCallThatBeginsIt",
                 With(kFirstSeg, {{"first_vad_seg_extra_tailing_sil", "2"}}),
                 Runs({{kSil, 10}, {kVoice, 10}, {kSil, 20}}),
                 {{0, -1, -1}, {15, 12, -1}, {26, 12, 24}}},
    // The clamped start: L = 24 - 0 - 10 - 2 + 7 = 19 counts from the
    // true first voice frame.  A trigger of 19 holds it (planned end
    // 24 + 28, reached at frame 53), a trigger of 18 reports it at once.
    TimelineCase{"OverflowCountsInLength_Held",
                 With(kStartClamped, {{"first_vad_seg_trigger_threshold", "19"},
                                      {"first_vad_seg_extra_tailing_sil", "30"}}),
                 Runs({{kVoice, 20}, {kSil, 40}}), {{0, -1, -1}, {8, 0, -1}, {53, 0, 52}}},
    TimelineCase{"OverflowCountsInLength_Reported",
                 With(kStartClamped, {{"first_vad_seg_trigger_threshold", "18"},
                                      {"first_vad_seg_extra_tailing_sil", "30"}}),
                 Runs({{kVoice, 20}, {kSil, 40}}), {{0, -1, -1}, {8, 0, -1}, {25, 0, 24}}},
    // Force cutoff.  The open at frame 15 feeds frames 12..14 first, so the
    // length counts from the start: 59 = 60 - 1 at frame 70, end 69, seen
    // one frame later.
    TimelineCase{"ByLength", kCutAt60, Runs({{kSil, 10}, {kVoice, 80}}),
                 {{0, -1, -1}, {15, 12, -1}, {71, 12, 69}}},
    // Opens at 13.  Steady 0.95: recent = 5 x 0.95 / 4 = 1.19 against
    // 1.2 x 0.95 = 1.14.  The first 0.6 (frame 33, length 21): recent
    // (0.95 x 4 + 0.6) / 4 = 1.1 against 1.2 x 19.6 / 21 = 1.12: cut,
    // end 32, seen at frame 34.
    TimelineCase{"ByRatio",
                 {{"sil_to_voice_hangover", "0"},
                  {"extra_leading_sil", "0"},
                  {"cutoff_n_frame_max_vad_length", "1000"},
                  {"cutoff_n_frame_min_vad_length", "8"},
                  {"cutoff_n_frame_judging", "4"},
                  {"cutoff_threshold", "1.2"}},
                 Runs({{kSil, 10}, {0.95f, 20}, {0.6f, 20}}),
                 {{0, -1, -1}, {13, 13, -1}, {34, 13, 32}}},
    // Two frames per call.  Voice from frame 14 opens at frame 16, the
    // first of its pair, start 13.  The catch-up would need frames 13..15
    // but the history holds 14..17, so frame 13 is not counted and the
    // length is 59 at frame 72, first of its pair.  The end takes the
    // pair's last frame: 74 - 1 + 1 - 2 = 72, seen one call later.
    TimelineCase{"ByLengthInPairs", With(kCutAt60, {{"n_batch", "2"}}),
                 Runs({{kSil, 11}, {kVoice, 89}}), {{0, -1, -1}, {8, 13, -1}, {37, 13, 72}},
                 0.0f, 2},
    // Below 51 there is no cutoff at all (and its keys aren't needed).
    TimelineCase{"NoneBelow51", {{"cutoff_n_frame_max_vad_length", "50"}},
                 Runs({{kSil, 10}, {kVoice, 200}}), {{0, -1, -1}, {15, 12, -1}}},
    // Energy mode 1 with default keys: bounds at the floors 40 and 60.  At
    // energy 42 0.1^0.4 x 0.9 = 0.36 passes the low floor but is too quiet to
    // open.  (The weights themselves are the energy stage's own suite.)
    TimelineCase{"EnergyMode1JustAboveLowFloor", {{"E_post_process_type", "1"}}, kBurst,
             {{0, -1, -1}}, 42.0f},
};
INSTANTIATE_TEST_SUITE_P(Cases, PostProcessTimelineTest, testing::ValuesIn(kTimelines),
                         [](const auto& info) { return std::string(info.param.name); });

// Steps of feeding, each after a reset (-1: none, 0: reset(false), 1:
// reset(true)); positions restart from 0 after every reset.
struct Step {
  int reset;
  std::vector<float> scores;
  std::vector<Change> changes;  // empty: not checked
};

TEST(PostProcessTest, ResetsRestartPositionsAndRearmTheRules) {
  const struct {
    ConfigMap config;
    std::vector<Step> steps;
  } cases[] = {
      // reset(false) keeps the first-segment rule off (the warm median holds
      // silence and the burst ends at once); reset(true) rearms it.
      {With(BaseConfig(), kFirstSeg),
       {{-1, kShortBurst, {{0, -1, -1}, {15, 12, -1}, {33, 12, 32}}},
        {0, kShortBurst, {{0, -1, -1}, {15, 12, -1}, {26, 12, 25}}},
        {0, kShortBurst, {{0, -1, -1}, {15, 12, -1}, {26, 12, 25}}},
        {1, kShortBurst, {{0, -1, -1}, {15, 12, -1}, {33, 12, 32}}}}},
      // Mid-segment: the median is warm with voice, so the segment opens
      // again at frame 2, its start clamped.
      {BaseConfig(),
       {{-1, Runs({{kSil, 10}, {kVoice, 10}}), {}},
        {0, Runs({{kVoice, 5}, {kSil, 10}}), {{0, -1, -1}, {2, 0, -1}, {11, 0, 10}}}}},
      // The zeroed median needs 4 voice frames again: open at 3 + 2, start 2.
      {BaseConfig(), {{-1, Runs({{kVoice, 10}}), {}}, {1, Runs({{kVoice, 8}}), {{0, -1, -1}, {5, 2, -1}}}}},
      // A cut segment stays ended until a reset; then the catch-up feeds
      // frames 0..1, so the next cut comes at frame 58, seen at 59.
      {With(BaseConfig(), kCutAt60),
       {{-1, Runs({{kSil, 10}, {kVoice, 150}}), {{0, -1, -1}, {15, 12, -1}, {71, 12, 69}}},
        {0, Runs({{kVoice, 100}}), {{0, -1, -1}, {2, 0, -1}, {59, 0, 57}}}}},
  };
  for (size_t k = 0; k < sizeof(cases) / sizeof(cases[0]); ++k) {
    auto pp = MakePost(cases[k].config);
    for (size_t i = 0; i < cases[k].steps.size(); ++i) {
      const Step& step = cases[k].steps[i];
      if (step.reset >= 0) pp->reset(step.reset == 1);
      const std::vector<Pos> got = Feed(*pp, step.scores);
      if (!step.changes.empty()) {
        EXPECT_EQ(got, Timeline(step.changes, got.size())) << "case " << k << ", step " << i;
      }
    }
  }
}

// Mixing classes into the score, checked through whether a steady frame
// opens a segment against a threshold of 0.55; class 0 in the mix warns.
TEST(PostProcessTest, ScoreMixesTargetClasses) {
  const struct {
    const char* target_class;
    const char* n_classes;
    std::vector<float> prior;
    bool opens, warns;
  } cases[] = {
      {"1", "2", {0.4f, 0.6f}, true, false},
      {"1v2", "2", {0.7f, 0.3f}, true, false},
      {"1v0.5,2", "3", {0.0f, 0.6f, 0.6f}, true, false},
      {"1v0.5,2", "3", {0.0f, 0.0f, 0.6f}, false, false},  // the bare 2 takes 0.5 from before it
      {"2,1v0.5", "3", {0.0f, 0.0f, 0.6f}, true, false},   // a leading bare class has factor 1
      {"0v1,1v1", "2", {0.3f, 0.3f}, true, true},
      {"0", "2", {0.6f, 0.4f}, true, true},
      {"", "2", {0.6f, 0.4f}, true, true},
      {"1,0v0.5", "2", {0.6f, 0.4f}, true, true},
  };
  const std::regex warning(
      "src/post_process:[0-9]+ WARNING: are you sure you want to use `class 0` as a `wkp "
      "class`\\?INFO");
  for (const auto& c : cases) {
    std::string log;
    auto pp = MakePost(With(BaseConfig(), {{"target_class", c.target_class},
                                           {"n_classes", c.n_classes},
                                           {"wakeup_threshold", "0.55"},
                                           {"sil_to_voice_hangover", "0"}}),
                       false, &log);
    EXPECT_EQ(std::regex_search(log, warning), c.warns) << c.target_class << ": " << log;
    int32_t start = -1, end = -1;
    const float energy = 0.0f;
    for (int i = 0; i < 10; ++i) pp->apply_post_process(c.prior.data(), &energy, &start, &end);
    EXPECT_EQ(start != -1, c.opens) << c.target_class << " " << c.prior.back();
  }
}

TEST(PostProcessTest, CheckSilFrameCountsFramesBelowItsThreshold) {
  auto pp = MakePost(
      With(BaseConfig(), {{"sil_check_threshold", "0.3"}, {"n_max_continuous_sil_frame", "5"}}));
  std::vector<int32_t> flags;
  // 0.3 four times: the median reaches exactly 0.3 at the fourth, which
  // clears the count; then 0.1 again.
  for (float s : Runs({{kSil, 7}, {0.3f, 4}, {kSil, 9}})) {
    Feed(*pp, {s}, 0.0f);
    flags.push_back(pp->check_sil_frame());
  }
  EXPECT_EQ(flags, (std::vector<int32_t>{0, 0, 0, 0, 0, 1, 1,  // more than 5 below
                                         1, 1, 1, 0,           // median 0.1 x 3, then 0.3
                                         0, 0, 0, 0, 0, 0, 0, 0, 1}));
}

TEST(PostProcessDeathTest, MissingKeysAndBadClassesAbort) {
  const std::string kCant = ":[0-9]+ ERROR: can`t read value of key <";
  for (const char* key : {"target_class", "n_classes", "cutoff_n_frame_max_vad_length", "n_batch",
                          "wakeup_threshold", "cutoff_threshold"}) {
    ConfigMap config = With(BaseConfig(), kCutAt60);
    config.erase(key);
    // The force cutoff reads its own keys.
    const std::string source =
        key == std::string("cutoff_threshold") ? "force_cutoff" : "post_process";
    EXPECT_DEATH(Post_process(config, false),
                 "^(INFO: [^\n]*\n)*src/" + source + kCant + key + ">\n$");
  }
  // The prefixed keys of the suspected path have no defaults.
  const ConfigMap suspected = With(BaseConfig(), {{"suspected_sil_to_voice_hangover", "4"},
                                                  {"suspected_voice_to_sil_hangover", "6"},
                                                  {"suspected_extra_leading_sil", "8"},
                                                  {"suspected_wakeup_threshold", "0.25"}});
  EXPECT_DEATH(Post_process(suspected, true),
               "src/post_process" + kCant + "suspected_first_vad_seg_trigger_threshold>\n$");
  for (const char* target : {"2", "1v0.5,2", "1,7v1"}) {
    EXPECT_DEATH(Post_process(With(BaseConfig(), {{"target_class", target}}), false),
                 "src/post_process:[0-9]+ ERROR: the val of `classes` should be unsinged int and "
                 "smaller then `n_class`$")
        << target;
  }
}

}  // namespace
}  // namespace Tovad_toolkit
