#include "ruvo/src/layer/pooling.h"

#include <algorithm>
#include <limits>

#include "orviklog/src/logging.h"

namespace orvik {
namespace ruvo {

namespace {

// One image plane after another; per output position the window is
// clipped to the image, and each window element adds one contiguous run
// of channels.  Acc is the accumulator type of the average.
template <typename T, typename Acc>
void PoolImage(const pool::PoolingAttrs& p, const T* in, T* out, int batch, int height, int width,
               int channels, int out_h, int out_w, Acc* acc) {
  const int area = static_cast<int>(p.kernel_[0] * p.kernel_[1]);
  for (int n = 0; n < batch; ++n) {
    const T* img = in + static_cast<size_t>(n) * height * width * channels;
    for (int oy = 0; oy < out_h; ++oy) {
      for (int ox = 0; ox < out_w; ++ox) {
        T* o = out + ((static_cast<size_t>(n) * out_h + oy) * out_w + ox) * channels;
        int y0 = oy * static_cast<int>(p.stride_[0]) - static_cast<int>(p.pad_[0]);
        const int y1 = std::min(y0 + static_cast<int>(p.kernel_[0]), height);
        y0 = std::max(y0, 0);
        int x0 = ox * static_cast<int>(p.stride_[1]) - static_cast<int>(p.pad_[1]);
        const int x1 = std::min(x0 + static_cast<int>(p.kernel_[1]), width);
        x0 = std::max(x0, 0);
        if (p.pool_type_ == pool::kAvgPooling) {
          std::fill(acc, acc + channels, Acc(0));
          for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
              const T* v = img + (static_cast<size_t>(y) * width + x) * channels;
              for (int c = 0; c < channels; ++c) acc[c] += v[c];
            }
          }
          for (int c = 0; c < channels; ++c) o[c] = static_cast<T>(acc[c] / static_cast<Acc>(area));
        } else {
          std::fill(o, o + channels, std::numeric_limits<T>::lowest());
          for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
              const T* v = img + (static_cast<size_t>(y) * width + x) * channels;
              for (int c = 0; c < channels; ++c) o[c] = std::max(o[c], v[c]);
            }
          }
        }
      }
    }
  }
}

}  // namespace

void Pooling::Init(const LayerAttrs& attrs) {
  attrs_.Parse(attrs);
  inited_ = true;
}

bool Pooling::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                         std::vector<TShape>& /*aux_shape*/) {
  out_shape.assign(1, attrs_.InferShape(in_shape));
  return true;
}

int Pooling::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                     std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& data = *bottom_blobs[0];
  NDArray& out = *top_blobs[0];
  const TShape& ishape = data.shape();
  const TShape& oshape = out.shape();
  CHECK_EQ(ishape.ndim(), 4) << "Input should be 4 dimensions";
  CHECK_EQ(oshape.ndim(), 4) << "Output should be 4 dimensions";
  if (attrs_.pool_type_ == pool::kSumPooling) {
    RTC_LOG(LS_ENGINE) << "Unsupported yet!";
    return 0;
  }
  if (attrs_.pool_type_ != pool::kMaxPooling && attrs_.pool_type_ != pool::kAvgPooling) {
    RTC_LOG(LS_ENGINE) << "Wrong pooling type!";
    return 0;
  }
  const int batch = static_cast<int>(ishape[0]), h = static_cast<int>(ishape[1]),
            w = static_cast<int>(ishape[2]), c = static_cast<int>(ishape[3]),
            oh = static_cast<int>(oshape[1]), ow = static_cast<int>(oshape[2]);
  if (data.dtype() == kFloat32) {
    NDArray acc = resource_->GetInterBuf(0, TShape{ishape[3]}, kFloat32);
    PoolImage<float, float>(attrs_, data.dptr<float>(), out.dptr<float>(), batch, h, w, c, oh, ow,
                            acc.dptr<float>());
  } else if (data.dtype() == kInt8) {
    // Sums in 32 bits; the average truncates toward zero.
    NDArray acc = resource_->GetInterBuf(0, TShape{ishape[3]}, kInt32);
    PoolImage<signed char, int>(attrs_, data.dptr<signed char>(), out.dptr<signed char>(), batch,
                                h, w, c, oh, ow, acc.dptr<int>());
  } else {
    RTC_LOG(LS_ENGINE) << "Unknown type enum " << data.dtype();
  }
  return 0;
}

Layer* Pooling_layer_creator() { return new Pooling(); }

}  // namespace ruvo
}  // namespace orvik
