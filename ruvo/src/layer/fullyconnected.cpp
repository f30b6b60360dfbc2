#include "ruvo/src/layer/fullyconnected.h"

#include <algorithm>
#include <cmath>

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

std::vector<std::string> FullyConnected::ListArguments() const {
  if (no_bias_) return {"data", "weight"};
  return {"data", "weight", "bias"};
}

void FullyConnected::Init(const LayerAttrs& attrs) {
  num_hidden_ = ReadNumHidden(attrs);
  RUVO_BOOL_ATTR(attrs, "no_bias", "False", no_bias_symbol, no_bias_);
  RUVO_BOOL_ATTR(attrs, "online_quanti", "False", online_quanti_symbol, online_quanti_);
  RUVO_BOOL_ATTR(attrs, "transpose_weight", "True", transpose_weight_symbol, transpose_weight_);
  inited_ = true;
}

bool FullyConnected::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                                std::vector<TShape>& /*aux_shape*/) {
  if (no_bias_) {
    CHECK_EQ(in_shape.size(), 2) << "Input:[data, weight]";
  } else {
    CHECK_EQ(in_shape.size(), 3) << "Input:[data, weight, bias]";
  }
  CHECK_EQ(out_shape.size(), 1) << "Output:[out]";
  const TShape dshape = in_shape[0];
  if (dshape.ndim() == 0) return false;
  // Any rank: everything behind the batch is one row.
  const index_t num_input = ProdFrom(dshape, 1);
  RUVO_SHAPE_ASSIGN_CHECK(in_shape[1], Shape2(num_hidden_, num_input));
  if (!no_bias_) RUVO_SHAPE_ASSIGN_CHECK(in_shape[2], Shape1(num_hidden_));
  RUVO_SHAPE_ASSIGN_CHECK(out_shape[0], Shape2(dshape[0], num_hidden_));
  return true;
}

void FullyConnected::Prepare(const NDArray& data, const NDArray& weight) {
  // Sized for the largest batch, so later batches only reshape it.  Outside
  // a net batch_max_ is 0 and the current batch is the largest.
  const index_t rows = std::max<index_t>(data.batch_max_, data.shape()[0]);
  bias_multiplier_ = NDArray(Shape2(rows, 1), data.dtype());
  math::orvik_set<float>(static_cast<int>(rows), 1.0f, bias_multiplier_.dptr<float>());
  if (!online_quanti_) return;

  const int n = static_cast<int>(weight.shape()[0]);
  const int k = static_cast<int>(weight.shape()[1]);
  q_weight_ = NDArray(weight.shape(), kInt8);
  weight_row_sum_ = NDArray(Shape1(num_hidden_), kFloat32);

  NDArray rows_q = transpose_weight_ ? NDArray(weight.shape(), kInt8) : q_weight_;
  signed char* q = rows_q.dptr<signed char>();
  weight_scale_ = QuantizeWeightRows(weight.dptr<float>(), n, k, q, weight_row_sum_.dptr<float>());
  if (transpose_weight_) {
    // (num_input, num_hidden_), so that the GEMM reads B untransposed.
    q_weight_ = q_weight_.Reshape(Shape2(k, n));
    signed char* qt = q_weight_.dptr<signed char>();
    for (int r = 0; r < n; ++r) {
      for (int c = 0; c < k; ++c) qt[c * n + r] = q[r * k + c];
    }
  }
}

