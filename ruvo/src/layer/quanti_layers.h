#ifndef RUVO_SRC_LAYER_QUANTI_LAYERS_H_
#define RUVO_SRC_LAYER_QUANTI_LAYERS_H_

// The small layers at the door of an 8-bit graph: float to 8 bits, and the
// structure and activation layers that carry an 8-bit tensor's shift along.

#include <string>
#include <unordered_map>

#include "ruvo/layer.h"
#include "ruvo/src/layer/activation.h"
#include "ruvo/src/layer/flatten.h"

namespace orvik {
namespace ruvo {

namespace quanti_input {
enum TruncateType { kFloor = 0, kNaive = 1, kCeil = 2 };
// "floor", "naive", "ceil".
extern const std::unordered_map<std::string, TruncateType> truncate_map;
}  // namespace quanti_input

// Float to 8 bits at a power-of-two scale 2^s: s is "fixed_output_shift",
// or element 0 of the auxiliary "input_shift_history" when that is -128.
// The top's shift_ becomes s.
class QuantiInput : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  std::vector<std::string> ListAuxiliaryStates() const override { return {"input_shift_history"}; }
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;

  int32_t fixed_output_shift_ = 0;
  quanti_input::TruncateType truncate_ = quanti_input::kNaive;
};

// Flatten, passing the shift on.
class QuantiFlatten : public Flatten {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
};

// Activation on the raw 8-bit integers, passing the shift on (which keeps
// its meaning for relu only).
class QuantiActivation : public Activation {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
};

// (d0, d1, d2, d3) -> (d0, d1, d3, d2): puts the last two axes the way a
// convolution reads them.  The top's shift_ is left alone.
class NHCW2Conv : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
};

Layer* QuantiInput_layer_creator();
Layer* QuantiFlatten_layer_creator();
Layer* QuantiActivation_layer_creator();
Layer* NHCW2Conv_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_QUANTI_LAYERS_H_
