#include "ruvo/src/layer/elementwise.h"

#include <algorithm>

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace {

// Float data or a log line.
bool IsFloat(const NDArray& a) {
  if (a.dtype() == kFloat32) return true;
  RTC_LOG(LS_ENGINE) << "Unknown type enum " << a.dtype();
  return false;
}

// Both shapes right-aligned in kMaxDim axes, padded in front with 1.
void Align(const TShape& s, index_t* dims) {
  const int pad = broadcast_reduce::kMaxDim - static_cast<int>(s.ndim());
  for (int i = 0; i < broadcast_reduce::kMaxDim; ++i) dims[i] = i < pad ? 1 : s[i - pad];
}

}  // namespace

// --------------------------------------------------------------- binary

void ElementWiseBinary::Init(const LayerAttrs& /*attrs*/) { inited_ = true; }

bool ElementWiseBinary::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                                   std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 2) << "Input:[data0, data1]";
  out_shape.resize(1);
  TShape dshape;
  for (const TShape* s : {&in_shape[0], &in_shape[1], &out_shape[0]}) {
    if (s->ndim() != 0) {
      dshape = *s;
      break;
    }
  }
  if (dshape.ndim() == 0) return false;
  for (TShape* s : {&in_shape[0], &in_shape[1], &out_shape[0]}) {
    TShape& out = *s;
    if (out.ndim() == 0) {
      out = dshape;
    } else {
      CHECK(out == dshape) << "Shape inconsistent, Provided " << out
                           << " inferrend shape=" << dshape;
    }
  }
  return true;
}

bool ElementWiseBinary::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                                  std::vector<int>& /*aux_type*/) {
  CHECK_EQ(in_type.size(), 2);
  const int dtype = in_type[0];
  CHECK(dtype != -1) << "Input must have specified type";
  out_type.resize(1, -1);
  CHECK_EQ(out_type.size(), 1);
  for (int* t : {&in_type[1], &out_type[0]}) {
    int& out = *t;
    if (out == -1) {
      out = dtype;
    } else {
      CHECK(out == dtype) << "Type inconsistent, Provided " << out << " inferred type=" << dtype;
    }
  }
  return true;
}

int ElementWiseBinary_Plus::Forward(const std::vector<NDArray*>& bottom_blobs,
                                    std::vector<NDArray*>& top_blobs,
                                    std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 2);
  CHECK_EQ(top_blobs.size(), 1);
  if (!IsFloat(*bottom_blobs[0])) return 0;
  const float* a = bottom_blobs[0]->dptr<float>();
  const float* b = bottom_blobs[1]->dptr<float>();
  float* out = top_blobs[0]->dptr<float>();
  const index_t n = top_blobs[0]->Size();
  for (index_t i = 0; i < n; ++i) out[i] = a[i] + b[i];
  return 0;
}

// --------------------------------------------------------------- scalar

void ElementWiseBinaryScalar::Init(const LayerAttrs& attrs) {
  std::string scalar_symbol;
  if (attrs.count("scalar")) {
    scalar_symbol = attrs.at("scalar");
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "scalar";
  }
  scalar_ = 0.0f;
  ReadAttrValue(scalar_symbol, &scalar_);
  CHECK(scalar_ != 0);
  inited_ = true;
}

bool ElementWiseBinaryScalar::InferShape(std::vector<TShape>& in_shape,
                                         std::vector<TShape>& out_shape,
                                         std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  if (in_shape[0].ndim() == 0) return false;
  out_shape.assign(1, in_shape[0]);
  return true;
}

#define RUVO_SCALAR_FORWARD(Class, expr)                                                    \
  int Class::Forward(const std::vector<NDArray*>& bottom_blobs,                            \
                     std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& /*aux*/) {   \
    CHECK(inited_) << "Init first!";                                                        \
    CHECK_EQ(bottom_blobs.size(), 1);                                                       \
    CHECK_EQ(top_blobs.size(), 1);                                                          \
    if (!IsFloat(*bottom_blobs[0])) return 0;                                               \
    const float* x = bottom_blobs[0]->dptr<float>();                                        \
    float* out = top_blobs[0]->dptr<float>();                                               \
    const index_t n = top_blobs[0]->Size();                                                 \
    for (index_t i = 0; i < n; ++i) out[i] = (expr);                                        \
    return 0;                                                                               \
  }

