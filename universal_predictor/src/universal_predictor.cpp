#include "universal_predictor/include/universal_predictor.h"

#include <cstdio>

namespace UniversalPredictor {

MxnetPredictorHandle::MxnetPredictorHandle()
    : predictorHandle(nullptr), input_dtype_list(nullptr) {}

MxnetPredictorHandle::~MxnetPredictorHandle() {
  if (predictorHandle != nullptr) MXPredFree(predictorHandle);
  delete[] input_dtype_list;
}

void MxnetPredictorHandle::StoreInputDtypes(uint32_t num_input_nodes,
                                            const DataType* input_dtypes) {
  delete[] input_dtype_list;
  input_dtype_list = nullptr;
  if (input_dtypes == nullptr) return;
  input_dtype_list = new uint32_t[num_input_nodes];
  for (uint32_t i = 0; i < num_input_nodes; ++i) {
    input_dtype_list[i] = static_cast<uint32_t>(input_dtypes[i]);
  }
}

const char* MxnetPredictorHandle::getLastError() { return MXGetLastError(); }

int32_t MxnetPredictorHandle::createHandle(const char* /*model_path*/, const char* symbol_json,
                                           const void* param_bytes, int32_t param_size,
                                           int32_t dev_type, int32_t dev_id,
                                           uint32_t num_input_nodes, const char** input_keys,
                                           const uint32_t* input_shape_indptr,
                                           const uint32_t* input_shape_data,
                                           const DataType* input_dtypes) {
  StoreInputDtypes(num_input_nodes, input_dtypes);
  return MXPredCreate(symbol_json, param_bytes, param_size, dev_type, dev_id, num_input_nodes,
                      input_keys, input_shape_indptr, input_shape_data, &predictorHandle);
}

int32_t MxnetPredictorHandle::getOutputShape(uint32_t index, uint32_t** shape_data,
                                             uint32_t* shape_ndim) {
  return MXPredGetOutputShape(predictorHandle, index, shape_data, shape_ndim);
}

int32_t MxnetPredictorHandle::setInput(const char* key, const char* data, DataType /*dtype*/,
                                       uint32_t size) {
  return MXPredSetInput(predictorHandle, key, reinterpret_cast<const float*>(data), size);
}

int32_t MxnetPredictorHandle::forward() { return MXPredForward(predictorHandle); }

int32_t MxnetPredictorHandle::getOutput(uint32_t index, char* data, DataType /*dtype*/,
                                        uint32_t size, bool /*flag*/) {
  return MXPredGetOutput(predictorHandle, index, reinterpret_cast<float*>(data), size);
}

int32_t MxnetPredictorHandle::resetInternalBuffer() {
  fprintf(stderr, "警告:resetInternalBuff为ruvo专有函数，请不要在使用其他预测库时调用此函数\n");
  return 1;
}

int UniversalPredictorCreateMxnetPredictor(const char* symbol_json, const void* param_bytes,
                                           int param_size, int dev_type, int dev_id,
                                           unsigned int num_input_nodes, const char** input_keys,
                                           const unsigned int* input_shape_indptr,
                                           const unsigned int* input_shape_data,
                                           UniversalPredictorHandle** out,
                                           const DataType* input_dtypes) {
  MxnetPredictorHandle* handle = new MxnetPredictorHandle();
  *out = handle;
  return handle->createHandle(nullptr, symbol_json, param_bytes, param_size, dev_type, dev_id,
                              num_input_nodes, input_keys, input_shape_indptr, input_shape_data,
                              input_dtypes);
}

int UniversalPredictorGetOutputShape(UniversalPredictorHandle* handle, uint32_t index,
                                     uint32_t** shape_data, uint32_t* shape_ndim) {
  return handle->getOutputShape(index, shape_data, shape_ndim);
}

int UniversalPredictorSetInput(UniversalPredictorHandle* handle, const char* key, const void* data,
                               DataType dtype, uint32_t size) {
  return handle->setInput(key, static_cast<const char*>(data), dtype, size);
}

int UniversalPredictorForward(UniversalPredictorHandle* handle) { return handle->forward(); }

int UniversalPredictorGetOutput(UniversalPredictorHandle* handle, uint32_t index, void* data,
                                DataType dtype, uint32_t size, bool flag) {
  return handle->getOutput(index, static_cast<char*>(data), dtype, size, flag);
}

int UniversalPredictorFreePredictor(UniversalPredictorHandle* handle) {
  if (handle == nullptr) return 0;
  delete handle;
  return 0;
}

int UniversalPredictorResetInternalBuffer(UniversalPredictorHandle* handle) {
  return handle->resetInternalBuffer();
}

const char* UniversalPredictorGetLastError(UniversalPredictorHandle* handle) {
  return handle->getLastError();
}

}  // namespace UniversalPredictor
