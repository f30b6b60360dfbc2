// The 8-bit layers of gen_stream_fixtures.py's nets.  The streaming ones
// through the prediction interface: the batch axis is time, and pushing a
// sequence one frame a call, three frames a call, with a reset in the
// middle or with UpdateInterBuff between calls gives the integer numpy
// results bit for bit.  Then the fatal checks.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/ruvo/death_text.h"
#include "tests/ruvo/layer_cases.h"
#include "tests/ruvo/net_fixture.h"

namespace {

using net_test::Model;
using net_test::Tensor;
using orvik::ruvo::TShape;
using ruvo_test::CaseName;
using ruvo_test::ExpectBuildAborts;
using ruvo_test::Fatal;
using ruvo_test::FatalCase;

// Heads in graph order, and whether each is 8-bit (copied out a byte an
// element) or float.
const struct {
  const char* name;
  bool int8;
} kHeads[] = {{"t1", true}, {"t2", true},  {"t3", false},
              {"f1", true}, {"f2", false}, {"f3", false}};

constexpr uint32_t kFrame = 5 * 3;  // floats of one input frame

// `batch` frames a call; MXResetInterBuff before frame `reset`, and
// MXUpdateInterBuff after the frames in `updates`.
struct Schedule {
  uint32_t batch = 1;
  int reset = -1;
  std::set<int> updates;
};

// Every head's outputs (8-bit values widened) from frame `from` on; the
// net's allocations after its first call go to *allocs.
std::map<std::string, std::vector<float>> Stream(const Model& m, const Schedule& s, int from,
                                                 long* allocs) {
  const Tensor& seq = m.cases.at(0).inputs.at(0).second;
  PredictorHandle h = net_test::CreateForData(m, {s.batch, 1, 5, 3});
  std::map<std::string, std::vector<float>> out;
  for (int t = 0; t < static_cast<int>(seq.shape[0]); t += static_cast<int>(s.batch)) {
    const long before = AllocCount();
    EXPECT_EQ(t == s.reset ? MXResetInterBuff(h) : 0, 0);
    MXPredSetInput(h, "data", seq.values.data() + t * kFrame, s.batch * kFrame);
    MXPredForward(h);
    EXPECT_EQ(s.updates.count(t) ? MXUpdateInterBuff(h) : 0, 0);
    if (t > 0) *allocs += AllocCount() - before;
    for (uint32_t i = 0; i < std::size(kHeads) && t >= from; ++i) {
      const Tensor got = net_test::GetOutput(h, i);
      const std::vector<float> values = kHeads[i].int8 ? net_test::Widened(got) : got.values;
      out[kHeads[i].name].insert(out[kHeads[i].name].end(), values.begin(), values.end());
    }
  }
  MXPredFree(h);
  return out;
}

TEST(QuantStreamTest, FramesAtAnyPaceResetAndUpdateMatchNumpy) {
  Model m = net_test::LoadModel("stream");
  ASSERT_EQ(m.cases.size(), 1u);
  const auto& io = m.cases[0].outputs;
  const int restart = static_cast<int>(io.at("restart_at").values.at(0));
  std::set<int> updates;
  for (float f : io.at("updates_after").values) updates.insert(static_cast<int>(f));
  const struct {
    const char* name;
    Schedule schedule;
    int from;
    const char* suffix;
  } runs[] = {
      {"one frame a call", Schedule{}, 0, ""},
      {"three frames a call", Schedule{3, -1, {}}, 0, ""},
      {"reset in the middle", Schedule{1, restart, {}}, restart, "@reset"},
      {"updates between calls", Schedule{1, -1, updates}, 0, "@update"},
  };
  for (const auto& r : runs) {
    long allocs = 0;
    auto got = Stream(m, r.schedule, r.from, &allocs);
    EXPECT_EQ(allocs, 0) << r.name;
    for (const auto& head : kHeads) {
      const std::string key = head.name + std::string(r.suffix);
      EXPECT_EQ(got[head.name], io.at(key).values) << r.name << ": " << head.name;
    }
  }
}

// A channel count outside the family is logged and writes nothing.
TEST(AlphaLayersTest, UpscaleOfUnsupportedChannelsLeavesTheOutput) {
  auto layer = ruvo_test::MakeLayer("AlphaUpscale", {});
  using orvik::ruvo::kInt8;
  orvik::ruvo::NDArray in(TShape{1, 2, 2, 5}, kInt8), out(TShape{1, 4, 4, 5}, kInt8);
  signed char* o = out.dptr<signed char>();
  std::fill(in.dptr<signed char>(), in.dptr<signed char>() + in.Size(), 9);
  std::fill(o, o + out.Size(), 0x55);
  std::vector<orvik::ruvo::NDArray*> bottoms = {&in}, tops = {&out}, auxes;
  EXPECT_EQ(layer->Forward(bottoms, tops, auxes), 0);
  EXPECT_EQ(std::count(o, o + out.Size(), 0x55), static_cast<long>(out.Size()));
}

// The first call's batch may not exceed any temporal window (three frames
// here): its history holds one window per time step of that call.
TEST(QuantStreamDeathTest, FirstCallLongerThanTheWindowIsFatal) {
  Model m = net_test::LoadModel("stream");
  const Tensor& seq = m.cases.at(0).inputs.at(0).second;
  PredictorHandle h = net_test::CreateForData(m, {6, 1, 5, 3});
  ASSERT_NE(h, nullptr);
  MXPredSetInput(h, "data", seq.values.data(), 6 * kFrame);
  EXPECT_DEATH(MXPredForward(h), Fatal("input_buff_frames_ >= ishape[0] (3 vs. 6)", ""));
  MXPredFree(h);
}

class QuantStreamBuildDeathTest : public testing::TestWithParam<FatalCase> {};

TEST_P(QuantStreamBuildDeathTest, Aborts) { ExpectBuildAborts(GetParam()); }

// The flag and pool type parsers are the float layers' and tested there.
const FatalCase kRows[] = {
    {"TemporalPadded", "QuantiTemporalConvolution", "kernel=(3,5) num_filter=4 pad=(1,0)",
     "(1,1,5,3) () ()", "pad_[0] == 0 (1 vs. 0)", "only no-padding is supported"},
    {"TemporalDilatedAcross", "QuantiTemporalConvolution", "kernel=(3,5) num_filter=4 dilate=(1,2)",
     "(1,1,5,3) () ()", "dilate_[1] == 1 (2 vs. 1)", "only time-dim dilate is supported"},
    {"TemporalTooWide", "QuantiTemporalConvolution", "kernel=(3,5) num_filter=4", "(1,1,4,3) () ()",
     "ksize_x <= dshape[2] + 2 * pad_[1]", "kernel size exceed input"},
    {"TemporalWeight", "QuantiTemporalConvolution", "kernel=(3,5) num_filter=4 no_bias=True",
     "(1,1,5,3) (4,3,5,2)", "out == Shape4(num_filter_, kernel_[0], kernel_[1], dshape[3])",
     "Shape inconsistent, Provided (4,3,5,2) inferrend shape=(4,3,5,3)"},
    {"DenseNoHidden", "QuantiFullyConnected", "num_hidden=0", "", "num_hidden_ >= 1 (0 vs. 1)"},
    {"DenseWeight", "QuantiFullyConnected", "num_hidden=2", "(1,1,5,3) (2,14) ()",
     "out == Shape2(num_hidden_, num_input)",
     "Shape inconsistent, Provided (2,14) inferrend shape=(2,15)"},
    {"PoolNot4d", "AlphaPooling", "kernel=(2,2) pool_type=max", "(2,3,4)",
     "dshape.ndim() == 4 (3 vs. 4)",
     "AlphaPooling: Input data should be 4D in (batch, y, x, channel)"},
    {"PoolKernelTooBig", "AlphaPooling", "kernel=(5,2) pool_type=avg", "(1,3,4,2)",
     "oshape[1] > 0 && oshape[2] > 0", "AlphaPooling: kernel size exceed input"},
    {"UpscaleNot4d", "AlphaUpscale", "", "(2,3,4)", "dshape.ndim() == 4 (3 vs. 4)",
     "AlphaUpscale's input should have 4 dimensions"},
};
INSTANTIATE_TEST_SUITE_P(Layers, QuantStreamBuildDeathTest, testing::ValuesIn(kRows), CaseName);

}  // namespace
