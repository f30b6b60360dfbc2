#ifndef RUVO_SRC_LAYER_QUANTIFULLYCONNECTED_H_
#define RUVO_SRC_LAYER_QUANTIFULLYCONNECTED_H_

#include "ruvo/layer.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

// The 8-bit dense layer: each batch entry flattened, times 8-bit weights
// (num_hidden, num_input) into 32-bit accumulators, then bias, a fused
// batch normalisation and the narrowing to 8 bits (or to float, as the last
// layer of an 8-bit stack) at the shifts of its tables.
class QuantiFullyConnected : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return no_bias_ ? 2 : 3; }
  std::vector<std::string> ListArguments() const override;
  std::vector<std::string> ListAuxiliaryStates() const override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;

  // Position of bn_weight among the auxiliary states, if there is one.
  int32_t bn_first() const { return use_batchnorm_ ? (no_bias_ ? 2 : 3) : quanti::kNoBatchNorm; }

  int32_t num_hidden_ = 0;
  bool no_bias_ = false;
  bool transpose_weight_ = true;
  bool disable_output_quantization_ = false;
  bool vector_quanti_ = false;
  bool use_batchnorm_ = false;
  // Weight shift per output, batch normalisation folded in.
  NDArray weight_shift_;
  // (num_input, num_hidden_) copy of the weight with transpose_weight.
  NDArray weight_t_;
  bool prepared_ = false;

 private:
  // The one-row step: weight packed once, sums for the float or batch
  // normalised forms.
  quanti::PackedRowProduct product_;
  std::vector<int32_t> row_acc_;

  void Prepare(const NDArray& weight, index_t num_input, const std::vector<NDArray*>& aux_blobs);
};

Layer* QuantiFullyConnected_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_QUANTIFULLYCONNECTED_H_
