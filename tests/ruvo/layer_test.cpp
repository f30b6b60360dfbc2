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

// Unknown names and indices give -1 and null with a log line; operators
// whose classes are not in this build have null creators (logged too), the
// others make a fresh layer on every call.
TEST(RegistryTest, LooksUpNamesAndIndices) {
  RecordingSink sink;
  rtc::LogMessage::AddLogToStream(&sink, rtc::LS_WARNING);
  auto logged = [&sink](const std::string& text) {
    bool found = false;
    for (const std::string& line : sink.lines) found = found || line.find(text) != std::string::npos;
    sink.lines.clear();
    return found;
  };
  EXPECT_EQ(layer_to_index("Input"), 0);
  EXPECT_EQ(layer_to_index("slice"), 35);  // the last
  EXPECT_FALSE(logged(""));
  for (const char* name : {"null", "", "input", "Inputs", "slice "}) {
    EXPECT_EQ(layer_to_index(name), -1) << name;
    EXPECT_TRUE(logged(std::string("layer ") + name + " not exists")) << name;
  }
  for (int index : {36, -1, 1000, -2147483647 - 1}) {
    EXPECT_EQ(create_layer(index), nullptr) << index;
    EXPECT_TRUE(logged("layer index " + std::to_string(index) + " not exists")) << index;
  }
  std::unique_ptr<Layer> input(create_layer(0)), other(create_layer(0));
  EXPECT_NE(dynamic_cast<Input*>(input.get()), nullptr);
  EXPECT_NE(other.get(), input.get());
  for (int index = 0; index < 36; ++index) {
    std::unique_ptr<Layer> layer(create_layer(index));
    if (layer != nullptr) {
      EXPECT_FALSE(layer->inited_) << index;
    } else {
      EXPECT_TRUE(logged("layer index " + std::to_string(index) + " not enabled")) << index;
    }
  }
  rtc::LogMessage::RemoveLogToStream(&sink);
}

TEST(LayerDeathTest, DefaultInferTypeNeedsAKnownFirstType) {
  Layer layer;
  std::vector<int> empty, out, aux, unknown{-1, 0};
  EXPECT_DEATH(layer.InferType(empty, out, aux), Fatal("in_type.size() >= 1 (0 vs. 1)", ""));
  EXPECT_DEATH(layer.InferType(unknown, out, aux),
               Fatal("dtype != -1", "First input must have specified type"));
}

// A slot hands out views of its buffer until a request is larger, which
// reallocates (old handles keep the old block); it never shrinks, and
// growth to another type takes that type.
TEST(ResourceTest, ViewsUntilItMustGrow) {
  Resource res;
  EXPECT_NE(res.inter_buf_[0].chunk_, res.inter_buf_[1].chunk_);
  auto first = res.inter_buf_[0].chunk_;
  NDArray same = res.GetInterBuf(0, TShape{16}, kFloat32);
  NDArray bytes = res.GetInterBuf(0, TShape{64}, kInt8);  // the same 64 bytes
  EXPECT_EQ(same.chunk_, first);
  EXPECT_EQ(bytes.chunk_, first);
  EXPECT_EQ(bytes.dtype(), kInt8);
  EXPECT_EQ(bytes.shape(), TShape{64});

  same.dptr<float>()[15] = 3.0f;
  NDArray grown = res.GetInterBuf(0, TShape{17}, kFloat32);
  EXPECT_NE(grown.chunk_, first);
  EXPECT_EQ(res.inter_buf_[0].shape(), TShape{17});
  EXPECT_EQ(same.dptr<float>()[15], 3.0f);
  EXPECT_EQ(res.GetInterBuf(0, TShape{2, 2}, kInt32).chunk_, grown.chunk_);

  NDArray ints = res.GetInterBuf(2, TShape{5, 4}, kInt32);
  EXPECT_EQ(res.inter_buf_[2].dtype(), kInt32);
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
