// The float layers (dense, structure, pooling, BatchNorm and Dropout, the
// element-wise family, UpSampling, the LSTM) and the 8-bit pools, run
// through the prediction interface on nets written by gen_net_fixtures.py
// and gen_float_fixtures.py and compared with numpy (which also pins their
// shape rules); then their fatal checks on bad attributes, shapes and
// inputs.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ruvo/src/layer/fullyconnected.h"
#include "tests/ruvo/layer_cases.h"
#include "tests/ruvo/net_fixture.h"

namespace {

using ruvo_test::Fatal;
using ruvo_test::FatalCase;

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
  auto concat = ruvo_test::MakeLayer("Concat", {{"num_args", "3"}});
  std::vector<int> types = {-1, 0, -1}, out(1, -1), aux, none = {-1, -1, -1};
  EXPECT_TRUE(concat->InferType(types, out, aux));
  EXPECT_EQ(types, (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(out, (std::vector<int>{0}));
  EXPECT_FALSE(concat->InferType(none, out, aux));
}

// Bad attributes and shapes are fatal at build time with the layer's own
// words, and what passes them but does not compute at the first run.
class LayerDeathTest : public testing::TestWithParam<FatalCase> {};

TEST_P(LayerDeathTest, Aborts) { ruvo_test::ExpectAborts(GetParam()); }

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
};
INSTANTIATE_TEST_SUITE_P(Layers, LayerDeathTest, testing::ValuesIn(kRows), ruvo_test::CaseName);

TEST(LayerForwardDeathTest, RunBeforeInit) {
  orvik::ruvo::FullyConnected fc;
  std::vector<orvik::ruvo::NDArray*> none;
  EXPECT_DEATH(fc.Forward(none, none, none), Fatal("inited_", "Init first!"));
}

}  // namespace
