#include "ruvo/src/layer/rnn.h"

#include <algorithm>
#include <cmath>

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"
#include "ruvo/src/layer/layer_util.h"

namespace orvik {
namespace ruvo {

namespace rnn {
std::unordered_map<std::string, int> mode_map = {
    {"rnn_reln", kRnnRelu}, {"rnn_tanh", kRnnTanh}, {"lstm", kLstm}, {"gru", kGru}};
}  // namespace rnn

namespace {

size_t Gates(int mode) { return mode == rnn::kLstm ? 4 : mode == rnn::kGru ? 3 : 1; }

inline float Sigmoid(float x) { return 1.0f / (1.0f + expf(-x)); }

// Rows of one layer-direction's packed gate weights: the input size, then H.
int PackedRows(int l, int I, int H, int D) { return (l == 0 ? I : H * D) + H; }

// One direction of one layer over all time steps.  `wt` is the packed
// (I + H, 4H) matrix [wx | wh] transposed, `bias` bx + bh (4H); x is
// (T * N, I), y is (T, N, H * D) and this direction writes its H columns at
// `offset`.  `xh` is scratch of N * (I + H) floats.
void LstmForwardInferenceSingleLayer(float* ws, float* xh, bool state_outputs, bool reverse, int T,
                                     int N, int I, int H, int D, const float* x, const float* hx,
                                     const float* cx, const float* wt, const float* bias,
                                     float* y, float* hy, float* cy) {
  const int G = 4 * H;
  const int K = I + H;
  float* gates = ws + static_cast<size_t>(T) * N * G;
  float* h = gates + static_cast<size_t>(N) * G;
  float* c = h + static_cast<size_t>(N) * H;
  const int offset = reverse ? H : 0;
  for (int i = 0; i < T; ++i) {
    const int t = reverse ? T - 1 - i : i;
    const float* hprev = i == 0 ? hx : h;
    const float* cprev = i == 0 ? cx : c;
    // All four gates of a row in one product: [x_t, h] times the packed
    // weights, added onto the biases.
    for (int j = 0; j < N; ++j) {
      math::orvik_copy<float>(I, x + (static_cast<size_t>(t) * N + j) * I, xh + j * K);
      math::orvik_copy<float>(H, hprev + j * H, xh + j * K + I);
      math::orvik_copy<float>(G, bias, gates + j * G);
    }
    math::orvik_cpu_gemm<float>(CblasNoTrans, CblasNoTrans, N, G, K, 1.0f, xh, wt, 1.0f, gates);
    for (int j = 0; j < N; ++j) {
      const float* s = gates + static_cast<size_t>(j) * G;
      float* yrow = y + (static_cast<size_t>(t) * N + j) * H * D + offset;
      for (int k = 0; k < H; ++k) {
        const float it = Sigmoid(s[k]);
        const float ft = Sigmoid(s[H + k]);
        const float gt = tanhf(s[2 * H + k]);
        const float ot = Sigmoid(s[3 * H + k]);
        const float ct = cprev[j * H + k] * ft + it * gt;
        const float ht = ot * tanhf(ct);
        // hprev may be h itself: it was copied into xh before the product,
        // and cprev[j * H + k] is read before c[j * H + k] is written.
        h[j * H + k] = ht;
        c[j * H + k] = ct;
        yrow[k] = ht;
        if (state_outputs && i == T - 1) {
          hy[j * H + k] = ht;
          cy[j * H + k] = ct;
        }
      }
    }
  }
}

void LstmForwardInference(float* ws, float* xh, bool state_outputs, int L, int D, int T, int N,
                          int I, int H, const float* x, const float* hx, const float* cx,
                          const float* packed, float* y, float* hy, float* cy) {
  const int cell = N * H;
  float* y_tmp = ws + static_cast<size_t>(T + 1) * cell * 4 + cell * 2;
  // Layers alternate between the temporary area and the real output so
  // that the last one lands in the real output.
  bool flag = L % 2 == 0;
  int idx = 0;
  for (int l = 0; l < L; ++l) {
    // This layer-direction's packed weights and its bias behind them.
    const size_t p_size = static_cast<size_t>(I + H + 1) * 4 * H;
    const float* bias = packed + p_size - 4 * H;
    float* y_cur = y;
    if (D == 2) {
      y_cur = flag ? y_tmp : y;
      flag = !flag;
    }
    LstmForwardInferenceSingleLayer(ws, xh, state_outputs, false, T, N, I, H, D, x,
                                    hx + idx * cell, cx + idx * cell, packed, bias, y_cur, hy, cy);
    if (D == 2) {
      packed += p_size;
      bias += p_size;
      ++idx;
      if (state_outputs) {
        hy += cell;
        cy += cell;
      }
      LstmForwardInferenceSingleLayer(ws, xh, state_outputs, true, T, N, I, H, D, x,
                                      hx + idx * cell, cx + idx * cell, packed, bias, y_cur, hy,
                                      cy);
    }
    if (l + 1 < L) {
      packed += p_size;
      ++idx;
      if (state_outputs) {
        hy += cell;
        cy += cell;
      }
      x = y_cur;
      I = H * D;
    }
  }
}

}  // namespace

size_t PackedLstmSize(int num_layer, int input_size, int state_size, int direction) {
  size_t n = 0;
  for (int l = 0; l < num_layer; ++l) {
    n += static_cast<size_t>(direction) * (PackedRows(l, input_size, state_size, direction) + 1) *
         4 * state_size;
  }
  return n;
}

void PackLstmWeights(int num_layer, int direction, int input_size, int state_size,
                     const float* w_ptr, const float* b_ptr, float* packed) {
  const int H = state_size, G = 4 * H;
  for (int l = 0; l < num_layer; ++l) {
    const int I = l == 0 ? input_size : H * direction;
    for (int d = 0; d < direction; ++d) {
      const float* wx = w_ptr;
      const float* wh = w_ptr + static_cast<size_t>(G) * I;
      // Row r of the packed matrix holds weight column r of every gate row.
      for (int r = 0; r < I + H; ++r) {
        for (int g = 0; g < G; ++g) {
          packed[static_cast<size_t>(r) * G + g] =
              r < I ? wx[static_cast<size_t>(g) * I + r] : wh[static_cast<size_t>(g) * H + r - I];
        }
      }
      packed += static_cast<size_t>(I + H) * G;
      for (int g = 0; g < G; ++g) packed[g] = b_ptr[g] + b_ptr[G + g];
      packed += G;
      w_ptr += static_cast<size_t>(I + H) * G;
      b_ptr += 2 * G;
    }
  }
}

size_t GetRnnParamSize(int num_layer, int input_size, int state_size, int direction, int mode) {
  const size_t s = static_cast<size_t>(state_size) * direction * Gates(mode);
  return (state_size + input_size + 2) * s +
         (state_size + static_cast<size_t>(state_size) * direction + 2) * s * (num_layer - 1);
}

size_t GetRnnBiasSize(int num_layer, int state_size, int direction, int mode) {
  return 2 * static_cast<size_t>(state_size) * direction * num_layer * Gates(mode);
}

size_t GetRnnWorkspaceSize(int seq_length, int batch_size, int hidden_size, int direction,
                           int mode) {
  const size_t T = seq_length, N = batch_size, H = hidden_size;
  const size_t C = T * N * H * direction;
  switch (mode) {
    case rnn::kLstm:
      return C + (N * H + N * (1 + T) * H * 2) * 2 + T * H * 8;
    case rnn::kRnnRelu:
    case rnn::kRnnTanh:
      return (N * H * 2 + C) * 2;
    case rnn::kGru:
      return (N * H * 2 + C) * 4;
    default:
      RTC_LOG(LS_ENGINE) << "unknown RNN mode " << mode;
      return 0;
  }
}

size_t GetRnnReserveSpaceSize(int num_layer, int direction, int seq_length, int batch_size,
                              int hidden_size, int mode) {
  const size_t B = static_cast<size_t>(seq_length) * batch_size * hidden_size * direction;
  switch (mode) {
    case rnn::kLstm:
      return B * (7 * num_layer - 1);
    case rnn::kRnnRelu:
    case rnn::kRnnTanh:
      return B * num_layer * 2;
    case rnn::kGru:
      return B * (num_layer * 6 + 1);
    default:
      RTC_LOG(LS_ENGINE) << "unknown RNN mode " << mode;
      return 0;
  }
}

void RNNForwardInference(float* ws, float* xh, bool state_outputs, int num_layers, int direction,
                         int seq_length, int batch_size, int input_size, int state_size,
                         const float* x_ptr, const float* hx_ptr, const float* cx_ptr,
                         const float* packed, float* y_ptr, float* hy_ptr, float* cy_ptr,
                         int mode) {
  switch (mode) {
    case rnn::kLstm:
      LstmForwardInference(ws, xh, state_outputs, num_layers, direction, seq_length, batch_size,
                           input_size, state_size, x_ptr, hx_ptr, cx_ptr, packed, y_ptr, hy_ptr,
                           cy_ptr);
      break;
    case rnn::kGru:
      CHECK(false) << "Not impl rnn.gru currently";
      break;
    case rnn::kRnnRelu:
    case rnn::kRnnTanh:
      CHECK(false) << "Not impl rnnrelu and rnntanh currently";
      break;
    default:
      RTC_LOG(LS_ENGINE) << "unknown RNN mode " << mode;
      break;
  }
}

void Rnn::Init(const LayerAttrs& attrs) {
  for (const char* key : {"state_size", "num_layers"}) {
    CHECK(attrs.count(key)) << "Invalid key: " << key;
  }
  ReadAttrValue(attrs.at("state_size"), &state_size_);
  ReadAttrValue(attrs.at("num_layers"), &num_layers_);
  RUVO_BOOL_ATTR(attrs, "bidirectional", "False", bidirectional_symbol, bidirectional_);
  RUVO_BOOL_ATTR(attrs, "state_outputs", "False", state_outputs_symbol, state_outputs_);
  RUVO_BOOL_ATTR(attrs, "state_inputs", "False", state_inputs_symbol, state_inputs_);
  const std::string mode_symbol = AttrText(attrs, "mode", "lstm");
  CHECK(rnn::mode_map.count(mode_symbol));
  mode_ = rnn::mode_map[mode_symbol];
  p_ = 0.0f;
  if (attrs.count("p")) ReadAttrValue(attrs.at("p"), &p_);
  CHECK(p_ >= 0 && p_ < 1);
  inited_ = true;
}

uint32_t Rnn::get_num_inputs() const {
  if (!state_inputs_) return 2;
  return mode_ == rnn::kLstm ? 4 : 3;
}

uint32_t Rnn::get_num_outputs() const {
  if (!state_outputs_) return 2;
  return mode_ == rnn::kLstm ? 4 : 3;
}

std::vector<std::string> Rnn::ListArguments() const {
  if (!state_inputs_) return {"data", "parameters"};
  if (mode_ == rnn::kLstm) return {"data", "parameters", "state", "state_cell"};
  return {"date", "parameters", "state"};
}

std::vector<std::string> Rnn::ListOutputs() const {
  std::vector<std::string> outputs = {"outputs"};
  if (state_outputs_) {
    outputs.push_back("state");
    if (mode_ == rnn::kLstm) outputs.push_back("state_cell");
  }
  outputs.push_back("reserve");
  return outputs;
}

bool Rnn::InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                     std::vector<TShape>& /*aux_shape*/) {
  CHECK_EQ(in_shape.size(), get_num_inputs()) << "Input:[data, parameters, [state, cell_state]]";
  const TShape dshape = in_shape[0];
  if (dshape.ndim() == 0) return false;
  CHECK_EQ(dshape.ndim(), 3U) << "Input data should be rank-3 tensor tensor of dim [sequence "
                                 "length, batch size, input size]";
  const index_t seq_len = dshape[0], batch_size = dshape[1], input_size = dshape[2];
  const index_t num_directions = bidirectional_ ? 2 : 1;
  const index_t total_layers = num_directions * num_layers_;
  if (state_inputs_) {
    for (size_t i = 2; i < in_shape.size(); ++i) {
      RUVO_SHAPE_ASSIGN_CHECK(in_shape[i], Shape3(total_layers, batch_size, state_size_));
    }
  }
  const index_t param_size = static_cast<index_t>(
      GetRnnParamSize(num_layers_, input_size, state_size_, num_directions, mode_));
  RUVO_SHAPE_ASSIGN_CHECK(in_shape[1], Shape1(param_size));
  out_shape.clear();
  out_shape.push_back(Shape3(seq_len, batch_size, state_size_ * num_directions));
  if (state_outputs_) {
    out_shape.push_back(Shape3(total_layers, batch_size, state_size_));
    if (mode_ == rnn::kLstm) out_shape.push_back(Shape3(total_layers, batch_size, state_size_));
  }
  // Nothing at inference reads or writes the reserve.
  out_shape.push_back(Shape1(static_cast<index_t>(GetRnnReserveSpaceSize(
      num_layers_, num_directions, seq_len, batch_size, state_size_, mode_))));
  return true;
}

bool Rnn::InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                    std::vector<int>& /*aux_type*/) {
  CHECK_GE(in_type.size(), 1U);
  const int dtype = in_type[0];
  CHECK(dtype != -1) << "First input must have specified type";
  for (size_t i = 1; i < in_type.size(); ++i) {
    if (in_type[i] == -1) {
      in_type[i] = dtype;
    } else {
      CHECK_EQ(in_type[i], dtype) << "arg " << i << " infer type unconsistent, expect " << dtype
                                  << " .vs " << in_type[i];
    }
  }
  out_type.assign(get_num_outputs(), dtype);
  return true;
}

