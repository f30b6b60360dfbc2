#include "ruvo/src/layer/softmaxoutput.h"

#include <cmath>

#include "orvik_blas_64/src/softmax_function.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace softmaxout {

void Softmax3(const NDArray& energy, NDArray& dst) {
  CHECK_EQ(dst.shape(), energy.shape()) << "Softmax: shape mismatch";
  CHECK_EQ(dst.ndim(), 3) << "Softmax3 arg's dim != 3";
  const index_t d0 = energy.shape()[0];
  const index_t d1 = energy.shape()[1];
  const index_t d2 = energy.shape()[2];
  const float* in = energy.dptr<float>();
  float* out = dst.dptr<float>();
  for (index_t n = 0; n < d0; ++n) {
    const float* e = in + n * d1 * d2;
    float* o = out + n * d1 * d2;
    for (index_t m = 0; m < d2; ++m) {
      float mmax = e[m];
      for (index_t k = 1; k < d1; ++k) {
        if (e[k * d2 + m] > mmax) mmax = e[k * d2 + m];
      }
      float sum = 0.0f;
      for (index_t k = 0; k < d1; ++k) {
        o[k * d2 + m] = expf(e[k * d2 + m] - mmax);
        sum += o[k * d2 + m];
      }
      for (index_t k = 0; k < d1; ++k) o[k * d2 + m] /= sum;
    }
  }
}

}  // namespace softmaxout

void SoftmaxOutput::Init(const LayerAttrs& attrs) {
  RUVO_BOOL_ATTR(attrs, "multi_output", "False", multi_output_symbol, multi_output_);
  RUVO_BOOL_ATTR(attrs, "preserve_shape", "False", preserve_shape_symbol, preserve_shape_);
  inited_ = true;
}

bool SoftmaxOutput::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                               std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 2U) << "Input:[data, label]";
  const TShape dshape = in_shape[0];
  if (dshape.ndim() == 0) return false;

  // The label of each mode: one class index per row, per position of the
  // last axis, or per position behind the class axis.
  TShape plain_label = Shape1(dshape[0]);
  TShape preserve_label(dshape.begin(), dshape.end() - 1);
  TShape multi_label = Shape2(dshape[0], dshape.ndim() > 1 ? ProdFrom(dshape, 2) : index_t{1});
  const TShape label_shape =
      multi_output_ ? multi_label : (preserve_shape_ ? preserve_label : plain_label);

  TShape& given = in_shape[1];
  if (given.ndim() != 0 && !(given == plain_label) && !(given == preserve_label) &&
      !(given == multi_label)) {
    CHECK(false) << "softmaxoutput label shape error";
  }
  RUVO_SHAPE_ASSIGN_CHECK(in_shape[1], label_shape);
  out_shape.clear();
  out_shape.push_back(dshape);
  return true;
}

bool SoftmaxOutput::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                              std::vector<int>& /*aux_type*/) {
  CHECK_EQ(in_type.size(), 2U) << "Input:[data, label]";
  const int dtype = in_type[0];
  CHECK(dtype != -1) << "First input must have specified type";
  // The label is never read; it takes the data's type when it has none.
  if (in_type[1] == -1) in_type[1] = dtype;
  out_type.clear();
  out_type.push_back(dtype);
  return true;
}

int SoftmaxOutput::Forward(const std::vector<NDArray*>& bottom_blobs,
                           std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 2U) << "SoftmaxOutput Input: [data, label]";
  CHECK_EQ(top_blobs.size(), 1U) << "SoftmaxOutput Output: [output]";
  const NDArray& data = *bottom_blobs[0];
  NDArray& top = *top_blobs[0];
  const TShape& s = data.shape();

  if (multi_output_) {
    const TShape shape3 = Shape3(s[0], s.ndim() > 1 ? s[1] : 1, ProdFrom(s, 2));
    const NDArray energy = data.Reshape(shape3);
    NDArray dst = top.Reshape(shape3);
    softmaxout::Softmax3(energy, dst);
    return 0;
  }
  index_t rows;
  index_t cols;
  if (preserve_shape_) {
    cols = s[s.ndim() - 1];
    rows = 1;
    for (uint32_t i = 0; i + 1 < s.ndim(); ++i) rows *= s[i];
  } else {
    rows = s[0];
    cols = ProdFrom(s, 1);
  }
  const float* in = data.dptr<float>();
  float* out = top.dptr<float>();
  for (index_t r = 0; r < rows; ++r) {
    math::softmax(in + r * cols, out + r * cols, static_cast<int>(cols));
  }
  return 0;
}

Layer* SoftmaxOutput_layer_creator() { return new SoftmaxOutput(); }

}  // namespace ruvo
}  // namespace orvik
