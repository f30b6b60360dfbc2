#include "ruvo/src/net_allocator.h"

#include <algorithm>
#include <string>
#include <utility>

#include "orviklog/src/checks.h"

namespace orvik {
namespace ruvo {

int GraphAllocator::Request(const TShape& shape) {
  if (shape.ndim() == 0) return kBadStorageID;
  // Four bytes an element for every type, in 32-bit arithmetic: the plan's
  // fixed rule.  True byte sizes only enter when the slabs are made.
  const uint32_t size32 = static_cast<uint32_t>(shape.Size()) * 4u;
  const size_t size = size32;
  if (match_range_ != 0) {
    auto begin = free_.lower_bound(size / match_range_);
    auto mid = free_.lower_bound(size);
    auto end = free_.upper_bound(size * match_range_);
    auto take = free_.end();
    if (mid != end) {
      // The smallest free block that is large enough (earliest released
      // among equals).
      take = mid;
    } else if (mid != begin) {
      // The largest free block that is too small; it grows on paper.
      take = std::prev(mid);
    }
    if (take != free_.end()) {
      StorageEntry* e = take->second;
      e->max_bytes = std::max(e->max_bytes, size);
      free_.erase(take);
      return e->id;
    }
  }
  std::unique_ptr<StorageEntry> e(new StorageEntry());
  e->id = static_cast<int32_t>(data_.size());
  e->max_bytes = size;
  data_.push_back(std::move(e));
  return data_.back()->id;
}

void GraphAllocator::Release(int id) {
  StorageEntry* e = data_.at(id).get();
  free_.insert(std::make_pair(e->max_bytes, e));
}

int PlanGraphMemory(const std::vector<std::shared_ptr<Layer>>& layers,
                    const std::vector<uint32_t>& outs, const std::vector<TShape>& blob_shapes,
                    const std::vector<int>& blob_types, std::vector<int>& vstorage_ids) {
  const size_t num_blobs = blob_shapes.size();
  vstorage_ids.resize(num_blobs, kBadStorageID);

  std::vector<int> ref_count(num_blobs, 0);
  for (const auto& layer : layers) {
    if (layer->GetType() == "Input") continue;
    for (uint32_t b : layer->GetBottoms()) ref_count[b] += 1;
  }
  // Net outputs never die.
  for (uint32_t id : outs) ref_count[id] += 1;

  GraphAllocator allocator(16);
  for (const auto& layer : layers) {
    if (layer->GetType() == "Input") continue;
    const std::vector<uint32_t>& tops = layer->GetTops();
    const std::vector<uint32_t>& bottoms = layer->GetBottoms();

    // In place: the output takes over the input's storage when this layer is
    // the input's last reader and the two have the same size and type.  A
    // count of 0 marks the storage as handed over, so it is not released
    // below.  Graph inputs and parameters (no storage id) are never
    // overwritten.
    for (const std::pair<int, int>& opt : layer->FInplaceOption()) {
      const uint32_t in = bottoms.at(opt.first);
      const uint32_t out = tops.at(opt.second);
      if (ref_count[in] == 1 && ref_count[out] != 0 && vstorage_ids[out] == kBadStorageID &&
          vstorage_ids[in] >= 0 && blob_shapes[in].Size() == blob_shapes[out].Size() &&
          blob_types[in] == blob_types[out]) {
        vstorage_ids[out] = vstorage_ids[in];
        ref_count[in] = 0;
      }
    }

    // Fresh storage for the remaining tops, largest first; among equal
    // sizes the later top goes first.
    std::multimap<size_t, uint32_t> by_size;
    for (uint32_t t : tops) {
      if (vstorage_ids[t] != kBadStorageID) continue;
      const size_t n = blob_shapes[t].ndim() == 0 ? 0 : blob_shapes[t].Size();
      by_size.insert(std::make_pair(n, t));
    }
    for (auto it = by_size.rbegin(); it != by_size.rend(); ++it) {
      vstorage_ids[it->second] = allocator.Request(blob_shapes[it->second]);
    }

    // Inputs whose last reader this was give their storage back.  A blob
    // read twice by this layer is released on its last read.
    for (uint32_t b : bottoms) {
      if (ref_count[b] == 0) continue;
      ref_count[b] -= 1;
      if (ref_count[b] == 0 && vstorage_ids[b] != kBadStorageID &&
          vstorage_ids[b] != kExternalStorageID) {
        allocator.Release(vstorage_ids[b]);
      }
    }

    // Outputs nobody reads are free again for the next layer; this layer
    // still writes them.
    for (uint32_t blob_id : tops) {
      if (ref_count[blob_id] == 0 && vstorage_ids[blob_id] != kBadStorageID &&
          vstorage_ids[blob_id] != kExternalStorageID) {
        allocator.Release(vstorage_ids[blob_id]);
      }
      CHECK_NE(vstorage_ids[blob_id], kBadStorageID)
          << "no storage allocated for layer:" << layer->GetName();
    }
  }
  return 0;
}

}  // namespace ruvo
}  // namespace orvik
