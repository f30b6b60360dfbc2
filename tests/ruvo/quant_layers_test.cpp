// Convolution (float and online 8-bit) and the 8-bit layers, run through the
// prediction interface on nets written by gen_quant_fixtures.py and
// gen_stream_fixtures.py: float results against numpy within rounding,
// online 8-bit results within their computed quantisation error, and 8-bit
// layers bit for bit with their shifts.  The streaming layers take the batch
// axis as time: pushing a sequence one frame a call, three frames a call,
// with a reset in the middle or with UpdateInterBuff between calls gives the
// integer numpy results bit for bit.  Then the fatal checks on bad
// attributes, shapes and files.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ruvo/src/net.h"
#include "tests/ruvo/layer_cases.h"
#include "tests/ruvo/net_fixture.h"

namespace {

using net_test::LoadModel;
using net_test::Model;
using net_test::Tensor;
using orvik::ruvo::NDArray;
using orvik::ruvo::TShape;
using ruvo_test::Fatal;
using ruvo_test::FatalCase;

// Float convolutions against numpy (a few dozen float products per element,
// summed in another order), each followed by its online 8-bit twin within
// its computed quantisation error.
TEST(ConvolutionTest, FloatMatchesNumpyAndEightBitStaysWithinItsError) {
  std::vector<std::string> heads;
  for (const char* conv : {"c_basic", "c_stride_pad", "c_dilate", "c_group", "c_group_1x1", "c_1x1",
                           "c_1x1_stride"}) {
    heads.insert(heads.end(), {conv, std::string(conv) + "_q"});
  }
  net_test::ExpectNetMatches("conv", heads, 1e-5f, 1e-5f);
}

// The 8-bit layers bit for bit through the interface; then, on a net run
// directly where the blobs show, each 8-bit head's shift.  Pooling and
// doubling keep the input's scale, the convolution with scale overrides
// writes its own; the float pools are exact too, computed in the same order.
TEST(QuantisedNetTest, OutputsAndShiftsAreExact) {
  const struct {
    const char* net;
    std::vector<std::string> heads;
  } nets[] = {
      {"quant",
       {"qin", "qin5", "a1", "a2", "a3", "a4", "a5", "a6", "a7", "a8", "qflat", "qact", "nhcw_f",
        "nhcw_q"}},
      {"alpha",
       {"p_max", "p_avg_full", "p_avg_global", "p_float_avg", "p_float_max", "up", "up_1x1"}},
      {"alpha_plus", {"ap_in_shift", "ap_bias_edata", "ap_align"}},
  };
  for (const auto& n : nets) {
    net_test::ExpectNetMatches(n.net, n.heads, 0, 0);
    Model m = LoadModel(n.net);
    for (const auto& c : m.cases) {
      net_test::InputShapes s = net_test::ShapesOf(c);
      orvik::ruvo::DefaultNet net;
      ASSERT_EQ(net.Config(m.json.c_str(), m.params.data(), m.params.size(), 1, s.keys.data(),
                           s.indptr.data(), s.data.data(), 0, nullptr),
                0);
      for (const auto& in : c.inputs) {
        net.SetInput(in.first.c_str(), in.second.values.data(), in.second.values.size());
      }
      net.Forward();
      for (uint32_t i = 0; i < n.heads.size(); ++i) {
        const NDArray& blob = net.blobs()[net.outs_blobs_index()[i]];
        if (blob.dtype() != orvik::ruvo::kInt8) continue;
        EXPECT_EQ(blob.shift_, c.outputs.at(n.heads[i] + ".shift").values.at(0))
            << n.net << "/" << c.name << "/" << n.heads[i];
      }
    }
  }
}

// Heads of the streaming net in graph order, and whether each is 8-bit
// (copied out a byte an element) or float.
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
  Model m = LoadModel("stream");
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
  NDArray in(TShape{1, 2, 2, 5}, kInt8), out(TShape{1, 4, 4, 5}, kInt8);
  signed char* o = out.dptr<signed char>();
  std::fill(in.dptr<signed char>(), in.dptr<signed char>() + in.Size(), 9);
  std::fill(o, o + out.Size(), 0x55);
  std::vector<NDArray*> bottoms = {&in}, tops = {&out}, auxes;
  EXPECT_EQ(layer->Forward(bottoms, tops, auxes), 0);
  EXPECT_EQ(std::count(o, o + out.Size(), 0x55), static_cast<long>(out.Size()));
}

// Bad attributes and shapes are fatal at build time, with the layers' own
// words; the flag and pool type parsers are the float layers' and tested
// there.
class QuantLayerDeathTest : public testing::TestWithParam<FatalCase> {};

