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
using ruvo_test::RegexEscape;

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

INSTANTIATE_TEST_SUITE_P(
    Layers, LayerDeathTest,
    testing::Values(
        FatalCase{"NumHiddenZero", "FullyConnected", {{"num_hidden", "0"}}, {},
                  Fatal("num_hidden_ >= 1 (0 vs. 1)", "")},
        FatalCase{"WeightShapeInconsistent", "FullyConnected", {{"num_hidden", "4"}},
                  {TShape{2, 6}, TShape{4, 5}, TShape()},
                  Fatal("out == Shape2(num_hidden_, num_input)",
                        "Shape inconsistent, Provided (4,5) inferrend shape=(4,6)")},
        FatalCase{"SoftmaxIsNoActType", "Activation", {{"act_type", "softmax"}}, {},
                  RegexEscape("Check failed: activation::act_map.count(act_type_symbol)")},
        FatalCase{"UnknownSoftmaxMode", "SoftmaxActivation", {{"mode", "spatial"}}, {},
                  RegexEscape("Check failed: (softmax::mode_map.count(str_mode))")},
        FatalCase{"FlattenSwitchOn2d", "Flatten", {}, {TShape{3, 4}},
                  Fatal("dshape.ndim() == 4 (2 vs. 4)",
                        "Set auto_channel_switch to false if the flatten's input is not conv's "
                        "output")},
        FatalCase{"FlattenBadBool", "Flatten", {{"auto_channel_switch", "yes"}}, {},
                  RegexEscape("((str_auto_chn_sw) == \"True\"")},
        FatalCase{"ConcatDimZero", "Concat", {{"num_args", "2"}, {"dim", "0"}}, {},
                  RegexEscape("Check failed: (dim_ > 0 && dim_ <= 4)")},
        FatalCase{"ConcatNoArgs", "Concat", {{"num_args", "0"}}, {},
                  RegexEscape("Check failed: (num_args_ >= 1)")},
        FatalCase{"ConcatSwitchOffChannel", "Concat",
                  {{"num_args", "2"}, {"dim", "2"}, {"auto_channel_switch", "True"}},
                  {TShape{1, 2, 3, 4}, TShape{1, 2, 3, 4}},
                  Fatal("dshape.ndim() == 4 && dim_ == 1",
                        "Set auto_channel_switch to false if not concat on channel between conv "
                        "outputs")},
        FatalCase{"ConcatAxisOutOfRange", "Concat", {{"num_args", "2"}, {"dim", "2"}},
                  {TShape{2, 3}, TShape{2, 3}},
                  Fatal("static_cast<index_t>(dim_) < dshape.ndim() (2 vs. 2)",
                        "the dimension to be concated is not in the range of input's dimension")},
        FatalCase{"ConcatMismatch", "Concat", {{"num_args", "2"}, {"dim", "1"}},
                  {TShape{2, 3}, TShape{4, 3}}, Fatal("dshape[j] == tmp[j] (4 vs. 2)", "")},
        FatalCase{"ReshapeTwoInferred", "Reshape", {{"shape", "(-1,-1)"}}, {TShape{2, 3}},
                  Fatal("inf_idx < 0 (0 vs. 0)", "One and only one dim can be inferred")},
        FatalCase{"ReshapeSplitBothInferred", "Reshape", {{"shape", "(-4,-1,-1)"}}, {TShape{6}},
                  Fatal("d1 != -1 || d2 != -1", "Split dims cannot both be -1.")},
        FatalCase{"ReshapeSplitNotDividing", "Reshape", {{"shape", "(-4,4,2)"}}, {TShape{6}},
                  Fatal("d1 * d2 == static_cast<int>(d0) (8 vs. 6)", "")},
        FatalCase{"ReshapeNoShape", "Reshape", {}, {TShape{6}},
                  Fatal("shape_.ndim() != 0 || target_shape_.ndim() != 0",
                        "target shape or shape must be present.")},
        FatalCase{"ReshapeTargetRank", "Reshape", {{"target_shape", "(1,2,3)"}}, {},
                  RegexEscape("Check failed: target_shape_.ndim() == 2")},
        FatalCase{"ReshapeCopyPastEnd", "Reshape", {{"shape", "(0,0,0)"}}, {TShape{2, 3}},
                  Fatal("src_idx < dshape_len (2 vs. 2)", "")},
        FatalCase{"SliceTwoAxes", "slice", {{"begin", "(1,1)"}, {"end", "(2,2)"}}, {},
                  RegexEscape("Only support slice on one axis")},
        FatalCase{"SliceRank5", "slice", {{"begin", "(None,1)"}, {"end", "(None,2)"}},
                  {TShape{1, 2, 3, 4, 5}},
                  Fatal("ishape.ndim() <= 4", "Input should be less than or equal to 4 dimensions")},
        FatalCase{"SliceAxisTooLarge", "slice_axis", {{"axis", "4"}, {"begin", "0"}, {"end", "1"}},
                  {TShape{2, 3, 4, 5}},
                  RegexEscape("Transformed axis must be smaller than the source ndim and larger "
                              "than zero! Recieved axis=4, src_ndim=4, transformed axis=4")},
        FatalCase{"SliceAxisEndPastAxis", "slice_axis",
                  {{"axis", "1"}, {"begin", "0"}, {"end", "4"}}, {TShape{2, 3}},
                  Fatal("(*end <= axis_size) && (*end >= 0)", "Invalid begin, end, get begin=0, end=4")},
        FatalCase{"SoftmaxOutputBadLabel", "SoftmaxOutput", {}, {TShape{2, 3, 4}, TShape{7}},
                  Fatal("false", "softmaxoutput label shape error")},
        FatalCase{"SoftmaxOutputWrongModeLabel", "SoftmaxOutput", {}, {TShape{2, 3, 4}, TShape{2, 3}},
                  Fatal("out == label_shape", "Shape inconsistent, Provided (2,3) inferrend shape=(2,)")}),
    ruvo_test::CaseName);

// Forward-time rules: a 2-d input in mode "channel", and a layer that was
// never initialised.
TEST(LayerForwardDeathTest, ChannelSoftmaxNeedsThreeAxes) {
  EXPECT_DEATH(
      {
        auto layer = MakeLayer("SoftmaxActivation", {{"mode", "channel"}});
        orvik::ruvo::NDArray in(TShape{2, 3}, 0);
        orvik::ruvo::NDArray out(TShape{2, 3}, 0);
        std::vector<orvik::ruvo::NDArray*> bottoms = {&in};
        std::vector<orvik::ruvo::NDArray*> tops = {&out};
        std::vector<orvik::ruvo::NDArray*> auxes;
        layer->Forward(bottoms, tops, auxes);
      },
      Fatal("bottom_blobs[softmax::kData]->ndim() >= 3 (2 vs. 3)",
            "Input need to have a least 3 dimensions when mode=channel"));
  EXPECT_DEATH(
      {
        orvik::ruvo::FullyConnected fc;
        std::vector<orvik::ruvo::NDArray*> none;
        fc.Forward(none, none, none);
      },
      RegexEscape("Check failed: inited_\n# Init first!"));
}

}  // namespace
