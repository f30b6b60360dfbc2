#ifndef RUVO_SRC_LAYER_CONCAT_H_
#define RUVO_SRC_LAYER_CONCAT_H_

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

// Joins its inputs along one axis.  With "auto_channel_switch" a join on
// the trained channel axis (1) of 4-d tensors runs on the engine's channel
// axis (3).
class Concat : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return static_cast<uint32_t>(num_args_); }
  std::vector<std::string> ListArguments() const override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;
  // Every input has the batch first.
  std::vector<uint32_t> GetInputBatchBlobs() const override;

  int32_t num_args_ = 0;
  int32_t dim_ = 1;
  bool auto_channel_switch_ = false;

 private:
  // The axis the data is joined on.
  int Axis() const { return auto_channel_switch_ ? 3 : dim_; }
};

Layer* Concat_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_CONCAT_H_
