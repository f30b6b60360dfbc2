#ifndef ORVIK_BLAS_64_SRC_SOFTMAX_FUNCTION_H_
#define ORVIK_BLAS_64_SRC_SOFTMAX_FUNCTION_H_

namespace orvik {
namespace ruvo {
namespace math {

// out[i] = exp(in[i] - max) / sum, for n elements (no-op for n < 1).  The
// first n & ~3 elements use exp_approx with inputs clamped at -64 and are
// scaled by the reciprocal of the sum; the rest use expf and are divided
// by the sum.  `in` and `out` may be the same array.
void softmax(const float* in, float* out, int n);

// The polynomial exponential of the vector part: 2^m * p(r) with m the
// truncation of x*log2(e) and r = x - m*ln2 by one fused multiply-add.
float exp_approx(float x);

}  // namespace math
}  // namespace ruvo
}  // namespace orvik

#endif  // ORVIK_BLAS_64_SRC_SOFTMAX_FUNCTION_H_
