#ifndef RUVO_SRC_LAYER_CONVOLUTION_H_
#define RUVO_SRC_LAYER_CONVOLUTION_H_

#include "ruvo/layer.h"
#include "ruvo/src/layer/conv_common.h"

namespace orvik {
namespace ruvo {

// 2-D convolution of channel-last images as image-to-column plus GEMM (the
// image itself is the column matrix for 1x1 kernels), grouped by channel
// reordering.  With "online_quanti" the products run in 8 bits: the weight
// is quantised once, the input on every call, and the input's zero point is
// repaired exactly through each filter's weight sum, as in the dense layer.
class Convolution : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return no_bias_ ? 2 : 3; }
  std::vector<std::string> ListArguments() const override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;

  conv::ConvAttrs attrs_;
  bool no_bias_ = false;
  bool online_quanti_ = false;
  bool transpose_weight_ = true;
  float weight_scale_ = 0.0f;
  NDArray weight_row_sum_;
  NDArray q_weight_;
  NDArray weight_;
  NDArray bias_sum_;
  NDArray bias_multiplier_;
  NDArray group_in_;
  NDArray group_out_;
  bool prepared_ = false;
  bool is_1x1_ = false;

 private:
  void Prepare(const NDArray& data, const NDArray& weight, const NDArray& out);
};

Layer* Convolution_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_CONVOLUTION_H_
