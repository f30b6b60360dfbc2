#ifndef RUVO_SRC_LAYER_RNN_H_
#define RUVO_SRC_LAYER_RNN_H_

#include <string>
#include <unordered_map>

#include "ruvo/layer.h"

namespace orvik {
namespace ruvo {

namespace rnn {
enum RNNMode { kRnnRelu = 0, kRnnTanh = 1, kLstm = 2, kGru = 3 };
extern std::unordered_map<std::string, int> mode_map;
}  // namespace rnn

// Parameter, bias, work and reserve sizes in floats.
size_t GetRnnParamSize(int num_layer, int input_size, int state_size, int direction, int mode);
size_t GetRnnBiasSize(int num_layer, int state_size, int direction, int mode);
size_t GetRnnWorkspaceSize(int seq_length, int batch_size, int hidden_size, int direction,
                           int mode);
size_t GetRnnReserveSpaceSize(int num_layer, int direction, int seq_length, int batch_size,
                              int hidden_size, int mode);

// Recurrent layer over data (T, N, I) with one flat parameter array:
// every layer's and direction's input and hidden weights (4H rows each,
// gates i, f, g, o), then all biases.  Only the LSTM computes; the states
// come in as inputs.
class Rnn : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override;
  uint32_t get_num_outputs() const override;
  std::vector<std::string> ListArguments() const override;
  std::vector<std::string> ListOutputs() const override;
  bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                  std::vector<TShape>& aux_shape) override;
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  void Init(const LayerAttrs& attrs) override;

  uint32_t state_size_ = 0;
  uint32_t num_layers_ = 0;
  bool bidirectional_ = false;
  bool state_outputs_ = false;
  bool state_inputs_ = false;
  int mode_ = rnn::kLstm;
  float p_ = 0.0f;
  uint32_t seq_length_ = 0;
  uint32_t batch_size_ = 0;
  uint32_t input_size_ = 0;
  // The LSTM weights packed at the first Forward, for that input size.
  NDArray packed_;
  uint32_t packed_input_size_ = 0;
};

// Size in floats of the LSTM weights packed for the fused gate product, and
// the packing: per layer and direction the (I + H, 4H) transpose of
// [wx | wh], then bx + bh.
size_t PackedLstmSize(int num_layer, int input_size, int state_size, int direction);
void PackLstmWeights(int num_layer, int direction, int input_size, int state_size,
                     const float* w_ptr, const float* b_ptr, float* packed);
// Inference of all layers and directions; ws holds GetRnnWorkspaceSize
// floats, xh batch * (max(input, H * direction) + H).  hy_ptr and cy_ptr
// are written only with state_outputs.
void RNNForwardInference(float* ws, float* xh, bool state_outputs, int num_layers, int direction,
                         int seq_length, int batch_size, int input_size, int state_size,
                         const float* x_ptr, const float* hx_ptr, const float* cx_ptr,
                         const float* packed, float* y_ptr, float* hy_ptr, float* cy_ptr,
                         int mode);
Layer* Rnn_layer_creator();

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_LAYER_RNN_H_
