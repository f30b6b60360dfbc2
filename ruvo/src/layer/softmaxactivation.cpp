#include "ruvo/src/layer/softmaxactivation.h"

#include "orvik_blas_64/src/softmax_function.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace softmax {
const std::unordered_map<std::string, SoftmaxType> mode_map = {{"instance", kInstance},
                                                               {"channel", kChannel}};
}  // namespace softmax

void SoftmaxActivation::Init(const LayerAttrs& attrs) {
  std::string str_mode = AttrText(attrs, "mode", "instance");
  CHECK((softmax::mode_map.count(str_mode)));
  mode_ = softmax::mode_map.at(str_mode);
  inited_ = true;
}

bool SoftmaxActivation::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                                   std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), 1) << "Input:[data]";
  const TShape& dshape = in_shape[0];
  if (dshape.ndim() == 0) return false;
  out_shape.clear();
  out_shape.push_back(dshape);
  return true;
}

int SoftmaxActivation::Forward(const std::vector<NDArray*>& bottom_blobs,
                               std::vector<NDArray*>& top_blobs,
                               std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK_EQ(bottom_blobs.size(), 1);
  CHECK_EQ(top_blobs.size(), 1);
  const NDArray& in = *bottom_blobs[softmax::kData];
  NDArray& out = *top_blobs[0];
  const float* src = in.dptr<float>();
  float* dst = out.dptr<float>();
  if (mode_ == softmax::kInstance) {
    // One softmax over everything in each batch row.
    const index_t batch = in.shape()[0];
    const index_t count = ProdFrom(in.shape(), 1);
    for (index_t n = 0; n < batch; ++n) {
      math::softmax(src + n * count, dst + n * count, static_cast<int>(count));
    }
    return 0;
  }
  CHECK_GE(bottom_blobs[softmax::kData]->ndim(), 3)
      << "Input need to have a least 3 dimensions when mode=channel";
  // Channel-last: the channels of one position are adjacent.
  const index_t channels = in.shape()[in.shape().ndim() - 1];
  const index_t runs = in.Size() / channels;
  for (index_t r = 0; r < runs; ++r) {
    math::softmax(src + r * channels, dst + r * channels, static_cast<int>(channels));
  }
  return 0;
}

Layer* SoftmaxActivation_layer_creator() { return new SoftmaxActivation(); }

}  // namespace ruvo
}  // namespace orvik
