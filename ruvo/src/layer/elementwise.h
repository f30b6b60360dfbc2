#ifndef RUVO_SRC_LAYER_ELEMENTWISE_H_
#define RUVO_SRC_LAYER_ELEMENTWISE_H_

// The small arithmetic layers: sums and products of whole tensors, with a
// scalar, with broadcasting, and the sum over axes.  Float tensors only.

#include <string>
#include <vector>

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

// Two inputs of one shape and type; the subclass computes.
class ElementWiseBinary : public Layer {
 public:
  uint32_t get_num_inputs() const override { return 2; }
  std::vector<std::string> ListArguments() const override { return {"lhs", "rhs"}; }
  std::vector<std::string> ListAuxiliaryStates() const override { return {}; }
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;
  std::vector<uint32_t> GetInputBatchBlobs() const override { return {0, 1}; }
};

class ElementWiseBinary_Plus : public ElementWiseBinary {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
};

// One input and the attribute "scalar", which must not be 0.
class ElementWiseBinaryScalar : public Layer {
 public:
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;
  std::vector<std::pair<int, int>> FInplaceOption() const override { return {{0, 0}}; }

  float scalar_ = 0.0f;
};

class ElementWiseBinaryScalar_Mul_Scalar : public ElementWiseBinaryScalar {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
};

class ElementWiseBinaryScalar_Plus_Scalar : public ElementWiseBinaryScalar {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
};

// Two inputs aligned at their last axes; an axis of size 1 (or missing in
// the shorter shape) repeats along the other's.
class ElementWiseBinaryBroadcast : public ElementWiseBinary {
 public:
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
};

class ElementWiseBinaryBroadcastbroadcast_mul : public ElementWiseBinaryBroadcast {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
};

// "num_args" inputs of one shape, added in input order.
class ElementWiseSum : public Layer {
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
  std::vector<std::pair<int, int>> FInplaceOption() const override { return {{0, 0}}; }
  std::vector<uint32_t> GetInputBatchBlobs() const override;

  int32_t num_args_ = 1;
};

namespace broadcast_reduce {
// Highest rank the broadcasting layers serve.
constexpr int kMaxDim = 5;
// Shape of `src` reduced over `axis` (every axis when empty), or over all
// others with `exclude`; reduced axes stay as 1 with `keepdims`.
TShape ReduceAxesShapeImpl(const TShape& src, const std::vector<int>& axis, bool keepdims,
                           bool exclude);
}  // namespace broadcast_reduce

// Attributes "axis" (a tuple, negative from the end), "keepdims",
// "exclude".
class BroadcastReduce : public Layer {
 public:
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  void Init(const LayerAttrs& attrs) override;

  std::vector<int> axis_;
  bool keepdims_ = false;
  bool exclude_ = false;
};

class BroadcastReduce_Sum : public BroadcastReduce {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
};

Layer* ElementWiseBinary_Plus_layer_creator();
Layer* ElementWiseBinaryScalar_Mul_Scalar_layer_creator();
Layer* ElementWiseBinaryScalar_Plus_Scalar_layer_creator();
Layer* ElementWiseBinaryBroadcastbroadcast_mul_layer_creator();
Layer* ElementWiseSum_layer_creator();
Layer* BroadcastReduce_Sum_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_ELEMENTWISE_H_
