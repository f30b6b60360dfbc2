#ifndef RUVO_SRC_LAYER_SOFTMAXACTIVATION_H_
#define RUVO_SRC_LAYER_SOFTMAXACTIVATION_H_

#include <string>
#include <unordered_map>

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

namespace softmax {
enum SoftmaxType { kInstance = 0, kChannel = 1 };
enum SoftmaxInputs { kData = 0 };
// "instance", "channel".
extern const std::unordered_map<std::string, SoftmaxType> mode_map;
}  // namespace softmax

// Softmax over each batch row ("instance") or over the last axis at every
// position ("channel"; tensors are channel-last).
class SoftmaxActivation : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;

  softmax::SoftmaxType mode_ = softmax::kInstance;
};

Layer* SoftmaxActivation_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_SOFTMAXACTIVATION_H_
