#include "ruvo/src/layer/flatten.h"

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

void Flatten::Init(const LayerAttrs& attrs) {
  RUVO_BOOL_ATTR(attrs, "auto_channel_switch", "True", str_auto_chn_sw, auto_channel_switch_);
  inited_ = true;
}

bool Flatten::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                         std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input: [Data]";
  const TShape& dshape = in_shape[0];
  if (dshape.ndim() == 0) return false;
  if (auto_channel_switch_) {
    CHECK_EQ(dshape.ndim(), 4)
        << "Set auto_channel_switch to false if the flatten's input is not conv's output";
  }
  out_shape.clear();
  out_shape.push_back(Shape2(dshape[0], ProdFrom(dshape, 1)));
  return true;
}

int Flatten::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                     std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray* data = bottom_blobs[0];
  NDArray* out = top_blobs[0];
  CHECK_EQ(data->Size(), out->Size());
  if (!auto_channel_switch_) {
    out->SyncCopyFrom(RawData(*data), data->Size());
    return 0;
  }
  // (batch, y, x, channel) -> (batch, channel, x, y).
  const TShape& s = data->shape();
  const int dims[5] = {static_cast<int>(s[0]), static_cast<int>(s[1]), static_cast<int>(s[2]),
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

Layer* Flatten_layer_creator() { return new Flatten(); }

}  // namespace ruvo
}  // namespace orvik
