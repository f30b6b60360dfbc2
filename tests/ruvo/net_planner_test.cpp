// The memory plan: which blobs share storage, and how large the slabs are.
// Graphs here are wired by hand from small test layers, so that each case
// isolates one rule of the planner.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ruvo/src/net.h"
#include "ruvo/src/net_allocator.h"
#include "tests/ruvo/death_text.h"
#include "tests/ruvo/net_fixture.h"

namespace {

using orvik::ruvo::DefaultNet;
using orvik::ruvo::GraphAllocator;
using orvik::ruvo::Layer;
using orvik::ruvo::PlanGraphMemory;
using orvik::ruvo::TShape;

// Requests of `bytes` (a multiple of 4: the plan counts 4 bytes an element).
TShape Bytes(uint32_t bytes) { return TShape{bytes / 4}; }

// A free block is reused for a request between a sixteenth of it and
// sixteen times it, both ends included; a block that is too small grows.
TEST(GraphAllocatorTest, MatchRange) {
  struct {
    const char* what;
    uint32_t free_bytes, request_bytes;
    bool reused;
    size_t grown_to;
  } cases[] = {
      {"1000 serves 16000 and grows", 1000, 16000, true, 16000},
      {"996 is below a sixteenth of 16000", 996, 16000, false, 996},
      {"64000 serves 4000 (inclusive upper bound)", 64000, 4000, true, 64000},
      {"64000 is above 16 x 3996", 64000, 3996, false, 64000},
      {"equal size", 512, 512, true, 512},
  };
  for (const auto& c : cases) {
    GraphAllocator a(16);
    const int first = a.Request(Bytes(c.free_bytes));
    a.Release(first);
    const int second = a.Request(Bytes(c.request_bytes));
    EXPECT_EQ(second == first, c.reused) << c.what;
    EXPECT_EQ(a.MaxBytes(first), c.grown_to) << c.what;
    EXPECT_EQ(a.NumStorage(), c.reused ? 1u : 2u) << c.what;
  }
  GraphAllocator none(0);  // a range of 0 never reuses
  const int x = none.Request(Bytes(400));
  none.Release(x);
  EXPECT_NE(none.Request(Bytes(400)), x);
  EXPECT_EQ(none.Request(TShape()), orvik::ruvo::kBadStorageID);
}

TEST(GraphAllocatorTest, PrefersSmallestLargeEnoughThenLargestSmaller) {
  GraphAllocator a(16);
  const int b2000 = a.Request(Bytes(2000));
  const int b8000 = a.Request(Bytes(8000));
  const int b6000 = a.Request(Bytes(6000));
  const int twin = a.Request(Bytes(2000));
  a.Release(twin);
  a.Release(b2000);
  a.Release(b8000);
  a.Release(b6000);
  EXPECT_EQ(a.Request(Bytes(4000)), b6000);
  // Nothing large enough: the largest smaller block grows.
  EXPECT_EQ(a.Request(Bytes(9000)), b8000);
  EXPECT_EQ(a.MaxBytes(b8000), 9000u);
  // Equal sizes in release order.
  EXPECT_EQ(a.Request(Bytes(2000)), twin);
  EXPECT_EQ(a.Request(Bytes(2000)), b2000);
  EXPECT_EQ(a.NumStorage(), 4u);
}

// --------------------------------------------------------------- planner

// A layer with a given number of outputs that may run in place when asked.
struct PlanLayer : Layer {
  PlanLayer(uint32_t outputs, bool in_place) : outputs(outputs), in_place(in_place) {}
  uint32_t get_num_outputs() const override { return outputs; }
  std::vector<std::pair<int, int>> FInplaceOption() const override {
    return std::vector<std::pair<int, int>>(in_place ? 1 : 0, {0, 0});
  }
  uint32_t outputs;
  bool in_place;
};

// A hand-wired graph: blob ids are given explicitly.
struct Graph {
  std::vector<std::shared_ptr<Layer>> layers;
  std::vector<TShape> shapes;
  std::vector<int> types;
  std::vector<uint32_t> outs;

