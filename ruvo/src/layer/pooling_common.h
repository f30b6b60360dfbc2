#ifndef RUVO_SRC_LAYER_POOLING_COMMON_H_
#define RUVO_SRC_LAYER_POOLING_COMMON_H_

// Attributes and output shapes shared by the float and the 8-bit pooling
// layers.

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

}  // namespace pool
}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_POOLING_COMMON_H_
