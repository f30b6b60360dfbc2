#ifndef RUVO_SRC_LAYER_ALPHAPLUSCONVOLUTION_H_
#define RUVO_SRC_LAYER_ALPHAPLUSCONVOLUTION_H_

#include "ruvo/src/layer/alphaconvolution.h"

namespace orvik {
namespace ruvo {

// AlphaConvolution with scale overrides: "input_shift" and
// "elementwise_input_shift", when at least 1, stand in for the shifts of
// the data and of edata; the bias is stored in 8 bits at its own shift and
// aligned to the accumulator once; with "align_output_shift" a float
// output puts all channels on the coarsest channel's grid.
class AlphaPlusConvolution : public AlphaConvolution {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  void Init(const LayerAttrs& attrs) override;

  bool align_output_shift_ = false;
  // (num_filter_) 32-bit: the bias at the accumulator's scale.
  NDArray bias_aligned_;
  int32_t input_shift_ = -1;
  int32_t elementwise_input_shift_ = -1;

 private:
  void AlignBias(const NDArray& bias, const std::vector<NDArray*>& aux_blobs, int32_t in);
};

Layer* AlphaPlusConvolution_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_ALPHAPLUSCONVOLUTION_H_
