#include "ruvo/src/layer/quantitemporalconvolution.h"

#include <cstring>

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

std::vector<std::string> QuantiTemporalConvolution::ListArguments() const {
  if (no_bias_) return {"data", "weight"};
  return {"data", "weight", "bias"};
}

std::vector<std::string> QuantiTemporalConvolution::ListAuxiliaryStates() const {
  // The parameter files name the output shift differently without a bias.
  return quanti::MatrixAuxStates(no_bias_ ? "out_shift_history" : "output_shift_history",
                                 vector_quanti_, !no_bias_, false);
}

void QuantiTemporalConvolution::Init(const LayerAttrs& attrs) {
  attrs_.Parse(attrs, "1");
  RUVO_BOOL_ATTR(attrs, "no_bias", "False", no_bias_symbol, no_bias_);
  RUVO_BOOL_ATTR(attrs, "transpose_weight", "True", transpose_weight_symbol, transpose_weight_);
  RUVO_BOOL_ATTR(attrs, "use_activation", "False", use_activation_symbol, use_activation_);
  RUVO_BOOL_ATTR(attrs, "disable_output_quantization", "False", disable_output_quantization_symbol,
                 disable_output_quantization_);
  RUVO_BOOL_ATTR(attrs, "vector_quanti", "False", vector_quanti_symbol, vector_quanti_);
  input_buff_frames_ = (attrs_.kernel_[0] - 1) * attrs_.dilate_[0] + 1;
  inited_ = true;
}

bool QuantiTemporalConvolution::InferShape(std::vector<TShape>& in_shape,
                                           std::vector<TShape>& out_shape,
                                           std::vector<TShape>& aux_shape) {
  if (no_bias_) {
    CHECK_EQ(in_shape.size(), 2) << "Input:[data, weight]";
  } else {
    CHECK_EQ(in_shape.size(), 3) << "Input:[data, weight, bias]";
  }
  // The check texts name the attributes as members.
  using conv::Shape4;
  const TShape& kernel_ = attrs_.kernel_;
  const TShape& pad_ = attrs_.pad_;
  const TShape& dilate_ = attrs_.dilate_;
  const index_t num_filter_ = static_cast<index_t>(attrs_.num_filter_);
  CHECK_EQ(kernel_.ndim(), 2) << "only 2D convolution is supported in orvik";
  CHECK_EQ(pad_[0], 0) << "only no-padding is supported";
  CHECK_EQ(pad_[1], 0) << "only no-padding is supported";
  CHECK_EQ(dilate_[1], 1) << "only time-dim dilate is supported";
  const TShape dshape = in_shape[0];
  // Ahead of the width check, which reads dshape[2].
  CHECK_EQ(dshape.ndim(), 4) << "Input data should be 4D in batch-y-x-num_filter";
  const index_t ksize_x = kernel_[1];
  CHECK(ksize_x <= dshape[2] + 2 * pad_[1]) << "kernel size exceed input";
  RUVO_SHAPE_ASSIGN_CHECK(in_shape[1], Shape4(num_filter_, kernel_[0], kernel_[1], dshape[3]));
  if (!no_bias_) RUVO_SHAPE_ASSIGN_CHECK(in_shape[2], Shape1(num_filter_));
  out_shape.assign(1, Shape4(dshape[0], 1, 1, num_filter_));
  aux_shape = quanti::MatrixAuxShapes(num_filter_, vector_quanti_, !no_bias_, false);
  return true;
}

bool QuantiTemporalConvolution::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                                          std::vector<int>& aux_type) {
  quanti::MatrixInferType(in_type, out_type, aux_type, !no_bias_, disable_output_quantization_,
                          false);
  return true;
}

void QuantiTemporalConvolution::Prepare(const NDArray& data, const NDArray& weight,
                                        const std::vector<NDArray*>& aux_blobs) {
  const TShape& ishape = data.shape();
  const index_t nf = static_cast<index_t>(attrs_.num_filter_);
  // A frame is one row of the data, and the kernel covers all of it: the
  // window of a time step is then one GEMM row.
  CHECK(ishape[1] == 1) << "temporal convolution data must hold one frame per time step";
  CHECK(attrs_.kernel_[1] == ishape[2]) << "temporal convolution kernel must span the whole frame";
  CHECK(weight.dtype() == kInt8 && weight.Size() == nf * attrs_.kernel_[0] * ishape[2] * ishape[3])
      << "weight does not match the convolution";
  if (transpose_weight_) {
    weight_t_ = NDArray(weight.shape(), weight.dtype());
    conv::TransposeGroups<signed char>(weight.dptr<signed char>(), weight_t_.dptr<signed char>(),
                                       static_cast<int>(nf), static_cast<int>(weight.Size() / nf),
                                       1);
  }
  quanti::BuildWeightShiftTable(aux_blobs, vector_quanti_, quanti::kNoBatchNorm, attrs_.num_filter_,
                                &weight_shift_);
  product_.Pack(weight.dptr<signed char>(), static_cast<int32_t>(nf),
                static_cast<int32_t>(weight.Size() / nf));
  if (attrs_.dilate_[0] != 1) taps_.resize(weight.Size() / nf);
  CHECK_GE(input_buff_frames_, ishape[0]);
  input_buff_ = NDArray(TShape{ishape[0], input_buff_frames_, ishape[2], ishape[3]}, kInt8);
  std::memset(input_buff_.dptr<signed char>(), 0, input_buff_.Size());
}

