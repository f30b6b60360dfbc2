// The layers: the registry and the scratch buffers; every family run
// through the prediction interface on the nets of the fixture generators
// (gen_net_fixtures.py, gen_float_fixtures.py, gen_quant_fixtures.py,
// gen_stream_fixtures.py) and compared with numpy, which also pins their
// shape rules; then every layer's fatal checks on bad attributes, shapes,
// inputs and files.

#include "ruvo/layer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/fullyconnected.h"
#include "ruvo/src/net.h"
#include "tests/ruvo/death_text.h"
#include "tests/ruvo/net_fixture.h"

namespace orvik {
namespace ruvo {
namespace {

using net_test::LoadModel;
using net_test::Model;
using net_test::Tensor;
using ruvo_test::Fatal;

// A layer made through the registry, as the net makes it.
std::unique_ptr<Layer> MakeLayer(const std::string& op, const LayerAttrs& attrs) {
  std::unique_ptr<Layer> layer(create_layer(layer_to_index(op.c_str())));
  EXPECT_NE(layer, nullptr) << op;
  if (layer) layer->Init(attrs);
  return layer;
}

// ------------------------------------------------ registry and scratch

class RecordingSink : public rtc::LogSink {
 public:
  void OnLogLine(const std::string& message) override { lines.push_back(message); }
  std::vector<std::string> lines;
};

// Unknown names and indices give -1 and null with a log line; operators
// whose classes are not in this build have null creators (logged too), the
// others make a fresh layer on every call.
TEST(RegistryTest, LooksUpNamesAndIndices) {
  RecordingSink sink;
  rtc::LogMessage::AddLogToStream(&sink, rtc::LS_WARNING);
  auto logged = [&sink](const std::string& text) {
    bool found = false;
    for (const std::string& line : sink.lines) found = found || line.find(text) != std::string::npos;
    sink.lines.clear();
    return found;
  };
  EXPECT_EQ(layer_to_index("Input"), 0);
  EXPECT_EQ(layer_to_index("slice"), 35);  // the last
  EXPECT_FALSE(logged(""));
  for (const char* name : {"null", "", "input", "Inputs", "slice "}) {
    EXPECT_EQ(layer_to_index(name), -1) << name;
    EXPECT_TRUE(logged(std::string("layer ") + name + " not exists")) << name;
  }
  for (int index : {36, -1, 1000, -2147483647 - 1}) {
    EXPECT_EQ(create_layer(index), nullptr) << index;
    EXPECT_TRUE(logged("layer index " + std::to_string(index) + " not exists")) << index;
  }
  std::unique_ptr<Layer> input(create_layer(0)), other(create_layer(0));
  EXPECT_NE(dynamic_cast<Input*>(input.get()), nullptr);
  EXPECT_NE(other.get(), input.get());
  for (int index = 0; index < 36; ++index) {
    std::unique_ptr<Layer> layer(create_layer(index));
    if (layer != nullptr) {
      EXPECT_FALSE(layer->inited_) << index;
    } else {
      EXPECT_TRUE(logged("layer index " + std::to_string(index) + " not enabled")) << index;
    }
  }
  rtc::LogMessage::RemoveLogToStream(&sink);
}

// A slot hands out views of its buffer until a request is larger, which
// reallocates (old handles keep the old block); it never shrinks, and
// growth to another type takes that type.
TEST(ResourceTest, ViewsUntilItMustGrow) {
  Resource res;
  EXPECT_NE(res.inter_buf_[0].chunk_, res.inter_buf_[1].chunk_);
  auto first = res.inter_buf_[0].chunk_;
  NDArray same = res.GetInterBuf(0, TShape{16}, kFloat32);
  NDArray bytes = res.GetInterBuf(0, TShape{64}, kInt8);  // the same 64 bytes
  EXPECT_EQ(same.chunk_, first);
  EXPECT_EQ(bytes.chunk_, first);
  EXPECT_EQ(bytes.dtype(), kInt8);
  EXPECT_EQ(bytes.shape(), TShape{64});

  same.dptr<float>()[15] = 3.0f;
  NDArray grown = res.GetInterBuf(0, TShape{17}, kFloat32);
  EXPECT_NE(grown.chunk_, first);
  EXPECT_EQ(res.inter_buf_[0].shape(), TShape{17});
  EXPECT_EQ(same.dptr<float>()[15], 3.0f);
  EXPECT_EQ(res.GetInterBuf(0, TShape{2, 2}, kInt32).chunk_, grown.chunk_);

  NDArray ints = res.GetInterBuf(2, TShape{5, 4}, kInt32);
  EXPECT_EQ(res.inter_buf_[2].dtype(), kInt32);
  EXPECT_EQ(ints.chunk_, res.inter_buf_[2].chunk_);
  EXPECT_EQ(res.inter_buf_[1].shape(), TShape{16});
}

TEST(ResourceDeathTest, OnlyThreeSlots) {
  Resource res;
  EXPECT_DEATH(res.GetInterBuf(3, TShape{1}, kFloat32),
               Fatal("idx < num_inter_buf_ (3 vs. 3)", "Only support 3share buffer"));
  EXPECT_DEATH(res.GetInterBuf(-1, TShape{1}, kFloat32),
               Fatal("idx >= 0 (-1 vs. 0)", "Only support 3share buffer"));
}

// ------------------------------------------------------ nets vs numpy

// The 8-bit dense outputs (fc_q, fc_qt) carry bounds from the generator:
// each input off by less than range/254, each weight by less than
// max|w|/127.  The 8-bit pools (pool8, behind a QuantiInput) are exact
// against integer numpy, the average truncated toward zero.  Later runs
// give the same (BatchNorm inverts its variance only once) and allocate
// nothing.
struct NetCase {
  const char* model;
  std::vector<std::string> heads;  // the net's outputs in graph order; none: in name order
};

class FixtureNetTest : public testing::TestWithParam<NetCase> {};

TEST_P(FixtureNetTest, OutputsMatchNumpy) {
  net_test::ExpectNetMatches(GetParam().model, GetParam().heads, net_test::kAtol, net_test::kRtol);
}

std::string ModelName(const testing::TestParamInfo<NetCase>& info) { return info.param.model; }

// These nets run again on a CPU without the 8-bit dot product (see
// scripts/test.sh), the others only once.
INSTANTIATE_TEST_SUITE_P(
    Nets, FixtureNetTest,
    testing::Values(
        NetCase{"mlp", {"softmax"}}, NetCase{"mlp_old", {"softmax"}},
        NetCase{"activations", {"relu", "sigmoid", "tanh", "softrelu"}},
        NetCase{"softmax",
                {"sm_inst", "sm_chan", "so_plain", "so_preserve", "so_multi", "so_both"}},
        NetCase{"flatten", {"flat_sw", "flat_plain"}},
        NetCase{"concat", {"cat3", "cat1", "cat2", "catsw"}},
        NetCase{"reshape",
                {"r_keep_infer", "r_merge_rest", "r_split", "r_all", "r_merge_last",
                 "r_split_right", "r_reverse", "r_target", "r_keep_highest", "r_inplace"}},
        NetCase{"slice", {"sa_tail", "sa_neg", "sa_mid", "sl_axis1", "sl_neg", "sl_last"}},
        NetCase{"fc_quant", {"fc_f", "fc_q", "fc_f2", "fc_qt"}}),
    ModelName);
INSTANTIATE_TEST_SUITE_P(FloatNets, FixtureNetTest,
                         testing::Values(NetCase{"pool", {}}, NetCase{"bn", {}},
                                         NetCase{"elemwise", {}}, NetCase{"upsample", {}},
                                         NetCase{"lstm", {}}, NetCase{"pool8", {}}),
                         ModelName);

// Concat agrees on one element type and hands it to all.
TEST(StructureLayerTest, ConcatSharesOneType) {
  auto concat = MakeLayer("Concat", {{"num_args", "3"}});
  std::vector<int> types = {-1, 0, -1}, out(1, -1), aux, none = {-1, -1, -1};
  EXPECT_TRUE(concat->InferType(types, out, aux));
  EXPECT_EQ(types, (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(out, (std::vector<int>{0}));
  EXPECT_FALSE(concat->InferType(none, out, aux));
}

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
      DefaultNet net;
      ASSERT_EQ(net.Config(m.json.c_str(), m.params.data(), m.params.size(), 1, s.keys.data(),
                           s.indptr.data(), s.data.data(), 0, nullptr),
                0);
      for (const auto& in : c.inputs) {
        net.SetInput(in.first.c_str(), in.second.values.data(), in.second.values.size());
      }
      net.Forward();
      for (uint32_t i = 0; i < n.heads.size(); ++i) {
        const NDArray& blob = net.blobs()[net.outs_blobs_index()[i]];
        if (blob.dtype() != kInt8) continue;
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
  auto layer = MakeLayer("AlphaUpscale", {});
  NDArray in(TShape{1, 2, 2, 5}, kInt8), out(TShape{1, 4, 4, 5}, kInt8);
  signed char* o = out.dptr<signed char>();
  std::fill(in.dptr<signed char>(), in.dptr<signed char>() + in.Size(), 9);
  std::fill(o, o + out.Size(), 0x55);
  std::vector<NDArray*> bottoms = {&in}, tops = {&out}, auxes;
  EXPECT_EQ(layer->Forward(bottoms, tops, auxes), 0);
  EXPECT_EQ(std::count(o, o + out.Size(), 0x55), static_cast<long>(out.Size()));
}

// ------------------------------------------------------- fatal checks

// One layer that must abort: attributes as "key=value ...", input shapes as
// "(2,3) () (4,5)" (none: the failure is in Init), and the failed check and
// its message as printed.
struct FatalCase {
  const char* name;
  const char* op;
  const char* attrs;
  const char* in;
  const char* check;
  const char* message = "";  // none: the report's message is empty
};

// Init, InferShape on the row's inputs, then a Forward on float inputs, and
// outputs of the inferred shapes and types (no aux states), must end in the
// row's report; an InferShape that returns false ends the run without it.
void ExpectAborts(const FatalCase& fc) {
  LayerAttrs attrs;
  std::istringstream words(fc.attrs);
  for (std::string w; words >> w;) attrs[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
  std::vector<TShape> in, out(1), aux;
  std::istringstream shapes(fc.in);
  for (TShape s; shapes >> s; s = TShape()) in.push_back(s);
  auto run = [&] {
    auto layer = MakeLayer(fc.op, attrs);
    if (!layer->InferShape(in, out, aux)) return;  // no death: the test fails
    std::vector<int> types(in.size(), kFloat32), out_types, aux_types;
    layer->InferType(types, out_types, aux_types);
    types.insert(types.end(), out_types.begin(), out_types.end());
    std::vector<NDArray> arrays;
    for (size_t i = 0; i < in.size() + out.size(); ++i) {
      arrays.emplace_back(i < in.size() ? in[i] : out[i - in.size()], types.at(i));
    }
    std::vector<NDArray*> bottoms, tops, auxes;
    for (size_t i = 0; i < arrays.size(); ++i) {
      (i < in.size() ? bottoms : tops).push_back(&arrays[i]);
    }
    Resource resource;
    layer->resource_ = &resource;
    layer->Forward(bottoms, tops, auxes);
  };
  EXPECT_DEATH(run(), Fatal(fc.check, fc.message));
}

std::string CaseName(const testing::TestParamInfo<FatalCase>& info) {
  return info.param.name;
}

// Bad attributes and shapes are fatal at build time with the layer's own
// words, and what passes them but does not compute at the first run.
class LayerDeathTest : public testing::TestWithParam<FatalCase> {};

TEST_P(LayerDeathTest, Aborts) { ExpectAborts(GetParam()); }

const FatalCase kRows[] = {
    {"NumHiddenZero", "FullyConnected", "num_hidden=0", "", "num_hidden_ >= 1 (0 vs. 1)"},
    {"WeightShape", "FullyConnected", "num_hidden=4", "(2,6) (4,5) ()",
     "out == Shape2(num_hidden_, num_input)",
     "Shape inconsistent, Provided (4,5) inferrend shape=(4,6)"},
    {"SoftmaxIsNoActType", "Activation", "act_type=softmax", "",
     "activation::act_map.count(act_type_symbol)"},
    {"SoftmaxMode", "SoftmaxActivation", "mode=spatial", "", "(softmax::mode_map.count(str_mode))"},
    {"ChannelSoftmax2d", "SoftmaxActivation", "mode=channel", "(2,3)",
     "bottom_blobs[softmax::kData]->ndim() >= 3 (2 vs. 3)",
     "Input need to have a least 3 dimensions when mode=channel"},
    {"FlattenSwitchOn2d", "Flatten", "", "(3,4)", "dshape.ndim() == 4 (2 vs. 4)",
     "Set auto_channel_switch to false if the flatten's input is not conv's output"},
    // Every layer reads its flags with one parser: one row for it.
    {"FlattenBadBool", "Flatten", "auto_channel_switch=yes", "",
     "((str_auto_chn_sw) == \"True\" || (str_auto_chn_sw) == \"False\")"},
    {"ConcatDimZero", "Concat", "num_args=2 dim=0", "", "(dim_ > 0 && dim_ <= 4)"},
    {"ConcatNoArgs", "Concat", "num_args=0", "", "(num_args_ >= 1)"},
    {"ConcatSwitchOff", "Concat", "num_args=2 dim=2 auto_channel_switch=True",
     "(1,2,3,4) (1,2,3,4)", "dshape.ndim() == 4 && dim_ == 1",
     "Set auto_channel_switch to false if not concat on channel between conv outputs"},
    {"ConcatAxisPastEnd", "Concat", "num_args=2 dim=2", "(2,3) (2,3)",
     "static_cast<index_t>(dim_) < dshape.ndim() (2 vs. 2)",
     "the dimension to be concated is not in the range of input's dimension"},
    {"ConcatUneven", "Concat", "num_args=2 dim=1", "(2,3) (4,3)", "dshape[j] == tmp[j] (4 vs. 2)"},
    {"ReshapeTwoInferred", "Reshape", "shape=(-1,-1)", "(2,3)", "inf_idx < 0 (0 vs. 0)",
     "One and only one dim can be inferred"},
    {"ReshapeSplitBothInferred", "Reshape", "shape=(-4,-1,-1)", "(6)", "d1 != -1 || d2 != -1",
     "Split dims cannot both be -1."},
    {"ReshapeSplitNotDividing", "Reshape", "shape=(-4,4,2)", "(6)",
     "d1 * d2 == static_cast<int>(d0) (8 vs. 6)"},
    {"ReshapeNoShape", "Reshape", "", "(6)", "shape_.ndim() != 0 || target_shape_.ndim() != 0",
     "target shape or shape must be present."},
    {"ReshapeTargetRank", "Reshape", "target_shape=(1,2,3)", "", "target_shape_.ndim() == 2"},
    {"ReshapeCopyPastEnd", "Reshape", "shape=(0,0,0)", "(2,3)", "src_idx < dshape_len (2 vs. 2)"},
    {"SliceTwoAxes", "slice", "begin=(1,1) end=(2,2)", "", "axis_ < 0",
     "Only support slice on one axis"},
    {"SliceRank5", "slice", "begin=(None,1) end=(None,2)", "(1,2,3,4,5)", "ishape.ndim() <= 4",
     "Input should be less than or equal to 4 dimensions"},
    {"SliceAxisTooLarge", "slice_axis", "axis=4 begin=0 end=1", "(2,3,4,5)",
     "*axis < static_cast<int>(ishape.ndim()) && *axis >= 0",
     "Transformed axis must be smaller than the source ndim and larger than zero! Recieved axis=4, "
     "src_ndim=4, transformed axis=4"},
    {"SliceAxisEndPastAxis", "slice_axis", "axis=1 begin=0 end=4", "(2,3)",
     "(*end <= axis_size) && (*end >= 0)", "Invalid begin, end, get begin=0, end=4"},
    {"SoftmaxOutputBadLabel", "SoftmaxOutput", "", "(2,3,4) (7)", "false",
     "softmaxoutput label shape error"},
    {"SoftmaxOutputModeLabel", "SoftmaxOutput", "", "(2,3,4) (2,3)", "out == label_shape",
     "Shape inconsistent, Provided (2,3) inferrend shape=(2,)"},
    {"PoolNoKernel", "Pooling", "pool_type=max", "", "kernel_.ndim() == 2 (0 vs. 2)"},
    {"PoolUnknownType", "Pooling", "kernel=(2,2) pool_type=min", "",
     "pool::pool_map.count(pool_type_symbol)"},
    // The default's own spelling is no legal value.
    {"PoolConventionDefault", "Pooling", "kernel=(2,2) pool_type=avg pooling_convention=kValid", "",
     "pool::pool_convention_map.count(pooling_convention_symbol)"},
    {"PoolStride0", "Pooling", "kernel=(2,2) pool_type=max stride=(0,2)", "",
     "global_pool_ || (kernel_[0] > 0 && kernel_[1] > 0 && stride_[0] > 0 && stride_[1] > 0)",
     "Pooling: kernel and stride must be positive"},
    {"PoolNot4d", "Pooling", "kernel=(3,3) pool_type=max", "(7,7,3)",
     "dshape.ndim() == 4 (3 vs. 4)", "Pooling: Input data should be 4D in (batch, y, x, channel)"},
    // Sizes are unsigned: 2 - 3 wraps, and one more makes 0.
    {"PoolKernelBig", "Pooling", "kernel=(3,3) pool_type=max", "(1,2,5,1)",
     "oshape[1] > 0 && oshape[2] > 0", "Pooling: kernel size exceed input"},
    {"BatchNormNot4d", "BatchNorm", "", "(2,3,4) () ()", "dshape.ndim() == 4 (3 vs. 4)",
     "For predict, input shape must be 4"},
    {"DropoutPOne", "Dropout", "p=1.0", "", "p_ >= 0 && p_ < 1"},
    {"DropoutMode", "Dropout", "mode=never", "", "dropout::mode_map.count(mode_symbol)"},
    {"PlusScalarZero", "_plus_scalar", "scalar=0", "", "scalar_ != 0"},
    {"PlusShapes", "elemwise_add", "", "(2,3) (3,2)", "out == dshape",
     "Shape inconsistent, Provided (3,2) inferrend shape=(2,3)"},
    {"BroadcastIncompatible", "broadcast_mul", "", "(2,3) (2,4)", "l == r || l == 1 || r == 1",
     "operands could not be broadcast together with shapes (2,3) (2,4)"},
    {"BroadcastRank", "broadcast_mul", "", "(1,1,1,1,1,2) (2)",
     "ndim <= broadcast_reduce::kMaxDim (6 vs. 5)", "NDim too large "},
    {"SumAxisOutOfRange", "sum", "axis=3", "(2,3,4)", "k >= 0 && k < ndim",
     "axis 3 exceeds the input dimension of 3"},
    {"RnnNoLayers", "RNN", "state_size=4", "", "attrs.count(key)", "Invalid key: num_layers"},
    {"RnnMode", "RNN", "state_size=4 num_layers=1 mode=rnn_relu", "",
     "rnn::mode_map.count(mode_symbol)"},
    {"RnnStateShape", "RNN", "state_size=4 num_layers=2 state_inputs=True", "(3,2,5) () (1,2,4) ()",
     "out == Shape3(total_layers, batch_size, state_size_)",
     "Shape inconsistent, Provided (1,2,4) inferrend shape=(2,2,4)"},
    // Cells other than the LSTM, and states that are not inputs, stop at
    // the first run.
    {"RnnGru", "RNN", "state_size=4 num_layers=1 mode=gru state_inputs=True", "(2,1,3) () ()",
     "false", "Not impl rnn.gru currently"},
    {"RnnTanh", "RNN", "state_size=4 num_layers=1 mode=rnn_tanh state_inputs=True",
     "(2,1,3) () ()", "false", "Not impl rnnrelu and rnntanh currently"},
    {"LstmStatesNotInputs", "RNN", "state_size=4 num_layers=1 mode=lstm", "(2,1,3) ()",
     "state_inputs_", "state inputs must be true when using Rnn op's cpu version"},
    {"UpScale0", "UpSampling", "scale=0 sample_type=nearest", "", "scale_ >= 1 && scale_ <= 1000"},
    {"UpNot4d", "UpSampling", "scale=2 sample_type=nearest", "(3,4,5)",
     "shape.ndim() == 4U (3 vs. 4)",
     "UpSamplingNearest: Input data should be 4D in (batch, channel, y, x)"},
    // The 8-bit layers read their flags and pool types with the float
    // layers' parsers: no rows of their own for those.
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
    {"ConvWeightShape", "AlphaConvolution", "kernel=(3,3) num_filter=4", "(1,5,5,2) (4,3,3,3) ()",
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
    {"AlphaPoolNot4d", "AlphaPooling", "kernel=(2,2) pool_type=max", "(2,3,4)",
     "dshape.ndim() == 4 (3 vs. 4)",
     "AlphaPooling: Input data should be 4D in (batch, y, x, channel)"},
    {"PoolKernelTooBig", "AlphaPooling", "kernel=(5,2) pool_type=avg", "(1,3,4,2)",
     "oshape[1] > 0 && oshape[2] > 0", "AlphaPooling: kernel size exceed input"},
    {"UpscaleNot4d", "AlphaUpscale", "", "(2,3,4)", "dshape.ndim() == 4 (3 vs. 4)",
     "AlphaUpscale's input should have 4 dimensions"},
};
INSTANTIATE_TEST_SUITE_P(Layers, LayerDeathTest, testing::ValuesIn(kRows), CaseName);

// The default InferType needs a known first type; a run before Init stops.
TEST(LayerBaseDeathTest, TypesAndInit) {
  Layer layer;
  std::vector<int> empty, out, aux, unknown{-1, 0};
  EXPECT_DEATH(layer.InferType(empty, out, aux), Fatal("in_type.size() >= 1 (0 vs. 1)", ""));
  EXPECT_DEATH(layer.InferType(unknown, out, aux),
               Fatal("dtype != -1", "First input must have specified type"));
  FullyConnected fc;
  std::vector<NDArray*> none;
  EXPECT_DEATH(fc.Forward(none, none, none), Fatal("inited_", "Init first!"));
}

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
}  // namespace ruvo
}  // namespace orvik