RUVO_SCALAR_FORWARD(ElementWiseBinaryScalar_Mul_Scalar, x[i] * scalar_)
RUVO_SCALAR_FORWARD(ElementWiseBinaryScalar_Plus_Scalar, x[i] + scalar_)
#undef RUVO_SCALAR_FORWARD

// ------------------------------------------------------------ broadcast

bool ElementWiseBinaryBroadcast::InferShape(std::vector<TShape>& in_shape,
                                            std::vector<TShape>& out_shape,
                                            std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 2) << "Input:[lhs, rhs]";
  const TShape& lhs = in_shape[0];
  const TShape& rhs = in_shape[1];
  if (lhs.ndim() == 0 || rhs.ndim() == 0) return false;
  const uint32_t ndim = std::max(lhs.ndim(), rhs.ndim());
  CHECK_LE(ndim, broadcast_reduce::kMaxDim) << "NDim too large ";
  TShape oshape(ndim);
  for (uint32_t i = 0; i < ndim; ++i) {
    const index_t l = i + lhs.ndim() >= ndim ? lhs[i + lhs.ndim() - ndim] : 1;
    const index_t r = i + rhs.ndim() >= ndim ? rhs[i + rhs.ndim() - ndim] : 1;
    CHECK(l == r || l == 1 || r == 1)
        << "operands could not be broadcast together with shapes " << lhs << " " << rhs;
    oshape[i] = l == 1 ? r : l;
  }
  out_shape.resize(1);
  RUVO_SHAPE_ASSIGN_CHECK(out_shape[0], oshape);
  return true;
}

int ElementWiseBinaryBroadcastbroadcast_mul::Forward(const std::vector<NDArray*>& bottom_blobs,
                                                     std::vector<NDArray*>& top_blobs,
                                                     std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 2);
  CHECK_EQ(top_blobs.size(), 1);
  if (!IsFloat(*bottom_blobs[0])) return 0;
  constexpr int D = broadcast_reduce::kMaxDim;
  CHECK_LE(top_blobs[0]->ndim(), D) << "NDim too large ";
  index_t ls[D], rs[D], os[D];
  Align(bottom_blobs[0]->shape(), ls);
  Align(bottom_blobs[1]->shape(), rs);
  Align(top_blobs[0]->shape(), os);
  // Strides of each input over the output's axes; 0 where it repeats.
  size_t lstride[D], rstride[D];
  size_t lacc = 1, racc = 1;
  for (int i = D - 1; i >= 0; --i) {
    lstride[i] = ls[i] == 1 ? 0 : lacc;
    rstride[i] = rs[i] == 1 ? 0 : racc;
    lacc *= ls[i];
    racc *= rs[i];
  }
  const float* a = bottom_blobs[0]->dptr<float>();
  const float* b = bottom_blobs[1]->dptr<float>();
  float* out = top_blobs[0]->dptr<float>();
  const index_t inner = os[D - 1];
  const size_t la = lstride[D - 1], rb = rstride[D - 1];
  index_t idx[D - 1] = {};
  const size_t outer = top_blobs[0]->Size() / std::max<index_t>(inner, 1);
  for (size_t o = 0; o < outer; ++o) {
    size_t lo = 0, ro = 0;
    for (int i = 0; i < D - 1; ++i) {
      lo += idx[i] * lstride[i];
      ro += idx[i] * rstride[i];
    }
    float* orow = out + o * inner;
    for (index_t k = 0; k < inner; ++k) orow[k] = a[lo + k * la] * b[ro + k * rb];
    for (int i = D - 2; i >= 0; --i) {
      if (++idx[i] < os[i]) break;
      idx[i] = 0;
    }
  }
  return 0;
}

// ------------------------------------------------------------------ sum

