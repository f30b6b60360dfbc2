// The predictor facade over the prediction interface: forwarding, the
// arguments this backend ignores, and the handle's lifetime rules.

#include "universal_predictor/include/universal_predictor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/ruvo/net_fixture.h"

namespace {

using net_test::LoadModel;
using net_test::Model;
using net_test::Tensor;
using namespace UniversalPredictor;

TEST(UniversalPredictorTest, RunsTheNet) {
  Model m = LoadModel("mlp");
  const auto& c = m.cases.at(0);
  const Tensor& data = c.inputs[0].second;
  UniversalPredictorHandle* h = nullptr;
  const DataType dtypes[] = {DTFloat32};
  net_test::InputShapes s = net_test::ShapesOf(c);
  ASSERT_EQ(UniversalPredictorCreateMxnetPredictor(m.json.c_str(), m.params.data(),
                                                   static_cast<int>(m.params.size()), 1, 0, 1,
                                                   s.keys.data(), s.indptr.data(), s.data.data(),
                                                   &h, dtypes),
            0);
  uint32_t* shape = nullptr;
  uint32_t ndim = 0;
  EXPECT_EQ(UniversalPredictorGetOutputShape(h, 0, &shape, &ndim), 0);
  ASSERT_EQ(std::vector<uint32_t>(shape, shape + ndim), (std::vector<uint32_t>{8, 3}));
  EXPECT_EQ(UniversalPredictorSetInput(h, "data", data.values.data(), DTFloat32,
                                       static_cast<uint32_t>(data.values.size())),
            0);
  EXPECT_EQ(UniversalPredictorForward(h), 0);
  Tensor got{{8, 3}, std::vector<float>(24)};
  EXPECT_EQ(UniversalPredictorGetOutput(h, 0, got.values.data(), DTFloat32, 24, true), 0);
  net_test::ExpectNear(got, c.outputs.at("softmax"), "facade");

  // This backend takes every buffer as floats: a DTInt8 input is the same
  // bytes, read as floats, and the output flag and type change nothing.
  EXPECT_EQ(UniversalPredictorSetInput(h, "data", data.values.data(), DTInt8,
                                       static_cast<uint32_t>(data.values.size())),
            0);
  UniversalPredictorForward(h);
  std::vector<float> again(24);
  EXPECT_EQ(UniversalPredictorGetOutput(h, 0, again.data(), DTInt32, 24, false), 0);
  EXPECT_EQ(again, got.values);

  // Resetting the buffers belongs to the other backend: here it only warns.
  testing::internal::CaptureStderr();
  EXPECT_EQ(UniversalPredictorResetInternalBuffer(h), 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "警告:resetInternalBuff为ruvo专有函数，请不要在使用其他预测库时调用此函数\n");
  EXPECT_EQ(UniversalPredictorFreePredictor(h), 0);
}

// The handle exists from the create call on, also when the net could not
// be built, so that the caller can ask for the error and must free it.
TEST(UniversalPredictorTest, FailedCreateStillGivesAHandle) {
  const char json[] = R"({"nodes": [{"op": "null", "name": "data", "inputs": []},
    {"op": "Mystery", "name": "m", "inputs": [[0, 0]]}], "arg_nodes": [0], "heads": [[1, 0]]})";
  // An empty parameter file: magic, reserved word, no arrays, no names.
  const char params[] = "\x12\x01\0\0\0\0\0\0" "\0\0\0\0\0\0\0\0" "\0\0\0\0\0\0\0\0"
                        "\0\0\0\0\0\0\0\0";
  const char* keys[] = {"data"};
  const unsigned int indptr[] = {0, 2};
  const unsigned int shape[] = {1, 3};
  UniversalPredictorHandle* h = nullptr;
  EXPECT_EQ(UniversalPredictorCreateMxnetPredictor(json, params, sizeof(params) - 1, 1, 0, 1, keys,
                                                   indptr, shape, &h, nullptr),
            -1);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(dynamic_cast<MxnetPredictorHandle*>(h)->predictorHandle, nullptr);
  EXPECT_STREQ(UniversalPredictorGetLastError(h), "not support MXGetLastErr currently!");
  EXPECT_EQ(UniversalPredictorFreePredictor(h), 0);
  EXPECT_EQ(UniversalPredictorFreePredictor(nullptr), 0);
}

}  // namespace
