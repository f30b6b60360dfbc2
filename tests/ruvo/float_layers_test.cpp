// Pooling (float and 8-bit), BatchNorm and Dropout, the element-wise
// family, UpSampling and the LSTM, run through the prediction interface on
// nets written by gen_float_fixtures.py against numpy, then the fatal
// checks on bad attributes and shapes.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ruvo/layer.h"
#include "tests/ruvo/death_text.h"
#include "tests/ruvo/layer_cases.h"
#include "tests/ruvo/net_fixture.h"

namespace {

using orvik::ruvo::LayerAttrs;
using orvik::ruvo::NDArray;
using orvik::ruvo::TShape;
using ruvo_test::CaseName;
using ruvo_test::ExpectBuildAborts;
using ruvo_test::Fatal;
using ruvo_test::FatalCase;
using ruvo_test::MakeLayer;
using ruvo_test::RegexEscape;

// Each net's heads are in name order, as the outputs of a case are; the
// 8-bit pools (pool8, behind a QuantiInput) are exact against integer
// numpy, the average truncated toward zero.  Later runs give the same
// (BatchNorm inverts its variance only once) and allocate nothing.
class FloatNetTest : public testing::TestWithParam<const char*> {};

TEST_P(FloatNetTest, OutputsMatchNumpy) { net_test::ExpectNetMatches(GetParam(), {}, 1e-6f, 1e-5f); }

INSTANTIATE_TEST_SUITE_P(Nets, FloatNetTest,
                         testing::Values("pool", "bn", "elemwise", "upsample", "lstm", "pool8"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           return std::string(info.param);
                         });

class FloatLayerDeathTest : public testing::TestWithParam<FatalCase> {};

TEST_P(FloatLayerDeathTest, Aborts) { ExpectBuildAborts(GetParam()); }

const LayerAttrs kMax3 = {{"kernel", "(3,3)"}, {"pool_type", "max"}};

INSTANTIATE_TEST_SUITE_P(
    Layers, FloatLayerDeathTest,
    testing::Values(
        FatalCase{"PoolNoKernel", "Pooling", {{"pool_type", "max"}}, {},
                  Fatal("kernel_.ndim() == 2 (0 vs. 2)", "")},
        FatalCase{"PoolUnknownType", "Pooling", {{"kernel", "(2,2)"}, {"pool_type", "min"}}, {},
                  RegexEscape("Check failed: pool::pool_map.count(pool_type_symbol)")},
        // The default's own spelling is no legal value.
        FatalCase{"PoolConventionDefaultSpelling", "Pooling",
                  {{"kernel", "(2,2)"}, {"pool_type", "avg"}, {"pooling_convention", "kValid"}},
                  {},
                  RegexEscape("Check failed: pool::pool_convention_map.count("
                              "pooling_convention_symbol)")},
        FatalCase{"PoolNot4d", "Pooling", kMax3, {TShape{7, 7, 3}},
                  Fatal("dshape.ndim() == 4 (3 vs. 4)",
                        "Pooling: Input data should be 4D in (batch, y, x, channel)")},
        // Sizes are unsigned: 2 - 3 wraps, and one more makes 0.
        FatalCase{"PoolKernelExceedsInput", "Pooling", kMax3, {TShape{1, 2, 5, 1}},
                  RegexEscape("Pooling: kernel size exceed input")},
        FatalCase{"BatchNormNot4d", "BatchNorm", {}, {TShape{2, 3, 4}, TShape(), TShape()},
                  Fatal("dshape.ndim() == 4 (3 vs. 4)", "For predict, input shape must be 4")},
        FatalCase{"BatchNormBadBool", "BatchNorm", {{"fix_gamma", "1"}}, {},
                  RegexEscape("Check failed: ((str_fix_gamma) == \"True\" || (str_fix_gamma) == "
                              "\"False\")")},
        FatalCase{"DropoutPOne", "Dropout", {{"p", "1.0"}}, {},
                  RegexEscape("Check failed: p_ >= 0 && p_ < 1")},
        FatalCase{"DropoutMode", "Dropout", {{"mode", "never"}}, {},
                  RegexEscape("Check failed: dropout::mode_map.count(mode_symbol)")},
        FatalCase{"PlusScalarZero", "_plus_scalar", {{"scalar", "0"}}, {},
                  RegexEscape("Check failed: scalar_ != 0")},
        FatalCase{"PlusShapes", "elemwise_add", {}, {TShape{2, 3}, TShape{3, 2}},
                  Fatal("out == dshape", "Shape inconsistent, Provided (3,2) inferrend shape=(2,3)")},
        FatalCase{"BroadcastIncompatible", "broadcast_mul", {}, {TShape{2, 3}, TShape{2, 4}},
                  RegexEscape("operands could not be broadcast together with shapes (2,3) (2,4)")},
        FatalCase{"BroadcastRank", "broadcast_mul", {}, {TShape{1, 1, 1, 1, 1, 2}, TShape{2}},
                  RegexEscape("NDim too large ")},
        FatalCase{"SumAxisOutOfRange", "sum", {{"axis", "3"}}, {TShape{2, 3, 4}},
                  RegexEscape("axis 3 exceeds the input dimension of 3")},
        FatalCase{"RnnNoLayers", "RNN", {{"state_size", "4"}}, {},
                  RegexEscape("Invalid key: num_layers")},
        FatalCase{"RnnMode", "RNN", {{"state_size", "4"}, {"num_layers", "1"}, {"mode", "rnn_relu"}},
                  {}, RegexEscape("Check failed: rnn::mode_map.count(mode_symbol)")},
        FatalCase{"RnnStateShape", "RNN",
                  {{"state_size", "4"}, {"num_layers", "2"}, {"state_inputs", "True"}},
                  {TShape{3, 2, 5}, TShape(), TShape{1, 2, 4}, TShape()},
                  Fatal("out == Shape3(total_layers, batch_size, state_size_)",
                        "Shape inconsistent, Provided (1,2,4) inferrend shape=(2,2,4)")},
        FatalCase{"UpScaleZero", "UpSampling", {{"scale", "0"}, {"sample_type", "nearest"}}, {},
                  RegexEscape("Check failed: scale_ >= 1 && scale_ <= 1000")},
        FatalCase{"UpNot4d", "UpSampling", {{"scale", "2"}, {"sample_type", "nearest"}},
                  {TShape{3, 4, 5}},
                  RegexEscape("UpSamplingNearest: Input data should be 4D in (batch, channel, y, "
                              "x)")}),
    CaseName);

// Cells other than the LSTM, and states that are not inputs, pass Init and
// InferShape and stop at the first Forward.
TEST(RnnDeathTest, ForwardRefusesWhatDoesNotCompute) {
  const struct {
    const char* mode;
    const char* state_inputs;
    std::string expected;
  } cases[] = {
      {"gru", "True", Fatal("false", "Not impl rnn.gru currently")},
      {"rnn_tanh", "True", Fatal("false", "Not impl rnnrelu and rnntanh currently")},
      {"rnn_reln", "True", Fatal("false", "Not impl rnnrelu and rnntanh currently")},
      {"lstm", "False",
       Fatal("state_inputs_", "state inputs must be true when using Rnn op's cpu version")},
  };
  for (const auto& c : cases) {
    auto layer = MakeLayer("RNN", {{"state_size", "4"},
                                   {"num_layers", "1"},
                                   {"mode", c.mode},
                                   {"state_inputs", c.state_inputs}});
    std::vector<TShape> in(layer->get_num_inputs()), out, aux;
    in[0] = TShape{2, 1, 3};
    ASSERT_TRUE(layer->InferShape(in, out, aux)) << c.mode;
    std::vector<NDArray> arrays;
    for (const auto* shapes : {&in, &out}) {
      for (const TShape& s : *shapes) arrays.emplace_back(s, orvik::ruvo::kFloat32);
    }
    std::vector<NDArray*> bottoms, tops, auxes;
    for (size_t i = 0; i < arrays.size(); ++i) {
      (i < in.size() ? bottoms : tops).push_back(&arrays[i]);
    }
    orvik::ruvo::Resource resource;
    layer->resource_ = &resource;
    EXPECT_DEATH(layer->Forward(bottoms, tops, auxes), c.expected) << c.mode;
  }
}

}  // namespace
