#ifndef RUVO_SRC_NET_ALLOCATOR_H_
#define RUVO_SRC_NET_ALLOCATOR_H_

// The memory plan of a net: which intermediate blobs may share storage.
// The layers are run on paper in order; a blob's storage returns to the
// free list once its last reader has run, and a later blob of a similar
// size takes it over.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "ruvo/layer.h"
#include "ruvo/ndarray.h"

namespace orvik {
namespace ruvo {

// No storage: an empty shape.
constexpr int kBadStorageID = -1;
// Storage owned outside the plan; nothing assigns it, the release paths
// skip it all the same.
constexpr int kExternalStorageID = -2;

class GraphAllocator {
 public:
  struct StorageEntry {
    int32_t id;        // position in data_
    size_t max_bytes;  // largest request served so far
  };

  // `match_range`: a free block is reused for a request between 1/range and
  // range times its size; 0 never reuses.
  explicit GraphAllocator(size_t match_range) : match_range_(match_range) {}

  // A storage id for a blob of `shape`, kBadStorageID for an empty shape.
  // Every element is counted as 4 bytes here, whatever its type.
  int Request(const TShape& shape);
  // Returns storage `id` to the free list under its current size.
  void Release(int id);

  // Number of storage ids handed out, and the size that id `id` has grown
  // to (for inspection).
  size_t NumStorage() const { return data_.size(); }
  size_t MaxBytes(int id) const { return data_.at(id)->max_bytes; }

 private:
  std::multimap<size_t, StorageEntry*> free_;
  std::vector<std::unique_ptr<StorageEntry>> data_;
  size_t match_range_;
};

// Assigns a storage id to every top of the non-"Input" layers in `layers`
// (in execution order), sharing storage between blobs whose lifetimes do
// not overlap; `outs` are the net's outputs, which never die.  Blobs that
// are no layer's top keep -1.  Returns 0.
int PlanGraphMemory(const std::vector<std::shared_ptr<Layer>>& layers,
                    const std::vector<uint32_t>& outs, const std::vector<TShape>& blob_shapes,
                    const std::vector<int>& blob_types, std::vector<int>& vstorage_ids);

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_NET_ALLOCATOR_H_
