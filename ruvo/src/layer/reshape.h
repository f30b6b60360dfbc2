#ifndef RUVO_SRC_LAYER_RESHAPE_H_
#define RUVO_SRC_LAYER_RESHAPE_H_

#include <vector>

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

// The same elements under a new shape.  "shape" takes the special values
// 0 (copy a dimension), -1 (infer), -2 (copy the rest), -3 (merge two) and
// -4 (split one in two); "target_shape" is the older form, where 0 infers
// and "keep_highest" keeps the first dimension.  May run in place, and
// then moves nothing.
class Reshape : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;
  std::vector<std::pair<int, int>> FInplaceOption() const override { return {{0, 0}}; }

  // Both hold the attribute's signed values as 32-bit words (-1 is
  // 0xFFFFFFFF).
  TShape target_shape_;
  TShape shape_;
  bool keep_highest_ = false;
  // Read "shape" and the input from the right.
  bool reverse_ = false;
};

// The output shape for `dshape` under the special values of `shape`.
TShape InferReshapeShape(const std::vector<int>& shape, const TShape& dshape, bool reverse);

Layer* Reshape_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_RESHAPE_H_
