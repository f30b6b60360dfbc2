#ifndef RUVO_SRC_LAYER_DROPOUT_H_
#define RUVO_SRC_LAYER_DROPOUT_H_

#include <string>
#include <unordered_map>

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

namespace dropout {
enum LayerMode { kTraining = 0, kAlways = 1 };
extern std::unordered_map<std::string, LayerMode> mode_map;
}  // namespace dropout

// The identity at inference.  Its attributes are only validated, so that
// trained graphs that carry them load.
class Dropout : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;
  std::vector<std::pair<int, int>> FInplaceOption() const override { return {{0, 0}}; }

  float p_ = 0.5f;
  dropout::LayerMode mode_ = dropout::kTraining;
  TShape axes_;
};

Layer* Dropout_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_DROPOUT_H_
