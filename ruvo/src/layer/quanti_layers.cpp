#include "ruvo/src/layer/quanti_layers.h"

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

namespace quanti_input {
const std::unordered_map<std::string, TruncateType> truncate_map = {
    {"floor", kFloor}, {"naive", kNaive}, {"ceil", kCeil}};
}  // namespace quanti_input

namespace {

// floor(y) (or y truncated) as an int8, saturated, NaN as 0.  Cutting y to
// [-129, 128] first gives what saturating the whole result would, as the
// bounds are whole numbers, and leaves no libm floor in the loop.
template <bool kFloor>
inline signed char NarrowToInt8(float y) {
  y = y == y ? y : 0.0f;
  const float c = y < -129.0f ? -129.0f : (y > 128.0f ? 128.0f : y);
  int32_t t = static_cast<int32_t>(c);
  if (kFloor) t -= c < static_cast<float>(t) ? 1 : 0;
  return static_cast<signed char>(t < -128 ? -128 : (t > 127 ? 127 : t));
}

// q[i] = NarrowToInt8(scale * x[i]), four at a time where SSE2 is there
// (the compiler does not if-convert the floor step itself).
template <bool kFloor>
void QuantizeRow(const float* x, float scale, index_t n, signed char* q) {
  index_t i = 0;
#if defined(__SSE2__)
  const __m128 s = _mm_set1_ps(scale), low = _mm_set1_ps(-129.0f), high = _mm_set1_ps(128.0f);
  for (; i + 4 <= n; i += 4) {
    __m128 y = _mm_mul_ps(s, _mm_loadu_ps(x + i));
    y = _mm_and_ps(y, _mm_cmpeq_ps(y, y));  // NaN to +0
    const __m128 c = _mm_min_ps(_mm_max_ps(y, low), high);
    __m128i t = _mm_cvttps_epi32(c);
    // Truncation went up for a negative fraction: the mask is -1 there.
    if (kFloor) t = _mm_add_epi32(t, _mm_castps_si128(_mm_cmplt_ps(c, _mm_cvtepi32_ps(t))));
    // The saturating packs are the clamp to [-128, 127].
    const __m128i h = _mm_packs_epi32(t, t);
    const int32_t b = _mm_cvtsi128_si32(_mm_packs_epi16(h, h));
    std::memcpy(q + i, &b, sizeof(b));
  }
#endif
  for (; i < n; ++i) q[i] = NarrowToInt8<kFloor>(scale * x[i]);
}

}  // namespace


void QuantiInput::Init(const LayerAttrs& attrs) {
  fixed_output_shift_ = -128;
  if (attrs.count("fixed_output_shift")) {
    ReadAttrValue(attrs.at("fixed_output_shift"), &fixed_output_shift_);
  }
  const std::string trun_type_symbol = AttrText(attrs, "truncate", "floor");
  CHECK(quanti_input::truncate_map.count(trun_type_symbol));
  truncate_ = quanti_input::truncate_map.at(trun_type_symbol);
  inited_ = true;
}

bool QuantiInput::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                             std::vector<TShape>& aux_shape) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  out_shape.assign(1, in_shape[0]);
  aux_shape.assign(1, TShape{1});
  return in_shape[0].ndim() != 0;
}

bool QuantiInput::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                            std::vector<int>& aux_type) {
  CHECK_EQ(in_type.size(), 1);
  const int dtype = in_type[0];
  CHECK(dtype != -1) << "First input must have specified type";
  out_type.assign(1, kInt8);
  aux_type.assign(1, kInt8);
  return true;
}

int QuantiInput::Forward(const std::vector<NDArray*>& bottom_blobs,
                         std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& aux_blobs) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& data = *bottom_blobs[0];
  NDArray& out = *top_blobs[0];
  CHECK_EQ(data.Size(), out.Size());
  int32_t s = fixed_output_shift_;
  if (s == -128) {
    CHECK_EQ(aux_blobs.size(), 1);
    s = quanti::ReadShift(*aux_blobs[0], "input_shift_history");
  }
  const float scale = static_cast<float>(quanti::ShiftLeft(1, s));
  const float* x = data.dptr<float>();
  signed char* q = out.dptr<signed char>();
  const index_t n = data.Size();
  switch (truncate_) {
    case quanti_input::kFloor:
      QuantizeRow<true>(x, scale, n, q);
      break;
    case quanti_input::kNaive:
      QuantizeRow<false>(x, scale, n, q);
      break;
    case quanti_input::kCeil:
      CHECK(false) << "Not support ceil!";
      break;
    default:
      CHECK(false) << "Invalid truncate type: only support: \"floor\", \"naive\"";
  }
  top_blobs[0]->shift_ = s;
  return 0;
}

int QuantiFlatten::Forward(const std::vector<NDArray*>& bottom_blobs,
                           std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& aux_blobs) {
  Flatten::Forward(bottom_blobs, top_blobs, aux_blobs);
  top_blobs[0]->shift_ = bottom_blobs[0]->shift_;
  return 0;
}

int QuantiActivation::Forward(const std::vector<NDArray*>& bottom_blobs,
                              std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& aux_blobs) {
  Activation::Forward(bottom_blobs, top_blobs, aux_blobs);
  top_blobs[0]->shift_ = bottom_blobs[0]->shift_;
  return 0;
}

bool NHCW2Conv::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                           std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  const TShape shape0 = in_shape[0];
  CHECK_EQ(shape0.ndim(), 4);
  out_shape.assign(1, TShape{shape0[0], shape0[1], shape0[3], shape0[2]});
  return true;
}

int NHCW2Conv::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                       std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray* data = bottom_blobs[0];
  NDArray* out = top_blobs[0];
  CHECK_EQ(data->ndim(), 4) << "NHCW2Conv only support 4 dimensions";
  CHECK_EQ(data->Size(), out->Size());
  const TShape& s = data->shape();
  const int dims[5] = {static_cast<int>(s[0] * s[1]), static_cast<int>(s[2]), 1,
                       static_cast<int>(s[3]), 1};
  switch (data->dtype()) {
    case kFloat32:
      math::SwapAxis1VS3<float>(data->dptr<float>(), out->dptr<float>(), dims);
      break;
    case kInt8:
      math::SwapAxis1VS3<signed char>(data->dptr<signed char>(), out->dptr<signed char>(), dims);
      break;
    default:
      RTC_LOG(LS_ENGINE) << "Unknown type enum " << data->dtype();
  }
  return 0;
}

Layer* QuantiInput_layer_creator() { return new QuantiInput(); }
Layer* QuantiFlatten_layer_creator() { return new QuantiFlatten(); }
Layer* QuantiActivation_layer_creator() { return new QuantiActivation(); }
Layer* NHCW2Conv_layer_creator() { return new NHCW2Conv(); }

}  // namespace ruvo
}  // namespace orvik
