#include "ruvo/src/layer/alphaconvolution.h"

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

std::vector<std::string> AlphaConvolution::ListArguments() const {
  std::vector<std::string> args = {"data", "weight"};
  if (!no_bias_) args.push_back("bias");
  if (elementwise_input_) args.push_back("edata");
  return args;
}

std::vector<std::string> AlphaConvolution::ListAuxiliaryStates() const {
  return quanti::MatrixAuxStates("output_shift_history", vector_quanti_, !no_bias_, use_batchnorm_);
}

std::vector<uint32_t> AlphaConvolution::GetInputBatchBlobs() const {
  if (elementwise_input_) return {0, edata_index()};
  return {0};
}

void AlphaConvolution::Init(const LayerAttrs& attrs) {
  attrs_.Parse(attrs, "1");
  RUVO_BOOL_ATTR(attrs, "no_bias", "False", no_bias_symbol, no_bias_);
  RUVO_BOOL_ATTR(attrs, "transpose_weight", "True", transpose_weight_symbol, transpose_weight_);
  RUVO_BOOL_ATTR(attrs, "elementwise_input", "False", elementwise_input_symbol, elementwise_input_);
  RUVO_BOOL_ATTR(attrs, "use_activation", "False", use_activation_symbol, use_activation_);
  RUVO_BOOL_ATTR(attrs, "disable_output_quantization", "False", disable_output_quantization_symbol,
                 disable_output_quantization_);
  RUVO_BOOL_ATTR(attrs, "vector_quanti", "False", vector_quanti_symbol, vector_quanti_);
  RUVO_BOOL_ATTR(attrs, "use_batchnorm", "False", use_batchnorm_symbol, use_batchnorm_);
  is_1x1_ = attrs_.Is1x1();
  inited_ = true;
}

bool AlphaConvolution::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                                  std::vector<TShape>& aux_shape) {
  if (no_bias_ && elementwise_input_) {
    CHECK_EQ(in_shape.size(), 3) << "Input:[data, weight, edata]";
  } else if (no_bias_) {
    CHECK_EQ(in_shape.size(), 2) << "Input:[data, weight]";
  } else if (elementwise_input_) {
    CHECK_EQ(in_shape.size(), 4) << "Input:[data, weight, bias, edata]";
  } else {
    CHECK_EQ(in_shape.size(), 3) << "Input:[data, weight, bias]";
  }
  const TShape oshape = attrs_.InferShape(in_shape, !no_bias_);
  out_shape.assign(1, oshape);
  if (elementwise_input_) {
    if (no_bias_) {
      CHECK(out_shape[0] == in_shape[2]) << "mismatch shape for elementwise_data ";
    } else {
      CHECK(out_shape[0] == in_shape[3]) << "mismatch shape for elementwise_data ";
    }
  }
  aux_shape = quanti::MatrixAuxShapes(static_cast<index_t>(attrs_.num_filter_), vector_quanti_,
                                      !no_bias_, use_batchnorm_);
  return true;
}

bool AlphaConvolution::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                                 std::vector<int>& aux_type) {
  quanti::MatrixInferType(in_type, out_type, aux_type, !no_bias_, disable_output_quantization_,
                          use_batchnorm_);
  return true;
}

void AlphaConvolution::Prepare(const NDArray& data, const NDArray& weight, const NDArray& out,
                               const std::vector<NDArray*>& aux_blobs) {
  const index_t nf = static_cast<index_t>(attrs_.num_filter_);
  // The weight blob is the parameter file's array as it was stored.
  CHECK(weight.dtype() == kInt8 && weight.ndim() == 4 &&
        weight.Size() ==
            nf * attrs_.kernel_[0] * attrs_.kernel_[1] * (data.shape()[3] / attrs_.num_group_))
      << "weight does not match the convolution";
  if (transpose_weight_) {
    weight_t_ = NDArray(weight.shape(), weight.dtype());
    conv::TransposeGroups<signed char>(weight.dptr<signed char>(), weight_t_.dptr<signed char>(),
                                       static_cast<int>(nf), static_cast<int>(weight.Size() / nf),
                                       attrs_.num_group_);
  }
  if (attrs_.num_group_ > 1) {
    const TShape& d = data.shape();
    const TShape& o = out.shape();
    group_in_ = NDArray(TShape{1, d[1], d[2], d[3]}, kInt8);
    group_out_ = NDArray(TShape{1, o[1], o[2], o[3]}, kInt32);
  }
  quanti::BuildWeightShiftTable(aux_blobs, vector_quanti_, bn_first(), attrs_.num_filter_,
                                &weight_shift_);
}

