#include "orvik_blas_64/src/softmax_function.h"

#include <cmath>
#include <cstdint>
#include <cstring>

namespace orvik {
namespace ruvo {
namespace math {
namespace {

// Coefficients of the exponential polynomial, one 4-lane group each, in
// the order the evaluation reads them.
struct ExpTable {
  float c[8][4];
  ExpTable() {
    static const float kCoeffs[8] = {1.0f,       0.041659892f, 0.5000006f, 0.0014122663f,
                                     1.0000001f, 0.008336937f, 0.1666657f, 0.00019578093f};
    for (int i = 0; i < 8; ++i) {
      for (int l = 0; l < 4; ++l) c[i][l] = kCoeffs[i];
    }
  }
};
const ExpTable exp_tab;

inline uint32_t Bits(float f) {
  uint32_t u;
  memcpy(&u, &f, sizeof(u));
  return u;
}
inline float FromBits(uint32_t u) {
  float f;
  memcpy(&f, &u, sizeof(f));
  return f;
}

}  // namespace

float exp_approx(float x) {
  static const float kLog2e = FromBits(0x3FB8AA3B);  // 1.442695
  static const float kLn2 = FromBits(0x3F317218);    // 0.6931472
  const float(&c)[8][4] = exp_tab.c;
  // m: truncation toward zero, not rounding.  NaN and arguments beyond
  // int32 (a -inf or huge logit) saturate as the target's conversion does,
  // rather than leave the result to the machine.
  const float t = x * kLog2e;
  const int32_t m = t != t ? 0
                  : t <= -2147483648.0f ? INT32_MIN
                  : t >= 2147483648.0f  ? INT32_MAX
                                        : static_cast<int32_t>(t);
  // r = x - m*ln2 with a single rounding (fused multiply-subtract).
  const float r = std::fma(-static_cast<float>(m), kLn2, x);
  const float A = c[0][0] + c[4][0] * r;
  const float B = c[2][0] + c[6][0] * r;
  const float C = c[1][0] + c[5][0] * r;
  const float D = c[3][0] + c[7][0] * r;
  const float r2 = r * r;
  const float r4 = r2 * r2;
  const float p = A + B * r2 + (C + D * r2) * r4;
  // Scaling by 2^m is an add to the exponent field.
  return FromBits(Bits(p) + (static_cast<uint32_t>(m) << 23));
}

void softmax(const float* in, float* out, int n) {
  if (n < 1) return;
  float max = -3.4028235e+38f;
  for (int i = 0; i < n; ++i) {
    if (in[i] > max) max = in[i];
  }
  const int body = n & ~3;
  float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
  for (int i = 0; i < body; i += 4) {
    for (int l = 0; l < 4; ++l) {
      const float d = in[i + l] - max;
      const float e = exp_approx(d < -64.0f ? -64.0f : d);
      out[i + l] = e;
      lane[l] += e;
    }
  }
  float sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  for (int i = body; i < n; ++i) {
    const float e = expf(in[i] - max);
    out[i] = e;
    sum += e;
  }
  // The two halves differ in the last bit (product by the reciprocal versus
  // a division), which is accepted.
  const float inv = 1.0f / sum;
  for (int i = 0; i < body; ++i) out[i] *= inv;
  for (int i = body; i < n; ++i) out[i] /= sum;
}

}  // namespace math
}  // namespace ruvo
}  // namespace orvik
