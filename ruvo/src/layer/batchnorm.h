#ifndef RUVO_SRC_LAYER_BATCHNORM_H_
#define RUVO_SRC_LAYER_BATCHNORM_H_

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

// Trained per-channel normalisation over the last axis of a 4-d tensor:
// out = gamma * ((x - mean) * inv_std) + beta.  The first Forward turns the
// stored variance into 1 / sqrt(var + eps) in place, once.
class BatchNorm : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return 3; }
  std::vector<std::string> ListArguments() const override { return {"data", "gamma", "beta"}; }
  std::vector<std::string> ListAuxiliaryStates() const override {
    return {"running_mean", "running_var"};
  }
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;

  float eps_ = 0.001f;
  bool fix_gamma_ = true;
  bool inverse_ready_ = false;
};

Layer* BatchNorm_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_BATCHNORM_H_
