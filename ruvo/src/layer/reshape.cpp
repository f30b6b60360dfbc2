#include "ruvo/src/layer/reshape.h"

#include <algorithm>
#include <cstring>

#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace {

TShape ToShape(const std::vector<int>& v) {
  TShape s(static_cast<uint32_t>(v.size()));
  for (size_t i = 0; i < v.size(); ++i) s[i] = static_cast<index_t>(v[i]);
  return s;
}

std::vector<int> ToSigned(const TShape& s) {
  std::vector<int> v;
  for (uint32_t i = 0; i < s.ndim(); ++i) v.push_back(static_cast<int>(s[i]));
  return v;
}

}  // namespace

TShape InferReshapeShape(const std::vector<int>& shape, const TShape& dshape, bool reverse) {
  std::vector<int> dshape_vec;
  for (uint32_t i = 0; i < dshape.ndim(); ++i) dshape_vec.push_back(static_cast<int>(dshape[i]));
  std::vector<int> param_shape_vec(shape.begin(), shape.end());
  if (reverse) {
    std::reverse(dshape_vec.begin(), dshape_vec.end());
    std::reverse(param_shape_vec.begin(), param_shape_vec.end());
  }
  const size_t dshape_len = dshape_vec.size();
  const size_t params_len = param_shape_vec.size();
  std::vector<int> tmp;
  size_t src_idx = 0;
  int inf_idx = -1;
  for (size_t i = 0; i < params_len; ++i) {
    const int proposed_dim = param_shape_vec[i];
    if (proposed_dim == 0) {
      CHECK_LT(src_idx, dshape_len);
      tmp.push_back(dshape_vec[src_idx++]);
    } else if (proposed_dim == -1) {
      CHECK_LT(inf_idx, 0) << "One and only one dim can be inferred";
      inf_idx = static_cast<int>(tmp.size());
      tmp.push_back(1);
      src_idx++;
    } else if (proposed_dim == -2) {
      while (src_idx < dshape_len) tmp.push_back(dshape_vec[src_idx++]);
    } else if (proposed_dim == -3) {
      CHECK_LT(src_idx, dshape_len);
      const int d1 = dshape_vec[src_idx++];
      CHECK_LT(src_idx, dshape_len);
      const int d2 = dshape_vec[src_idx++];
      tmp.push_back(d1 * d2);
    } else if (proposed_dim == -4) {
      CHECK_LT(i + 2, params_len);
      CHECK_LT(src_idx, dshape_len);
      const int d0 = dshape_vec[src_idx++];
      int d1 = param_shape_vec[++i];
      int d2 = param_shape_vec[++i];
      CHECK(d1 != -1 || d2 != -1) << "Split dims cannot both be -1.";
      if (d1 == -1 && d2 != 0) d1 = d0 / d2;
      if (d2 == -1 && d1 != 0) d2 = d0 / d1;
      CHECK_EQ(d1 * d2, static_cast<int>(d0));
      tmp.push_back(d1);
      tmp.push_back(d2);
    } else {
      CHECK_GT(proposed_dim, 0) << "Invalid reshape value " << proposed_dim;
      tmp.push_back(proposed_dim);
      src_idx++;
    }
  }
  if (inf_idx >= 0) {
    int64_t known = 1;
    for (int x : tmp) known *= x;
    tmp[inf_idx] = known == 0 ? 0 : static_cast<int>(static_cast<int64_t>(dshape.Size()) / known);
  }
  if (reverse) std::reverse(tmp.begin(), tmp.end());
  return ToShape(tmp);
}

void Reshape::Init(const LayerAttrs& attrs) {
  if (attrs.count("target_shape")) {
    target_shape_ = ToShape(ParseSignedTuple(attrs.at("target_shape"), "target_shape"));
    CHECK(target_shape_.ndim() == 2);
  }
  if (attrs.count("shape")) {
    shape_ = ToShape(ParseSignedTuple(attrs.at("shape"), "shape"));
    CHECK(shape_.ndim() > 0);
  }
  RUVO_BOOL_ATTR(attrs, "keep_highest", "False", keep_highest_symbol, keep_highest_);
  RUVO_BOOL_ATTR(attrs, "reverse", "False", reverse_symbol, reverse_);
  inited_ = true;
}

bool Reshape::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                         std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  CHECK_EQ(out_shape.size(), 1);
  const TShape dshape = in_shape[0];
  if (dshape.ndim() == 0) return false;
  CHECK(shape_.ndim() != 0 || target_shape_.ndim() != 0)
      << "target shape or shape must be present.";
  TShape oshape;
  if (shape_.ndim() != 0) {
    oshape = InferReshapeShape(ToSigned(shape_), dshape, reverse_);
  } else {
    // The older form: a 0 is inferred from the rest; keep_highest keeps the
    // batch.
    oshape = target_shape_;
    const uint32_t start_idx = keep_highest_ ? 1 : 0;
    if (keep_highest_) oshape[0] = dshape[0];
    int neg_count = 0;
    uint32_t inf_idx = 0;
    for (uint32_t i = start_idx; i < oshape.ndim(); ++i) {
      if (oshape[i] == 0) {
        ++neg_count;
        inf_idx = i;
      }
    }
    if (neg_count == 1) {
      oshape[inf_idx] = 1;
      const index_t known = oshape.Size();
      oshape[inf_idx] = known == 0 ? 0 : dshape.Size() / known;
    }
  }
  CHECK_EQ(oshape.Size(), dshape.Size())
      << "Target shape size is different to source. Target: " << oshape << "\nSource: " << dshape;
  RUVO_SHAPE_ASSIGN_CHECK(out_shape[0], oshape);
  return true;
}

int Reshape::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                     std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray* data = bottom_blobs[0];
  NDArray* out = top_blobs[0];
  CHECK_EQ(data->Size(), out->Size());
  const char* src = RawData(*data);
  char* dst = RawData(*out);
  // In place (planned onto the input's storage) nothing moves.
  if (src != dst) memcpy(dst, src, static_cast<size_t>(data->Size()) * orvik_sizeof(data->dtype()));
  return 0;
}

Layer* Reshape_layer_creator() { return new Reshape(); }

}  // namespace ruvo
}  // namespace orvik
