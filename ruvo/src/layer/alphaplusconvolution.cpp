#include "ruvo/src/layer/alphaplusconvolution.h"

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

void AlphaPlusConvolution::Init(const LayerAttrs& attrs) {
  AlphaConvolution::Init(attrs);
  RUVO_BOOL_ATTR(attrs, "align_output_shift", "False", align_output_shift_symbol,
                 align_output_shift_);
  input_shift_ = -1;
  if (attrs.count("input_shift")) ReadAttrValue(attrs.at("input_shift"), &input_shift_);
  elementwise_input_shift_ = -1;
  if (attrs.count("elementwise_input_shift")) {
    ReadAttrValue(attrs.at("elementwise_input_shift"), &elementwise_input_shift_);
  }
}

void AlphaPlusConvolution::AlignBias(const NDArray& bias, const std::vector<NDArray*>& aux_blobs,
                                     int32_t in) {
  const index_t nf = static_cast<index_t>(attrs_.num_filter_);
  CHECK(bias.Size() == nf) << "bias does not match the convolution";
  // From the unfolded tables: batch normalisation does not enter here.
  const NDArray& ws = *aux_blobs[1];
  const NDArray& bs = *aux_blobs[2];
  if (vector_quanti_) {
    quanti::CheckShiftTable(ws, nf, "weight_vec_shift_history");
    quanti::CheckShiftTable(bs, nf, "bias_vec_shift_history");
  }
  bias_aligned_ = NDArray(Shape1(nf), kInt32);
  const signed char* b = bias.dptr<signed char>();
  int* out = bias_aligned_.dptr<int>();
  for (index_t c = 0; c < nf; ++c) {
    const int32_t d = vector_quanti_ ? ws.dptr<signed char>()[c] + in - bs.dptr<signed char>()[c]
                                     : quanti::ReadShift(ws, "weight_shift_history") + in -
                                           quanti::ReadShift(bs, "bias_shift_history");
    // A negative d shifts right by d mod 32 (so -1 by 31), not by -d.
    out[c] = d >= 0 ? quanti::ShiftLeft(b[c], d) : quanti::ShiftRight(b[c], d);
  }
}

int AlphaPlusConvolution::Forward(const std::vector<NDArray*>& bottom_blobs,
                                  std::vector<NDArray*>& top_blobs,
                                  std::vector<NDArray*>& aux_blobs) {
  CHECK(inited_) << "Init first!";
  const size_t expected = get_num_inputs();
  CHECK_EQ(bottom_blobs.size(), expected);
  CHECK_EQ(top_blobs.size(), 1);
  CHECK_EQ(aux_blobs.size(), num_aux());
  const NDArray& data = *bottom_blobs[0];
  const NDArray& weight = *bottom_blobs[1];
  NDArray& top = *top_blobs[0];
  const int32_t in_shift = input_shift_ >= 1 ? input_shift_ : data.shift_;
  if (!prepared_) {
    Prepare(data, weight, top, aux_blobs);
    if (!no_bias_) AlignBias(*bottom_blobs[2], aux_blobs, in_shift);
    prepared_ = true;
  }

  const index_t nf = static_cast<index_t>(attrs_.num_filter_);
  const conv::Geometry g = attrs_.GeometryOf(data.shape(), top.shape(), transpose_weight_);
  quanti::OutputStage stage;
  stage.channels = attrs_.num_filter_;
  stage.w = weight_shift_.dptr<signed char>();
  stage.in_shift = in_shift;
  stage.out_shift = quanti::ReadShift(*aux_blobs[0], "output_shift_history");
  stage.bias = no_bias_ ? nullptr : bias_aligned_.dptr<int>();
  if (use_batchnorm_) {
    stage.bn_weight = aux_blobs[bn_index(3)]->dptr<int>();
    stage.bn_right_shift = aux_blobs[bn_index(4)]->dptr<signed char>();
  }
  const signed char* edata = nullptr;
  if (elementwise_input_) {
    const NDArray& e = *bottom_blobs[edata_index()];
    CHECK(e.Size() == top.Size()) << "mismatch shape for elementwise_data ";
    edata = e.dptr<signed char>();
    stage.edata_shift = elementwise_input_shift_ >= 1 ? elementwise_input_shift_ : e.shift_;
  }
  stage.use_activation = use_activation_;
  stage.disable_output_quantization = disable_output_quantization_;
  stage.align_output_shift = align_output_shift_;

  const int positions = g.positions();
  NDArray col = resource_->GetInterBuf(0, Shape2(positions, g.depth()), data.dtype());
  NDArray acc = resource_->GetInterBuf(1, Shape2(positions, nf), kInt32);
  int* accp = acc.dptr<int>();
  const signed char* w =
      transpose_weight_ ? weight_t_.dptr<signed char>() : weight.dptr<signed char>();
  const size_t in_image = static_cast<size_t>(g.height) * g.width * g.channels;
  const size_t out_image = static_cast<size_t>(positions) * nf;
  signed char* out8 = disable_output_quantization_ ? nullptr : top.dptr<signed char>();
  float* outf = disable_output_quantization_ ? top.dptr<float>() : nullptr;
  for (index_t n = 0; n < data.shape()[0]; ++n) {
    const signed char* img = data.dptr<signed char>() + n * in_image;
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
        conv::ForwardGEMMOneGroupOneImage<signed char, int>(gin, gout, w,
                                                            col.dptr<signed char>(), 0, g);
      }
      conv::GroupReorder<int>(gout, accp, positions, attrs_.num_filter_, g.num_group, true);
    }
    stage.edata = edata == nullptr ? nullptr : edata + n * out_image;
    stage.Run(accp, static_cast<index_t>(positions), out8 ? out8 + n * out_image : nullptr,
              outf ? outf + n * out_image : nullptr);
  }
  top.shift_ = stage.out_shift;
  return 0;
}

Layer* AlphaPlusConvolution_layer_creator() { return new AlphaPlusConvolution(); }

}  // namespace ruvo
}  // namespace orvik