void QuantiTemporalConvolution::UpdateInputBuff(const signed char* data, index_t batch,
                                                size_t frame_bytes) {
  const size_t window = frame_bytes * input_buff_frames_;
  signed char* base = input_buff_.dptr<signed char>();
  signed char* live = base + (batch - 1) * window;
  for (index_t t = 0; t < batch; ++t) {
    // Windows stay contiguous (one GEMM row each), so the history moves
    // rather than rotating through a ring.
    if (input_buff_frames_ > 1) std::memmove(live, live + frame_bytes, window - frame_bytes);
    std::memcpy(live + window - frame_bytes, data + t * frame_bytes, frame_bytes);
    if (t + 1 < batch) std::memcpy(base + t * window, live, window);
  }
}

void QuantiTemporalConvolution::GetInputData(index_t batch, size_t frame_bytes,
                                             signed char* rows) const {
  const size_t window = frame_bytes * input_buff_frames_;
  const signed char* base = input_buff_.dptr<signed char>();
  const index_t taps = attrs_.kernel_[0];
  for (index_t b = 0; b < batch; ++b) {
    for (index_t k = 0; k < taps; ++k) {
      std::memcpy(rows + (b * taps + k) * frame_bytes,
                  base + b * window + k * attrs_.dilate_[0] * frame_bytes, frame_bytes);
    }
  }
}

int QuantiTemporalConvolution::ResetInterBuff() {
  if (input_buff_.is_none()) return -1;
  math::orvik_set<signed char>(static_cast<int>(input_buff_.Size()), 0,
                               input_buff_.dptr<signed char>());
  return 0;
}

int QuantiTemporalConvolution::UpdateInterBuff() {
  if (input_buff_.is_none()) return -1;
  if (input_buff_frames_ == 1) return 0;
  // Blocks of dims[1] * dims[2] bytes (not a frame's width * channels), each
  // moved one block toward the start; a move that would reach past the
  // buffer's end is left out.
  const TShape& s = input_buff_.shape();
  const size_t block = static_cast<size_t>(s[1]) * s[2];
  const size_t total = input_buff_.Size();
  signed char* p = input_buff_.dptr<signed char>();
  for (size_t i = 0; i + 1 < input_buff_frames_ && (i + 2) * block <= total; ++i) {
    std::memcpy(p + i * block, p + (i + 1) * block, block);
  }
  return 0;
}

int QuantiTemporalConvolution::Forward(const std::vector<NDArray*>& bottom_blobs,
                                       std::vector<NDArray*>& top_blobs,
                                       std::vector<NDArray*>& aux_blobs) {
  CHECK(inited_) << "Init first!";
  const size_t expected = get_num_inputs();
  CHECK_EQ(bottom_blobs.size(), expected);
  CHECK_EQ(top_blobs.size(), 1);
  CHECK_EQ(aux_blobs.size(), no_bias_ ? 2u : 3u);
  const NDArray& data = *bottom_blobs[0];
  const NDArray& weight = *bottom_blobs[1];
  NDArray& top = *top_blobs[0];
  const index_t nf = static_cast<index_t>(attrs_.num_filter_);
  if (!no_bias_) quanti::CheckBias(*bottom_blobs[2], nf, "convolution");
  if (!prepared_) {
    Prepare(data, weight, aux_blobs);
    prepared_ = true;
  }
  const TShape& d = data.shape();
  const index_t batch = d[0];
  // The history has one slot per time step of the first call.
  CHECK(batch <= input_buff_.shape()[0]) << "more frames in one call than the history holds";
  const size_t frame_bytes = static_cast<size_t>(d[2]) * d[3];
  const int depth = static_cast<int>(attrs_.kernel_[0] * frame_bytes);

  UpdateInputBuff(data.dptr<signed char>(), batch, frame_bytes);
  quanti::OutputStage stage;
  stage.SetMatrix(weight_shift_, attrs_.num_filter_, data.shift_, aux_blobs,
                  no_bias_ ? "out_shift_history" : "output_shift_history",
                  no_bias_ ? nullptr : bottom_blobs[2]->dptr<int>(), quanti::kNoBatchNorm);
  stage.use_activation = use_activation_;
  stage.disable_output_quantization = disable_output_quantization_;
  // Undilated taps are the window itself, already one row per time step.
  const signed char* rows = input_buff_.dptr<signed char>();
  if (batch == 1 && quanti::PackedRowProduct::Fuses(stage)) {
    if (attrs_.dilate_[0] != 1) {
      GetInputData(1, frame_bytes, taps_.data());
      rows = taps_.data();
    }
    product_.Narrow(rows, stage, top.dptr<signed char>());
    top.shift_ = stage.out_shift;
    return 0;
  }
  if (attrs_.dilate_[0] != 1) {
    NDArray buf = resource_->GetInterBuf(2, Shape2(batch, depth), kInt8);
    GetInputData(batch, frame_bytes, buf.dptr<signed char>());
    rows = buf.dptr<signed char>();
  }
  NDArray acc = resource_->GetInterBuf(1, Shape2(batch, nf), kInt32);
  const signed char* w =
      transpose_weight_ ? weight_t_.dptr<signed char>() : weight.dptr<signed char>();
  math::orvik_cpu_gemm<signed char, int>(
      CblasNoTrans, transpose_weight_ ? CblasNoTrans : CblasTrans, static_cast<int>(batch),
      static_cast<int>(nf), depth, 1, rows, w, 0, acc.dptr<int>());
  stage.RunInto(acc.dptr<int>(), batch, &top);
  return 0;
}

Layer* QuantiTemporalConvolution_layer_creator() { return new QuantiTemporalConvolution(); }

}  // namespace ruvo
}  // namespace orvik