void ElementWiseSum::Init(const LayerAttrs& attrs) {
  std::string num_args_symbol;
  if (attrs.count("num_args")) {
    num_args_symbol = attrs.at("num_args");
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "num_args";
  }
  num_args_ = 0;
  ReadAttrValue(num_args_symbol, &num_args_);
  CHECK_GE(num_args_, 1);
  inited_ = true;
}

std::vector<std::string> ElementWiseSum::ListArguments() const {
  std::vector<std::string> args;
  for (int32_t i = 0; i < num_args_; ++i) args.push_back("arg" + std::to_string(i));
  return args;
}

std::vector<uint32_t> ElementWiseSum::GetInputBatchBlobs() const {
  std::vector<uint32_t> blobs;
  for (int32_t i = 0; i < num_args_; ++i) blobs.push_back(static_cast<uint32_t>(i));
  return blobs;
}

bool ElementWiseSum::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                                std::vector<TShape>& /*aux_shape*/) {
  CHECK_GE(in_shape.size(), 1);
  out_shape.resize(1);
  TShape dshape = out_shape[0];
  for (const TShape& s : in_shape) {
    if (dshape.ndim() == 0) dshape = s;
  }
  if (dshape.ndim() == 0) return false;
  for (TShape& s : in_shape) RUVO_SHAPE_ASSIGN_CHECK(s, dshape);
  RUVO_SHAPE_ASSIGN_CHECK(out_shape[0], dshape);
  return true;
}

bool ElementWiseSum::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                               std::vector<int>& /*aux_type*/) {
  CHECK_GE(in_type.size(), 1);
  const int dtype = in_type[0];
  CHECK(dtype != -1) << "First input must have specified type";
  for (size_t i = 1; i < in_type.size(); ++i) {
    if (in_type[i] == -1) in_type[i] = dtype;
    CHECK(in_type[i] == dtype) << "arg " << i << " infer type unconsistent";
  }
  out_type.assign(1, dtype);
  return true;
}

int ElementWiseSum::Forward(const std::vector<NDArray*>& bottom_blobs,
                            std::vector<NDArray*>& top_blobs,
                            std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), static_cast<size_t>(num_args_));
  CHECK_EQ(top_blobs.size(), 1);
  if (!IsFloat(*bottom_blobs[0])) return 0;
  float* out = top_blobs[0]->dptr<float>();
  const index_t n = top_blobs[0]->Size();
  const float* first = bottom_blobs[0]->dptr<float>();
  if (first != out) std::copy(first, first + n, out);
  for (size_t j = 1; j < bottom_blobs.size(); ++j) {
    const float* x = bottom_blobs[j]->dptr<float>();
    for (index_t i = 0; i < n; ++i) out[i] += x[i];
  }
  return 0;
}

// --------------------------------------------------------------- reduce

namespace broadcast_reduce {

namespace {

// Which of the `ndim` axes are summed; no allocation, for Forward.
void ReducedAxes(int ndim, const std::vector<int>& axis, bool exclude, bool* reduced) {
  for (int i = 0; i < ndim; ++i) reduced[i] = axis.empty();
  for (int a : axis) {
    const int k = a < 0 ? a + ndim : a;
    CHECK(k >= 0 && k < ndim) << "axis " << a << " exceeds the input dimension of " << ndim;
    reduced[k] = true;
  }
  if (exclude && !axis.empty()) {
    for (int i = 0; i < ndim; ++i) reduced[i] = !reduced[i];
  }
}

}  // namespace

TShape ReduceAxesShapeImpl(const TShape& src, const std::vector<int>& axis, bool keepdims,
                           bool exclude) {
  const int ndim = static_cast<int>(src.ndim());
  CHECK_LE(ndim, kMaxDim) << "NDim too large ";
  bool reduced[kMaxDim];
  ReducedAxes(ndim, axis, exclude, reduced);
  std::vector<index_t> dims;
  for (int i = 0; i < ndim; ++i) {
    if (!reduced[i]) {
      dims.push_back(src[i]);
    } else if (keepdims) {
      dims.push_back(1);
    }
  }
  if (dims.empty()) dims.push_back(1);
  TShape out(static_cast<uint32_t>(dims.size()));
  std::copy(dims.begin(), dims.end(), out.begin());
  return out;
}

}  // namespace broadcast_reduce

