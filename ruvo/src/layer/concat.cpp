#include "ruvo/src/layer/concat.h"

#include <cstring>

#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

void Concat::Init(const LayerAttrs& attrs) {
  std::string num_args_symbol;
  if (attrs.count("num_args")) {
    num_args_symbol = attrs.at("num_args");
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "num_args";
  }
  num_args_ = 0;
  ReadAttrValue(num_args_symbol, &num_args_);
  CHECK((num_args_ >= 1));
  dim_ = 1;
  ReadAttrValue(AttrText(attrs, "dim", "1"), &dim_);
  // Joining along the batch is not supported.
  CHECK((dim_ > 0 && dim_ <= 4));
  RUVO_BOOL_ATTR(attrs, "auto_channel_switch", "False", str_auto_c, auto_channel_switch_);
  inited_ = true;
}

std::vector<std::string> Concat::ListArguments() const {
  std::vector<std::string> args;
  for (int i = 0; i < num_args_; ++i) args.push_back("arg" + std::to_string(i));
  return args;
}

std::vector<uint32_t> Concat::GetInputBatchBlobs() const {
  std::vector<uint32_t> ids;
  for (int i = 0; i < num_args_; ++i) ids.push_back(static_cast<uint32_t>(i));
  return ids;
}

bool Concat::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                        std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), static_cast<size_t>(num_args_));
  // The first known input is the reference.
  TShape tmp;
  for (const TShape& s : in_shape) {
    if (s.ndim() != 0) {
      tmp = s;
      break;
    }
  }
  if (tmp.ndim() == 0) return false;
  {
    const TShape& dshape = tmp;
    if (auto_channel_switch_) {
      CHECK(dshape.ndim() == 4 && dim_ == 1)
          << "Set auto_channel_switch to false if not concat on channel between conv outputs";
    } else {
      CHECK_LT(static_cast<index_t>(dim_), dshape.ndim())
          << "the dimension to be concated is not in the range of input's dimension";
    }
  }
  const int axis = Axis();
  index_t total = 0;
  bool all_known = true;
  for (const TShape& dshape : in_shape) {
    if (dshape.ndim() == 0) {
      all_known = false;
      continue;
    }
    CHECK_GT(dshape.ndim(), 1);
    CHECK_EQ(dshape.ndim(), tmp.ndim());
    for (uint32_t j = 0; j < tmp.ndim(); ++j) {
      if (static_cast<int>(j) == axis) continue;
      CHECK_EQ(dshape[j], tmp[j]);
    }
    total += dshape[axis];
  }
  if (!all_known) return false;
  TShape oshape = tmp;
  oshape[axis] = total;
  out_shape.clear();
  out_shape.push_back(oshape);
  return true;
}

bool Concat::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                       std::vector<int>& /*aux_type*/) {
  int dtype = -1;
  for (int type : in_type) {
    if (dtype == -1) {
      dtype = type;
    } else {
      CHECK(type == dtype || type == -1) << "Non-uniform data type in Concat";
    }
  }
  if (dtype == -1) {
    RTC_LOG(LS_ENGINE) << "Not enough information to infer type in Concat.";
    return false;
  }
  for (int& type : in_type) type = dtype;
  out_type.clear();
  out_type.push_back(dtype);
  return true;
}

int Concat::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                    std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(static_cast<int>(bottom_blobs.size()), num_args_);
  CHECK_EQ(top_blobs.size(), 1);
  NDArray& out = *top_blobs[0];
  const int dimension_ = Axis();
  const int in_dim = static_cast<int>(out.shape().ndim());
  CHECK_LT(dimension_, in_dim);

  // Every tensor as (outer, axis * inner): for each outer index the inputs'
  // runs follow one another in the output.
  const index_t outer = [&] {
    index_t p = 1;
    for (int i = 0; i < dimension_; ++i) p *= out.shape()[i];
    return p;
  }();
  const size_t elem = orvik_sizeof(out.dtype());
  const size_t out_run = static_cast<size_t>(ProdFrom(out.shape(), dimension_)) * elem;
  char* dst = RawData(out);
  size_t offset = 0;
  for (const NDArray* in : bottom_blobs) {
    const size_t run = static_cast<size_t>(ProdFrom(in->shape(), dimension_)) * elem;
    const char* src = RawData(*in);
    for (index_t o = 0; o < outer; ++o) {
      memcpy(dst + o * out_run + offset, src + o * run, run);
    }
    offset += run;
  }
  return 0;
}

Layer* Concat_layer_creator() { return new Concat(); }

}  // namespace ruvo
}  // namespace orvik
