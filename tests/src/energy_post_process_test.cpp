#include "src/energy_post_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace Tovad_toolkit {
namespace {

std::unique_ptr<Energy_post_process> MakeEnergy(ConfigMap config) {
  testing::internal::CaptureStderr();
  std::unique_ptr<Energy_post_process> e(new Energy_post_process(config));
  testing::internal::GetCapturedStderr();
  return e;
}

// The weight of the pow branch, computed the way the stage does: ratio in
// float, pow and product in double.
float Attenuated(float vad, float e, float low, float high, float pow_factor) {
  const float ratio = (e - low) / (high - low);
  return static_cast<float>(static_cast<double>(vad) *
                            std::pow(static_cast<double>(ratio), static_cast<double>(pow_factor)));
}

// The weighed scores of `n` single frames of constant energy.
std::vector<float> RunFrames(Energy_post_process& stage, float energy, float vad, int n) {
  std::vector<float> out(n, vad);
  for (float& v : out) stage.apply_energy_post_process(1, &energy, &v);
  return out;
}

// With the default keys the window starts as zeros, so the bounds sit at
// their floors 40 and 60.  The energy median of 11 gives 0 for the first
// five frames, which zeroes the score.  At `high` the pow branch has a
// ratio of 1; at `low` the energy is not above it.
TEST(EnergyPostProcessTest, Mode1WeighsAgainstTheFloors) {
  const struct {
    float energy, expected;
  } cases[] = {{70.0f, 0.9f},
               {60.0f, 0.9f},
               {50.0f, Attenuated(0.9f, 50.0f, 40.0f, 60.0f, 0.4f)},
               {41.0f, Attenuated(0.9f, 41.0f, 40.0f, 60.0f, 0.4f)},
               {40.0f, 0.0f},
               {10.0f, 0.0f}};
  for (const auto& c : cases) {
    auto stage = MakeEnergy({{"E_post_process_type", "1"}});
    const std::vector<float> out = RunFrames(*stage, c.energy, 0.9f, 20);
    for (int i = 0; i < 20; ++i)
      ASSERT_EQ(out[i], i < 5 ? 0.0f : c.expected) << c.energy << " " << i;
  }
}

TEST(EnergyPostProcessTest, Mode1QuantilesRiseAboveTheFloors) {
  auto stage = MakeEnergy({{"E_post_process_type", "1"}, {"E_buff_length", "20"}});
  // 20 frames of 100 fill the window (5 zeros from the median's start stay):
  // sorted it is 5 x 0, 15 x 100, so low = sorted[8] = 100 and high =
  // sorted[16] = 100.  Then 100 is neither above high nor above low.
  const std::vector<float> out = RunFrames(*stage, 100.0f, 0.9f, 20);
  EXPECT_EQ(out[10], 0.9f);  // window 14 x 0, 6 x 100: high = sorted[16] = 100
  EXPECT_EQ(out[19], 0.0f);
  // reset clears the window, not the energy median: 100 is at once above
  // the floor of 60 again.
  stage->reset();
  EXPECT_EQ(RunFrames(*stage, 100.0f, 0.9f, 1)[0], 0.9f);
}

// Mode 2 weighs each batch against its own quantiles (floors 40 and 60).
TEST(EnergyPostProcessTest, Mode2WindowIsTheBatch) {
  const float weighed = Attenuated(0.9f, 50.0f, 40.0f, 60.0f, 0.4f);
  const struct {
    float energy;
    std::vector<float> expected;
  } batches[] = {
      // The median gives 0 x 5, 50 x 5: both quantiles below the floors.
      {50.0f, {0, 0, 0, 0, 0, weighed, weighed, weighed, weighed, weighed}},
      // The median holds 50 x 5, then 100: low = max(sorted[4], 40) = 50,
      // high = max(sorted[8], 60) = 100, and 100 at `high` has ratio 1.
      {100.0f, {0, 0, 0, 0, 0, 0.9f, 0.9f, 0.9f, 0.9f, 0.9f}},
      // All 100: high = low = 100, nothing passes, no division by zero.
      {100.0f, std::vector<float>(10, 0.0f)},
  };
  auto stage = MakeEnergy({{"E_post_process_type", "2"}});
  for (const auto& b : batches) {
    std::vector<float> energy(10, b.energy), vad(10, 0.9f);
    stage->apply_energy_post_process(10, energy.data(), vad.data());
    EXPECT_EQ(vad, b.expected) << b.energy;
  }
  // The largest batch, half quiet, half loud: low = sorted[1638], a quiet
  // 20, so the floor 40; high = sorted[3276] = 100.
  stage = MakeEnergy({{"E_post_process_type", "2"}});
  std::vector<float> energy(4096, 20.0f), vad(4096, 0.5f);
  std::fill(energy.begin() + 2048, energy.end(), 100.0f);
  stage->apply_energy_post_process(4096, energy.data(), vad.data());
  EXPECT_EQ(vad[100], 0.0f);
  EXPECT_EQ(vad[4095], 0.5f);
}

TEST(EnergyPostProcessTest, Mode3StoresAndWeighsOnRequest) {
  auto stage = MakeEnergy({{"E_post_process_type", "3"}});
  std::vector<float> out(8, -1.0f);
  stage->get_energy_post_process_result(out.data());  // nothing stored yet
  EXPECT_EQ(out, std::vector<float>(8, -1.0f));
  EXPECT_EQ(RunFrames(*stage, 50.0f, 0.9f, 8), std::vector<float>(8, 0.9f));  // left alone
  // One frame per call and the window grows by one; the ring place lags
  // one behind, so after 8 calls 7 stored frames are weighed.  (The values
  // themselves are not checked: the growing window is not kept sorted.)
  stage->get_energy_post_process_result(out.data());
  for (int i = 0; i < 7; ++i) EXPECT_NE(out[i], -1.0f) << i;
  EXPECT_EQ(out[7], -1.0f);
}

TEST(EnergyPostProcessDeathTest, UnknownModeAndOversizedBatchAbort) {
  const ConfigMap config = {{"E_post_process_type", "4"}};
  EXPECT_DEATH(Energy_post_process bad(config),
               "src/energy_post_process:[0-9]+ ERROR: E_post_process_type should be "
               "0、1、2、3, not 4$");
  auto stage = MakeEnergy({{"E_post_process_type", "1"}});
  std::vector<float> energy(4097, 0.0f), vad(4097, 0.0f);
  EXPECT_DEATH(stage->apply_energy_post_process(4097, energy.data(), vad.data()),
               "src/energy_post_process:[0-9]+ ERROR: energy post process support max n_frame at "
               "4096, your n_frame is 4097$");
}

}  // namespace
}  // namespace Tovad_toolkit
