#include "ruvo/src/layer/slice.h"

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"
#include "ruvo/src/layer/slice_axis.h"

namespace orvik {
namespace ruvo {

void slice::Init(const LayerAttrs& attrs) {
  for (const char* key : {"begin", "end"}) {
    if (!attrs.count(key)) RTC_LOG(LS_ENGINE) << "Invalid key: " << key;
  }
  const std::vector<int> begin =
      attrs.count("begin") ? ParseSignedTuple(attrs.at("begin"), "begin") : std::vector<int>();
  const std::vector<int> end =
      attrs.count("end") ? ParseSignedTuple(attrs.at("end"), "end") : std::vector<int>();
  axis_ = -1;
  begin_ = kNoneValue;
  end_ = kNoneValue;
  for (size_t i = 0; i < begin.size() || i < end.size(); ++i) {
    const int b = i < begin.size() ? begin[i] : kNoneValue;
    const int e = i < end.size() ? end[i] : kNoneValue;
    if (b == kNoneValue && e == kNoneValue) continue;
    CHECK(axis_ < 0) << "Only support slice on one axis";
    axis_ = static_cast<int>(i);
    begin_ = b;
    end_ = e;
  }
  inited_ = true;
}

void slice::Resolve(const TShape& ishape, int* axis, int* begin, int* end) const {
  if (axis_ < 0) {
    // Nothing sliced: the whole of axis 0.
    *axis = 0;
    *begin = 0;
    *end = static_cast<int>(ishape[0]);
    return;
  }
  Slice_axis::GetSliceAxisParams(axis_, begin_, end_, ishape, axis, begin, end);
}

bool slice::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                       std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  const TShape& ishape = in_shape[0];
  if (ishape.ndim() == 0) return false;
  CHECK(ishape.ndim() <= 4) << "Input should be less than or equal to 4 dimensions";
  int axis = 0;
  int begin = 0;
  int end = 0;
  Resolve(ishape, &axis, &begin, &end);
  TShape oshape = ishape;
  oshape[axis] = static_cast<index_t>(end - begin);
  out_shape.clear();
  out_shape.push_back(oshape);
  return true;
}

bool slice::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                      std::vector<int>& /*aux_type*/) {
  CHECK_EQ(in_type.size(), 1) << "Input:[data]";
  // Any element type passes through; an unknown one stays unknown.
  out_type.clear();
  out_type.push_back(in_type[0]);
  return in_type[0] != -1;
}

int slice::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                   std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  int axis = 0;
  int begin = 0;
  int end = 0;
  Resolve(bottom_blobs[0]->shape(), &axis, &begin, &end);
  CopyAxisRange(*bottom_blobs[0], top_blobs[0], axis, begin, end);
  return 0;
}

Layer* slice_layer_creator() { return new slice(); }

}  // namespace ruvo
}  // namespace orvik