TEST_P(QuantLayerDeathTest, Aborts) { ruvo_test::ExpectAborts(GetParam()); }

const FatalCase kRows[] = {
    {"NoKernel", "Convolution", "num_filter=2", "", "kernel_.ndim() == 2 (0 vs. 2)"},
    {"TooManyFilters", "AlphaConvolution", "kernel=(1,1) num_filter=100001", "",
     "num_filter_ >= 1 && num_filter_ <= 100000"},
    {"ZeroStride", "Convolution", "kernel=(1,1) num_filter=1 stride=(0,1)", "",
     "kernel_[0] > 0 && kernel_[1] > 0 && stride_[0] > 0 && stride_[1] > 0 && dilate_[0] > 0 && "
     "dilate_[1] > 0",
     "kernel, stride and dilate must be positive"},
    {"DataNot4d", "Convolution", "kernel=(3,3) num_filter=4", "(5,5,2) () ()",
     "dshape.ndim() == 4 (3 vs. 4)", "Input data should be 4D in batch-y-x-num_filter"},
    // A "%" in a report prints as itself, never as a conversion.
    {"GroupsSplit", "Convolution", "kernel=(1,1) num_filter=4 num_group=2", "(1,3,3,7) () ()",
     "dshape[3] % num_group_ == 0 (1 vs. 0)", "input num_filter must divide group size"},
    {"WeightShape", "AlphaConvolution", "kernel=(3,3) num_filter=4", "(1,5,5,2) (4,3,3,3) ()",
     "out == Shape4(num_filter_, kernel_[0], kernel_[1], dshape[3] / num_group_)",
     "Shape inconsistent, Provided (4,3,3,3) inferrend shape=(4,3,3,2)"},
    {"KernelTooBig", "Convolution", "kernel=(3,3) num_filter=1 dilate=(3,1)", "(1,6,6,1) () ()",
     "ksize_y <= dshape[1] + 2 * pad_[0] && ksize_x <= dshape[2] + 2 * pad_[1]",
     "kernel size exceed input"},
    {"EdataShape", "AlphaConvolution", "kernel=(1,1) num_filter=2 elementwise_input=True",
     "(1,3,3,2) () () (1,3,3,3)", "out_shape[0] == in_shape[3]",
     "mismatch shape for elementwise_data "},
    {"UnknownTruncate", "QuantiInput", "truncate=round", "",
     "quanti_input::truncate_map.count(trun_type_symbol)"},
    // "ceil" is a known word that no run accepts.
    {"CeilAtRun", "QuantiInput", "truncate=ceil fixed_output_shift=2", "(1,4)", "false",
     "Not support ceil!"},
    {"NhcwNot4d", "NHCW2Conv", "", "(2,3,4)", "shape0.ndim() == 4 (3 vs. 4)"},
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
INSTANTIATE_TEST_SUITE_P(Layers, QuantLayerDeathTest, testing::ValuesIn(kRows),
                         ruvo_test::CaseName);

// Parameter files whose arrays do not fit the graph fail at the first run;
// so does a first call longer than a temporal window (three frames here),
// whose history holds one window per time step of that call.
TEST(QuantisedNetDeathTest, FileAndFirstCallErrorsAreFatal) {
  const struct {
    const char* params;
    const char *check, *message;
  } files[] = {
      {"quant_short_table", "table.Size() == n",
       "weight_vec_shift_history must hold one entry per output channel"},
      {"quant_short_weight",
       "weight.dtype() == kInt8 && weight.ndim() == 4 && weight.Size() == nf * attrs_.kernel_[0] * "
       "attrs_.kernel_[1] * (data.shape()[3] / attrs_.num_group_)",
       "weight does not match the convolution"},
  };
  for (const auto& f : files) {
    Model m = LoadModel("quant", f.params);
    PredictorHandle h = net_test::Create(m, m.cases.at(0));
    net_test::SetInputs(h, m.cases.at(0));
    EXPECT_DEATH(MXPredForward(h), Fatal(f.check, f.message)) << f.params;
    MXPredFree(h);
  }
  Model m = LoadModel("stream");
  const Tensor& seq = m.cases.at(0).inputs.at(0).second;
  PredictorHandle h = net_test::CreateForData(m, {6, 1, 5, 3});
  ASSERT_NE(h, nullptr);
  MXPredSetInput(h, "data", seq.values.data(), 6 * kFrame);
  EXPECT_DEATH(MXPredForward(h), Fatal("input_buff_frames_ >= ishape[0] (3 vs. 6)", ""));
  MXPredFree(h);
}

}  // namespace
