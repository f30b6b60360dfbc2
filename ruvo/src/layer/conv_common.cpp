#include "ruvo/src/layer/conv_common.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/checks.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {
namespace conv {

namespace {

// The runs of im2col are short (a kernel row, or one position's channels:
// a few to a few hundred bytes), where a library call per run costs more
// than the copy.  Chunks of 16 bytes, the last one overlapping the one
// before it.
inline void CopyRun(void* dst, const void* src, size_t bytes) {
  unsigned char* d = static_cast<unsigned char*>(dst);
  const unsigned char* s = static_cast<const unsigned char*>(src);
  if (bytes >= 16) {
    size_t i = 0;
    for (; i + 16 <= bytes; i += 16) std::memcpy(d + i, s + i, 16);
    if (i < bytes) std::memcpy(d + bytes - 16, s + bytes - 16, 16);
  } else if (bytes >= 8) {
    std::memcpy(d, s, 8);
    std::memcpy(d + bytes - 8, s + bytes - 8, 8);
  } else if (bytes >= 4) {
    std::memcpy(d, s, 4);
    std::memcpy(d + bytes - 4, s + bytes - 4, 4);
  } else {
    for (size_t i = 0; i < bytes; ++i) d[i] = s[i];
  }
}

inline void Fill(float* p, int n, float v) { std::fill(p, p + n, v); }
inline void Fill(signed char* p, int n, signed char v) {
  signed char pattern[16];
  std::memset(pattern, v, sizeof(pattern));
  for (; n >= 16; n -= 16, p += 16) std::memcpy(p, pattern, 16);
  CopyRun(p, pattern, static_cast<size_t>(n));
}

inline void Gemm(int trans_b, int m, int n, int k, const float* a, const float* b, float* c) {
  math::orvik_cpu_gemm<float>(CblasNoTrans, trans_b, m, n, k, 1.0f, a, b, 0.0f, c);
}
inline void Gemm(int trans_b, int m, int n, int k, const signed char* a, const signed char* b,
                 int* c) {
  math::orvik_cpu_gemm<signed char, int>(CblasNoTrans, trans_b, m, n, k, 1, a, b, 0, c);
}

}  // namespace

void ConvAttrs::Parse(const LayerAttrs& attrs, const char* num_filter_default) {
  if (attrs.count("kernel")) {
    ReadAttrValue(attrs.at("kernel"), &kernel_);
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "kernel";
  }
  CHECK_EQ(kernel_.ndim(), 2);
  if (attrs.count("stride")) ReadAttrValue(attrs.at("stride"), &stride_);
  CHECK_EQ(stride_.ndim(), 2);
  if (attrs.count("pad")) ReadAttrValue(attrs.at("pad"), &pad_);
  CHECK_EQ(pad_.ndim(), 2);
  if (attrs.count("dilate")) ReadAttrValue(attrs.at("dilate"), &dilate_);
  CHECK_EQ(dilate_.ndim(), 2);
  // A zero would divide by zero or wrap the kernel extent below.
  CHECK(kernel_[0] > 0 && kernel_[1] > 0 && stride_[0] > 0 && stride_[1] > 0 && dilate_[0] > 0 &&
        dilate_[1] > 0)
      << "kernel, stride and dilate must be positive";
  std::string num_filter_symbol;
  if (attrs.count("num_filter")) {
    num_filter_symbol = attrs.at("num_filter");
  } else if (num_filter_default != nullptr) {
    num_filter_symbol = num_filter_default;
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "num_filter";
  }
  num_filter_ = 0;
  ReadAttrValue(num_filter_symbol, &num_filter_);
  CHECK(num_filter_ >= 1 && num_filter_ <= 100000);
  num_group_ = 1;
  if (attrs.count("num_group")) ReadAttrValue(attrs.at("num_group"), &num_group_);
  CHECK_GE(num_group_, 1);
}

bool ConvAttrs::Is1x1() const {
  return kernel_[0] == 1 && kernel_[1] == 1 && stride_[0] == 1 && stride_[1] == 1 &&
         pad_[0] == 0 && pad_[1] == 0;
}

TShape ConvAttrs::InferShape(std::vector<TShape>& in_shape, bool has_bias) const {
  CHECK_EQ(kernel_.ndim(), 2) << "only 2D convolution is supported in orvik";
  const TShape dshape = in_shape[0];
  CHECK_EQ(dshape.ndim(), 4) << "Input data should be 4D in batch-y-x-num_filter";
  RUVO_SHAPE_ASSIGN_CHECK(in_shape[1],
                          Shape4(num_filter_, kernel_[0], kernel_[1], dshape[3] / num_group_));
  if (has_bias) RUVO_SHAPE_ASSIGN_CHECK(in_shape[2], Shape1(num_filter_));
  CHECK_EQ(dshape[3] % num_group_, 0) << "input num_filter must divide group size";
  CHECK_EQ(num_filter_ % num_group_, 0) << "output num_filter must divide group size";
  const index_t ksize_y = dilate_[0] * (kernel_[0] - 1) + 1;
  const index_t ksize_x = dilate_[1] * (kernel_[1] - 1) + 1;
  CHECK(ksize_y <= dshape[1] + 2 * pad_[0] && ksize_x <= dshape[2] + 2 * pad_[1])
      << "kernel size exceed input";
  return Shape4(dshape[0], OutSize(dshape[1], kernel_[0], pad_[0], stride_[0], dilate_[0]),
                OutSize(dshape[2], kernel_[1], pad_[1], stride_[1], dilate_[1]), num_filter_);
}

Geometry ConvAttrs::GeometryOf(const TShape& data, const TShape& out, bool transpose_weight) const {
  Geometry g;
  g.height = static_cast<int>(data[1]);
  g.width = static_cast<int>(data[2]);
  g.channels = static_cast<int>(data[3]);
  g.kernel_h = static_cast<int>(kernel_[0]);
  g.kernel_w = static_cast<int>(kernel_[1]);
  g.pad_h = static_cast<int>(pad_[0]);
  g.pad_w = static_cast<int>(pad_[1]);
  g.stride_h = static_cast<int>(stride_[0]);
  g.stride_w = static_cast<int>(stride_[1]);
  g.dilation_h = static_cast<int>(dilate_[0]);
  g.dilation_w = static_cast<int>(dilate_[1]);
  g.out_h = static_cast<int>(out[1]);
  g.out_w = static_cast<int>(out[2]);
  g.num_filter = num_filter_;
  g.num_group = num_group_;
  g.transpose_weight = transpose_weight;
  return g;
}

template <typename T>
void im2col(const T* data, int channels, int height, int width, int kernel_h, int kernel_w,
            int pad_h, int pad_w, int stride_h, int stride_w, int dilation_h, int dilation_w,
            T pad_value, T* out) {
  const int out_h = (height + 2 * pad_h - (dilation_h * (kernel_h - 1) + 1)) / stride_h + 1;
  const int out_w = (width + 2 * pad_w - (dilation_w * (kernel_w - 1) + 1)) / stride_w + 1;
  const size_t run = static_cast<size_t>(kernel_w) * channels;
  for (int oy = 0; oy < out_h; ++oy) {
    for (int ox = 0; ox < out_w; ++ox) {
      const int x0 = ox * stride_w - pad_w;
      for (int ky = 0; ky < kernel_h; ++ky) {
        const int iy = oy * stride_h - pad_h + ky * dilation_h;
        if (iy < 0 || iy >= height) {
          Fill(out, static_cast<int>(run), pad_value);
          out += run;
          continue;
        }
        const T* src_row = data + static_cast<size_t>(iy) * width * channels;
        if (dilation_w == 1 && x0 >= 0 && x0 + kernel_w <= width) {
          CopyRun(out, src_row + static_cast<size_t>(x0) * channels, run * sizeof(T));
          out += run;
          continue;
        }
        for (int kx = 0; kx < kernel_w; ++kx) {
          const int ix = x0 + kx * dilation_w;
          if (ix < 0 || ix >= width) {
            Fill(out, channels, pad_value);
          } else {
            CopyRun(out, src_row + static_cast<size_t>(ix) * channels, channels * sizeof(T));
          }
          out += channels;
        }
      }
    }
  }
}

template <typename T>
void GroupReorder(const T* src, T* dst, int positions, int channel, int group, bool merge) {
  CHECK(channel % group == 0);
  const int c = channel / group;
  const size_t plane = static_cast<size_t>(positions) * c;
  for (int g = 0; g < group; ++g) {
    for (int p = 0; p < positions; ++p) {
      const size_t at = static_cast<size_t>(p) * channel + static_cast<size_t>(g) * c;
      const size_t in_plane = g * plane + static_cast<size_t>(p) * c;
      if (merge) {
        std::memcpy(dst + at, src + in_plane, c * sizeof(T));
      } else {
        std::memcpy(dst + in_plane, src + at, c * sizeof(T));
      }
    }
  }
}

template <typename T, typename O>
void GemmImage(const T* a, const T* weight, O* out, const Geometry& g) {
  Gemm(g.transpose_weight ? CblasNoTrans : CblasTrans, g.positions(), g.num_filter, g.depth(), a,
       weight, out);
}

template <typename T, typename O>
void Forward1x1GEMMOneGroup(const T* group_in, O* group_out, const T* weight, const Geometry& g) {
  const int cg = g.channels / g.num_group;
  const int oc = g.num_filter / g.num_group;
  const int p = g.positions();
  const int k = g.depth();
  for (int gi = 0; gi < g.num_group; ++gi) {
    Gemm(g.transpose_weight ? CblasNoTrans : CblasTrans, p, oc, k,
         group_in + static_cast<size_t>(gi) * p * cg, weight + static_cast<size_t>(gi) * oc * k,
         group_out + static_cast<size_t>(gi) * p * oc);
  }
}

template <typename T, typename O>
void ForwardGEMMOneGroupOneImage(const T* group_in, O* group_out, const T* weight, T* col,
                                 T pad_value, const Geometry& g) {
  const int cg = g.channels / g.num_group;
  const int oc = g.num_filter / g.num_group;
  const int p = g.positions();
  const int k = g.depth();
  const size_t in_plane = static_cast<size_t>(g.height) * g.width * cg;
  for (int gi = 0; gi < g.num_group; ++gi) {
    im2col<T>(group_in + gi * in_plane, cg, g.height, g.width, g.kernel_h, g.kernel_w, g.pad_h,
              g.pad_w, g.stride_h, g.stride_w, g.dilation_h, g.dilation_w, pad_value, col);
    Gemm(g.transpose_weight ? CblasNoTrans : CblasTrans, p, oc, k, col,
         weight + static_cast<size_t>(gi) * oc * k, group_out + static_cast<size_t>(gi) * p * oc);
  }
}

template <typename T>
void TransposeGroups(const T* src, T* dst, int rows, int k, int groups) {
  const int oc = rows / groups;
  for (int g = 0; g < groups; ++g) {
    const T* s = src + static_cast<size_t>(g) * oc * k;
    T* d = dst + static_cast<size_t>(g) * oc * k;
    for (int i = 0; i < oc; ++i) {
      for (int j = 0; j < k; ++j) d[static_cast<size_t>(j) * oc + i] = s[static_cast<size_t>(i) * k + j];
    }
  }
}

void Init_kernel(const NDArray& weight_blob, bool online_quanti, bool transpose_weight,
                 float* weight_scale, int num_group, NDArray* weight_row_sum, NDArray* q_weight,
                 NDArray* weight) {
  const int rows = static_cast<int>(weight_blob.shape()[0]);
  const int k = static_cast<int>(weight_blob.Size() / weight_blob.shape()[0]);
  const float* w = weight_blob.dptr<float>();
  if (!online_quanti) {
    if (!transpose_weight) {
      *weight = weight_blob;
      return;
    }
    *weight = NDArray(weight_blob.shape(), weight_blob.dtype());
    TransposeGroups<float>(w, weight->dptr<float>(), rows, k, num_group);
    return;
  }

  *q_weight = NDArray(weight_blob.shape(), kInt8);
  *weight_row_sum = NDArray(TShape{static_cast<index_t>(rows)}, kFloat32);
  NDArray rows_q = transpose_weight ? NDArray(weight_blob.shape(), kInt8) : *q_weight;
  signed char* q = rows_q.dptr<signed char>();
  *weight_scale = QuantizeWeightRows(w, rows, k, q, weight_row_sum->dptr<float>());
  if (transpose_weight) {
    TransposeGroups<signed char>(q, q_weight->dptr<signed char>(), rows, k, num_group);
  }
}

void input_to_int8(const NDArray& data, NDArray& q_data, float* a, float* b) {
  CHECK(data.dtype() == kFloat32) << "Only support float type";
  const int count = static_cast<int>(data.Size());
  float min = 3.4028235e+38f;
  float max = 1.1754944e-38f;
  math::orvik_cpu_min_max_neon<float>(count, data.dptr<float>(), &min, &max);
  float range = max - min;
  if (static_cast<double>(range) < 1e-6) {
    max = min + 0.0001f;
    range = max - min;
  }
  *a = 254.0f / range;
  *b = (min / range + 0.5f) * -254.0f;
  math::neon_axpb<signed char, float>(q_data.dptr<signed char>(), data.dptr<float>(), *a, *b,
                                      count);
}

template void im2col<float>(const float*, int, int, int, int, int, int, int, int, int, int, int,
                            float, float*);
template void im2col<signed char>(const signed char*, int, int, int, int, int, int, int, int, int,
                                  int, int, signed char, signed char*);
template void GroupReorder<float>(const float*, float*, int, int, int, bool);
template void GroupReorder<signed char>(const signed char*, signed char*, int, int, int, bool);
template void GroupReorder<int>(const int*, int*, int, int, int, bool);
template void GemmImage<float, float>(const float*, const float*, float*, const Geometry&);
template void GemmImage<signed char, int>(const signed char*, const signed char*, int*,
                                          const Geometry&);
template void Forward1x1GEMMOneGroup<float, float>(const float*, float*, const float*,
                                                   const Geometry&);
template void Forward1x1GEMMOneGroup<signed char, int>(const signed char*, int*,
                                                       const signed char*, const Geometry&);
template void ForwardGEMMOneGroupOneImage<float, float>(const float*, float*, const float*, float*,
                                                        float, const Geometry&);
template void ForwardGEMMOneGroupOneImage<signed char, int>(const signed char*, int*,
                                                            const signed char*, signed char*,
                                                            signed char, const Geometry&);
template void TransposeGroups<float>(const float*, float*, int, int, int);
template void TransposeGroups<signed char>(const signed char*, signed char*, int, int, int);

}  // namespace conv
}  // namespace ruvo
}  // namespace orvik
