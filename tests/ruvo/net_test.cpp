// Building and running nets: graph styles, parameter binding, output
// selection, batch changes, partial runs and the prediction interface's
// own rules.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/ruvo/death_text.h"
#include "tests/ruvo/net_fixture.h"
#include "tovadmod/c_predict_api.h"

namespace {

using net_test::ExpectNear;
using net_test::GetOutput;
using net_test::LoadModel;
using net_test::Model;
using net_test::Tensor;
using ruvo_test::Fatal;

const char kUnknownOp[] = R"({"nodes": [{"op": "null", "name": "data", "inputs": []},
  {"op": "Activation", "name": "relu", "inputs": [[0, 0]], "attr": {"act_type": "relu"}},
  {"op": "NoSuchOperator", "name": "odd", "inputs": [[1, 0]]}], "arg_nodes": [0], "heads": [[2, 0]]})";

// Old style: a FullyConnected with a bias needs exactly three inputs.
const char kMissingBias[] = R"({"nodes": [{"op": "null", "name": "data", "inputs": []},
  {"op": "null", "name": "fc_weight", "inputs": []}, {"op": "FullyConnected", "name": "fc",
  "inputs": [[0, 0], [1, 0]], "attr": {"num_hidden": "2"}}], "arg_nodes": [0, 1], "heads": [[2, 0]]})";

// A parameter file with no arrays.
const std::string kEmptyParams = std::string("\x12\x01", 2) + std::string(30, '\0');

int CreateFromText(const char* json, PredictorHandle* out, uint32_t num_outputs = 0,
                   const char** output_keys = nullptr, int dev_type = 1) {
  const char* keys[] = {"data"};
  const uint32_t indptr[] = {0, 2};
  const uint32_t shape[] = {1, 4};
  const int size = static_cast<int>(kEmptyParams.size());
  return num_outputs == 0
             ? MXPredCreate(json, kEmptyParams.data(), size, dev_type, 0, 1, keys, indptr, shape, out)
             : MXPredCreatePartialOut(json, kEmptyParams.data(), size, dev_type, 0, 1, keys, indptr,
                                      shape, num_outputs, output_keys, out);
}

TEST(NetBuildDeathTest, BuildErrors) {
  // An unknown operator fails the create call and leaves the handle alone.
  PredictorHandle kept = reinterpret_cast<PredictorHandle>(0x1234);
  EXPECT_EQ(CreateFromText(kUnknownOp, &kept), -1);
  EXPECT_EQ(kept, reinterpret_cast<PredictorHandle>(0x1234));
  // With output keys the unknown operator stops the pruning walk, no node
  // is kept and the first head names a pruned node.
  const char* keys[] = {"relu"};
  PredictorHandle h = nullptr;
  EXPECT_DEATH(CreateFromText(kUnknownOp, &h, 1, keys), Fatal("new_node_id >= 0", ""));
  EXPECT_DEATH(CreateFromText(kMissingBias, &h),
               Fatal("bottom_cnt == n.inputs.size() (3 vs. 2)",
                     "input size mismatch: layer FullyConnected need 3 inputs"));
  EXPECT_DEATH(CreateFromText(kMissingBias, &h, 0, nullptr, 2),
               Fatal("dev_type == 1", "Only support cpu"));
  EXPECT_DEATH(
      {
        Model m = LoadModel("mlp", "mlp_badcount");
        net_test::Create(m, m.cases.at(0));
      },
      Fatal("names.size() == data.size() (7 vs. 8)", "Invalid param file format"));
}

// "aux:" names that are no declared state still bind arguments; unknown
// "arg:" names and names without a prefix are dropped without a word.
// Output keys cut the graph down to what the named layers need (a key that
// matches nothing leaves an empty net that runs); outputs follow graph
// order, not the order of the keys.
TEST(NetBuildTest, ParameterNamesAndOutputKeys) {
  const struct {
    const char* params;
    std::vector<const char*> keys, heads;
  } runs[] = {{"mlp_prefixes", {}, {"softmax"}},
              {"mlp", {"act2", "fc2"}, {"fc2", "act2"}},
              {"mlp", {"no_such_layer"}, {}}};
  for (const auto& r : runs) {
    Model m = LoadModel("mlp", r.params);
    const auto& c = m.cases.at(0);
    PredictorHandle h = net_test::Create(m, c, r.keys);
    ASSERT_NE(h, nullptr);
    if (!r.heads.empty()) net_test::SetInputs(h, c);  // the empty net has no inputs
    EXPECT_EQ(MXPredForward(h), 0);
    for (uint32_t i = 0; i < r.heads.size(); ++i) {
      ExpectNear(GetOutput(h, i), c.outputs.at(r.heads[i]), r.heads[i]);
    }
    MXPredFree(h);
  }
}

