#include "ruvo/src/layer/pooling_common.h"

#include <algorithm>
#include <cmath>

#include "orviklog/src/logging.h"

namespace orvik {
namespace ruvo {
namespace pool {

std::unordered_map<std::string, int32_t> pool_map = {
    {"max", kMaxPooling}, {"avg", kAvgPooling}, {"sum", kSumPooling}};
std::unordered_map<std::string, int32_t> pool_convention_map = {{"valid", kValid}, {"full", kFull}};

void PoolingAttrs::Parse(const LayerAttrs& attrs) {
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
  RUVO_BOOL_ATTR(attrs, "global_pool", "False", global_pool_symbol, global_pool_);
  // A zero stride divides by zero in the output size, a zero kernel makes
  // empty windows; a global pool sets both from the input.
  CHECK(global_pool_ || (kernel_[0] > 0 && kernel_[1] > 0 && stride_[0] > 0 && stride_[1] > 0))
      << "Pooling: kernel and stride must be positive";

  std::string pool_type_symbol;
  if (attrs.count("pool_type")) {
    pool_type_symbol = attrs.at("pool_type");
    CHECK(pool::pool_map.count(pool_type_symbol));
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "pool_type";
  }
  pool_type_ = pool_map[pool_type_symbol];
  RUVO_BOOL_ATTR(attrs, "legacy_shape", "False", legacy_shape_symbol, legacy_shape_);

  // The default's text is no key of the map: it is only counted when
  // given, and the look-up then adds it with the value of "valid".
  std::string pooling_convention_symbol = "kValid";
  if (attrs.count("pooling_convention")) {
    pooling_convention_symbol = attrs.at("pooling_convention");
    CHECK(pool::pool_convention_map.count(pooling_convention_symbol));
  }
  pooling_convention_ = pool_convention_map[pooling_convention_symbol];
}

bool ComputedPoolType(int32_t pool_type) {
  if (pool_type == kSumPooling) {
    RTC_LOG(LS_ENGINE) << "Unsupported yet!";
    return false;
  }
  if (pool_type != kMaxPooling && pool_type != kAvgPooling) {
    RTC_LOG(LS_ENGINE) << "Wrong pooling type!";
    return false;
  }
  return true;
}

TShape PoolingAttrs::InferShape(const std::vector<TShape>& in_shape) {
  CHECK_EQ(in_shape.size(), 1);
  const TShape& dshape = in_shape[0];
  CHECK_EQ(dshape.ndim(), 4) << "Pooling: Input data should be 4D in (batch, y, x, channel)";
  CHECK_EQ(kernel_.ndim(), 2) << "only 2D pooling is supported";
  TShape oshape = dshape;
  if (global_pool_) {
    oshape[1] = 1;
    oshape[2] = 1;
    kernel_ = TShape{dshape[1], dshape[2]};
    stride_ = TShape{1, 1};
    pad_ = TShape{0, 0};
  } else {
    for (int a = 0; a < 2; ++a) {
      const index_t in = dshape[1 + a], p = pad_[a], k = kernel_[a], s = stride_[a];
      if (legacy_shape_) {
        oshape[1 + a] = std::min(in + 2 * p - 1 - k + s, in + 2 * p - 1) / s + 1;
      } else if (pooling_convention_ == kFull) {
        oshape[1 + a] = static_cast<index_t>(
            ceilf(static_cast<float>(in + 2 * p - k) / static_cast<float>(s)) + 1);
      } else {
        oshape[1 + a] = (in + 2 * p - k) / s + 1;
      }
    }
  }
  CHECK(oshape[1] > 0 && oshape[2] > 0) << "Pooling: kernel size exceed input";
  return oshape;
}

}  // namespace pool
}  // namespace ruvo
}  // namespace orvik
