#include "ruvo/src/layer/convolution.h"

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

std::vector<std::string> Convolution::ListArguments() const {
  if (no_bias_) return {"data", "weight"};
  return {"data", "weight", "bias"};
}

void Convolution::Init(const LayerAttrs& attrs) {
  attrs_.Parse(attrs, nullptr);
  RUVO_BOOL_ATTR(attrs, "no_bias", "False", no_bias_symbol, no_bias_);
  RUVO_BOOL_ATTR(attrs, "online_quanti", "False", online_quanti_symbol, online_quanti_);
  RUVO_BOOL_ATTR(attrs, "transpose_weight", "True", transpose_weight_symbol, transpose_weight_);
  is_1x1_ = attrs_.Is1x1();
  inited_ = true;
}

bool Convolution::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                             std::vector<TShape>& /*aux_shape*/) {
  if (no_bias_) {
    CHECK_EQ(in_shape.size(), 2) << "Input:[data, weight]";
  } else {
    CHECK_EQ(in_shape.size(), 3) << "Input:[data, weight, bias]";
  }
  out_shape.assign(1, attrs_.InferShape(in_shape, !no_bias_));
  return true;
}

void Convolution::Prepare(const NDArray& data, const NDArray& weight, const NDArray& out) {
  // The weight blob is the parameter file's array as it was stored.
  CHECK(weight.dtype() == kFloat32 && weight.ndim() == 4 &&
        weight.Size() == static_cast<index_t>(attrs_.num_filter_) * attrs_.kernel_[0] *
                             attrs_.kernel_[1] * (data.shape()[3] / attrs_.num_group_))
      << "weight does not match the convolution";
  conv::Init_kernel(weight, online_quanti_, transpose_weight_, &weight_scale_, attrs_.num_group_,
                    &weight_row_sum_, &q_weight_, &weight_);
  const index_t positions = out.shape()[1] * out.shape()[2];
  bias_multiplier_ = NDArray(Shape2(positions, 1), kFloat32);
  math::orvik_set<float>(static_cast<int>(positions), 1.0f, bias_multiplier_.dptr<float>());
  bias_sum_ = NDArray(Shape2(attrs_.num_filter_, 1), kFloat32);
  if (attrs_.num_group_ > 1) {
    const TShape& d = data.shape();
    group_in_ = NDArray(TShape{1, d[1], d[2], d[3]}, online_quanti_ ? kInt8 : kFloat32);
    group_out_ = NDArray(TShape{1, out.shape()[1], out.shape()[2], out.shape()[3]},
                         online_quanti_ ? kInt32 : kFloat32);
  }
}

