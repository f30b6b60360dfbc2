#ifndef RUVO_SRC_LAYER_ACTIVATION_H_
#define RUVO_SRC_LAYER_ACTIVATION_H_

#include <string>
#include <unordered_map>

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

namespace activation {
enum LayerType { kReLU = 0, kSigmoid = 1, kTanh = 2, kSoftReLU = 3 };
// "relu", "sigmoid", "tanh", "softrelu".
extern const std::unordered_map<std::string, LayerType> act_map;
}  // namespace activation

// Element-wise relu, sigmoid, tanh or softrelu.  May run in place.
class Activation : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;
  std::vector<std::pair<int, int>> FInplaceOption() const override { return {{0, 0}}; }

  activation::LayerType act_type_ = activation::kReLU;
};

Layer* Activation_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_ACTIVATION_H_
