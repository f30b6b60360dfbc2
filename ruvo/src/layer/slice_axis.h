#ifndef RUVO_SRC_LAYER_SLICE_AXIS_H_
#define RUVO_SRC_LAYER_SLICE_AXIS_H_

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

namespace Slice_axis {
// Resolves an axis and a [begin, end) range against `ishape`: negative
// values count from the end, an `end` of kNoneValue ("None") is the axis
// size.  Fatal when the result lies outside the input.
void GetSliceAxisParams(int axis, int begin, int end, const TShape& ishape, int* axis_out,
                        int* begin_out, int* end_out);
}  // namespace Slice_axis

// Elements [begin, end) along one axis.
class slice_axis : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;

  int axis_ = 0;
  int begin_ = 0;
  int end_ = 0;  // kNoneValue for "None"
};

// Copies the [begin, end) run of `axis` from `in` to `out`, whose shapes
// differ only on that axis.  Logs and does nothing for element types other
// than float, int32 and int8.
void CopyAxisRange(const NDArray& in, NDArray* out, int axis, int begin, int end);

Layer* slice_axis_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_SLICE_AXIS_H_
