#include "ruvo/ndarray.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "tests/ruvo/death_text.h"

namespace orvik {
namespace ruvo {
namespace {

using ruvo_test::Fatal;
using ruvo_test::RegexEscape;

// ---------------------------------------------------------------- Tuple

TEST(TupleTest, GrowsToHeapAndKeepsTheBlockWhenShrinking) {
  TShape s{1, 2, 3};
  EXPECT_EQ(s.heap_capacity(), 0u);
  s = TShape{1, 2, 3, 4, 5};
  ASSERT_EQ(s.ndim(), 5u);
  EXPECT_EQ(s.heap_capacity(), 5u);
  const index_t* heap = s.begin();
  EXPECT_EQ(s[4], 5u);

  s = TShape{7, 8, 9};
  EXPECT_EQ(s.ndim(), 3u);
  EXPECT_EQ(s.heap_capacity(), 5u);
  // Equality looks at the live (inline) elements only, not at the stale
  // heap block.
  EXPECT_EQ(s, (TShape{7, 8, 9}));

  // A longer tuple that still fits reuses the block...
  s = TShape{1, 1, 1, 1, 2};
  EXPECT_EQ(s.begin(), heap);
  EXPECT_EQ(s.heap_capacity(), 5u);
  // ...and one that does not gets a block of exactly its size.
  s = TShape{1, 2, 3, 4, 5, 6, 7};
  EXPECT_EQ(s.heap_capacity(), 7u);
  EXPECT_EQ(s, (TShape{1, 2, 3, 4, 5, 6, 7}));
}

TEST(TupleTest, CopiesAndMovesAreIndependent) {
  TShape a{1, 2, 3, 4, 5, 6};
  TShape b = a;
  b[0] = 9;
  EXPECT_EQ(a[0], 1u);
  TShape c = std::move(b);
  EXPECT_EQ(c, (TShape{9, 2, 3, 4, 5, 6}));
  TShape d{1};
  d = c;
  EXPECT_EQ(d, c);
  EXPECT_NE(d, a);
}

TEST(TupleTest, HoldsStrings) {
  Tuple<std::string> t{"a", "b", "c", "d", "e"};
  EXPECT_EQ(t.ndim(), 5u);
  EXPECT_EQ(t[4], "e");
  t = Tuple<std::string>{"x"};
  EXPECT_EQ(t.ndim(), 1u);
  EXPECT_EQ(t[0], "x");
}

TEST(TShapeTest, ConstructionAndSize) {
  EXPECT_EQ(TShape().ndim(), 0u);
  EXPECT_EQ(TShape().Size(), 1u);
  EXPECT_EQ(TShape(3), (TShape{1, 1, 1}));
  EXPECT_EQ(TShape(6).Size(), 1u);
  const index_t dims[] = {2, 3, 4};
  EXPECT_EQ(TShape(dims, dims + 3), (TShape{2, 3, 4}));
  EXPECT_EQ((TShape{2, 3, 4}).Size(), 24u);
  EXPECT_EQ((TShape{2, 0, 4}).Size(), 0u);
  // 32-bit arithmetic, wrapping silently.
  EXPECT_EQ((TShape{65536, 65536}).Size(), 0u);
  EXPECT_EQ((TShape{65536, 65537}).Size(), 65536u);
  EXPECT_EQ(TShape(), TShape());
  EXPECT_NE(TShape(), TShape(1));
  EXPECT_NE((TShape{1, 2}), (TShape{2, 1}));
}

// ------------------------------------------------------ shape text forms

TEST(ShapeTextTest, Writes) {
  const struct {
    TShape shape;
    const char* text;
  } cases[] = {
      {TShape(), "()"},
      {TShape{3}, "(3,)"},
      {TShape{1, 2}, "(1,2)"},
      {TShape{1, 2, 3, 4, 5}, "(1,2,3,4,5)"},
  };
  for (const auto& c : cases) {
    std::ostringstream os;
    os << c.shape;
    EXPECT_EQ(os.str(), c.text);
  }
}

TEST(ShapeTextTest, Reads) {
  const TShape kBefore{9, 9};
  const struct {
    const char* text;
    TShape expected;
    bool fails;
  } cases[] = {
      {"[1, 2L,]", TShape{1, 2}, false},
      {"7", TShape{7}, false},
      {"()", kBefore, false},  // an empty list does not clear the target
      {" [ ] ", kBefore, false},
      {"(1;2)", kBefore, true},
      {"(3, 4)", TShape{3, 4}, false},
      {"  (3 ,4 )", TShape{3, 4}, false},
      {"(5,)", TShape{5}, false},
      {"(5L)", TShape{5}, false},
      {"(1,2,3,4,5,6)", TShape{1, 2, 3, 4, 5, 6}, false},
      {"x", kBefore, true},
      {"", kBefore, true},
      {"(1, 2", kBefore, true},
      {"(1,2]", TShape{1, 2}, false},  // brackets need not pair
  };
  for (const auto& c : cases) {
    TShape s = kBefore;
    std::istringstream is(c.text);
    is >> s;
    EXPECT_EQ(is.fail(), c.fails) << c.text;
    EXPECT_EQ(s, c.expected) << c.text;
  }
}

TEST(ShapeTextTest, StopsAfterTheShape) {
  std::istringstream is("(2,3) rest");
  TShape s;
  is >> s;
  std::string rest;
  is >> rest;
  EXPECT_EQ(s, (TShape{2, 3}));
  EXPECT_EQ(rest, "rest");
}

TEST(ShapeTextTest, WriterOutputReadsBack) {
  for (const TShape& shape : {TShape{3}, TShape{1, 2}, TShape{4, 5, 6, 7, 8}}) {
    std::stringstream ss;
    ss << shape;
    TShape back;
    ss >> back;
    EXPECT_EQ(back, shape) << ss.str();
  }
}

// ------------------------------------------------------------ type table

TEST(TypeTest, SizesAndFlags) {
  const size_t expected[] = {4, 8, 16, 1, 4, 1, 8};
  for (int t = 0; t < kUnused; ++t) EXPECT_EQ(orvik_sizeof(t), expected[t]);
  EXPECT_EQ(DataType<float>::kFlag(), 0);
  EXPECT_EQ(DataType<int>::kFlag(), 4);
  EXPECT_EQ(DataType<signed char>::kFlag(), 5);
  EXPECT_EQ(default_type_flag, 0);
}

TEST(TypeDeathTest, SizeofRejectsUnknownFlags) {
  const std::string text = Fatal("type > -1 && type < kUnused", "Type not initialized!");
  EXPECT_DEATH(orvik_sizeof(-1), text);
  EXPECT_DEATH(orvik_sizeof(7), text);
}

// -------------------------------------------------------------- NDArray

TEST(NDArrayTest, EmptyHandle) {
  NDArray a;
  EXPECT_TRUE(a.is_none());
  EXPECT_EQ(a.shift_, 255);
  EXPECT_EQ(a.shape().ndim(), 0u);
  EXPECT_EQ(a.batch_max_, 0u);
  EXPECT_EQ(a.dtype(), -1);
  EXPECT_EQ(a.offset_, 0u);
}

TEST(NDArrayTest, AllocatesAlignedChunksOfTheTypeSize) {
  const struct {
    TShape shape;
    int dtype;
    size_t bytes;
  } cases[] = {
      {TShape(), 0, 4},      {TShape{3}, 5, 3},    {TShape{3}, 2, 48},
      {TShape{2, 3}, 4, 24}, {TShape{0, 7}, 0, 0}, {TShape{5}, 6, 40},
  };
  for (const auto& c : cases) {
    NDArray a(c.shape, c.dtype);
    ASSERT_FALSE(a.is_none());
    EXPECT_EQ(a.chunk_->bytes_, c.bytes);
    EXPECT_EQ(a.chunk_->dtype_, c.dtype);
    EXPECT_FALSE(a.chunk_->static_data_);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a.chunk_->dptr_) % 16, 0u);
    EXPECT_EQ(a.dtype(), c.dtype);
    EXPECT_EQ(a.shift_, 255);
    EXPECT_EQ(a.batch_max_, 0u);
    EXPECT_EQ(a.offset_, 0u);
    // The whole block is writable (the sanitizer build checks the bounds).
    if (c.bytes) memset(a.chunk_->dptr_, 0xAB, c.bytes);
  }
  // Many small blocks: malloc's own alignment must not be relied on.
  std::vector<NDArray> many;
  for (index_t n = 1; n < 40; ++n) {
    many.emplace_back(TShape{n}, kInt8);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(many.back().chunk_->dptr_) % 16, 0u);
  }
}

