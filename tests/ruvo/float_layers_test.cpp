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

using orvik::ruvo::NDArray;
using orvik::ruvo::TShape;
using ruvo_test::CaseName;
using ruvo_test::ExpectBuildAborts;
using ruvo_test::Fatal;
using ruvo_test::FatalCase;
using ruvo_test::MakeLayer;

// Each net's heads are in name order, as the outputs of a case are; the
// 8-bit pools (pool8, behind a QuantiInput) are exact against integer
// numpy, the average truncated toward zero.  Later runs give the same
// (BatchNorm inverts its variance only once) and allocate nothing.
class FloatNetTest : public testing::TestWithParam<const char*> {};

TEST_P(FloatNetTest, OutputsMatchNumpy) {
  net_test::ExpectNetMatches(GetParam(), {}, 1e-6f, 1e-5f);
}

INSTANTIATE_TEST_SUITE_P(Nets, FloatNetTest,
                         testing::Values("pool", "bn", "elemwise", "upsample", "lstm", "pool8"),
                         [](const testing::TestParamInfo<const char*>& info) {
                           return std::string(info.param);
                         });

class FloatLayerDeathTest : public testing::TestWithParam<FatalCase> {};

TEST_P(FloatLayerDeathTest, Aborts) { ExpectBuildAborts(GetParam()); }

const FatalCase kRows[] = {
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
    {"UpScale0", "UpSampling", "scale=0 sample_type=nearest", "", "scale_ >= 1 && scale_ <= 1000"},
    {"UpNot4d", "UpSampling", "scale=2 sample_type=nearest", "(3,4,5)",
     "shape.ndim() == 4U (3 vs. 4)",
     "UpSamplingNearest: Input data should be 4D in (batch, channel, y, x)"},
};
INSTANTIATE_TEST_SUITE_P(Layers, FloatLayerDeathTest, testing::ValuesIn(kRows), CaseName);

// Cells other than the LSTM, and states that are not inputs, pass Init and
// InferShape and stop at the first Forward.
TEST(RnnDeathTest, ForwardRefusesWhatDoesNotCompute) {
  const struct {
    const char *mode, *state_inputs, *check, *message;
  } cases[] = {{"gru", "True", "false", "Not impl rnn.gru currently"},
               {"rnn_tanh", "True", "false", "Not impl rnnrelu and rnntanh currently"},
               {"lstm", "False", "state_inputs_",
                "state inputs must be true when using Rnn op's cpu version"}};
  for (const auto& c : cases) {
    auto layer = MakeLayer("RNN", {{"state_size", "4"}, {"num_layers", "1"}, {"mode", c.mode},
                                   {"state_inputs", c.state_inputs}});
    std::vector<TShape> in(layer->get_num_inputs()), out, aux;
    in[0] = TShape{2, 1, 3};
    ASSERT_TRUE(layer->InferShape(in, out, aux)) << c.mode;
    std::vector<NDArray> arrays;
    for (const TShape& s : in) arrays.emplace_back(s, orvik::ruvo::kFloat32);
    for (const TShape& s : out) arrays.emplace_back(s, orvik::ruvo::kFloat32);
    std::vector<NDArray*> bottoms, tops, auxes;
    for (size_t i = 0; i < arrays.size(); ++i) {
      (i < in.size() ? bottoms : tops).push_back(&arrays[i]);
    }
    orvik::ruvo::Resource resource;
    layer->resource_ = &resource;
    EXPECT_DEATH(layer->Forward(bottoms, tops, auxes), Fatal(c.check, c.message)) << c.mode;
  }
}

}  // namespace
