#include "ruvo/src/layer/slice_axis.h"

#include <cstring>
#include <string>

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace {

std::string ValueText(int v) { return v == kNoneValue ? "None" : std::to_string(v); }

}  // namespace

namespace Slice_axis {

void GetSliceAxisParams(int param_axis, int param_begin, int param_end, const TShape& ishape,
                        int* axis, int* begin, int* end) {
  *axis = param_axis < 0 ? param_axis + static_cast<int>(ishape.ndim()) : param_axis;
  CHECK(*axis < static_cast<int>(ishape.ndim()) && *axis >= 0)
      << "Transformed axis must be smaller than the source ndim and larger than zero! Recieved "
         "axis="
      << param_axis << ", src_ndim=" << ishape.ndim() << ", transformed axis=" << *axis;
  const int axis_size = static_cast<int>(ishape[*axis]);
  *begin = param_begin == kNoneValue ? 0 : param_begin;
  if (*begin < 0) *begin += axis_size;
  if (param_end == kNoneValue) {
    *end = axis_size;
  } else {
    *end = param_end < 0 ? param_end + axis_size : param_end;
  }
  CHECK((*end <= axis_size) && (*end >= 0))
      << "Invalid begin, end, get begin=" << ValueText(param_begin)
      << ", end=" << ValueText(param_end);
  CHECK((*begin < *end) && (*begin >= 0))
      << "Invalid begin, end, get begin=" << ValueText(param_begin)
      << ", end=" << ValueText(param_end);
}

}  // namespace Slice_axis

void CopyAxisRange(const NDArray& in, NDArray* out, int axis, int begin, int end) {
  const int dtype = in.dtype();
  if (dtype != kFloat32 && dtype != kInt32 && dtype != kInt8) {
    RTC_LOG(LS_ENGINE) << "Unknown type enum " << dtype;
    return;
  }
  const TShape& s = in.shape();
  index_t outer = 1;
  for (int i = 0; i < axis; ++i) outer *= s[i];
  const size_t elem = orvik_sizeof(dtype);
  // One contiguous run per outer index: the axis range times everything
  // behind the axis.
  const size_t inner = static_cast<size_t>(ProdFrom(s, axis + 1)) * elem;
  const size_t in_step = s[axis] * inner;
  const size_t run = static_cast<size_t>(end - begin) * inner;
  const char* src = RawData(in) + begin * inner;
  char* dst = RawData(*out);
  for (index_t o = 0; o < outer; ++o) memcpy(dst + o * run, src + o * in_step, run);
}

void slice_axis::Init(const LayerAttrs& attrs) {
  for (const char* key : {"axis", "begin", "end"}) {
    if (!attrs.count(key)) RTC_LOG(LS_ENGINE) << "Invalid key: " << key;
  }
  axis_ = attrs.count("axis") ? ParseIntOrNone(attrs.at("axis"), "axis") : 0;
  CHECK_NE(axis_, kNoneValue) << "axis can't be None";
  begin_ = attrs.count("begin") ? ParseIntOrNone(attrs.at("begin"), "begin") : 0;
  end_ = attrs.count("end") ? ParseIntOrNone(attrs.at("end"), "end") : kNoneValue;
  inited_ = true;
}

bool slice_axis::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                            std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  const TShape& ishape = in_shape[0];
  if (ishape.ndim() == 0) return false;
  int axis = 0;
  int begin = 0;
  int end = 0;
  Slice_axis::GetSliceAxisParams(axis_, begin_, end_, ishape, &axis, &begin, &end);
  TShape oshape = ishape;
  oshape[axis] = static_cast<index_t>(end - begin);
  out_shape.clear();
  out_shape.push_back(oshape);
  return true;
}

int slice_axis::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                        std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  int axis = 0;
  int begin = 0;
  int end = 0;
  Slice_axis::GetSliceAxisParams(axis_, begin_, end_, bottom_blobs[0]->shape(), &axis, &begin,
                                 &end);
  CopyAxisRange(*bottom_blobs[0], top_blobs[0], axis, begin, end);
  return 0;
}

Layer* slice_axis_layer_creator() { return new slice_axis(); }

}  // namespace ruvo
}  // namespace orvik
