#include "ruvo/src/layer/upsampling.h"

#include <cmath>
#include <cstring>

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/conv_common.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace upsample {
std::unordered_map<std::string, UpSamplingType> sample_map = {{"nearest", kNearest},
                                                              {"bilinear", kBilinear}};
std::unordered_map<std::string, UpSamplingMultiInputMode> multi_input_mode_map = {
    {"concat", kConcat}, {"sum", kSum}};
}  // namespace upsample

void UpSampling::Init(const LayerAttrs& attrs) {
  scale_ = 1;
  if (attrs.count("scale")) ReadAttrValue(attrs.at("scale"), &scale_);
  CHECK(scale_ >= 1 && scale_ <= 1000);
  num_filter_ = 0;
  if (attrs.count("num_filter")) ReadAttrValue(attrs.at("num_filter"), &num_filter_);
  std::string sample_type_symbol;
  if (attrs.count("sample_type")) {
    sample_type_symbol = attrs.at("sample_type");
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "sample_type";
  }
  CHECK(upsample::sample_map.count(sample_type_symbol));
  sample_type_ = upsample::sample_map[sample_type_symbol];
  // Absent, the look-up adds the empty text with the first mode.
  const std::string multi_input_mode_symbol = AttrText(attrs, "multi_input_mode", "");
  if (attrs.count("multi_input_mode")) {
    CHECK(upsample::multi_input_mode_map.count(multi_input_mode_symbol));
  }
  multi_input_mode_ = upsample::multi_input_mode_map[multi_input_mode_symbol];
  num_args_ = 1;
  if (attrs.count("num_args")) ReadAttrValue(attrs.at("num_args"), &num_args_);
  CHECK(num_args_ >= 1);
  inited_ = true;
}

bool UpSampling::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                            std::vector<TShape>& /*aux_shape*/) {
  out_shape.resize(1);
  if (sample_type_ == upsample::kNearest) {
    CHECK_EQ(in_shape.size(), static_cast<size_t>(num_args_));
    TShape oshape = in_shape[0];
    if (oshape.ndim() == 0) return false;
    oshape[3] = 0;
    for (const TShape& shape : in_shape) {
      CHECK_EQ(shape.ndim(), 4U) << "UpSamplingNearest: Input data should be 4D in (batch, "
                                    "channel, y, x)";
      const index_t oh = scale_ * in_shape[0][1], ow = scale_ * in_shape[0][2];
      CHECK_EQ(oh % shape[1], 0U) << "UpSamplingNearest: input height of " << shape[1]
                                  << "does not divide output height of " << oh;
      CHECK_EQ(ow % shape[2], 0U) << "UpSamplingNearest: input width of " << shape[2]
                                  << "does not divide output width of " << ow;
      if (multi_input_mode_ == upsample::kSum) {
        CHECK(oshape[3] == 0 || oshape[3] == shape[1])
            << "Number of channels must be the same when multi_input_mode==sum";
        oshape[3] = shape[1];
      } else {
        oshape[3] += shape[3];
      }
    }
    oshape[1] = in_shape[0][1] * scale_;
    oshape[2] = in_shape[0][2] * scale_;
    out_shape[0] = oshape;
  } else {
    CHECK_EQ(in_shape.size(), 2U) << "Input:[data, weight]";
    const TShape dshape = in_shape[0];
    if (dshape.ndim() == 0) return false;
    CHECK_EQ(dshape.ndim(), 4U) << "UpSamplingBilinear: Input data should be 4D in (batch, "
                                   "channel, y, x)";
    const index_t kernel = 2 * scale_ - scale_ % 2;
    using conv::Shape4;
    RUVO_SHAPE_ASSIGN_CHECK(in_shape[1], Shape4(dshape[1], 1, kernel, kernel));
    TShape oshape = dshape;
    oshape[1] = dshape[1] * scale_;
    oshape[2] = dshape[2] * scale_;
    out_shape[0] = oshape;
  }
  return true;
}

bool UpSampling::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                           std::vector<int>& /*aux_type*/) {
  if (sample_type_ == upsample::kNearest && num_args_ == 1) {
    CHECK_EQ(in_type.size(), 1) << "Input:[data]";
  }
  const int dtype = in_type[0];
  CHECK(dtype != -1) << "First input must have specified type.";
  for (size_t i = 1; i < in_type.size(); ++i) {
    if (in_type[i] == -1) in_type[i] = dtype;
    CHECK(in_type[i] == dtype);
  }
  out_type.assign(1, dtype);
  return true;
}

void nearest_upsampling(const NDArray& data, NDArray& out, const TShape& ishape,
                        const TShape& oshape, float scale) {
  const index_t channels = ishape[3];
  const float* src = data.dptr<float>();
  float* dst = out.dptr<float>();
  for (index_t b = 0; b < oshape[0]; ++b) {
    for (index_t y = 0; y < oshape[1]; ++y) {
      const index_t sy = static_cast<index_t>(floorf(static_cast<float>(y) / scale));
      for (index_t x = 0; x < oshape[2]; ++x) {
        const index_t sx = static_cast<index_t>(floorf(static_cast<float>(x) / scale));
        const float* s = src + ((static_cast<size_t>(b) * ishape[1] + sy) * ishape[2] + sx) *
                                   channels;
        float* d = dst + ((static_cast<size_t>(b) * oshape[1] + y) * oshape[2] + x) * channels;
        std::memcpy(d, s, channels * sizeof(float));
      }
    }
  }
}

int UpSampling::Forward(const std::vector<NDArray*>& bottom_blobs,
                        std::vector<NDArray*>& top_blobs, std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), static_cast<size_t>(num_args_))
      << "Input should contains original ndarray and scales";
  CHECK_EQ(top_blobs.size(), 1);
  if (num_args_ >= 2) {
    RTC_LOG(LS_INFO) << "num_args is greater than 1";
    return 0;
  }
  if (sample_type_ == upsample::kBilinear) {
    RTC_LOG(LS_INFO) << "sampel type is bilinear";
    return 0;
  }
  nearest_upsampling(*bottom_blobs[0], *top_blobs[0], bottom_blobs[0]->shape(),
                     top_blobs[0]->shape(), static_cast<float>(scale_));
  return 0;
}

Layer* UpSampling_layer_creator() { return new UpSampling(); }

}  // namespace ruvo
}  // namespace orvik
