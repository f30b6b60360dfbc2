#ifndef RUVO_SRC_LAYER_LAYER_UTIL_H_
#define RUVO_SRC_LAYER_LAYER_UTIL_H_

// Small helpers shared by the float layers: shape literals, the shape
// assignment check of InferShape, signed tuple attributes, and raw byte
// access to a view.

#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "orviklog/src/checks.h"
#include "ruvo/layer.h"
#include "ruvo/ndarray.h"

namespace orvik {
namespace ruvo {

inline TShape Shape1(index_t d0) { return TShape{d0}; }
inline TShape Shape2(index_t d0, index_t d1) { return TShape{d0, d1}; }
inline TShape Shape3(index_t d0, index_t d1, index_t d2) { return TShape{d0, d1, d2}; }

// Product of dimensions [from, ndim), 1 when there are none.
inline index_t ProdFrom(const TShape& s, uint32_t from) {
  index_t p = 1;
  for (uint32_t i = from; i < s.ndim(); ++i) p *= s[i];
  return p;
}

// An empty slot takes the computed shape; a filled slot must equal it.
// The check text names the computed expression, as in
// "out == Shape2(num_hidden_, num_input)".
#define RUVO_SHAPE_ASSIGN_CHECK(slot, shape)                                      \
  do {                                                                            \
    ::orvik::ruvo::TShape& out = (slot);                                          \
    if (out.ndim() == 0) {                                                        \
      out = (shape);                                                              \
    } else {                                                                      \
      CHECK(out == shape) << "Shape inconsistent, Provided " << out               \
                          << " inferrend shape=" << ::orvik::ruvo::TShape(shape); \
    }                                                                             \
  } while (0)

// Marks a "None" entry of a signed tuple attribute.
constexpr int kNoneValue = INT_MIN;

// Reads a signed tuple such as "(0,-1)", "[2, None]", "(3,)" or a bare
// "-2"; "None" entries read as kNoneValue.  Fatal on anything else.
std::vector<int> ParseSignedTuple(const std::string& text, const char* key);

// Reads one integer, or kNoneValue for "None".  Fatal on anything else.
int ParseIntOrNone(const std::string& text, const char* key);

// The "num_hidden" attribute of a dense layer, at least 1.  A missing key is
// logged and then fails the check.
int32_t ReadNumHidden(const LayerAttrs& attrs);

// float to int32, truncated toward zero; saturates at both ends and NaN
// gives 0, so that every machine agrees on weights with no finite scale.
inline int32_t TruncToInt32(float f) {
  if (f != f) return 0;
  if (f >= 2147483648.0f) return INT32_MAX;
  if (f < -2147483648.0f) return INT32_MIN;
  return static_cast<int32_t>(f);
}

// The online 8-bit form of a float weight matrix of `rows` rows of `k`: one
// scale 127 / max|w|, every weight scaled, truncated and held in [-127, 127],
// and per row the sum of its 8-bit values divided back by the scale.
// Returns the scale.
float QuantizeWeightRows(const float* w, int rows, int k, signed char* q, float* row_sum);

// Start of a view's elements as bytes, whatever its element type.
inline char* RawData(const NDArray& a) {
  return static_cast<char*>(a.chunk_->dptr_) + a.offset_ * orvik_sizeof(a.dtype_);
}

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_LAYER_UTIL_H_
