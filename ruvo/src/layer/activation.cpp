#include "ruvo/src/layer/activation.h"

#include <cmath>

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace activation {
const std::unordered_map<std::string, LayerType> act_map = {
    {"relu", kReLU}, {"sigmoid", kSigmoid}, {"tanh", kTanh}, {"softrelu", kSoftReLU}};
}  // namespace activation

namespace {

inline float Relu(float x) { return x > 0.0f ? x : 0.0f; }

// The exponent is clamped at exactly +-40 so that the result never
// reaches 0 or 1 by overflow.
inline float Sigmoid(float x) {
  float e = -x;
  if (e < -40.0f) e = -40.0f;
  if (e > 40.0f) e = 40.0f;
  return 1.0f / (expf(e) + 1.0f);
}

inline float SoftRelu(float x) { return log1pf(expf(x)); }

template <typename F>
void ApplyFloat(const float* in, float* out, size_t n, F f) {
  for (size_t i = 0; i < n; ++i) out[i] = f(in[i]);
}

// 8-bit data goes through the float formula and is truncated back.  Values
// beyond the int8 range (only softrelu can produce them) are held at its
// ends rather than converted out of range.
inline signed char TruncToInt8(float v) {
  if (!(v > -128.0f)) return v != v ? 0 : -128;
  if (v >= 127.0f) return 127;
  return static_cast<signed char>(static_cast<int>(v));
}

template <typename F>
void ApplyInt8(const signed char* in, signed char* out, size_t n, F f) {
  for (size_t i = 0; i < n; ++i) out[i] = TruncToInt8(f(static_cast<float>(in[i])));
}

template <typename T, typename Apply>
void Dispatch(activation::LayerType type, const T* in, T* out, size_t n, Apply apply) {
  switch (type) {
    case activation::kReLU:
      apply(in, out, n, [](float x) { return Relu(x); });
      break;
    case activation::kSigmoid:
      apply(in, out, n, [](float x) { return Sigmoid(x); });
      break;
    case activation::kTanh:
      apply(in, out, n, [](float x) { return tanhf(x); });
      break;
    case activation::kSoftReLU:
      apply(in, out, n, [](float x) { return SoftRelu(x); });
      break;
    default:
      RTC_LOG(LS_ENGINE) << "Wrong activation type! ";
  }
}

}  // namespace

void Activation::Init(const LayerAttrs& attrs) {
  std::string act_type_symbol;
  if (attrs.count("act_type")) {
    act_type_symbol = attrs.at("act_type");
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "act_type";
  }
  CHECK(activation::act_map.count(act_type_symbol));
  act_type_ = activation::act_map.at(act_type_symbol);
  inited_ = true;
}

bool Activation::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                            std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  const TShape& dshape = in_shape[0];
  if (dshape.ndim() == 0) return false;
  out_shape.clear();
  out_shape.push_back(dshape);
  return true;
}

int Activation::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                        std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& in = *bottom_blobs[0];
  const NDArray& top = *top_blobs[0];
  const NDArray data_lhs = in.Reshape(Shape2(in.shape()[0], ProdFrom(in.shape(), 1)));
  const NDArray out = top.Reshape(Shape2(top.shape()[0], ProdFrom(top.shape(), 1)));
  CHECK_EQ(data_lhs.size(0), out.size(0)) << "input and output shape not equal!";
  const size_t n = data_lhs.Size();

  switch (data_lhs.dtype()) {
    case kFloat32:
      // Plain loops: relu vectorises as it stands and stays bit-equal to
      // the scalar formula.
      Dispatch<float>(act_type_, data_lhs.dptr<float>(), out.dptr<float>(), n,
                      [](const float* i, float* o, size_t c, auto f) { ApplyFloat(i, o, c, f); });
      break;
    case kInt8:
      Dispatch<signed char>(
          act_type_, data_lhs.dptr<signed char>(), out.dptr<signed char>(), n,
          [](const signed char* i, signed char* o, size_t c, auto f) { ApplyInt8(i, o, c, f); });
      break;
    default:
      RTC_LOG(LS_ENGINE) << "Unknown type enum " << data_lhs.dtype();
      return 0;
  }
  return 0;
}

Layer* Activation_layer_creator() { return new Activation(); }

}  // namespace ruvo
}  // namespace orvik