TEST(NDArrayTest, WrapsForeignMemoryAsFloat) {
  float buf[6] = {0, 1, 2, 3, 4, 5};
  {
    NDArray a(buf, TShape{2, 3}, kInt8);
    EXPECT_EQ(a.dtype(), 0);
    EXPECT_EQ(a.chunk_->dtype_, 0);
    EXPECT_TRUE(a.chunk_->static_data_);
    EXPECT_EQ(a.chunk_->bytes_, 24u);
    EXPECT_EQ(a.dptr<float>(), buf);
    EXPECT_EQ(a.At(1).dptr<float>()[2], 5.0f);
  }  // not freed here: the sanitizer build would report a bad free
  EXPECT_EQ(buf[5], 5.0f);
}

TEST(NDArrayTest, CopiesShareTheChunk) {
  NDArray a(TShape{4}, kFloat32);
  a.shift_ = 3;
  a.batch_max_ = 4;
  NDArray b = a;
  EXPECT_EQ(b.chunk_, a.chunk_);
  EXPECT_EQ(b.shift_, 3);
  EXPECT_EQ(b.batch_max_, 4u);
  EXPECT_EQ(a.chunk_.use_count(), 2);
  NDArray c;
  c = b;
  EXPECT_EQ(a.chunk_.use_count(), 3);
  b.dptr<float>()[2] = 7.5f;
  EXPECT_EQ(a.dptr<float>()[2], 7.5f);
}

