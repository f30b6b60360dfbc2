#ifndef RUVO_SRC_LAYER_POOLING_COMMON_H_
#define RUVO_SRC_LAYER_POOLING_COMMON_H_

// Attributes and output shapes shared by the float and the 8-bit pooling
// layers.

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>
#include <unordered_map>
#include <vector>

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {
namespace pool {

enum PoolingType { kMaxPooling = 0, kAvgPooling = 1, kSumPooling = 2 };
enum PoolingConventionType { kValid = 0, kFull = 1 };

extern std::unordered_map<std::string, int32_t> pool_map;
extern std::unordered_map<std::string, int32_t> pool_convention_map;

struct PoolingAttrs {
  TShape kernel_;
  TShape stride_{1, 1};
  TShape pad_{0, 0};
  int32_t pool_type_ = kMaxPooling;
  bool global_pool_ = false;
  bool legacy_shape_ = false;
  int32_t pooling_convention_ = kValid;

  void Parse(const LayerAttrs& attrs);
  // Output shape of the one (batch, y, x, channel) input; global pooling
  // rewrites kernel_, stride_ and pad_ to cover the whole image.
  TShape InferShape(const std::vector<TShape>& in_shape);
};

// Logs and returns false for a pool type Forward does not compute (sum, or
// anything unknown).
bool ComputedPoolType(int32_t pool_type);

// Pools a channel-last (batch, y, x, channel) image into `oshape`.  Per
// output position the window is clipped to the image and each window
// element adds one contiguous run of channels; `finish` turns a channel's
// window sum (in `acc`, one entry per channel) into the average.
template <typename T, typename Acc, typename Finish>
void PoolWindows(const PoolingAttrs& p, const T* in, T* out, const TShape& ishape,
                 const TShape& oshape, Acc* acc, Finish finish) {
  const int height = static_cast<int>(ishape[1]), width = static_cast<int>(ishape[2]),
            channels = static_cast<int>(ishape[3]);
  const int out_h = static_cast<int>(oshape[1]), out_w = static_cast<int>(oshape[2]);
  for (index_t n = 0; n < ishape[0]; ++n) {
    const T* img = in + static_cast<size_t>(n) * height * width * channels;
    for (int oy = 0; oy < out_h; ++oy) {
      for (int ox = 0; ox < out_w; ++ox) {
        T* o = out + ((static_cast<size_t>(n) * out_h + oy) * out_w + ox) * channels;
        int y0 = oy * static_cast<int>(p.stride_[0]) - static_cast<int>(p.pad_[0]);
        const int y1 = std::min(y0 + static_cast<int>(p.kernel_[0]), height);
        y0 = std::max(y0, 0);
        int x0 = ox * static_cast<int>(p.stride_[1]) - static_cast<int>(p.pad_[1]);
        const int x1 = std::min(x0 + static_cast<int>(p.kernel_[1]), width);
        x0 = std::max(x0, 0);
        if (p.pool_type_ == kAvgPooling) {
          std::fill(acc, acc + channels, Acc(0));
          for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
              const T* v = img + (static_cast<size_t>(y) * width + x) * channels;
              for (int c = 0; c < channels; ++c) acc[c] += v[c];
            }
          }
          for (int c = 0; c < channels; ++c) o[c] = finish(acc[c]);
        } else {
          std::fill(o, o + channels, std::numeric_limits<T>::lowest());
          for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
              const T* v = img + (static_cast<size_t>(y) * width + x) * channels;
              for (int c = 0; c < channels; ++c) o[c] = std::max(o[c], v[c]);
            }
          }
        }
      }
    }
  }
}

}  // namespace pool
}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_POOLING_COMMON_H_