void BroadcastReduce::Init(const LayerAttrs& attrs) {
  axis_.clear();
  if (attrs.count("axis") && attrs.at("axis") != "None" && attrs.at("axis") != "()") {
    axis_ = ParseSignedTuple(attrs.at("axis"), "axis");
  }
  RUVO_BOOL_ATTR(attrs, "keepdims", "False", keepdims_symbol, keepdims_);
  RUVO_BOOL_ATTR(attrs, "exclude", "False", exclude_symbol, exclude_);
  inited_ = true;
}

bool BroadcastReduce::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                                 std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  out_shape.resize(1);
  CHECK_EQ(out_shape.size(), 1);
  if (in_shape[0].ndim() == 0) return false;
  CHECK_LE(in_shape[0].ndim(), broadcast_reduce::kMaxDim) << "NDim too large ";
  TShape& out = out_shape[0];
  if (out.ndim() == 0) {
    out = broadcast_reduce::ReduceAxesShapeImpl(in_shape[0], axis_, keepdims_, exclude_);
  } else {
    CHECK(out == broadcast_reduce::ReduceAxesShapeImpl(in_shape[0], axis_, keepdims_, exclude_));
  }
  return true;
}

int BroadcastReduce_Sum::Forward(const std::vector<NDArray*>& bottom_blobs,
                                 std::vector<NDArray*>& top_blobs,
                                 std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& data = *bottom_blobs[0];
  if (!IsFloat(data)) return 0;
  constexpr int D = broadcast_reduce::kMaxDim;
  const int ndim = static_cast<int>(data.ndim());
  CHECK_LE(ndim, D) << "NDim too large ";
  bool reduced[D];
  broadcast_reduce::ReducedAxes(ndim, axis_, exclude_, reduced);
  // Input dimensions, and the kept ones with summed axes as 1, both
  // right-aligned.
  index_t is[D], ks[D];
  Align(data.shape(), is);
  for (int i = 0; i < D; ++i) {
    const int k = i - (D - ndim);
    ks[i] = k >= 0 && reduced[k] ? 1 : is[i];
  }
  size_t ostride[D];
  size_t acc = 1;
  for (int i = D - 1; i >= 0; --i) {
    ostride[i] = ks[i] == 1 ? 0 : acc;
    acc *= ks[i];
  }
  float* out = top_blobs[0]->dptr<float>();
  std::fill(out, out + top_blobs[0]->Size(), 0.0f);
  const float* x = data.dptr<float>();
  // Input order: each output gathers its elements from the first to the
  // last.
  index_t idx[D] = {};
  const index_t n = data.Size();
  for (index_t e = 0; e < n; ++e) {
    size_t o = 0;
    for (int i = 0; i < D; ++i) o += idx[i] * ostride[i];
    out[o] += x[e];
    for (int i = D - 1; i >= 0; --i) {
      if (++idx[i] < is[i]) break;
      idx[i] = 0;
    }
  }
  return 0;
}

Layer* ElementWiseBinary_Plus_layer_creator() { return new ElementWiseBinary_Plus(); }
Layer* ElementWiseBinaryScalar_Mul_Scalar_layer_creator() {
  return new ElementWiseBinaryScalar_Mul_Scalar();
}
Layer* ElementWiseBinaryScalar_Plus_Scalar_layer_creator() {
  return new ElementWiseBinaryScalar_Plus_Scalar();
}
Layer* ElementWiseBinaryBroadcastbroadcast_mul_layer_creator() {
  return new ElementWiseBinaryBroadcastbroadcast_mul();
}
Layer* ElementWiseSum_layer_creator() { return new ElementWiseSum(); }
Layer* BroadcastReduce_Sum_layer_creator() { return new BroadcastReduce_Sum(); }

}  // namespace ruvo
}  // namespace orvik