int Rnn::Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                 std::vector<NDArray*>& /*aux_blobs*/) {
  CHECK(inited_) << "Init first!";
  CHECK(state_inputs_) << "state inputs must be true when using Rnn op's cpu version";
  const size_t in_expected = mode_ == rnn::kLstm ? 4 : 3;
  const size_t out_expected = !state_outputs_ ? 1 : mode_ == rnn::kLstm ? 3 : 2;
  CHECK_EQ(bottom_blobs.size(), in_expected);
  CHECK_EQ(top_blobs.size(), out_expected + 1);
  const NDArray* x = bottom_blobs[0];
  seq_length_ = x->shape()[0];
  batch_size_ = x->shape()[1];
  input_size_ = x->shape()[2];
  CHECK(x->dtype() == kFloat32) << "rnn only support float type";
  const int D = bidirectional_ ? 2 : 1;
  const int L = static_cast<int>(num_layers_), H = static_cast<int>(state_size_);
  const int T = static_cast<int>(seq_length_), N = static_cast<int>(batch_size_);
  const NDArray* params = bottom_blobs[1];
  const float* w_ptr = params->dptr<float>();
  const float* b_ptr = w_ptr + params->Size() - GetRnnBiasSize(L, H, D, mode_);
  const float* hx_ptr = bottom_blobs[2]->dptr<float>();
  const float* cx_ptr = mode_ == rnn::kLstm ? bottom_blobs[3]->dptr<float>() : nullptr;
  float* hy_ptr = nullptr;
  float* cy_ptr = nullptr;
  if (state_outputs_) {
    hy_ptr = top_blobs[1]->dptr<float>();
    if (mode_ == rnn::kLstm) cy_ptr = top_blobs[2]->dptr<float>();
  }
  const int I = static_cast<int>(input_size_);
  // The weights are packed for the fused gate product once, at the first
  // call (again only if the input size changes).
  if (mode_ == rnn::kLstm && packed_input_size_ != input_size_) {
    packed_ = NDArray(Shape1(static_cast<index_t>(PackedLstmSize(L, I, H, D))), kFloat32);
    PackLstmWeights(L, D, I, H, w_ptr, b_ptr, packed_.dptr<float>());
    packed_input_size_ = input_size_;
  }
  const size_t ws_size = GetRnnWorkspaceSize(T, N, H, D, mode_);
  NDArray ws = resource_->GetInterBuf(0, Shape1(static_cast<index_t>(ws_size)), kFloat32);
  const int widest = std::max(I, H * D) + H;
  NDArray xh = resource_->GetInterBuf(1, Shape1(static_cast<index_t>(N * widest)), kFloat32);
  RNNForwardInference(ws.dptr<float>(), xh.dptr<float>(), state_outputs_, L, D, T, N, I, H,
                      x->dptr<float>(), hx_ptr, cx_ptr,
                      mode_ == rnn::kLstm ? packed_.dptr<float>() : nullptr,
                      top_blobs[0]->dptr<float>(), hy_ptr, cy_ptr, mode_);
  return 0;
}

Layer* Rnn_layer_creator() { return new Rnn(); }

}  // namespace ruvo
}  // namespace orvik