TEST(NDArrayTest, ViewsOutliveTheirSource) {
  NDArray view;
  {
    NDArray a(TShape{2, 3}, kInt32);
    for (int i = 0; i < 6; ++i) a.dptr<int>()[i] = i * 10;
    view = a.At(1);
  }
  ASSERT_FALSE(view.is_none());
  EXPECT_EQ(view.dptr<int>()[0], 30);
  EXPECT_EQ(view.dptr<int>()[2], 50);
}

TEST(NDArrayTest, AtSlicesAxisZero) {
  NDArray a(TShape{5}, kFloat32);
  a.batch_max_ = 5;
  a.shift_ = 6;
  NDArray s0 = a.At(0);
  EXPECT_EQ(s0.shape(), TShape{1});  // one dimension of 1, not ()
  EXPECT_EQ(s0.offset_, 0u);
  EXPECT_EQ(a.At(4).offset_, 4u);
  EXPECT_EQ(a[4].offset_, 4u);
  EXPECT_EQ(s0.batch_max_, 5u);
  EXPECT_EQ(s0.shift_, 6);
  EXPECT_EQ(a.At(4).dptr<float>(), a.dptr<float>() + 4);

  NDArray b(TShape{2, 3, 4}, kInt8);
  NDArray s1 = b.At(1);
  EXPECT_EQ(s1.shape(), (TShape{3, 4}));
  EXPECT_EQ(s1.offset_, 12u);
  EXPECT_EQ(s1.dtype(), kInt8);
  // Offsets add up through nested views.
  NDArray s12 = s1.At(2);
  EXPECT_EQ(s12.shape(), TShape{4});
  EXPECT_EQ(s12.offset_, 20u);
  EXPECT_EQ(s12.dptr<signed char>(), b.dptr<signed char>() + 20);
  EXPECT_EQ(a.chunk_.use_count(), 2);  // a and s0
}

