#ifndef RUVO_SRC_LAYER_SLICE_H_
#define RUVO_SRC_LAYER_SLICE_H_

#include <vector>

#include "ruvo/layer.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

// A slice given by "begin" and "end" tuples whose entries are numbers or
// "None"; exactly one axis may carry numbers.  Inputs of up to 4 axes.
class slice : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;

  // The sliced axis, -1 when every entry is "None" (a plain copy).
  int axis_ = -1;
  int begin_ = kNoneValue;
  int end_ = kNoneValue;

 private:
  // Resolved axis and range for `ishape`.
  void Resolve(const TShape& ishape, int* axis, int* begin, int* end) const;
};

Layer* slice_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_SLICE_H_
