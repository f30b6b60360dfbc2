#include "ruvo/src/layer/dropout.h"

#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace dropout {
std::unordered_map<std::string, LayerMode> mode_map = {{"training", kTraining},
                                                       {"always", kAlways}};
}  // namespace dropout

void Dropout::Init(const LayerAttrs& attrs) {
  p_ = 0.5f;
  if (attrs.count("p")) ReadAttrValue(attrs.at("p"), &p_);
  CHECK(p_ >= 0 && p_ < 1);
  const std::string mode_symbol = AttrText(attrs, "mode", "training");
  CHECK(dropout::mode_map.count(mode_symbol));
  mode_ = dropout::mode_map[mode_symbol];
  axes_ = TShape();
  if (attrs.count("axes")) ReadAttrValue(attrs.at("axes"), &axes_);
  inited_ = true;
}

bool Dropout::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                         std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  if (in_shape[0].ndim() == 0) return false;
  out_shape.assign(1, in_shape[0]);
  return true;
}

bool Dropout::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                        std::vector<int>& /*aux_type*/) {
  CHECK_EQ(in_type.size(), 1);
  CHECK(in_type[0] != -1) << "input type to dropout is not specified.";
  out_type.assign(1, in_type[0]);
  return true;
}

int Dropout::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                     std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  const NDArray* data = bottom_blobs[0];
  NDArray* out = top_blobs[0];
  CHECK(data->Size() == out->Size());
  // In place when the planner shared the memory.
  if (RawData(*data) != RawData(*out)) {
    out->SyncCopyFrom(RawData(*data), data->Size());
  }
  return 0;
}

Layer* Dropout_layer_creator() { return new Dropout(); }

}  // namespace ruvo
}  // namespace orvik
