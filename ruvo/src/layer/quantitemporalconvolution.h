#ifndef RUVO_SRC_LAYER_QUANTITEMPORALCONVOLUTION_H_
#define RUVO_SRC_LAYER_QUANTITEMPORALCONVOLUTION_H_

#include "ruvo/layer.h"
#include "ruvo/src/layer/conv_common.h"
#include "ruvo/src/layer/quanti_util.h"

namespace orvik {
namespace ruvo {

// The streaming 8-bit convolution over time.  The batch axis of the data
// (B, 1, width, channels) is time: each Forward takes the next B frames and
// the layer keeps, in input_buff_, the frames its kernel still needs from
// earlier calls, so an output costs one GEMM row and old frames are never
// recomputed.  The kernel spans the whole frame; the output is
// (B, 1, 1, num_filter).  ResetInterBuff starts a stream from silence.
class QuantiTemporalConvolution : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return no_bias_ ? 2 : 3; }
  std::vector<std::string> ListArguments() const override;
  std::vector<std::string> ListAuxiliaryStates() const override;
  int ResetInterBuff() override;
  int UpdateInterBuff() override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;

  // kernel_ is (time taps, width); stride_ is parsed and checked but the
  // window always moves one frame per frame; dilate_[0] spaces the taps.
  conv::ConvAttrs attrs_;
  // Frames one output sees: (taps - 1) * time dilation + 1.
  uint32_t input_buff_frames_ = 1;
  bool no_bias_ = false;
  bool transpose_weight_ = true;
  bool use_activation_ = false;
  bool disable_output_quantization_ = false;
  bool vector_quanti_ = false;
  NDArray weight_shift_;
  NDArray weight_t_;
  // (B, input_buff_frames_, width, channels), 8-bit: slot t holds the window
  // ending in frame t of the last call; slot B-1 is the live window.
  NDArray input_buff_;
  bool prepared_ = false;

 private:
  // The one-frame step: weight packed once, and with dilated taps the
  // window's taps gathered into one row.
  quanti::PackedRowProduct product_;
  std::vector<signed char> taps_;

  void Prepare(const NDArray& data, const NDArray& weight, const std::vector<NDArray*>& aux_blobs);
  // Pushes the B frames of `data` through the live window, leaving in each
  // slot t the window that ends in frame t.
  void UpdateInputBuff(const signed char* data, index_t batch, size_t frame_bytes);
  // The im2col row of each time step: the kernel's taps of its window,
  // oldest first, into `rows` (B x taps * frame).
  void GetInputData(index_t batch, size_t frame_bytes, signed char* rows) const;
};

Layer* QuantiTemporalConvolution_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_QUANTITEMPORALCONVOLUTION_H_
