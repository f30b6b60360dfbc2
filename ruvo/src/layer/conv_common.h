#ifndef RUVO_SRC_LAYER_CONV_COMMON_H_
#define RUVO_SRC_LAYER_CONV_COMMON_H_

// The pieces every 2-D convolution is built from, float and 8-bit alike:
// image-to-column, channel regrouping, the per-group GEMMs, weight
// preparation and the on-the-fly input quantisation.  Images are
// channel-last (y, x, channel) and weights (filter, ky, kx, channel), so a
// column row and a weight row list their elements in the same order.

#include <cstdint>
#include <vector>

#include "ruvo/layer.h"
#include "ruvo/ndarray.h"

namespace orvik {
namespace ruvo {
namespace conv {

inline TShape Shape4(index_t d0, index_t d1, index_t d2, index_t d3) {
  return TShape{d0, d1, d2, d3};
}

// Output extent of one axis; integer division.
inline index_t OutSize(index_t in, index_t kernel, index_t pad, index_t stride, index_t dilate) {
  return (in + 2 * pad - (dilate * (kernel - 1) + 1)) / stride + 1;
}

// One image's convolution geometry.  `channels` and `num_filter` count all
// groups.
struct Geometry {
  int height = 0, width = 0, channels = 0;
  int kernel_h = 1, kernel_w = 1;
  int pad_h = 0, pad_w = 0;
  int stride_h = 1, stride_w = 1;
  int dilation_h = 1, dilation_w = 1;
  int out_h = 0, out_w = 0;
  int num_filter = 0;
  int num_group = 1;
  bool transpose_weight = true;

  int positions() const { return out_h * out_w; }
  // Depth of one group's product: kernel area times its channels.
  int depth() const { return kernel_h * kernel_w * (channels / num_group); }
};

// The attributes every convolution shares: "kernel" (required), "stride",
// "pad", "dilate", "num_filter" (default `num_filter_default`, or required
// when that is null) and "num_group".  All entries of the shapes must be
// positive.
struct ConvAttrs {
  TShape kernel_;
  TShape stride_{1, 1};
  TShape dilate_{1, 1};
  TShape pad_{0, 0};
  int32_t num_filter_ = 0;
  int32_t num_group_ = 1;

  void Parse(const LayerAttrs& attrs, const char* num_filter_default);
  // True when the column matrix is the image itself: 1x1 kernel, stride 1,
  // no padding (dilation does not matter then).
  bool Is1x1() const;
  // Checks the data shape in_shape[0] against the attributes, assigns or
  // checks the weight (in_shape[1]) and, with a bias, in_shape[2]; returns
  // the output shape.
  TShape InferShape(std::vector<TShape>& in_shape, bool has_bias) const;
  // The geometry of one image of `data` producing `out`.
  Geometry GeometryOf(const TShape& data, const TShape& out, bool transpose_weight) const;
};

// One row per output position (y-major); within a row the kernel positions
// y-major, each with all `channels` values.  Positions outside the image
// hold pad_value.  T: float or signed char.
template <typename T>
void im2col(const T* data, int channels, int height, int width, int kernel_h, int kernel_w,
            int pad_h, int pad_w, int stride_h, int stride_w, int dilation_h, int dilation_w,
            T pad_value, T* out);

// merge false: the interleaved image (positions x channel) becomes `group`
// planes of (positions x channel / group).  merge true: the inverse.
// T: float, signed char or int.
template <typename T>
void GroupReorder(const T* src, T* dst, int positions, int channel, int group, bool merge);

// Per group: the group's plane (with 1x1 kernels, stride 1 and no padding
// the plane is already the column matrix) times the group's filters into
// the group's output plane.  `col` is scratch of positions x depth.  Float
// into float, or signed char into int.
template <typename T, typename O>
void Forward1x1GEMMOneGroup(const T* group_in, O* group_out, const T* weight, const Geometry& g);
template <typename T, typename O>
void ForwardGEMMOneGroupOneImage(const T* group_in, O* group_out, const T* weight, T* col,
                                 T pad_value, const Geometry& g);

// Single group: columns (or the image itself) times the weight.
template <typename T, typename O>
void GemmImage(const T* a, const T* weight, O* out, const Geometry& g);

// Each group's (rows / groups) x k block of src becomes k x (rows / groups)
// in dst, so that the GEMM reads its B operand in order.
template <typename T>
void TransposeGroups(const T* src, T* dst, int rows, int k, int groups);

// First-run weight preparation.  Float path: *weight is the blob itself, or
// with transpose_weight a per-group transposed copy.  8-bit path: *q_weight
// holds trunc(w * 127 / max|w|) clamped to +-127 (per-group transposed with
// transpose_weight), *weight_row_sum each filter's quantised sum divided by
// *weight_scale.
void Init_kernel(const NDArray& weight_blob, bool online_quanti, bool transpose_weight,
                 float* weight_scale, int num_group, NDArray* weight_row_sum, NDArray* q_weight,
                 NDArray* weight);

// Quantises `data` (float) into q_data (int8) over its whole extent:
// q = trunc(a x + b) mapping [min, max] onto [-127, 127].
void input_to_int8(const NDArray& data, NDArray& q_data, float* a, float* b);

}  // namespace conv
}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_CONV_COMMON_H_
