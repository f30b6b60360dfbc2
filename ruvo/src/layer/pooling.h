#ifndef RUVO_SRC_LAYER_POOLING_H_
#define RUVO_SRC_LAYER_POOLING_H_

#include "ruvo/layer.h"
#include "ruvo/src/layer/pooling_common.h"

namespace orvik {
namespace ruvo {

// Max or average over windows of a channel-last image, float or 8-bit.
// The average divides by the full kernel area, so padding counts as zero.
class Pooling : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;

  pool::PoolingAttrs attrs_;
};

Layer* Pooling_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_POOLING_H_
