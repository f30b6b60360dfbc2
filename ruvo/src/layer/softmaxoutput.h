#ifndef RUVO_SRC_LAYER_SOFTMAXOUTPUT_H_
#define RUVO_SRC_LAYER_SOFTMAXOUTPUT_H_

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

namespace softmaxout {
// Softmax along axis 1 of a 3-dimensional tensor.
void Softmax3(const NDArray& energy, NDArray& dst);
}  // namespace softmaxout

// The training graph's output layer at inference: a softmax of the data.
// The label input exists because graphs are trained with it; its contents
// are never read.
class SoftmaxOutput : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return 2; }
  std::vector<std::string> ListArguments() const override { return {"data", "label"}; }
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;

  // Softmax along axis 1 of (batch, classes, rest); wins over
  // preserve_shape_.
  bool multi_output_ = false;
  // Softmax along the last axis at every position.
  bool preserve_shape_ = false;
};

Layer* SoftmaxOutput_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_SOFTMAXOUTPUT_H_