void AlphaConvolution::RunImages(const NDArray& data, const NDArray& weight,
                                 const conv::Geometry& g, const signed char* edata,
                                 quanti::OutputStage* stage, NDArray* out) {
  const index_t nf = static_cast<index_t>(attrs_.num_filter_);
  NDArray& top = *out;
  const int positions = g.positions();
  const int depth = g.depth();
  NDArray col = resource_->GetInterBuf(0, Shape2(positions, depth), data.dtype());
  NDArray acc = resource_->GetInterBuf(1, Shape2(positions, nf), kInt32);
  int* accp = acc.dptr<int>();
  const signed char* in = data.dptr<signed char>();
  const signed char* w =
      transpose_weight_ ? weight_t_.dptr<signed char>() : weight.dptr<signed char>();
  const size_t in_image = static_cast<size_t>(g.height) * g.width * g.channels;
  const size_t out_image = static_cast<size_t>(positions) * nf;
  signed char* out8 = disable_output_quantization_ ? nullptr : top.dptr<signed char>();
  float* outf = disable_output_quantization_ ? top.dptr<float>() : nullptr;
  const int batch = static_cast<int>(data.shape()[0]);
  for (int n = 0; n < batch; ++n) {
    const signed char* img = in + n * in_image;
    if (g.num_group == 1) {
      const signed char* a = img;
      if (!is_1x1_) {
        conv::im2col<signed char>(img, g.channels, g.height, g.width, g.kernel_h, g.kernel_w,
                                  g.pad_h, g.pad_w, g.stride_h, g.stride_w, g.dilation_h,
                                  g.dilation_w, 0, col.dptr<signed char>());
        a = col.dptr<signed char>();
      }
      conv::GemmImage<signed char, int>(a, w, accp, g);
    } else {
      signed char* gin = group_in_.dptr<signed char>();
      int* gout = group_out_.dptr<int>();
      conv::GroupReorder<signed char>(img, gin, g.height * g.width, g.channels, g.num_group, false);
      if (is_1x1_) {
        conv::Forward1x1GEMMOneGroup<signed char, int>(gin, gout, w, g);
      } else {
        conv::ForwardGEMMOneGroupOneImage<signed char, int>(gin, gout, w, col.dptr<signed char>(),
                                                            0, g);
      }
      conv::GroupReorder<int>(gout, accp, positions, attrs_.num_filter_, g.num_group, true);
    }
    stage->edata = edata == nullptr ? nullptr : edata + n * out_image;
    stage->Run(accp, static_cast<index_t>(positions), out8 ? out8 + n * out_image : nullptr,
               outf ? outf + n * out_image : nullptr);
  }
}

int AlphaConvolution::Forward(const std::vector<NDArray*>& bottom_blobs,
                              std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& aux_blobs) {
  CHECK(inited_) << "Init first!";
  const size_t expected = get_num_inputs();
  CHECK_EQ(bottom_blobs.size(), expected);
  CHECK_EQ(top_blobs.size(), 1);
  CHECK_EQ(aux_blobs.size(), num_aux());
  const NDArray& data = *bottom_blobs[0];
  const NDArray& weight = *bottom_blobs[1];
  NDArray& top = *top_blobs[0];
  const index_t nf = static_cast<index_t>(attrs_.num_filter_);
  if (!no_bias_) quanti::CheckBias(*bottom_blobs[2], nf, "convolution");
  if (!prepared_) {
    Prepare(data, weight, top, aux_blobs);
    prepared_ = true;
  }

  const conv::Geometry g = attrs_.GeometryOf(data.shape(), top.shape(), transpose_weight_);
  quanti::OutputStage stage;
  stage.SetMatrix(weight_shift_, attrs_.num_filter_, data.shift_, aux_blobs, "output_shift_history",
                  no_bias_ ? nullptr : bottom_blobs[2]->dptr<int>(), bn_first());
  const signed char* edata = nullptr;
  if (elementwise_input_) {
    const NDArray& e = *bottom_blobs[edata_index()];
    CHECK(e.Size() == top.Size()) << "mismatch shape for elementwise_data ";
    edata = e.dptr<signed char>();
    stage.edata_shift = e.shift_;
  }
  stage.use_activation = use_activation_;
  stage.disable_output_quantization = disable_output_quantization_;

  RunImages(data, weight, g, edata, &stage, &top);
  top.shift_ = stage.out_shift;
  return 0;
}

Layer* AlphaConvolution_layer_creator() { return new AlphaConvolution(); }

}  // namespace ruvo
}  // namespace orvik