// A smaller batch gives the full batch's first rows; one layer at a time
// gives the same result as the whole run.
TEST(NetRunTest, DynamicBatchAndPartialSteps) {
  Model m = LoadModel("mlp");
  const auto& c = m.cases.at(0);
  const Tensor& data = c.inputs[0].second;
  PredictorHandle h = net_test::Create(m, c);

  EXPECT_EQ(MXPredSetDynamicBatch(h, 3), 0);
  MXPredSetInput(h, "data", data.values.data(), 3 * 30);
  MXPredForward(h);
  Tensor rows = c.outputs.at("softmax");
  rows.values.resize(3 * 3);
  rows.shape[0] = 3;
  ExpectNear(GetOutput(h, 0), rows, "batch 3");
  EXPECT_DEATH(MXPredSetInput(h, "data", data.values.data(), 8 * 30),
               Fatal("shape_.Size() == size (90 vs. 240)", "Memory size do not match"));
  float out[24];
  EXPECT_DEATH(MXPredGetOutput(h, 0, out, 24),
               Fatal("shape_.Size() == size (9 vs. 24)", "Memory size do not match"));
  EXPECT_DEATH(MXPredSetDynamicBatch(h, 9),
               Fatal("batch_max_ >= batch (8 vs. 9)", "9 is greater than max batch size:8"));

  EXPECT_EQ(MXPredSetDynamicBatch(h, 8), 0);
  net_test::SetInputs(h, c);
  const int count = 18;  // 10 variables and 8 operators
  int left = -1;
  for (int step = 0; step < count; ++step) {
    EXPECT_EQ(MXPredPartialForward(h, step, &left), 0);
    EXPECT_EQ(left, count - 1 - step);
  }
  ExpectNear(GetOutput(h, 0), c.outputs.at("softmax"), "batch 8, stepped");
  for (int outside : {count, -1}) {
    EXPECT_EQ(MXPredPartialForward(h, outside, &left), 0);
    EXPECT_EQ(left, 0);
  }
  // Nets without streaming layers take the inter-buffer calls harmlessly.
  EXPECT_EQ(MXResetInterBuff(h), 0);
  EXPECT_EQ(MXUpdateInterBuff(h), 0);
  ExpectNear(GetOutput(h, 0), c.outputs.at("softmax"), "after inter-buffers");
  MXPredFree(h);
}

TEST(NetRunDeathTest, OutputShapesAndCallerErrors) {
  Model m = LoadModel("concat");
  PredictorHandle h = net_test::Create(m, m.cases.at(0));
  uint32_t* shape = nullptr;
  uint32_t ndim = 0;
  for (int again = 0; again < 2; ++again) {  // the second call reads the cache
    MXPredGetOutputShape(h, 1, &shape, &ndim);
    EXPECT_EQ(std::vector<uint32_t>(shape, shape + ndim), (std::vector<uint32_t>{2, 5, 4, 5}));
  }
  EXPECT_DEATH(MXPredGetOutputShape(h, 4, &shape, &ndim),
               Fatal("out_index < outs_blobs_index_.size()", ""));
  float out[160];
  EXPECT_DEATH(MXPredGetOutput(h, 4, out, 160),
               Fatal("index < outs_blobs_index_.size()", "Output index out of range"));
  EXPECT_DEATH(MXPredSetInput(h, "dta", out, 24),
               Fatal("it != args_name_to_index_.end()", "Cannot find input key dta"));
  MXPredFree(h);
  EXPECT_EQ(MXPredFree(nullptr), 0);
  EXPECT_STREQ(MXGetLastError(), "not support MXGetLastErr currently!");
}

}  // namespace
