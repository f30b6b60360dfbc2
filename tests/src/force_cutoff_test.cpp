#include "src/force_cutoff.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace Tovad_toolkit {
namespace {

std::unique_ptr<Force_cutoff> MakeCutoff(int max_len, int min_len, int judging,
                                         const char* threshold) {
  const ConfigMap config = {{"cutoff_n_frame_max_vad_length", std::to_string(max_len)},
                            {"cutoff_n_frame_min_vad_length", std::to_string(min_len)},
                            {"cutoff_n_frame_judging", std::to_string(judging)},
                            {"cutoff_threshold", threshold}};
  testing::internal::CaptureStderr();
  std::unique_ptr<Force_cutoff> f(new Force_cutoff(config));
  testing::internal::GetCapturedStderr();
  return f;
}

// Feeds `scores` with all flags 1 and returns the places where a flag was
// cleared.
std::vector<int> CutPlaces(Force_cutoff& f, std::vector<float> scores) {
  std::vector<int32_t> labels(scores.size(), 1);
  f.apply_force_cutoff_process(static_cast<uint32_t>(scores.size()), scores.data(), labels.data());
  std::vector<int> cuts;
  for (size_t i = 0; i < labels.size(); ++i) {
    if (labels[i] == 0) cuts.push_back(static_cast<int>(i));
  }
  return cuts;
}

std::vector<float> Steady(float s, int n, std::vector<float> after = {}) {
  after.insert(after.begin(), n, s);
  return after;
}

TEST(ForceCutoffTest, CutsWhereExpected) {
  const struct {
    int max_len, min_len, judging;
    const char* threshold;
    std::vector<float> scores;
    std::vector<int> cuts;
  } cases[] = {
      // Length alone: the flag goes at a length of max - 1, and counting
      // starts over after each cut.
      {6, 0, 2, "0", Steady(0.9f, 15), {4, 9, 14}},
      // While the length is below the window, `recent` is len*s/judging: a
      // minimum below judging*threshold cuts at the first judged frame.
      {1000, 3, 10, "0.5", Steady(0.8f, 12), {3, 7, 11}},
      {1000, 5, 10, "0.5", Steady(0.8f, 30), {}},
      // The window sum keeps the segment's first two scores: with those high
      // and everything after at 0, `recent` never falls, so only the length
      // limit cuts.  A clean moving sum would cut at index 4.
      {12, 3, 2, "0.5", Steady(10.0f, 2, Steady(0.0f, 12)), {10}},
      // The subtraction starts one frame late and takes the third score
      // first: at length 5 the sum is s1+s2+s4+s5 = 2, recent 0.67 below
      // 0.5 * 11 / 5.  Dropping the oldest on time would never cut.
      {1000, 3, 3, "0.5", {0.0f, 0.0f, 9.0f, 1.0f, 1.0f}, {4}},
      // Steady 1.0 gives recent 5/4 = 1.25 against 1.2; the first 0.5
      // brings the sum to 4.5, recent 1.125 against 1.2 * 20.5 / 21.
      {1000, 8, 4, "1.2", Steady(1.0f, 20, Steady(0.5f, 5)), {20}},
  };
  for (const auto& c : cases) {
    auto f = MakeCutoff(c.max_len, c.min_len, c.judging, c.threshold);
    EXPECT_EQ(CutPlaces(*f, c.scores), c.cuts) << c.max_len << " " << c.min_len << " " << c.judging;
  }
}

// What restarts the length count: a flag other than 1, a cut during a call
// without flags (which only feeds the sums), and reset.  Each case feeds a
// lead-in of steady 0.9 (with `lead_labels`, or none), then 0.9 with all
// flags 1, under a length limit of 6.
TEST(ForceCutoffTest, CountRestarts) {
  const struct {
    std::vector<int32_t> lead_labels;  // empty: a null-labels call
    int lead;
    bool reset;
    int after;
    std::vector<int> cuts;
  } cases[] = {
      {{1, 1, 0, 1, 1, 1, 1}, 7, false, 1, {0}},
      {{}, 3, false, 4, {1}},
      {{}, 7, false, 4, {2}},
      {{1, 1, 1}, 3, true, 6, {4}},
  };
  for (size_t k = 0; k < sizeof(cases) / sizeof(cases[0]); ++k) {
    const auto& c = cases[k];
    auto f = MakeCutoff(6, 0, 2, "0");
    std::vector<float> lead = Steady(0.9f, c.lead);
    std::vector<int32_t> labels = c.lead_labels;
    f->apply_force_cutoff_process(c.lead, lead.data(), labels.empty() ? nullptr : labels.data());
    EXPECT_EQ(labels, c.lead_labels) << "no cut in the lead-in, case " << k;
    if (c.reset) f->reset();
    EXPECT_EQ(CutPlaces(*f, Steady(0.9f, c.after)), c.cuts) << "case " << k;
  }
}

}  // namespace
}  // namespace Tovad_toolkit