  // A layer reading `bottoms` and writing one new blob per shape; an
  // "Input" layer (no bottoms) makes a graph input or parameter.
  std::vector<uint32_t> Add(std::vector<uint32_t> bottoms, std::vector<TShape> tops,
                            bool in_place = false, const char* type = "Test") {
    auto l = std::make_shared<PlanLayer>(static_cast<uint32_t>(tops.size()), in_place);
    l->SetType(type);
    l->SetName("shapeless");
    l->GetBottoms() = bottoms;
    for (const TShape& s : tops) {
      l->GetTops().push_back(static_cast<uint32_t>(shapes.size()));
      shapes.push_back(s);
    }
    types.resize(shapes.size(), 0);
    layers.push_back(l);
    return l->GetTops();
  }
  uint32_t Input(TShape shape) { return Add({}, {shape}, false, "Input")[0]; }
  uint32_t Op(std::vector<uint32_t> bottoms, TShape shape, bool in_place = false) {
    return Add(bottoms, {shape}, in_place)[0];
  }
  std::vector<int> Plan() {
    std::vector<int> ids;
    PlanGraphMemory(layers, outs, shapes, types, ids);
    return ids;
  }
};

TEST(PlanMemoryTest, TopsAreServedLargestFirstThenInReverse) {
  Graph g;
  const uint32_t data = g.Input({4});
  const std::vector<uint32_t> even = g.Add({data}, {{8}, {8}});
  const std::vector<uint32_t> mixed = g.Add({data}, {{4}, {40}});
  g.outs = {even[0], even[1], mixed[0], mixed[1]};
  const std::vector<int> ids = g.Plan();
  EXPECT_EQ(ids[data], -1);  // graph inputs have no storage
  EXPECT_EQ((std::vector<int>{ids[even[1]], ids[even[0]], ids[mixed[1]], ids[mixed[0]]}),
            (std::vector<int>{0, 1, 2, 3}));
}

// A chain needs two storages however long it is: a layer's output is
// allocated before its input is released.
TEST(PlanMemoryTest, ChainAlternatesTwoStorages) {
  Graph g;
  uint32_t x = g.Input({16});
  std::vector<uint32_t> blobs;
  for (int i = 0; i < 6; ++i) blobs.push_back(x = g.Op({x}, {16}));
  g.outs = {x};
  const std::vector<int> ids = g.Plan();
  for (size_t i = 0; i < blobs.size(); ++i) EXPECT_EQ(ids[blobs[i]], static_cast<int>(i % 2));
}

// A layer runs in place only on the input's only reader, with storage of
// its own, of the same size, and not itself a net output.
TEST(PlanMemoryTest, InPlaceRules) {
  enum Variant { kAllowed, kSecondReader, kGraphInput, kInputIsOutput, kOtherSize };
  for (Variant v : {kAllowed, kSecondReader, kGraphInput, kInputIsOutput, kOtherSize}) {
    Graph g;
    const uint32_t data = g.Input({8});
    const uint32_t a = v == kGraphInput ? data : g.Op({data}, {8});
    const uint32_t r = g.Op({a}, {v == kOtherSize ? 4u : 8u}, true);
    g.outs = {r};
    if (v == kSecondReader) g.outs.push_back(g.Op({a}, {8}));
    if (v == kInputIsOutput) g.outs.push_back(a);
    const std::vector<int> ids = g.Plan();
    EXPECT_EQ(ids[r] == ids[a], v == kAllowed) << v;
    EXPECT_GE(ids[r], 0) << v;
  }
}

// An output that nothing reads is released in its own step: the next
// layer's output may take its storage.  A blob read twice by one layer is
// released on its last read only, and a later layer does not get its
// storage while it is still live.
TEST(PlanMemoryTest, BlobsLiveToTheirLastReader) {
  Graph g;
  const uint32_t data = g.Input({8});
  const std::vector<uint32_t> tops = g.Add({data}, {{8}, {8}});
  const uint32_t next = g.Op({tops[0]}, {8});
  const uint32_t b = g.Op({next}, {8});
  const uint32_t c = g.Op({next, b}, {8});
  g.outs = {c};
  const std::vector<int> ids = g.Plan();
  EXPECT_EQ(ids[next], ids[tops[1]]);
  EXPECT_NE(ids[next], ids[tops[0]]);
  EXPECT_NE(ids[b], ids[next]);
  EXPECT_NE(ids[c], ids[next]);
  EXPECT_NE(ids[c], ids[b]);
}

TEST(PlanMemoryDeathTest, TopWithoutShapeIsFatal) {
  Graph g;
  g.Op({g.Input({8})}, TShape());
  EXPECT_DEATH(g.Plan(), ruvo_test::Fatal("vstorage_ids[blob_id] != kBadStorageID (-1 vs. -1)",
                                          "no storage allocated for layer:shapeless"));
}

std::unique_ptr<DefaultNet> Build(const net_test::Model& m, net_test::InputShapes s) {
  auto net = std::make_unique<DefaultNet>();
  EXPECT_EQ(net->Config(m.json.c_str(), m.params.data(), m.params.size(), 1, s.keys.data(),
                        s.indptr.data(), s.data.data(), 0, nullptr), 0);
  return net;
}

// The MLP (batch 8): fc1 16, relu, fc2 12, sigmoid, fc3 10, tanh, fc4 3,
// softmax.  The activations run in place and the dense layers alternate
// between two slabs, each as large as the largest blob it serves; the
// outputs of this net are checked in the layer suite.
TEST(NetMemoryTest, DenseChainUsesTwoSlabs) {
  net_test::Model m = net_test::LoadModel("mlp");
  auto net = Build(m, net_test::ShapesOf(m.cases.at(0)));
  ASSERT_EQ(net->data_pool().size(), 2u);
  EXPECT_EQ(net->data_pool()[0].Size(), 8u * 16);  // fc1 / fc3 / softmax
  EXPECT_EQ(net->data_pool()[1].Size(), 8u * 12);  // fc2 / fc4
}

// A kInt8 blob is planned as 4 bytes an element but its slab has its true
// size: 100 int8 elements need 25 words.
TEST(NetMemoryTest, Int8SlabHasTrueSize) {
  net_test::Model m = net_test::LoadModel("int8_relu");
  // The parameter is the relu's data: its shape comes from the caller.
  auto net = Build(m, net_test::InputShapes{{"q"}, {0, 2}, {1, 100}});
  ASSERT_EQ(net->data_pool().size(), 1u);
  EXPECT_EQ(net->data_pool()[0].Size(), 25u);
  EXPECT_EQ(net->data_pool()[0].dtype(), 0);
  const auto& out = net->blobs()[net->outs_blobs_index()[0]];
  EXPECT_EQ(out.dtype(), orvik::ruvo::kInt8);
  EXPECT_EQ(out.shape(), (TShape{1, 100}));

  // Relu on 8-bit data goes through the float formula and back.
  net->Forward();
  const auto& param = net->blobs()[net->args_blobs_index()[0]];
  const signed char* in = param.dptr<signed char>();
  const signed char* got = out.dptr<signed char>();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(got[i], in[i] > 0 ? in[i] : 0) << i;
}

}  // namespace
