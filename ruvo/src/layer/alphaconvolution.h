#ifndef RUVO_SRC_LAYER_ALPHACONVOLUTION_H_
#define RUVO_SRC_LAYER_ALPHACONVOLUTION_H_

#include "ruvo/layer.h"
#include "ruvo/src/layer/conv_common.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

// The 8-bit 2-D convolution: 8-bit channel-last data times 8-bit weights
// into 32-bit accumulators that never leave the layer; bias, batch
// normalisation, a residual 8-bit input, rectifier and requantisation run in
// one fused output stage.  Shifts come from the auxiliary shift tables and
// from the bottom's shift_.
class AlphaConvolution : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override {
    return (no_bias_ ? 2 : 3) + (elementwise_input_ ? 1 : 0);
  }
  std::vector<std::string> ListArguments() const override;
  std::vector<std::string> ListAuxiliaryStates() const override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;
  std::vector<uint32_t> GetInputBatchBlobs() const override;

  // Position of edata among the inputs; of bn_weight, if there is one,
  // among the auxiliary states.
  uint32_t edata_index() const { return 3 - (no_bias_ ? 1 : 0); }
  int32_t bn_first() const { return use_batchnorm_ ? (no_bias_ ? 2 : 3) : quanti::kNoBatchNorm; }
  // Length of ListAuxiliaryStates(), without building it.
  uint32_t num_aux() const { return (no_bias_ ? 2 : 3) + (use_batchnorm_ ? 3 : 0); }

  conv::ConvAttrs attrs_;
  bool no_bias_ = false;
  bool transpose_weight_ = true;
  bool elementwise_input_ = false;
  bool use_activation_ = false;
  bool use_batchnorm_ = false;
  bool disable_output_quantization_ = false;
  bool vector_quanti_ = false;
  NDArray weight_shift_;
  NDArray weight_t_;
  NDArray group_in_;
  NDArray group_out_;
  bool prepared_ = false;
  bool is_1x1_ = false;

 protected:
  // First-run work: transposed weight, group buffers and the weight shift table.
  void Prepare(const NDArray& data, const NDArray& weight, const NDArray& out,
               const std::vector<NDArray*>& aux_blobs);
  // Every image of `data` through the GEMM (columns, groups or the image
  // itself) and `stage` into `out`; `edata`, if any, is in the output's
  // layout.
  void RunImages(const NDArray& data, const NDArray& weight, const conv::Geometry& g,
                 const signed char* edata, quanti::OutputStage* stage, NDArray* out);
};

Layer* AlphaConvolution_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_ALPHACONVOLUTION_H_
