#include "ruvo/src/layer/batchnorm.h"

#include <cmath>

#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

void BatchNorm::Init(const LayerAttrs& attrs) {
  eps_ = 0.001f;
  if (attrs.count("eps")) ReadAttrValue(attrs.at("eps"), &eps_);
  std::string str_fix_gamma = AttrText(attrs, "fix_gamma", "True");
  if (attrs.count("fix_gamma")) RUVO_CHECK_BOOL_ATTR(str_fix_gamma);
  fix_gamma_ = str_fix_gamma == "True";
  inited_ = true;
}

bool BatchNorm::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                           std::vector<TShape>& aux_shape) {
  CHECK_EQ(in_shape.size(), 3) << "Input:[data, gamma, beta]";
  const TShape dshape = in_shape[0];
  if (dshape.ndim() == 0) return false;
  CHECK_EQ(dshape.ndim(), 4) << "For predict, input shape must be 4";
  for (int i = 1; i < 3; ++i) RUVO_SHAPE_ASSIGN_CHECK(in_shape[i], Shape1(dshape[3]));
  aux_shape.assign(2, Shape1(dshape[3]));
  out_shape.assign(1, dshape);
  return true;
}

bool BatchNorm::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                          std::vector<int>& aux_type) {
  CHECK_EQ(in_type.size(), 3);
  const int dtype = in_type[0];
  CHECK(dtype != -1) << "First input must have specified type";
  out_type.assign(1, dtype);
  aux_type.assign(2, dtype);
  return true;
}

int BatchNorm::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                       std::vector<NDArray*>& aux_blobs) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 3);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& data = *bottom_blobs[0];
  const TShape& dshape = data.shape();
  const index_t rows = dshape[0] * dshape[1] * dshape[2];
  const index_t cols = dshape[3];
  const float* x = data.dptr<float>();
  float* out = top_blobs[0]->dptr<float>();
  float* gamma = bottom_blobs[1]->dptr<float>();
  const float* beta = bottom_blobs[2]->dptr<float>();
  const float* mean = aux_blobs[0]->dptr<float>();
  float* var = aux_blobs[1]->dptr<float>();
  // The gamma blob itself is overwritten, on every call.
  if (fix_gamma_) {
    for (index_t c = 0; c < cols; ++c) gamma[c] = 1.0f;
  }
  if (!inverse_ready_) {
    for (index_t c = 0; c < cols; ++c) var[c] = 1.0f / std::sqrt(var[c] + eps_);
    inverse_ready_ = true;
  }
  for (index_t r = 0; r < rows; ++r) {
    const float* xr = x + static_cast<size_t>(r) * cols;
    float* orow = out + static_cast<size_t>(r) * cols;
    for (index_t c = 0; c < cols; ++c) {
      orow[c] = std::fma(gamma[c], (xr[c] - mean[c]) * var[c], beta[c]);
    }
  }
  return 0;
}

Layer* BatchNorm_layer_creator() { return new BatchNorm(); }

}  // namespace ruvo
}  // namespace orvik
