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

// Shapes past four dimensions live on the heap: shrinking back, growing
// again and copying keep the values apart.  Size() wraps in 32 bits.
TEST(TShapeTest, StorageSizeAndEquality) {
  TShape s{1, 2, 3, 4, 5};
  s = TShape{7, 8, 9};  // equality sees only the live elements
  EXPECT_EQ(s, (TShape{7, 8, 9}));
  s = TShape{1, 2, 3, 4, 5, 6, 7};
  EXPECT_EQ(s, (TShape{1, 2, 3, 4, 5, 6, 7}));
  TShape copy = s;
  copy[0] = 9;
  EXPECT_EQ(s[0], 1u);
  EXPECT_EQ(TShape().Size(), 1u);
  EXPECT_EQ(TShape(3), (TShape{1, 1, 1}));
  EXPECT_EQ((TShape{2, 0, 4}).Size(), 0u);
  EXPECT_EQ((TShape{65536, 65537}).Size(), 65536u);
  EXPECT_NE(TShape(), TShape(1));
  EXPECT_NE((TShape{1, 2}), (TShape{2, 1}));
}

TEST(ShapeTextTest, WritesAndReads) {
  const struct {
    TShape shape;
    const char* text;
  } written[] = {{TShape(), "()"}, {TShape{3}, "(3,)"}, {TShape{1, 2, 3, 4, 5}, "(1,2,3,4,5)"}};
  for (const auto& c : written) {
    std::stringstream ss;
    ss << c.shape;
    EXPECT_EQ(ss.str(), c.text);
    TShape back = c.shape.ndim() ? TShape{9} : TShape();  // "()" leaves it alone
    ss >> back;
    EXPECT_EQ(back, c.shape) << c.text;
  }
  // An empty list leaves the target alone.
  const TShape kBefore{9, 9};
  const struct {
    const char* text;
    TShape expected;
    bool fails;
  } read[] = {{"[1, 2L,]", TShape{1, 2}, false}, {"7", TShape{7}, false},
              {" [ ] ", kBefore, false},          {"(1;2)", kBefore, true},
              {"  (3 ,4 )", TShape{3, 4}, false}, {"(5L)", TShape{5}, false},
              {"x", kBefore, true},               {"", kBefore, true},
              {"(1, 2", kBefore, true},           {"(1,2]", TShape{1, 2}, false},
              {"()", kBefore, false},
              {"(1,2,3,4,5,6)", TShape{1, 2, 3, 4, 5, 6}, false}};
  for (const auto& c : read) {
    TShape s = kBefore;
    std::istringstream is(c.text);
    is >> s;
    EXPECT_EQ(is.fail(), c.fails) << c.text;
    EXPECT_EQ(s, c.expected) << c.text;
  }
  std::istringstream is("(2,3) rest");
  TShape s;
  std::string rest;
  is >> s >> rest;
  EXPECT_EQ(rest, "rest");
}

TEST(NDArrayTest, AllocatesAlignedChunksOfTheTypeSize) {
  EXPECT_EQ(NDArray().dtype(), -1);
  const struct {
    TShape shape;
    int dtype;
    size_t bytes;
  } cases[] = {{TShape(), 0, 4},      {TShape{3}, 5, 3},    {TShape{3}, 2, 48}, {TShape{2}, 1, 16},
               {TShape{2, 3}, 4, 24}, {TShape{0, 7}, 0, 0}, {TShape{5}, 6, 40}, {TShape{5}, 3, 5}};
  for (const auto& c : cases) {
    NDArray a(c.shape, c.dtype);
    EXPECT_EQ(a.chunk_->bytes_, c.bytes);
    EXPECT_EQ(a.dtype(), c.dtype);
    EXPECT_EQ(a.shift_, 255);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a.chunk_->dptr_) % 16, 0u);
    if (c.bytes) memset(a.chunk_->dptr_, 0xAB, c.bytes);  // bounds: the sanitizer build
  }
  // Many small blocks: malloc's own alignment must not be relied on.
  std::vector<NDArray> many;
  for (index_t n = 1; n < 40; ++n) {
    many.emplace_back(TShape{n}, kInt8);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(many.back().chunk_->dptr_) % 16, 0u);
  }
  float buf[6] = {0, 1, 2, 3, 4, 5};
  {
    NDArray foreign(buf, TShape{2, 3}, kInt8);  // always float
    EXPECT_EQ(foreign.At(1).dptr<float>()[2], 5.0f);
  }  // not freed: the sanitizer build would report a bad free
}

