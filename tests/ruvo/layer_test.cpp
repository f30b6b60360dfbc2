#include "ruvo/layer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "orviklog/src/logging.h"
#include "tests/ruvo/death_text.h"

namespace orvik {
namespace ruvo {
namespace {

using ruvo_test::Fatal;

class RecordingSink : public rtc::LogSink {
 public:
  void OnLogLine(const std::string& message) override { lines.push_back(message); }
  std::vector<std::string> lines;
};

// Attaches a sink at severity 4 for the duration of a case.
class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { rtc::LogMessage::AddLogToStream(&sink_, rtc::LS_WARNING); }
  void TearDown() override { rtc::LogMessage::RemoveLogToStream(&sink_); }
  bool Logged(const std::string& text) const {
    for (const std::string& line : sink_.lines) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }
  RecordingSink sink_;
};

TEST_F(RegistryTest, EveryOperatorNameHasItsIndex) {
  const char* const names[] = {
      "Input", "FullyConnected", "Activation", "Pooling", "SoftmaxActivation", "Concat", "_Plus",
      "elemwise_add", "Convolution", "Flatten", "BatchNorm", "QuantiInput", "AlphaPooling",
      "QuantiFlatten", "QuantiActivation", "NHCW2Conv", "AlphaConvolution", "AlphaUpscale",
      "QuantiFullyConnected", "SoftmaxOutput", "Reshape", "slice_axis", "_mul_scalar",
      "_MulScalar", "_plus_scalar", "_PlusScalar", "add_n", "ElementWiseSum", "broadcast_mul",
      "RNN", "Dropout", "sum", "AlphaPlusConvolution", "UpSampling", "QuantiTemporalConvolution",
      "slice"};
  ASSERT_EQ(sizeof(names) / sizeof(names[0]), 36u);
  for (int i = 0; i < 36; ++i) EXPECT_EQ(layer_to_index(names[i]), i) << names[i];
  EXPECT_TRUE(sink_.lines.empty());
}

TEST_F(RegistryTest, UnknownNamesAreLoggedAndGiveMinusOne) {
  for (const char* name : {"null", "", "input", "Inputs", "slice "}) {
    sink_.lines.clear();
    EXPECT_EQ(layer_to_index(name), -1) << name;
    EXPECT_TRUE(Logged(std::string("layer ") + name + " not exists")) << name;
  }
}

TEST_F(RegistryTest, IndicesOutsideTheTableGiveNull) {
  for (int index : {36, -1, 1000, -2147483647 - 1}) {
    sink_.lines.clear();
    EXPECT_EQ(create_layer(index), nullptr) << index;
    EXPECT_TRUE(Logged("layer index " + std::to_string(index) + " not exists")) << index;
  }
}

// Operators whose classes are not in this build have null creators; the
// others make a fresh object on every call.
TEST_F(RegistryTest, CreatesFreshLayersOrNullForDisabledOperators) {
  std::unique_ptr<Layer> input(create_layer(0)), other(create_layer(0));
  EXPECT_NE(dynamic_cast<Input*>(input.get()), nullptr);
  EXPECT_NE(other.get(), input.get());
  for (int index = 0; index < 36; ++index) {
    std::unique_ptr<Layer> layer(create_layer(index));
    if (layer != nullptr) {
      EXPECT_FALSE(layer->inited_) << index;
      EXPECT_TRUE(layer->tops_.empty()) << index;
    } else {
      EXPECT_TRUE(Logged("layer index " + std::to_string(index) + " not enabled")) << index;
    }
  }
}

TEST(LayerDeathTest, DefaultInferTypeNeedsAKnownFirstType) {
  Layer layer;
  std::vector<int> empty, out, aux;
  EXPECT_DEATH(layer.InferType(empty, out, aux),
               ruvo_test::RegexEscape("# Check failed: in_type.size() >= 1 (0 vs. 1)"));
  std::vector<int> unknown{-1, 0};
  EXPECT_DEATH(layer.InferType(unknown, out, aux),
               Fatal("dtype != -1", "First input must have specified type"));
}

TEST(ResourceTest, ViewsUntilItMustGrow) {
  Resource res;
  EXPECT_NE(res.inter_buf_[0].chunk_, res.inter_buf_[1].chunk_);
  auto first = res.inter_buf_[0].chunk_;
  NDArray same = res.GetInterBuf(0, TShape{16}, kFloat32);
  EXPECT_EQ(same.chunk_, first);
  EXPECT_EQ(same.shape(), TShape{16});

  // 64 bytes are there already: an int8 view, no allocation, and the
  // buffer keeps its own shape and type.
  NDArray bytes = res.GetInterBuf(0, TShape{64}, kInt8);
  EXPECT_EQ(bytes.chunk_, first);
  EXPECT_EQ(bytes.dtype(), kInt8);
  EXPECT_EQ(bytes.shape(), TShape{64});
  EXPECT_EQ(res.inter_buf_[0].shape(), TShape{16});
  EXPECT_EQ(res.inter_buf_[0].dtype(), kFloat32);

  // One more element reallocates; the old handle keeps the old block.
  float* old_data = same.dptr<float>();
  old_data[15] = 3.0f;
  NDArray grown = res.GetInterBuf(0, TShape{17}, kFloat32);
  EXPECT_NE(grown.chunk_, first);
  EXPECT_EQ(res.inter_buf_[0].shape(), TShape{17});
  EXPECT_EQ(same.dptr<float>()[15], 3.0f);
  EXPECT_EQ(first.use_count(), 3);  // first, same, bytes
  // Never shrinks: a smaller request is a view of the grown buffer.
  EXPECT_EQ(res.GetInterBuf(0, TShape{2, 2}, kInt32).chunk_, grown.chunk_);

  // Growth to another type takes that type.
  NDArray ints = res.GetInterBuf(2, TShape{5, 4}, kInt32);
  EXPECT_EQ(res.inter_buf_[2].dtype(), kInt32);
  EXPECT_EQ(res.inter_buf_[2].shape(), (TShape{5, 4}));
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

}  // namespace
}  // namespace ruvo
}  // namespace orvik
