#ifndef RUVO_SRC_LAYER_FULLYCONNECTED_H_
#define RUVO_SRC_LAYER_FULLYCONNECTED_H_

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

// out = data * weight^T + bias over a batch of rows; the data is flattened
// to (rows, rest).  With "online_quanti" the product runs in 8 bits: the
// weight is quantised once, the data on every call, and the zero point of
// the data is repaired exactly through each weight row's sum.
class FullyConnected : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return no_bias_ ? 2 : 3; }
  std::vector<std::string> ListArguments() const override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;

  int32_t num_hidden_ = 0;
  bool no_bias_ = false;
  bool online_quanti_ = false;
  // The 8-bit path keeps the weight as (num_input, num_hidden_).
  bool transpose_weight_ = true;
  // 127 / largest absolute weight: a weight w is stored as
  // trunc(w * weight_scale_).
  float weight_scale_ = 0.0f;
  // Per output unit: sum of its quantised weights / weight_scale_.
  NDArray weight_row_sum_;
  NDArray q_weight_;  // kInt8
  // Column of ones, (batch_max, 1): adds the bias by a GEMM of depth 1.
  NDArray bias_multiplier_;
  bool prepared_ = false;

 private:
  // First-run work: the ones column, and for the 8-bit path the quantised
  // weight and its row sums.
  void Prepare(const NDArray& data, const NDArray& weight);
};

Layer* FullyConnected_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_FULLYCONNECTED_H_
