// Convolution (float and online 8-bit) and the 8-bit layers, run through the
// prediction interface on nets written by gen_quant_fixtures.py (the 8-bit
// pooling and doubling ones by gen_stream_fixtures.py): float results
// against numpy within rounding, online 8-bit results within their computed
// quantisation error, and 8-bit layers bit for bit with their shifts.  Then
// the fatal checks on bad attributes, shapes and files.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ruvo/layer.h"
#include "ruvo/src/net.h"
#include "tests/ruvo/death_text.h"
#include "tests/ruvo/layer_cases.h"
#include "tests/ruvo/net_fixture.h"

namespace {

using net_test::LoadModel;
using net_test::Model;
using orvik::ruvo::DefaultNet;
using orvik::ruvo::NDArray;
using orvik::ruvo::TShape;
using ruvo_test::CaseName;
using ruvo_test::ExpectBuildAborts;
using ruvo_test::Fatal;
using ruvo_test::FatalCase;
using ruvo_test::MakeLayer;

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
        if (blob.dtype() != orvik::ruvo::kInt8) continue;
        EXPECT_EQ(blob.shift_, c.outputs.at(n.heads[i] + ".shift").values.at(0))
            << n.net << "/" << c.name << "/" << n.heads[i];
      }
    }
  }
}

// Bad attributes and shapes are fatal at build time, bad files at the first
// run, with the layers' own words.
class ConvDeathTest : public testing::TestWithParam<FatalCase> {};

TEST_P(ConvDeathTest, Aborts) { ExpectBuildAborts(GetParam()); }

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
    {"NhcwNot4d", "NHCW2Conv", "", "(2,3,4)", "shape0.ndim() == 4 (3 vs. 4)"},
};
INSTANTIATE_TEST_SUITE_P(Layers, ConvDeathTest, testing::ValuesIn(kRows), CaseName);

// "ceil" is a known word that no run accepts.
TEST(QuantiInputDeathTest, CeilIsRefusedAtRun) {
  auto layer = MakeLayer("QuantiInput", {{"truncate", "ceil"}, {"fixed_output_shift", "2"}});
  NDArray in(TShape{1, 4}, orvik::ruvo::kFloat32), out(TShape{1, 4}, orvik::ruvo::kInt8);
  std::vector<NDArray*> bottoms = {&in}, tops = {&out}, auxes;
  EXPECT_DEATH(layer->Forward(bottoms, tops, auxes), Fatal("false", "Not support ceil!"));
}

// Parameter files whose arrays do not fit the graph fail at the first run.
TEST(QuantisedNetDeathTest, FileErrorsAreFatal) {
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
}

}  // namespace