TEST(NDArrayDeathTest, AtChecksBoundsAndHandle) {
  NDArray a(TShape{5}, kFloat32);
  EXPECT_DEATH(a.At(5), Fatal("shape_[0] > idx (5 vs. 5)", "index out of range"));
  NDArray none;
  EXPECT_DEATH(none[0], Fatal("!is_none()", "NDArray is not initialized"));
}

TEST(NDArrayTest, ReshapeAndAsArrayAreViews) {
  NDArray a(TShape{2, 6}, kFloat32);
  a.batch_max_ = 2;
  a.shift_ = 2;
  NDArray r = a.Reshape(TShape{3, 4});
  EXPECT_EQ(r.shape(), (TShape{3, 4}));
  EXPECT_EQ(r.chunk_, a.chunk_);
  EXPECT_EQ(r.batch_max_, 2u);
  EXPECT_EQ(r.shift_, 2);
  EXPECT_EQ(a.Reshape(TShape{5}).shape(), TShape{5});  // smaller is fine

  NDArray at = a.At(1);
  EXPECT_EQ(at.Reshape(TShape{2, 3}).offset_, 6u);

  NDArray bytes = a.AsArray(TShape{48}, kInt8);
  EXPECT_EQ(bytes.dtype(), kInt8);
  EXPECT_EQ(bytes.shape(), TShape{48});
  EXPECT_EQ(bytes.chunk_, a.chunk_);
  EXPECT_EQ(bytes.batch_max_, 2u);
  EXPECT_EQ(static_cast<void*>(bytes.dptr<signed char>()), static_cast<void*>(a.dptr<float>()));
  // The offset is kept in elements, not rescaled.
  EXPECT_EQ(at.AsArray(TShape{4}, kInt8).offset_, 6u);
}

TEST(NDArrayDeathTest, ViewsMayNotGrow) {
  NDArray a(TShape{2, 6}, kFloat32);
  EXPECT_DEATH(a.Reshape(TShape{13}), Fatal("shape_.Size() >= shape.Size() (12 vs. 13)",
                                            "NDArray.Reshape: target shape size is different from "
                                            "current shape"));
  EXPECT_DEATH(a.AsArray(TShape{49}, kInt8),
               Fatal("shape_.Size() * orvik_sizeof(dtype_) >= shape.Size() * "
                     "orvik_sizeof(dtype) (48 vs. 49)",
                     "NDArray.AsArray: target memory size is bigger"));
  EXPECT_DEATH(a.AsArray(TShape{1}, 7),
               Fatal("type > -1 && type < kUnused", "Type not initialized!"));
}

TEST(NDArrayDeathTest, DptrRejectsAnotherType) {
  NDArray a(TShape{4}, kInt8);
  const std::string text = Fatal("DataType<DType>::kFlag() == dtype_",
                                 "NDArray.dptr():data type do not match specified type.");
  EXPECT_DEATH(a.dptr<float>(), text);
  EXPECT_DEATH(a.dptr<int>(), text);
  NDArray none;
  EXPECT_DEATH(none.dptr<float>(), text);
}

TEST(NDArrayTest, DeepCopyIsIndependent) {
  NDArray a(TShape{3, 2}, kInt32);
  for (int i = 0; i < 6; ++i) a.dptr<int>()[i] = i + 1;
  a.shift_ = 4;
  NDArray row = a.At(2);
  NDArray c = row.Copy();
  EXPECT_NE(c.chunk_, a.chunk_);
  EXPECT_EQ(c.offset_, 0u);
  EXPECT_EQ(c.shape(), TShape{2});
  EXPECT_EQ(c.shift_, 4);
  EXPECT_EQ(c.dptr<int>()[0], 5);
  EXPECT_EQ(c.dptr<int>()[1], 6);
  a.dptr<int>()[4] = 0;
  EXPECT_EQ(c.dptr<int>()[0], 5);
}