int FullyConnected::Forward(const std::vector<NDArray*>& bottom_blobs,
                            std::vector<NDArray*>& top_blobs,
                            std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  const size_t expected = no_bias_ ? 2 : 3;
  CHECK_EQ(bottom_blobs.size(), expected);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& data = *bottom_blobs[0];
  const NDArray& weight = *bottom_blobs[1];
  NDArray& out = *top_blobs[0];
  if (!prepared_) {
    // The loops below are sized by the arrays' own shapes; parameters bound
    // from a file are not compared with the graph, so compare them here.
    CHECK(weight.shape().ndim() == 2 && weight.shape()[0] == num_hidden_ &&
          weight.shape()[1] == ProdFrom(data.shape(), 1))
        << "weight " << weight.shape() << " does not fit input " << data.shape();
    CHECK(no_bias_ || bottom_blobs[2]->shape().Size() == num_hidden_)
        << "bias " << bottom_blobs[2]->shape() << " does not fit " << num_hidden_ << " outputs";
    Prepare(data, weight);
    prepared_ = true;
  }

  const index_t batch = data.shape()[0];
  bias_multiplier_.Resize(Shape2(batch, 1));
  const NDArray data_lhs = data.Reshape(Shape2(batch, ProdFrom(data.shape(), 1)));
  const int m = static_cast<int>(data_lhs.shape()[0]);
  const int n = static_cast<int>(weight.shape()[0]);
  const int k = static_cast<int>(weight.shape()[1]);
  const int out_rows = static_cast<int>(out.shape()[0]);
  const int out_cols = static_cast<int>(out.shape()[1]);

  if (!online_quanti_) {
    math::orvik_cpu_gemm<float>(CblasNoTrans, CblasTrans, m, n, k, 1.0f, data_lhs.dptr<float>(),
                                weight.dptr<float>(), 0.0f, out.dptr<float>());
    if (!no_bias_) {
      math::orvik_cpu_gemm<float>(CblasNoTrans, CblasNoTrans, out_rows, out_cols, 1, 1.0f,
                                  bias_multiplier_.dptr<float>(), bottom_blobs[2]->dptr<float>(),
                                  1.0f, out.dptr<float>());
    }
    return 0;
  }

  NDArray bias_sum = resource_->GetInterBuf(0, Shape1(num_hidden_), data.dtype());
  NDArray acc = resource_->GetInterBuf(1, out.shape(), kInt32);
  NDArray q_data = resource_->GetInterBuf(2, data_lhs.shape(), kInt8);
  CHECK(data_lhs.dtype() == kFloat32) << "Only support float type";

  const int count = static_cast<int>(data_lhs.Size());
  float min = 3.4028235e+38f;
  float max = 1.1754944e-38f;
  math::orvik_cpu_min_max_neon<float>(count, data_lhs.dptr<float>(), &min, &max);
  float range = max - min;
  if (static_cast<double>(range) < 1e-6) {
    max = min + 0.0001f;
    range = max - min;
  }
  // [min, max] onto [-127, 127]: q = trunc(a * x + b).
  const float a = 254.0f / range;
  const float b = (min / range + 0.5f) * -254.0f;
  math::neon_axpb<signed char, float>(q_data.dptr<signed char>(), data_lhs.dptr<float>(), a, b,
                                      count);
  math::orvik_cpu_gemm<signed char, int>(
      CblasNoTrans, transpose_weight_ ? CblasNoTrans : CblasTrans, m, n, k, 1,
      q_data.dptr<signed char>(), q_weight_.dptr<signed char>(), 0, acc.dptr<int>());
  if (no_bias_) {
    math::orvik_set<float>(num_hidden_, 0.0f, bias_sum.dptr<float>());
  } else {
    math::orvik_copy<float>(num_hidden_, bottom_blobs[2]->dptr<float>(), bias_sum.dptr<float>());
  }
  math::neon_axpb<float, int>(out.dptr<float>(), acc.dptr<int>(), 1.0f / (weight_scale_ * a), 0.0f,
                              out_rows * out_cols);
  // x = (q - b) / a, so sum(x * w) = acc / (a * scale) - (b / a) * row_sum:
  // the offset's share of each output is known exactly in advance.
  math::orvik_cpu_axpy<float>(num_hidden_, -b / a, weight_row_sum_.dptr<float>(),
                              bias_sum.dptr<float>());
  math::orvik_cpu_gemm<float>(CblasNoTrans, CblasNoTrans, out_rows, out_cols, 1, 1.0f,
                              bias_multiplier_.dptr<float>(), bias_sum.dptr<float>(), 1.0f,
                              out.dptr<float>());
  return 0;
}

Layer* FullyConnected_layer_creator() { return new FullyConnected(); }

}  // namespace ruvo
}  // namespace orvik
