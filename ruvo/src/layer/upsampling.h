#ifndef RUVO_SRC_LAYER_UPSAMPLING_H_
#define RUVO_SRC_LAYER_UPSAMPLING_H_

#include <string>
#include <unordered_map>

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

namespace upsample {
enum UpSamplingType { kNearest = 0, kBilinear = 1 };
enum UpSamplingMultiInputMode { kConcat = 0, kSum = 1 };
extern std::unordered_map<std::string, UpSamplingType> sample_map;
extern std::unordered_map<std::string, UpSamplingMultiInputMode> multi_input_mode_map;
}  // namespace upsample

// Enlarges y and x of a channel-last image by a whole factor, each output
// position copying the channels of its nearest source.  Bilinear sampling
// and several inputs have their shapes inferred but compute nothing.
class UpSampling : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return static_cast<uint32_t>(num_args_); }
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;

  int32_t scale_ = 1;
  int32_t num_filter_ = 0;
  upsample::UpSamplingType sample_type_ = upsample::kNearest;
  int32_t num_args_ = 1;
  upsample::UpSamplingMultiInputMode multi_input_mode_ = upsample::kConcat;
};

void nearest_upsampling(const NDArray& data, NDArray& out, const TShape& ishape,
                        const TShape& oshape, float scale);

Layer* UpSampling_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_UPSAMPLING_H_