TEST(NDArrayTest, SyncCopiesCountElementsAndHonourTheOffset) {
  NDArray a(TShape{3, 2}, kInt32);
  const int in[2] = {11, -12};
  a.At(1).SyncCopyFrom(in, 2);
  EXPECT_EQ(a.dptr<int>()[2], 11);
  EXPECT_EQ(a.dptr<int>()[3], -12);
  int out[2] = {0, 0};
  a.At(1).SyncCopyTo(out, 2);
  EXPECT_EQ(out[0], 11);
  EXPECT_EQ(out[1], -12);

  // Another element size: kFloat16 rows are 16 bytes per element here.
  NDArray h(TShape{2}, kFloat16);
  unsigned char raw[32];
  for (int i = 0; i < 32; ++i) raw[i] = static_cast<unsigned char>(i);
  h.SyncCopyFrom(raw, 2);
  unsigned char back[32] = {};
  h.SyncCopyTo(back, 2);
  EXPECT_EQ(memcmp(raw, back, 32), 0);

  NDArray empty(TShape{0}, kFloat32);
  empty.SyncCopyFrom(nullptr, 0);
  empty.SyncCopyTo(nullptr, 0);
}

TEST(NDArrayDeathTest, SyncCopyChecksTheCount) {
  NDArray a(TShape{3, 2}, kInt32);
  int buf[7] = {};
  EXPECT_DEATH(a.SyncCopyFrom(buf, 7),
               Fatal("shape_.Size() == size (6 vs. 7)", "Memory size do not match"));
  EXPECT_DEATH(a.SyncCopyTo(buf, 5),
               Fatal("shape_.Size() == size (6 vs. 5)", "Memory size do not match"));
  NDArray none;
  EXPECT_DEATH(none.SyncCopyFrom(buf, 1),
               Fatal("dtype_ > -1 && dtype_ < kUnused", "Type not initialized!"));
}

TEST(NDArrayTest, SetCurBatchChangesOnlyTheFirstDimension) {
  NDArray a(TShape{4, 3}, kFloat32);
  a.batch_max_ = 4;
  void* data = a.chunk_->dptr_;
  a.SetCurBatch(2);
  EXPECT_EQ(a.shape(), (TShape{2, 3}));
  EXPECT_EQ(a.Size(), 6u);
  EXPECT_EQ(a.chunk_->dptr_, data);
  EXPECT_EQ(a.chunk_->bytes_, 48u);
  a.SetCurBatch(4);  // equal to the bound is allowed
  EXPECT_EQ(a.shape(), (TShape{4, 3}));
}

TEST(NDArrayDeathTest, SetCurBatchBounds) {
  NDArray a(TShape{4, 3}, kFloat32);
  EXPECT_DEATH(a.SetCurBatch(1),
               Fatal("batch_max_ >= batch (0 vs. 1)", "1 is greater than max batch size:0"));
  a.batch_max_ = 4;
  EXPECT_DEATH(a.SetCurBatch(5),
               Fatal("batch_max_ >= batch (4 vs. 5)", "5 is greater than max batch size:4"));
  NDArray scalar(TShape(), kFloat32);
  EXPECT_DEATH(scalar.SetCurBatch(0), RegexEscape("# Check failed: shape_.ndim() >= 1 (0 vs. 1)"));
}

TEST(NDArrayTest, ResizeInPlaceUntilTheChunkIsTooSmall) {
  NDArray a(TShape{8, 1}, kFloat32);
  a.batch_max_ = 8;
  auto chunk = a.chunk_;
  a.Resize(TShape{3, 1});
  EXPECT_EQ(a.chunk_, chunk);
  EXPECT_EQ(a.shape(), (TShape{3, 1}));
  a.Resize(TShape{8, 1});
  EXPECT_EQ(a.chunk_, chunk);
  a.Resize(TShape{9, 1});
  EXPECT_NE(a.chunk_, chunk);
  EXPECT_EQ(a.shape(), (TShape{9, 1}));
  EXPECT_EQ(a.chunk_->bytes_, 36u);
  EXPECT_EQ(a.batch_max_, 8u);
}

}  // namespace
}  // namespace ruvo
}  // namespace orvik
