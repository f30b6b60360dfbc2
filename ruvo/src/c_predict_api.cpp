// The MXPred* functions: a record holding the shared net, and calls that
// forward to it.  Each call keeps its own counted reference to the net, so
// freeing the handle while a call is in flight does not free the net under
// it.

#include "tovadmod/c_predict_api.h"

#include <cstdio>
#include <memory>

#include "orviklog/src/checks.h"
#include "ruvo/net.h"

using orvik::ruvo::Net;

namespace {

struct MXAPIPredictor {
  std::shared_ptr<Net> net;
};

// The run-time calls have no error result of their own (they return the
// net's): a null handle ends in a report rather than a crash.
inline std::shared_ptr<Net> NetOf(PredictorHandle handle, const char* function) {
  CHECK(handle != nullptr) << function << ": null predictor handle";
  return static_cast<MXAPIPredictor*>(handle)->net;
}

int CreatePredictor(const char* symbol_json, const void* param_bytes, int param_size, int dev_type,
                    uint32_t num_input_nodes, const char** input_keys,
                    const uint32_t* input_shape_indptr, const uint32_t* input_shape_data,
                    uint32_t num_output_nodes, const char** output_keys, PredictorHandle* out,
                    bool clear_on_failure, const char* function) {
  // Arguments no model could mend get the create calls' own failure result.
  const char* bad = nullptr;
  if (symbol_json == nullptr) bad = "null symbol text";
  // A negative size would read as a huge block behind the pointer.
  if (param_size < 0 || (param_bytes == nullptr && param_size != 0)) bad = "bad parameter block";
  if (num_input_nodes != 0 &&
      (input_keys == nullptr || input_shape_indptr == nullptr || input_shape_data == nullptr)) {
    bad = "null input description";
  }
  if (num_output_nodes != 0 && output_keys == nullptr) bad = "null output keys";
  if (out == nullptr) bad = "null handle pointer";
  if (bad != nullptr) {
    fprintf(stderr, "%s: %s\n", function, bad);
    if (clear_on_failure && out != nullptr) *out = nullptr;
    return -1;
  }
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
                         input_keys, input_shape_indptr, input_shape_data, 0, nullptr, out, false,
                         __func__);
}

int MXPredCreatePartialOut(const char* symbol_json, const void* param_bytes, int param_size,
                           int dev_type, int /*dev_id*/, uint32_t num_input_nodes,
                           const char** input_keys, const uint32_t* input_shape_indptr,
                           const uint32_t* input_shape_data, uint32_t num_output_nodes,
                           const char** output_keys, PredictorHandle* out) {
  return CreatePredictor(symbol_json, param_bytes, param_size, dev_type, num_input_nodes,
                         input_keys, input_shape_indptr, input_shape_data, num_output_nodes,
                         output_keys, out, true, __func__);
}

int MXPredSetInput(PredictorHandle handle, const char* key, const float* data, uint32_t size) {
  std::shared_ptr<Net> net = NetOf(handle, __func__);
  CHECK(key != nullptr && (data != nullptr || size == 0)) << "MXPredSetInput: null key or data";
  return net->SetInput(key, data, size);
}

int MXPredForward(PredictorHandle handle) {
  std::shared_ptr<Net> net = NetOf(handle, __func__);
  return net->Forward();
}

int MXPredPartialForward(PredictorHandle handle, int step, int* step_left) {
  std::shared_ptr<Net> net = NetOf(handle, __func__);
  CHECK(step_left != nullptr) << "MXPredPartialForward: null step_left";
  return net->Forward(step, step_left);
}

int MXResetInterBuff(PredictorHandle handle) {
  std::shared_ptr<Net> net = NetOf(handle, __func__);
  return net->ResetInterBuff();
}

int MXUpdateInterBuff(PredictorHandle handle) {
  std::shared_ptr<Net> net = NetOf(handle, __func__);
  return net->UpdateInterBuff();
}

int MXPredSetDynamicBatch(PredictorHandle handle, uint32_t batch) {
  std::shared_ptr<Net> net = NetOf(handle, __func__);
  return net->SetDynamicBatch(batch);
}

int MXPredGetOutputShape(PredictorHandle handle, uint32_t index, uint32_t** shape_data,
                         uint32_t* shape_ndim) {
  std::shared_ptr<Net> net = NetOf(handle, __func__);
  CHECK(shape_data != nullptr && shape_ndim != nullptr) << "MXPredGetOutputShape: null result";
  return net->GetOutputShape(index, shape_data, shape_ndim);
}

int MXPredGetOutput(PredictorHandle handle, uint32_t index, float* data, uint32_t size) {
  std::shared_ptr<Net> net = NetOf(handle, __func__);
  CHECK(data != nullptr || size == 0) << "MXPredGetOutput: null data";
  return net->GetOutput(index, data, size);
}

int MXPredFree(PredictorHandle handle) {
  if (handle == nullptr) return 0;
  delete static_cast<MXAPIPredictor*>(handle);
  return 0;
}

const char* MXGetLastError() { return "not support MXGetLastErr currently!"; }

}  // extern "C"
