// The dense and structure layers, run through the prediction interface on
// nets written by gen_net_fixtures.py and compared with numpy (which also
// pins their shape rules), plus their attribute errors on single layers.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "ruvo/src/layer/fullyconnected.h"
#include "tests/ruvo/death_text.h"
#include "tests/ruvo/layer_cases.h"
#include "tests/ruvo/net_fixture.h"

namespace {

using net_test::ExpectNear;
using net_test::GetOutput;
using net_test::LoadModel;
using net_test::Model;
using net_test::Tensor;
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

struct NetCase {
  const char* model;
  std::vector<const char*> heads;  // the net's outputs, in graph order
};

class FixtureNetTest : public testing::TestWithParam<NetCase> {};

TEST_P(FixtureNetTest, OutputsMatchNumpy) {
  const NetCase& nc = GetParam();
  Model m = LoadModel(nc.model);
  ASSERT_FALSE(m.cases.empty());
  for (const auto& c : m.cases) {
    PredictorHandle h = net_test::Create(m, c);
    ASSERT_NE(h, nullptr);
    net_test::SetInputs(h, c);
    EXPECT_EQ(MXPredForward(h), 0);
    for (uint32_t i = 0; i < nc.heads.size(); ++i) {
      const std::string key = nc.heads[i];
      ASSERT_TRUE(c.outputs.count(key)) << key;
      ExpectNear(GetOutput(h, i), c.outputs.at(key), kAtol, kRtol,
                 std::string(nc.model) + "/" + c.name + "/" + key);
    }
    MXPredFree(h);
  }
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
        NetCase{"slice", {"sa_tail", "sa_neg", "sa_mid", "sl_axis1", "sl_neg", "sl_last"}}),
    [](const testing::TestParamInfo<NetCase>& info) { return std::string(info.param.model); });

// The 8-bit path stays within the worst-case quantisation error of the
// float result (bounds from the generator: each input off by less than
// range/254, each weight by less than max|w|/127), and differs from it.
TEST(FullyConnectedQuantTest, EightBitPathWithinQuantisationError) {
  Model m = LoadModel("fc_quant");
  ASSERT_EQ(m.cases.size(), 2u);
  for (const auto& c : m.cases) {
    PredictorHandle h = net_test::Create(m, c);
    net_test::SetInputs(h, c);
    MXPredForward(h);
    ExpectNear(GetOutput(h, 0), c.outputs.at("fc_f"), kAtol, kRtol, c.name + "/fc_f");
    ExpectNear(GetOutput(h, 2), c.outputs.at("fc_f2"), kAtol, kRtol, c.name + "/fc_f2");
    const struct {
      uint32_t index;
      const char* key;
    } quant[] = {{1, "fc_q"}, {3, "fc_qt"}};
    for (const auto& q : quant) {
      Tensor got = GetOutput(h, q.index);
      const Tensor& want = c.outputs.at(q.key);
      const Tensor& bound = c.bounds.at(q.key);
      ASSERT_EQ(got.shape, want.shape);
      double max_err = 0;
      for (size_t i = 0; i < want.values.size(); ++i) {
        ASSERT_TRUE(std::isfinite(got.values[i]));
        const double err = std::fabs(got.values[i] - want.values[i]);
        EXPECT_LE(err, bound.values[i]) << c.name << "/" << q.key << " element " << i;
        max_err = std::max(max_err, err);
      }
      if (c.name == "mixed") {
        EXPECT_GT(max_err, 0.0) << "the 8-bit path must not be the float one";
      }
    }
    // A second run reuses the prepared weights and gives the same result.
    Tensor first = GetOutput(h, 1);
    MXPredForward(h);
    EXPECT_EQ(GetOutput(h, 1).values, first.values);
    MXPredFree(h);
  }
}

// --------------------------------------------------------- single layers

TEST(StructureLayerTest, ListsAndInplaceOptions) {
  auto concat = MakeLayer("Concat", {{"num_args", "3"}});
  EXPECT_EQ(concat->ListArguments(), (std::vector<std::string>{"arg0", "arg1", "arg2"}));
  EXPECT_EQ(concat->GetInputBatchBlobs(), (std::vector<uint32_t>{0, 1, 2}));
  const std::vector<std::pair<int, int>> in_place = {{0, 0}};
  EXPECT_EQ(MakeLayer("Reshape", {{"shape", "(-1,)"}})->FInplaceOption(), in_place);
  EXPECT_TRUE(MakeLayer("SoftmaxActivation", {})->FInplaceOption().empty());

  // Concat agrees on one element type and hands it to all.
  std::vector<int> types = {-1, 0, -1};
  std::vector<int> out(1, -1);
  std::vector<int> aux;
  EXPECT_TRUE(concat->InferType(types, out, aux));
  EXPECT_EQ(types, (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(out, (std::vector<int>{0}));
  std::vector<int> none = {-1, -1, -1};
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
        FatalCase{"OnlineQuantiOne", "FullyConnected", {{"num_hidden", "2"}, {"online_quanti", "1"}},
                  {}, RegexEscape("Check failed: ((online_quanti_symbol) == \"True\"")},
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
