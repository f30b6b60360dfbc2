#include "ruvo/src/layer/quantifullyconnected.h"

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/conv_common.h"
#include "ruvo/src/layer/layer_util.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

std::vector<std::string> QuantiFullyConnected::ListArguments() const {
  if (no_bias_) return {"data", "weight"};
  return {"data", "weight", "bias"};
}

std::vector<std::string> QuantiFullyConnected::ListAuxiliaryStates() const {
  return quanti::MatrixAuxStates("output_shift_history", vector_quanti_, !no_bias_, use_batchnorm_);
}

void QuantiFullyConnected::Init(const LayerAttrs& attrs) {
  num_hidden_ = ReadNumHidden(attrs);
  RUVO_BOOL_ATTR(attrs, "no_bias", "False", no_bias_symbol, no_bias_);
  RUVO_BOOL_ATTR(attrs, "transpose_weight", "True", transpose_weight_symbol, transpose_weight_);
  RUVO_BOOL_ATTR(attrs, "use_batchnorm", "False", use_batchnorm_symbol, use_batchnorm_);
  RUVO_BOOL_ATTR(attrs, "disable_output_quantization", "False", disable_output_quantization_symbol,
                 disable_output_quantization_);
  RUVO_BOOL_ATTR(attrs, "vector_quanti", "False", vector_quanti_symbol, vector_quanti_);
  inited_ = true;
}

bool QuantiFullyConnected::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                                      std::vector<TShape>& aux_shape) {
  if (no_bias_) {
    CHECK_EQ(in_shape.size(), 2) << "Input:[data, weight]";
  } else {
    CHECK_EQ(in_shape.size(), 3) << "Input:[data, weight, bias]";
  }
  const TShape dshape = in_shape[0];
  CHECK_GE(dshape.ndim(), 1) << "Input data needs a batch axis";
  const index_t num_input = ProdFrom(dshape, 1);
  RUVO_SHAPE_ASSIGN_CHECK(in_shape[1], Shape2(num_hidden_, num_input));
  if (!no_bias_) RUVO_SHAPE_ASSIGN_CHECK(in_shape[2], Shape1(num_hidden_));
  out_shape.assign(1, Shape2(dshape[0], num_hidden_));
  aux_shape = quanti::MatrixAuxShapes(static_cast<index_t>(num_hidden_), vector_quanti_, !no_bias_,
                                      use_batchnorm_);
  return true;
}

bool QuantiFullyConnected::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                                     std::vector<int>& aux_type) {
  quanti::MatrixInferType(in_type, out_type, aux_type, !no_bias_, disable_output_quantization_,
                          use_batchnorm_);
  return true;
}

void QuantiFullyConnected::Prepare(const NDArray& weight, index_t num_input,
                                   const std::vector<NDArray*>& aux_blobs) {
  const index_t nh = static_cast<index_t>(num_hidden_);
  CHECK(weight.dtype() == kInt8 && weight.Size() == nh * num_input)
      << "weight does not match the dense layer";
  if (transpose_weight_) {
    weight_t_ = NDArray(Shape2(num_input, nh), weight.dtype());
    conv::TransposeGroups<signed char>(weight.dptr<signed char>(), weight_t_.dptr<signed char>(),
                                       num_hidden_, static_cast<int>(num_input), 1);
  }
  product_.Pack(weight.dptr<signed char>(), num_hidden_, static_cast<int32_t>(num_input));
  row_acc_.assign(static_cast<size_t>(nh), 0);
  // The tables are constants of the file, so the table built (and folded)
  // once is the one every call would build again.
  quanti::BuildWeightShiftTable(aux_blobs, vector_quanti_, bn_first(), num_hidden_, &weight_shift_);
}

int QuantiFullyConnected::Forward(const std::vector<NDArray*>& bottom_blobs,
                                  std::vector<NDArray*>& top_blobs,
                                  std::vector<NDArray*>& aux_blobs) {
  CHECK(inited_) << "Init first!";
  const size_t expected = get_num_inputs();
  CHECK_EQ(bottom_blobs.size(), expected);
  CHECK_EQ(top_blobs.size(), 1);
  CHECK_EQ(aux_blobs.size(), (no_bias_ ? 2u : 3u) + (use_batchnorm_ ? 3u : 0u));
  const NDArray& data = *bottom_blobs[0];
  const NDArray& weight = *bottom_blobs[1];
  NDArray& top = *top_blobs[0];
  const index_t nh = static_cast<index_t>(num_hidden_);
  const index_t batch = data.shape()[0];
  const index_t num_input = ProdFrom(data.shape(), 1);
  if (!no_bias_) quanti::CheckBias(*bottom_blobs[2], nh, "dense layer");
  if (!prepared_) {
    Prepare(weight, num_input, aux_blobs);
    prepared_ = true;
  }

  quanti::OutputStage stage;
  stage.SetMatrix(weight_shift_, num_hidden_, data.shift_, aux_blobs, "output_shift_history",
                  no_bias_ ? nullptr : bottom_blobs[2]->dptr<int>(), bn_first());
  stage.disable_output_quantization = disable_output_quantization_;
  if (batch == 1) {
    if (quanti::PackedRowProduct::Fuses(stage)) {
      product_.Narrow(data.dptr<signed char>(), stage, top.dptr<signed char>());
      top.shift_ = stage.out_shift;
    } else {
      product_.Sums(data.dptr<signed char>(), row_acc_.data());
      stage.RunInto(row_acc_.data(), 1, &top);
    }
    return 0;
  }
  NDArray acc = resource_->GetInterBuf(0, Shape2(batch, nh), kInt32);
  const signed char* w =
      transpose_weight_ ? weight_t_.dptr<signed char>() : weight.dptr<signed char>();
  math::orvik_cpu_gemm<signed char, int>(
      CblasNoTrans, transpose_weight_ ? CblasNoTrans : CblasTrans, static_cast<int>(batch),
      num_hidden_, static_cast<int>(num_input), 1, data.dptr<signed char>(), w, 0, acc.dptr<int>());
  stage.RunInto(acc.dptr<int>(), batch, &top);
  return 0;
}

Layer* QuantiFullyConnected_layer_creator() { return new QuantiFullyConnected(); }

}  // namespace ruvo
}  // namespace orvik
