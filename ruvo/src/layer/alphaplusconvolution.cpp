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

  const conv::Geometry g = attrs_.GeometryOf(data.shape(), top.shape(), transpose_weight_);
  quanti::OutputStage stage;
  stage.SetMatrix(weight_shift_, attrs_.num_filter_, in_shift, aux_blobs, "output_shift_history",
                  no_bias_ ? nullptr : bias_aligned_.dptr<int>(), bn_first());
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

  RunImages(data, weight, g, edata, &stage, &top);
  top.shift_ = stage.out_shift;
  return 0;
}

Layer* AlphaPlusConvolution_layer_creator() { return new AlphaPlusConvolution(); }

}  // namespace ruvo
}  // namespace orvik
