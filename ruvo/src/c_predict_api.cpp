// The MXPred* functions: a record holding the shared net, and calls that
// forward to it.  Each call keeps its own counted reference to the net, so
// freeing the handle while a call is in flight does not free the net under
// it.

#include "tovadmod/c_predict_api.h"

#include <memory>

#include "orviklog/src/checks.h"
#include "ruvo/net.h"

using orvik::ruvo::Net;

namespace {

struct MXAPIPredictor {
  std::shared_ptr<Net> net;
};

inline std::shared_ptr<Net> NetOf(PredictorHandle handle) {
  return static_cast<MXAPIPredictor*>(handle)->net;
}

int CreatePredictor(const char* symbol_json, const void* param_bytes, int param_size, int dev_type,
                    uint32_t num_input_nodes, const char** input_keys,
                    const uint32_t* input_shape_indptr, const uint32_t* input_shape_data,
                    uint32_t num_output_nodes, const char** output_keys, PredictorHandle* out,
                    bool clear_on_failure) {
  std::shared_ptr<Net> net = Net::NewNet();
  CHECK(dev_type == 1) << "Only support cpu";
  int ret =
      net->Config(symbol_json, param_bytes, static_cast<size_t>(param_size), num_input_nodes,
                  input_keys, input_shape_indptr, input_shape_data, num_output_nodes, output_keys);
  if (ret < 0) {
    net.reset();
    if (clear_on_failure) *out = nullptr;
    return -1;
  }
  MXAPIPredictor* record = new MXAPIPredictor();
  record->net = std::move(net);
  *out = record;
  return 0;
}

}  // namespace

extern "C" {

int MXPredCreate(const char* symbol_json, const void* param_bytes, int param_size, int dev_type,
                 int /*dev_id*/, uint32_t num_input_nodes, const char** input_keys,
                 const uint32_t* input_shape_indptr, const uint32_t* input_shape_data,
                 PredictorHandle* out) {
  return CreatePredictor(symbol_json, param_bytes, param_size, dev_type, num_input_nodes,
                         input_keys, input_shape_indptr, input_shape_data, 0, nullptr, out, false);
}

int MXPredCreatePartialOut(const char* symbol_json, const void* param_bytes, int param_size,
                           int dev_type, int /*dev_id*/, uint32_t num_input_nodes,
                           const char** input_keys, const uint32_t* input_shape_indptr,
                           const uint32_t* input_shape_data, uint32_t num_output_nodes,
                           const char** output_keys, PredictorHandle* out) {
  return CreatePredictor(symbol_json, param_bytes, param_size, dev_type, num_input_nodes,
                         input_keys, input_shape_indptr, input_shape_data, num_output_nodes,
                         output_keys, out, true);
}

int MXPredSetInput(PredictorHandle handle, const char* key, const float* data, uint32_t size) {
  std::shared_ptr<Net> net = NetOf(handle);
  return net->SetInput(key, data, size);
}

int MXPredForward(PredictorHandle handle) {
  std::shared_ptr<Net> net = NetOf(handle);
  return net->Forward();
}

int MXPredPartialForward(PredictorHandle handle, int step, int* step_left) {
  std::shared_ptr<Net> net = NetOf(handle);
  return net->Forward(step, step_left);
}

int MXResetInterBuff(PredictorHandle handle) {
  std::shared_ptr<Net> net = NetOf(handle);
  return net->ResetInterBuff();
}

int MXUpdateInterBuff(PredictorHandle handle) {
  std::shared_ptr<Net> net = NetOf(handle);
  return net->UpdateInterBuff();
}

int MXPredSetDynamicBatch(PredictorHandle handle, uint32_t batch) {
  std::shared_ptr<Net> net = NetOf(handle);
  return net->SetDynamicBatch(batch);
}

int MXPredGetOutputShape(PredictorHandle handle, uint32_t index, uint32_t** shape_data,
                         uint32_t* shape_ndim) {
  std::shared_ptr<Net> net = NetOf(handle);
  return net->GetOutputShape(index, shape_data, shape_ndim);
}

int MXPredGetOutput(PredictorHandle handle, uint32_t index, float* data, uint32_t size) {
  std::shared_ptr<Net> net = NetOf(handle);
  return net->GetOutput(index, data, size);
}

int MXPredFree(PredictorHandle handle) {
  if (handle == nullptr) return 0;
  delete static_cast<MXAPIPredictor*>(handle);
  return 0;
}

const char* MXGetLastError() { return "not support MXGetLastErr currently!"; }

}  // extern "C"