int Convolution::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                         std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  const size_t expected = no_bias_ ? 2 : 3;
  CHECK_EQ(bottom_blobs.size(), expected);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& data = *bottom_blobs[0];
  NDArray& out = *top_blobs[0];
  if (!no_bias_) {
    CHECK(bottom_blobs[2]->dtype() == kFloat32 &&
          bottom_blobs[2]->Size() == static_cast<index_t>(attrs_.num_filter_))
        << "bias does not match the convolution";
  }
  if (!prepared_) {
    Prepare(data, *bottom_blobs[1], out);
    prepared_ = true;
  }
  const conv::Geometry g = attrs_.GeometryOf(data.shape(), out.shape(), transpose_weight_);
  const int batch = static_cast<int>(data.shape()[0]);
  const int positions = g.positions();
  const int nf = g.num_filter;
  const size_t in_image = static_cast<size_t>(g.height) * g.width * g.channels;
  const size_t out_image = static_cast<size_t>(positions) * nf;
  const TShape col_shape = Shape2(positions, g.kernel_h * g.kernel_w * g.channels / g.num_group);
  const bool grouped = g.num_group > 1;

  if (!online_quanti_) {
    const float* in = data.dptr<float>();
    float* o = out.dptr<float>();
    const float* w = weight_.dptr<float>();
    float* col = is_1x1_ ? nullptr : resource_->GetInterBuf(0, col_shape, kFloat32).dptr<float>();
    if (!no_bias_) math::orvik_copy<float>(nf, bottom_blobs[2]->dptr<float>(), bias_sum_.dptr<float>());
    for (int n = 0; n < batch; ++n) {
      const float* img = in + n * in_image;
      float* oimg = o + n * out_image;
      if (!grouped) {
        if (!is_1x1_) {
          conv::im2col<float>(img, g.channels, g.height, g.width, g.kernel_h, g.kernel_w, g.pad_h,
                              g.pad_w, g.stride_h, g.stride_w, g.dilation_h, g.dilation_w, 0.0f,
                              col);
        }
        conv::GemmImage<float, float>(is_1x1_ ? img : col, w, oimg, g);
      } else {
        float* gin = group_in_.dptr<float>();
        float* gout = group_out_.dptr<float>();
        conv::GroupReorder<float>(img, gin, g.height * g.width, g.channels, g.num_group, false);
        if (is_1x1_) {
          conv::Forward1x1GEMMOneGroup<float, float>(gin, gout, w, g);
        } else {
          conv::ForwardGEMMOneGroupOneImage<float, float>(gin, gout, w, col, 0.0f, g);
        }
        conv::GroupReorder<float>(gout, oimg, positions, nf, g.num_group, true);
      }
      if (!no_bias_) {
        math::orvik_cpu_gemm<float>(CblasNoTrans, CblasTrans, positions, nf, 1, 1.0f,
                                    bias_multiplier_.dptr<float>(), bias_sum_.dptr<float>(), 1.0f,
                                    oimg);
      }
    }
    return 0;
  }

  NDArray q_data = resource_->GetInterBuf(2, data.shape(), kInt8);
  NDArray acc = resource_->GetInterBuf(1, Shape2(positions, nf), kInt32);
  signed char* col =
      is_1x1_ ? nullptr : resource_->GetInterBuf(0, col_shape, kInt8).dptr<signed char>();
  float a = 0.0f;
  float b = 0.0f;
  conv::input_to_int8(data, q_data, &a, &b);
  // Padding takes the quantised image of 0.0, so that a padded position
  // adds nothing once the zero point is repaired.
  int32_t pad = static_cast<int32_t>(b);
  pad = pad > 127 ? 127 : (pad < -127 ? -127 : pad);
  const signed char pad_value = static_cast<signed char>(pad);
  // x = (q - b) / a, so sum(x w) = acc / (a scale) - (b / a) row_sum: the
  // offset's share of every output is known before the product.
  if (no_bias_) {
    math::orvik_set<float>(nf, 0.0f, bias_sum_.dptr<float>());
  } else {
    math::orvik_copy<float>(nf, bottom_blobs[2]->dptr<float>(), bias_sum_.dptr<float>());
  }
  math::orvik_cpu_axpy<float>(nf, -b / a, weight_row_sum_.dptr<float>(), bias_sum_.dptr<float>());
  const signed char* qw = q_weight_.dptr<signed char>();
  int* accp = acc.dptr<int>();
  float* o = out.dptr<float>();
  for (int n = 0; n < batch; ++n) {
    const signed char* img = q_data.dptr<signed char>() + n * in_image;
    float* oimg = o + n * out_image;
    if (!grouped) {
      if (!is_1x1_) {
        conv::im2col<signed char>(img, g.channels, g.height, g.width, g.kernel_h, g.kernel_w,
                                  g.pad_h, g.pad_w, g.stride_h, g.stride_w, g.dilation_h,
                                  g.dilation_w, pad_value, col);
      }
      conv::GemmImage<signed char, int>(is_1x1_ ? img : col, qw, accp, g);
    } else {
      signed char* gin = group_in_.dptr<signed char>();
      int* gout = group_out_.dptr<int>();
      conv::GroupReorder<signed char>(img, gin, g.height * g.width, g.channels, g.num_group, false);
      if (is_1x1_) {
        conv::Forward1x1GEMMOneGroup<signed char, int>(gin, gout, qw, g);
      } else {
        conv::ForwardGEMMOneGroupOneImage<signed char, int>(gin, gout, qw, col, pad_value, g);
      }
      conv::GroupReorder<int>(gout, accp, positions, nf, g.num_group, true);
    }
    math::neon_axpb<float, int>(oimg, accp, 1.0f / (weight_scale_ * a), 0.0f,
                                static_cast<int>(out_image));
    math::orvik_cpu_gemm<float>(CblasNoTrans, CblasTrans, positions, nf, 1, 1.0f,
                                bias_multiplier_.dptr<float>(), bias_sum_.dptr<float>(), 1.0f,
                                oimg);
  }
  return 0;
}

Layer* Convolution_layer_creator() { return new Convolution(); }

}  // namespace ruvo
}  // namespace orvik
