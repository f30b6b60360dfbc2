#ifndef RUVO_NDARRAY_H_
#define RUVO_NDARRAY_H_

// NDArray: a cheap tensor handle on shared, 16-byte aligned storage.  Many
// handles (views) share one Chunk, each with its own shape, element type and
// element offset; the storage dies with the last handle.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ruvo/base.h"

namespace orvik {
namespace ruvo {

namespace io {
class Stream;
}  // namespace io

// First word of a parameter file.
constexpr uint64_t kRUVONDArrayListMagic = 0x112;

class NDArray {
 public:
  // One allocation.  Never resized.
  struct Chunk {
    // 16-byte aligned start of the data; null if malloc failed.
    void* dptr_ = nullptr;
    size_t bytes_ = 0;
    int32_t dtype_ = -1;
    // True: the memory belongs to somebody else and is not freed here.
    bool static_data_ = false;

    // Allocates `bytes` aligned bytes (uninitialised).
    Chunk(size_t bytes, int dtype);
    // Wraps foreign memory.
    Chunk(void* data, size_t bytes, int dtype);
    ~Chunk();
    Chunk(const Chunk&) = delete;
    Chunk& operator=(const Chunk&) = delete;
  };

  // Empty ("none") handle: no chunk, empty shape, dtype -1.
  NDArray() = default;
  // Allocates shape.Size() * orvik_sizeof(dtype) bytes, uninitialised.
  NDArray(const TShape& shape, int dtype);
  // Wraps `data` without owning it.  Always a float view: the third
  // argument is ignored and the type is kFloat32.
  NDArray(void* data, const TShape& shape, int dtype);

  // Copies and assignments are shallow: they share the chunk.
  NDArray(const NDArray&) = default;
  NDArray(NDArray&&) = default;
  NDArray& operator=(const NDArray&) = default;
  NDArray& operator=(NDArray&&) = default;

  bool is_none() const { return chunk_ == nullptr; }
  const TShape& shape() const { return shape_; }
  int dtype() const { return dtype_; }
  index_t Size() const { return shape_.Size(); }
  // Rank, and dimension `i`, of this view's shape.
  uint32_t ndim() const { return shape_.ndim(); }
  index_t size(uint32_t i) const { return shape_[i]; }

  // Start of this view; fatal unless DType is the view's element type.
  template <typename DType>
  DType* dptr() const {
    CHECK(DataType<DType>::kFlag() == dtype_)
        << "NDArray.dptr():data type do not match specified type.";
    return static_cast<DType*>(chunk_->dptr_) + offset_;
  }

  // View of slice `idx` along axis 0.  A 1-d array gives shape (1).
  NDArray At(index_t idx) const;
  NDArray operator[](index_t idx) const { return At(idx); }
  // View with a new shape of at most as many elements.
  NDArray Reshape(const TShape& shape) const;
  // View with a new shape and element type of at most as many bytes.  The
  // offset is kept as it is, in elements (callers use offset 0).
  NDArray AsArray(const TShape& shape, int dtype) const;
  // Deep copy of this view into a new chunk (offset 0); shift_ and
  // batch_max_ come along.
  NDArray Copy() const;

  // Copy `size` elements (not bytes) into / out of this view; `size` must
  // equal Size().
  void SyncCopyFrom(const void* data, size_t size);
  void SyncCopyTo(void* data, size_t size) const;

  // Sets the first dimension in place, up to batch_max_.  Storage stays
  // sized for batch_max_.
  void SetCurBatch(index_t batch);

  // Sets the shape in place when the chunk holds enough bytes from this
  // view's offset on; otherwise logs and replaces the chunk with a new,
  // uninitialised one of the new shape (offset 0).
  void Resize(const TShape& shape);

  // Reads one array record of the parameter file; false when a read came
  // up short.  On false *this is unchanged.
  bool Load(io::Stream* fi);
  // Reads a whole parameter file: arrays and names, sized to the counts in
  // the file.  Every problem is fatal.
  static void Load(io::Stream* fi, std::vector<NDArray>& data, std::vector<std::string>& names);
  // The engine writes no parameter files: these do nothing.
  bool Save(io::Stream* fo) const;
  static void Save(io::Stream* fo, const std::vector<NDArray>& data,
                   const std::vector<std::string>& names);

  // Fields are public: the net sets batch_max_ of its blobs, and the
  // quantised layers pass shift_ from bottom to top.

  // Fractional bits of an 8-bit tensor; 255 means not known yet.
  int32_t shift_ = 255;
  std::shared_ptr<Chunk> chunk_;
  TShape shape_;
  // Upper bound for SetCurBatch; 0 until the net records it.
  uint32_t batch_max_ = 0;
  int32_t dtype_ = -1;
  // Offset of this view from the chunk's start, in elements of dtype_.
  uint64_t offset_ = 0;
};

// Reads the shape part of an array record; false when a read came up short.
bool LegacyTShapeLoad(io::Stream* fi, TShape* shape);

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_NDARRAY_H_
