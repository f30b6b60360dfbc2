#ifndef RUVO_SRC_LAYER_ALPHAPOOLING_H_
#define RUVO_SRC_LAYER_ALPHAPOOLING_H_

#include "ruvo/layer.h"
#include "ruvo/src/layer/pooling_common.h"

namespace orvik {
namespace ruvo {

// Max or average over windows of a channel-last 8-bit (or float) image,
// keeping the input's scale: the top's shift_ is the bottom's.  The 8-bit
// average multiplies the window sum by trunc(512 / kernel area) and shifts
// right by 9, with no division and no rounding, over the full kernel area
// even where the window is clipped.
class AlphaPooling : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;

  pool::PoolingAttrs attrs_;
};

// Bilinear doubling of a channel-last 8-bit image with weights out of 256;
// the last source row and column are repeated rather than blended.  Channel
// counts 1 to 4, the multiples of 4 from 8 to 396, and 512; any other count
// is logged and leaves the output unwritten.  The top's shift_ is the
// bottom's.
class AlphaUpscale : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
};

// One image of `channels` channels, height x width, into 2 height x 2 width.
// False (and nothing written) for an unsupported channel count.
bool upscale_2x_cpu_forward_kernel(int channels, const signed char* src, int height, int width,
                                   signed char* dst);

Layer* AlphaPooling_layer_creator();
Layer* AlphaUpscale_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_ALPHAPOOLING_H_
