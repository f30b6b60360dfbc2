#ifndef UNIVERSAL_PREDICTOR_H_
#define UNIVERSAL_PREDICTOR_H_

// A backend-neutral predictor handle over the prediction interface.  The
// frame predictor talks only to this; the one backend, MxnetPredictorHandle,
// forwards every call to the MXPred* functions.  Results are the backend's
// int results, passed on unchanged.

#include <cstdint>

#include "tovadmod/c_predict_api.h"

namespace UniversalPredictor {

enum DataType {
  DTNone = -1,
  DTFloat32 = 0,
  DTFloat64 = 1,
  DTFloat16 = 2,
  DTUint8 = 3,
  DTInt32 = 4,
  DTInt8 = 5,
  DTUint64 = 6,
};

class UniversalPredictorHandle {
 public:
  virtual ~UniversalPredictorHandle() {}
  virtual const char* getLastError() = 0;
  virtual int32_t createHandle(const char* model_path, const char* symbol_json,
                               const void* param_bytes, int32_t param_size, int32_t dev_type,
                               int32_t dev_id, uint32_t num_input_nodes, const char** input_keys,
                               const uint32_t* input_shape_indptr, const uint32_t* input_shape_data,
                               const DataType* input_dtypes) = 0;
  virtual int32_t getOutputShape(uint32_t index, uint32_t** shape_data, uint32_t* shape_ndim) = 0;
  virtual int32_t setInput(const char* key, const char* data, DataType dtype, uint32_t size) = 0;
  virtual int32_t forward() = 0;
  virtual int32_t getOutput(uint32_t index, char* data, DataType dtype, uint32_t size,
                            bool flag) = 0;
  virtual int32_t resetInternalBuffer() = 0;
};

// The engine's backend.  Data is always taken and given as 32-bit floats:
// the dtype and flag arguments are not honoured.
class MxnetPredictorHandle : public UniversalPredictorHandle {
 public:
  MxnetPredictorHandle();
  ~MxnetPredictorHandle() override;

  const char* getLastError() override;
  // `model_path` is ignored; the model comes as text and bytes.
  int32_t createHandle(const char* model_path, const char* symbol_json, const void* param_bytes,
                       int32_t param_size, int32_t dev_type, int32_t dev_id,
                       uint32_t num_input_nodes, const char** input_keys,
                       const uint32_t* input_shape_indptr, const uint32_t* input_shape_data,
                       const DataType* input_dtypes) override;
  int32_t getOutputShape(uint32_t index, uint32_t** shape_data, uint32_t* shape_ndim) override;
  int32_t setInput(const char* key, const char* data, DataType dtype, uint32_t size) override;
  int32_t forward() override;
  int32_t getOutput(uint32_t index, char* data, DataType dtype, uint32_t size, bool flag) override;
  // Not supported by this backend: prints a warning and returns 1.
  int32_t resetInternalBuffer() override;

  PredictorHandle predictorHandle;  // owned
  uint32_t* input_dtype_list;       // owned copy of the input types, or null

 private:
  // Replaces input_dtype_list by a copy of `input_dtypes` (null for none).
  void StoreInputDtypes(uint32_t num_input_nodes, const DataType* input_dtypes);

  MxnetPredictorHandle(const MxnetPredictorHandle&) = delete;
  MxnetPredictorHandle& operator=(const MxnetPredictorHandle&) = delete;
};

// Makes a MxnetPredictorHandle, stores it in *out before anything can fail
// (the caller frees it with UniversalPredictorFreePredictor, also after a
// failure) and builds the net in it.  Returns MXPredCreate's result.
int UniversalPredictorCreateMxnetPredictor(const char* symbol_json, const void* param_bytes,
                                           int param_size, int dev_type, int dev_id,
                                           unsigned int num_input_nodes, const char** input_keys,
                                           const unsigned int* input_shape_indptr,
                                           const unsigned int* input_shape_data,
                                           UniversalPredictorHandle** out,
                                           const DataType* input_dtypes);
int UniversalPredictorGetOutputShape(UniversalPredictorHandle* handle, uint32_t index,
                                     uint32_t** shape_data, uint32_t* shape_ndim);
// `data` holds `size` elements; this backend reads them as floats.
int UniversalPredictorSetInput(UniversalPredictorHandle* handle, const char* key, const void* data,
                               DataType dtype, uint32_t size);
int UniversalPredictorForward(UniversalPredictorHandle* handle);
// Writes `size` elements of output `index` to `data`.
int UniversalPredictorGetOutput(UniversalPredictorHandle* handle, uint32_t index, void* data,
                                DataType dtype, uint32_t size, bool flag);
// Deletes the handle; null is accepted.  Always 0.
int UniversalPredictorFreePredictor(UniversalPredictorHandle* handle);
int UniversalPredictorResetInternalBuffer(UniversalPredictorHandle* handle);
const char* UniversalPredictorGetLastError(UniversalPredictorHandle* handle);

}  // namespace UniversalPredictor

#endif  // UNIVERSAL_PREDICTOR_H_
