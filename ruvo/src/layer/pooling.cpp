#include "ruvo/src/layer/pooling.h"

#include "orviklog/src/logging.h"

namespace orvik {
namespace ruvo {

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
  if (!pool::ComputedPoolType(attrs_.pool_type_)) return 0;
  const int area = static_cast<int>(attrs_.kernel_[0] * attrs_.kernel_[1]);
  if (data.dtype() == kFloat32) {
    NDArray acc = resource_->GetInterBuf(0, TShape{ishape[3]}, kFloat32);
    pool::PoolWindows<float, float>(attrs_, data.dptr<float>(), out.dptr<float>(), ishape, oshape,
                                    acc.dptr<float>(),
                                    [area](float s) { return s / static_cast<float>(area); });
  } else if (data.dtype() == kInt8) {
    // Sums in 32 bits; the average truncates toward zero.
    NDArray acc = resource_->GetInterBuf(0, TShape{ishape[3]}, kInt32);
    pool::PoolWindows<signed char, int>(
        attrs_, data.dptr<signed char>(), out.dptr<signed char>(), ishape, oshape, acc.dptr<int>(),
        [area](int s) { return static_cast<signed char>(s / area); });
  } else {
    RTC_LOG(LS_ENGINE) << "Unknown type enum " << data.dtype();
  }
  return 0;
}

Layer* Pooling_layer_creator() { return new Pooling(); }

}  // namespace ruvo
}  // namespace orvik
