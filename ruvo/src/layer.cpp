#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

Resource::Resource() {
  for (NDArray& buf : inter_buf_) buf = NDArray(TShape{16}, default_type_flag);
}

NDArray Resource::GetInterBuf(int idx, TShape shape, int dtype) {
  CHECK_GE(idx, 0) << "Only support " << num_inter_buf_ << "share buffer";
  CHECK_LT(idx, num_inter_buf_) << "Only support " << num_inter_buf_ << "share buffer";
  NDArray& buf = inter_buf_[idx];
  const uint64_t have = static_cast<uint64_t>(buf.Size()) * orvik_sizeof(buf.dtype_);
  const uint64_t need = static_cast<uint64_t>(shape.Size()) * orvik_sizeof(dtype);
  if (have < need) {
    buf = NDArray(shape, dtype);
    return buf;
  }
  return buf.AsArray(shape, dtype);
}

int Layer::Forward(const std::vector<NDArray*>& /*bottom_blobs*/,
                   std::vector<NDArray*>& /*top_blobs*/, std::vector<NDArray*>& /*aux_blobs*/) {
  return -1;
}

bool Layer::InferShape(std::vector<TShape>& /*in_shape*/, std::vector<TShape>& /*out_shape*/,
                       std::vector<TShape>& /*aux_shape*/) {
  return true;
}

bool Layer::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                      std::vector<int>& /*aux_type*/) {
  CHECK_GE(in_type.size(), 1);
  int dtype = in_type[0];
  CHECK(dtype != -1) << "First input must have specified type";
  out_type.clear();
  out_type.push_back(dtype);
  return true;
}

void Layer::Init(const LayerAttrs& /*attrs*/) { inited_ = true; }

std::vector<uint32_t> Layer::GetBatchBlobs() const {
  std::vector<uint32_t> ids;
  for (uint32_t i : GetInputBatchBlobs()) {
    CHECK_LT(i, bottoms_.size()) << "layer " << name_ << ": batch input not wired";
    ids.push_back(bottoms_[i]);
  }
  for (uint32_t i : GetOutputBatchBlobs()) {
    CHECK_LT(i, tops_.size()) << "layer " << name_ << ": batch output not wired";
    ids.push_back(tops_[i]);
  }
  return ids;
}

int Input::Forward(const std::vector<NDArray*>& /*bottom_blobs*/,
                   std::vector<NDArray*>& /*top_blobs*/, std::vector<NDArray*>& /*aux_blobs*/) {
  return 0;
}

bool Input::InferType(std::vector<int>& /*in_type*/, std::vector<int>& /*out_type*/,
                      std::vector<int>& /*aux_type*/) {
  return true;
}

Layer* Input_layer_creator() { return new Input(); }

}  // namespace ruvo
}  // namespace orvik
