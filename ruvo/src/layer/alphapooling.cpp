#include "ruvo/src/layer/alphapooling.h"

#include <cmath>

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

namespace {

bool SupportedUpscaleChannels(int n) {
  return (n >= 1 && n <= 4) || (n >= 8 && n <= 396 && n % 4 == 0) || n == 512;
}

}  // namespace

void AlphaPooling::Init(const LayerAttrs& attrs) {
  attrs_.Parse(attrs);
  inited_ = true;
}

bool AlphaPooling::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                              std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1);
  const TShape& dshape = in_shape[0];
  CHECK_EQ(dshape.ndim(), 4) << "AlphaPooling: Input data should be 4D in (batch, y, x, channel)";
  TShape& kernel_ = attrs_.kernel_;
  CHECK_EQ(kernel_.ndim(), 2) << "only 2D alphapooling is supported";
  // Signed, so that a kernel larger than the padded image gives no output
  // rather than a wrapped-around size.
  int64_t oshape[3] = {static_cast<int64_t>(dshape[0]), 1, 1};
  if (attrs_.global_pool_) {
    kernel_ = TShape{dshape[1], dshape[2]};
    attrs_.stride_ = TShape{1, 1};
  } else {
    for (int a = 0; a < 2; ++a) {
      const int64_t t = static_cast<int64_t>(dshape[1 + a]) + 2 * attrs_.pad_[a] - kernel_[a];
      const int64_t s = attrs_.stride_[a];
      oshape[1 + a] = attrs_.pooling_convention_ == pool::kFull
                          ? static_cast<int64_t>(ceilf(static_cast<float>(t) / s) + 1)
                          : t / s + 1;
    }
  }
  CHECK(oshape[1] > 0 && oshape[2] > 0) << "AlphaPooling: kernel size exceed input";
  out_shape.assign(1, TShape{dshape[0], static_cast<index_t>(oshape[1]),
                             static_cast<index_t>(oshape[2]), dshape[3]});
  return true;
}

int AlphaPooling::Forward(const std::vector<NDArray*>& bottom_blobs,
                          std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& data = *bottom_blobs[0];
  NDArray& top = *top_blobs[0];
  const TShape& ishape = data.shape();
  const TShape& oshape = top.shape();
  CHECK_EQ(ishape.ndim(), 4) << "Input should be 4 dimensions";
  CHECK_EQ(oshape.ndim(), 4) << "Output should be 4 dimensions";
  if (data.dtype() != kFloat32 && data.dtype() != kInt8) {
    RTC_LOG(LS_ENGINE) << "Unknown type enum " << data.dtype();
    return 0;
  }
  if (!pool::ComputedPoolType(attrs_.pool_type_)) return 0;
  const float area = static_cast<float>(attrs_.kernel_[0] * attrs_.kernel_[1]);
  if (data.dtype() == kFloat32) {
    NDArray acc = resource_->GetInterBuf(0, TShape{ishape[3]}, kFloat32);
    pool::PoolWindows<float, float>(attrs_, data.dptr<float>(), top.dptr<float>(), ishape, oshape,
                                    acc.dptr<float>(), [area](float s) { return s / area; });
  } else {
    // 9 fractional bits; truncated, so a 3 x 3 window takes 56/512 of its sum.
    const int32_t mult = static_cast<int32_t>(512.0f / area);
    NDArray acc = resource_->GetInterBuf(0, TShape{ishape[3]}, kInt32);
    pool::PoolWindows<signed char, int>(
        attrs_, data.dptr<signed char>(), top.dptr<signed char>(), ishape, oshape, acc.dptr<int>(),
        [mult](int s) { return quanti::SaturateInt8(quanti::WrapMul(s, mult) >> 9); });
  }
  top.shift_ = data.shift_;
  return 0;
}

bool AlphaUpscale::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                              std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  const TShape& dshape = in_shape[0];
  CHECK_EQ(dshape.ndim(), 4) << "AlphaUpscale's input should have 4 dimensions";
  out_shape.assign(1, TShape{dshape[0], 2 * dshape[1], 2 * dshape[2], dshape[3]});
  return true;
}

bool upscale_2x_cpu_forward_kernel(int channels, const signed char* src, int height, int width,
                                   signed char* dst) {
  if (!SupportedUpscaleChannels(channels)) {
    RTC_LOG(LS_ENGINE) << "Unsupported channel: " << channels;
    return false;
  }
  const int n = channels;
  const int out_h = 2 * height, out_w = 2 * width;
  for (int r = 0; r < out_h; ++r) {
    const int y = r / 2, fy = (r & 1) ? 128 : 0;
    const bool last_rows = r >= out_h - 2;
    // Rows past the image are never read: the last two output rows blend
    // along x only.
    const signed char* row0 = src + static_cast<size_t>(y) * width * n;
    const signed char* row1 = last_rows ? row0 : row0 + static_cast<size_t>(width) * n;
    signed char* o = dst + static_cast<size_t>(r) * out_w * n;
    for (int j = 0; j < out_w; ++j) {
      const int x = j / 2, fx = (j & 1) ? 128 : 0;
      const bool last_cols = j >= out_w - 2;
      const signed char* a = row0 + x * n;
      const signed char* c = row1 + x * n;
      for (int ch = 0; ch < n; ++ch) {
        int32_t v;
        if (!last_rows && !last_cols) {
          const int32_t t = a[ch] * (256 - fx) + a[n + ch] * fx;
          const int32_t u = c[ch] * (256 - fx) + c[n + ch] * fx;
          v = (u * fy + t * (256 - fy)) >> 16;
        } else if (!last_rows) {
          v = ((c[ch] * 256) * fy + (a[ch] * 256) * (256 - fy)) >> 16;
        } else if (!last_cols) {
          v = (a[ch] * (256 - fx) + a[n + ch] * fx) >> 8;
        } else {
          v = a[ch];
        }
        o[j * n + ch] = static_cast<signed char>(v);
      }
    }
  }
  return true;
}

int AlphaUpscale::Forward(const std::vector<NDArray*>& bottom_blobs,
                          std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& data = *bottom_blobs[0];
  NDArray& top = *top_blobs[0];
  const TShape& d = data.shape();
  const size_t in_image = static_cast<size_t>(d[1]) * d[2] * d[3];
  const signed char* in = data.dptr<signed char>();
  signed char* out = top.dptr<signed char>();
  for (index_t n = 0; n < d[0]; ++n) {
    upscale_2x_cpu_forward_kernel(static_cast<int>(d[3]), in + n * in_image, static_cast<int>(d[1]),
                                  static_cast<int>(d[2]), out + n * 4 * in_image);
  }
  top.shift_ = data.shift_;
  return 0;
}

Layer* AlphaPooling_layer_creator() { return new AlphaPooling(); }
Layer* AlphaUpscale_layer_creator() { return new AlphaUpscale(); }

}  // namespace ruvo
}  // namespace orvik