TEST(NDArrayTest, ViewsShareTheChunkAndAddOffsets) {
  NDArray view;
  {
    NDArray b(TShape{2, 3, 4}, kInt8);
    b.batch_max_ = 2;
    b.shift_ = 6;
    for (int i = 0; i < 24; ++i) b.dptr<signed char>()[i] = static_cast<signed char>(i);
    NDArray s1 = b.At(1);
    EXPECT_EQ(s1.shape(), (TShape{3, 4}));
    EXPECT_EQ(s1.batch_max_, 2u);
    EXPECT_EQ(s1.shift_, 6);
    view = s1[2];  // nested: 12 + 8
    EXPECT_EQ(view.offset_, 20u);
    EXPECT_EQ(NDArray(TShape{5}, kFloat32).At(4).shape(), TShape{1});  // not ()
    EXPECT_EQ(s1.Reshape(TShape{2, 3}).offset_, 12u);
    // The offset stays in elements when the type changes.
    EXPECT_EQ(s1.AsArray(TShape{3}, kInt32).offset_, 12u);
    EXPECT_EQ(b.Reshape(TShape{6, 4}).chunk_, b.chunk_);
  }
  // The view keeps the block alive.
  EXPECT_EQ(view.dptr<signed char>()[3], 23);

  NDArray a(TShape{2, 6}, kFloat32);
  NDArray bytes = a.AsArray(TShape{48}, kInt8);
  EXPECT_EQ(static_cast<void*>(bytes.dptr<signed char>()), static_cast<void*>(a.dptr<float>()));
}

TEST(NDArrayTest, CopiesAndBatchResizing) {
  NDArray a(TShape{3, 2}, kInt32);
  for (int i = 0; i < 6; ++i) a.dptr<int>()[i] = i + 1;
  a.shift_ = 4;
  NDArray c = a.At(2).Copy();
  EXPECT_EQ(c.shift_, 4);
  a.dptr<int>()[4] = 0;
  EXPECT_EQ(std::vector<int>(c.dptr<int>(), c.dptr<int>() + 2), (std::vector<int>{5, 6}));

  const int in[2] = {11, -12};
  a.At(1).SyncCopyFrom(in, 2);
  EXPECT_EQ(a.dptr<int>()[3], -12);
  int out[2] = {9, 9};
  a.At(2).SyncCopyTo(out, 2);
  EXPECT_EQ(std::vector<int>(out, out + 2), (std::vector<int>{0, 6}));

  NDArray r(TShape{8, 3}, kFloat32);
  r.batch_max_ = 8;
  auto chunk = r.chunk_;
  r.Resize(TShape{3, 1});
  r.Resize(TShape{24, 1});
  EXPECT_EQ(r.chunk_, chunk);
  r.Resize(TShape{25, 1});
  EXPECT_NE(r.chunk_, chunk);
  EXPECT_EQ(r.chunk_->bytes_, 100u);
  EXPECT_EQ(r.batch_max_, 8u);
}

// Each report as printed, up to the start of its message.
TEST(NDArrayDeathTest, ChecksOfEveryAccessor) {
  NDArray a(TShape{2, 6}, kFloat32), none, scalar(TShape(), kFloat32);
  int buf[13] = {};
  const std::string mismatch = Fatal("DataType<DType>::kFlag() == dtype_",
                                     "NDArray.dptr():data type do not match specified type.");
  EXPECT_DEATH(a.At(2), Fatal("shape_[0] > idx (2 vs. 2)", "index out of range"));
  EXPECT_DEATH(none[0], Fatal("!is_none()", "NDArray is not initialized"));
  EXPECT_DEATH(a.Reshape(TShape{13}),
               Fatal("shape_.Size() >= shape.Size() (12 vs. 13)",
                     "NDArray.Reshape: target shape size is different from current shape"));
  EXPECT_DEATH(a.AsArray(TShape{49}, kInt8),
               Fatal("shape_.Size() * orvik_sizeof(dtype_) >= shape.Size() * orvik_sizeof(dtype) "
                     "(48 vs. 49)",
                     "NDArray.AsArray: target memory size is bigger"));
  EXPECT_DEATH(a.AsArray(TShape{1}, 7),
               Fatal("type > -1 && type < kUnused", "Type not initialized!"));
  EXPECT_DEATH(a.dptr<int>(), mismatch);
  EXPECT_DEATH(none.dptr<float>(), mismatch);
  EXPECT_DEATH(a.SyncCopyFrom(buf, 13),
               Fatal("shape_.Size() == size (12 vs. 13)", "Memory size do not match"));
  EXPECT_DEATH(a.SyncCopyTo(buf, 11),
               Fatal("shape_.Size() == size (12 vs. 11)", "Memory size do not match"));
  EXPECT_DEATH(none.SyncCopyFrom(buf, 1),
               Fatal("dtype_ > -1 && dtype_ < kUnused", "Type not initialized!"));
  a.batch_max_ = 2;
  EXPECT_DEATH(a.SetCurBatch(3),
               Fatal("batch_max_ >= batch (2 vs. 3)", "3 is greater than max batch size:2"));
  EXPECT_DEATH(scalar.SetCurBatch(0), Fatal("shape_.ndim() >= 1 (0 vs. 1)", ""));
}

}  // namespace
}  // namespace ruvo
}  // namespace orvik
