// The dense and structure layers, run through the prediction interface on
// nets written by gen_net_fixtures.py and compared with numpy (which also
// pins their shape rules), plus their attribute errors on single layers.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ruvo/src/layer/fullyconnected.h"
#include "tests/ruvo/death_text.h"
#include "tests/ruvo/layer_cases.h"
#include "tests/ruvo/net_fixture.h"

namespace {

using orvik::ruvo::TShape;
using ruvo_test::ExpectBuildAborts;
using ruvo_test::Fatal;
using ruvo_test::FatalCase;
using ruvo_test::MakeLayer;

// Float results against numpy in double: a few float roundings per
// element, and the polynomial exponential of the softmax (about 1e-7
// relative), stay well inside these.
constexpr float kAtol = 2e-6f;
constexpr float kRtol = 2e-5f;

// The 8-bit dense outputs (fc_q, fc_qt) carry bounds from the generator:
// each input off by less than range/254, each weight by less than
// max|w|/127.
struct NetCase {
  const char* model;
  std::vector<std::string> heads;  // the net's outputs, in graph order
};

class FixtureNetTest : public testing::TestWithParam<NetCase> {};

TEST_P(FixtureNetTest, OutputsMatchNumpy) {
  net_test::ExpectNetMatches(GetParam().model, GetParam().heads, kAtol, kRtol);
}

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
    [](const testing::TestParamInfo<NetCase>& info) { return std::string(info.param.model); });

// --------------------------------------------------------- single layers

// Concat agrees on one element type and hands it to all.
TEST(StructureLayerTest, ConcatSharesOneType) {
  auto concat = MakeLayer("Concat", {{"num_args", "3"}});
  std::vector<int> types = {-1, 0, -1}, out(1, -1), aux, none = {-1, -1, -1};
  EXPECT_TRUE(concat->InferType(types, out, aux));
  EXPECT_EQ(types, (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(out, (std::vector<int>{0}));
  EXPECT_FALSE(concat->InferType(none, out, aux));
}

// Bad attributes and shapes are fatal at build time with the layer's own
// words.
class LayerDeathTest : public testing::TestWithParam<FatalCase> {};

TEST_P(LayerDeathTest, Aborts) { ExpectBuildAborts(GetParam()); }

const FatalCase kRows[] = {
    {"NumHiddenZero", "FullyConnected", "num_hidden=0", "", "num_hidden_ >= 1 (0 vs. 1)"},
    {"WeightShape", "FullyConnected", "num_hidden=4", "(2,6) (4,5) ()",
     "out == Shape2(num_hidden_, num_input)",
     "Shape inconsistent, Provided (4,5) inferrend shape=(4,6)"},
    {"SoftmaxIsNoActType", "Activation", "act_type=softmax", "",
     "activation::act_map.count(act_type_symbol)"},
    {"SoftmaxMode", "SoftmaxActivation", "mode=spatial", "", "(softmax::mode_map.count(str_mode))"},
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
};
INSTANTIATE_TEST_SUITE_P(Layers, LayerDeathTest, testing::ValuesIn(kRows), ruvo_test::CaseName);

// Forward-time rules: a 2-d input in mode "channel", and a layer that was
// never initialised.
TEST(LayerForwardDeathTest, ChannelSoftmaxNeedsThreeAxes) {
  auto layer = MakeLayer("SoftmaxActivation", {{"mode", "channel"}});
  orvik::ruvo::NDArray in(TShape{2, 3}, 0), out(TShape{2, 3}, 0);
  std::vector<orvik::ruvo::NDArray*> bottoms = {&in}, tops = {&out}, none;
  EXPECT_DEATH(layer->Forward(bottoms, tops, none),
               Fatal("bottom_blobs[softmax::kData]->ndim() >= 3 (2 vs. 3)",
                     "Input need to have a least 3 dimensions when mode=channel"));
  orvik::ruvo::FullyConnected fc;
  EXPECT_DEATH(fc.Forward(none, none, none), Fatal("inited_", "Init first!"));
}

}  // namespace
