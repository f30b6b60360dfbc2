#ifndef RUVO_BASE_H_
#define RUVO_BASE_H_

// Value types of the engine: the small vector Tuple, the shape TShape, the
// element type flags and their sizes.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <istream>
#include <ostream>
#include <string>

#include "orviklog/src/checks.h"

namespace orvik {
namespace ruvo {

// Type of one dimension and of a shape's element count.
typedef uint32_t index_t;

// Element type flags.  Only kFloat32, kInt32 and kInt8 are used by layers;
// the others exist as table entries so that parameter files naming them
// still read with the right record size.
enum TypeFlag {
  kFloat32 = 0,
  kFloat64 = 1,
  kFloat16 = 2,
  kUint8 = 3,
  kInt32 = 4,
  kInt8 = 5,
  kInt64 = 6,
  kUnused = 7,
};

// Bytes per element, by flag.  kFloat16 is 16 on purpose: parameter files
// written for this engine use that record size.  The trailing 0 lies beyond
// kUnused and is never reached through orvik_sizeof.
inline constexpr size_t TypeSize[kUnused + 1] = {4, 8, 16, 1, 4, 1, 8, 0};

inline size_t orvik_sizeof(int type) {
  CHECK(type > -1 && type < kUnused) << "Type not initialized!";
  return TypeSize[type];
}

// Element type of the memory pool slabs and of the net's scratch buffers.
extern int default_type_flag;

template <typename DType>
struct DataType;
template <>
struct DataType<float> {
  static constexpr int kFlag() { return kFloat32; }
};
template <>
struct DataType<int> {
  static constexpr int kFlag() { return kInt32; }
};
template <>
struct DataType<signed char> {
  static constexpr int kFlag() { return kInt8; }
};

// A vector with room for four elements inline.  Up to four elements live in
// data_stack_; from five on, in data_heap_.  The heap block is kept when the
// tuple shrinks and reused while it is large enough, so a shape that goes
// back and forth between ranks allocates once.
template <typename T>
class Tuple {
 public:
  Tuple() = default;
  Tuple(std::initializer_list<T> init) { assign(init.begin(), init.end()); }
  template <typename RandomIt>
  Tuple(RandomIt begin, RandomIt end) {
    assign(begin, end);
  }
  Tuple(const Tuple& src) { assign(src.begin(), src.end()); }
  Tuple(Tuple&& src) noexcept { MoveFrom(src); }
  ~Tuple() { delete[] data_heap_; }

  // Assignment copies the elements and keeps this tuple's heap block when
  // it is large enough.
  Tuple& operator=(const Tuple& src) {
    if (this != &src) assign(src.begin(), src.end());
    return *this;
  }
  Tuple& operator=(Tuple&& src) {
    if (this != &src) assign(src.begin(), src.end());
    return *this;
  }
  Tuple& operator=(std::initializer_list<T> init) {
    assign(init.begin(), init.end());
    return *this;
  }

  template <typename RandomIt>
  void assign(RandomIt begin, RandomIt end) {
    SetDim(static_cast<uint32_t>(end - begin));
    std::copy(begin, end, this->begin());
  }

  uint32_t ndim() const { return ndim_; }
  T* begin() { return ndim_ <= kStackCache ? data_stack_ : data_heap_; }
  const T* begin() const { return ndim_ <= kStackCache ? data_stack_ : data_heap_; }
  T* end() { return begin() + ndim_; }
  const T* end() const { return begin() + ndim_; }
  T& operator[](size_t i) { return begin()[i]; }
  const T& operator[](size_t i) const { return begin()[i]; }

  // Capacity of the heap block, 0 when there is none.
  uint32_t heap_capacity() const { return num_heap_allocated_; }

  bool operator==(const Tuple& s) const {
    return ndim_ == s.ndim_ && std::equal(begin(), end(), s.begin());
  }
  bool operator!=(const Tuple& s) const { return !(*this == s); }

 protected:
  static constexpr uint32_t kStackCache = 4;

  // Makes room for `ndim` elements; the contents are unspecified after.
  void SetDim(uint32_t ndim) {
    if (ndim > kStackCache && ndim > num_heap_allocated_) {
      delete[] data_heap_;
      data_heap_ = new T[ndim];
      num_heap_allocated_ = ndim;
    }
    ndim_ = ndim;
  }

  uint32_t ndim_ = 0;
  uint32_t num_heap_allocated_ = 0;
  T data_stack_[kStackCache]{};
  T* data_heap_ = nullptr;

 private:
  void MoveFrom(Tuple& src) {
    ndim_ = src.ndim_;
    std::move(src.data_stack_, src.data_stack_ + kStackCache, data_stack_);
    data_heap_ = src.data_heap_;
    num_heap_allocated_ = src.num_heap_allocated_;
    src.data_heap_ = nullptr;
    src.num_heap_allocated_ = 0;
    src.ndim_ = 0;
  }
};

class TShape : public Tuple<index_t> {
 public:
  TShape() = default;
  // `ndim` dimensions, each 1.
  explicit TShape(uint32_t ndim) {
    SetDim(ndim);
    std::fill_n(begin(), ndim, index_t{1});
  }
  TShape(std::initializer_list<index_t> init) : Tuple<index_t>(init) {}
  TShape(const index_t* begin, const index_t* end) : Tuple<index_t>(begin, end) {}
  TShape(const Tuple<index_t>& s) : Tuple<index_t>(s) {}  // NOLINT

  // Product of all dimensions in 32-bit arithmetic (wraps); 1 when empty.
  index_t Size() const {
    index_t size = 1;
    for (const index_t* p = begin(); p != end(); ++p) size *= *p;
    return size;
  }
};

// "(1,2)", "(3,)", "()".
std::ostream& operator<<(std::ostream& os, const Tuple<index_t>& t);

// Reads "7", "(1,2)", "[1, 2L,]".  An empty list "()" leaves `t` as it was;
// a malformed list sets the fail bit and leaves `t` as it was.
std::istream& operator>>(std::istream& is, Tuple<index_t>& t);

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_BASE_H_
