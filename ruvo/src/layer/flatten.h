#ifndef RUVO_SRC_LAYER_FLATTEN_H_
#define RUVO_SRC_LAYER_FLATTEN_H_

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

// (batch, rest).  With "auto_channel_switch" (the default) a channel-last
// 4-d input is written with axes 1 and 3 exchanged, which puts the elements
// in the order a channel-second graph was trained with, so the dense
// weights that follow stay valid.
class Flatten : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;

  bool auto_channel_switch_ = true;
};

Layer* Flatten_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_FLATTEN_H_
