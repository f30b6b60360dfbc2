#ifndef TOVADMOD_C_PREDICT_API_H_
#define TOVADMOD_C_PREDICT_API_H_

// Prediction interface of the inference engine, with plain C names.
//
// A predictor owns one configured net.  Every function returns 0 (the
// net's own result for the forwarding ones); the create functions return
// -1 for a graph that names an operator the engine does not have, and, with
// a line on stderr, for a null text, key list or handle pointer or a
// negative parameter size.  All other failures (bad model bytes, sizes
// that do not match, indices out of range, a null predictor handle) are
// fatal: the engine prints a report to stderr and aborts.
// A predictor serves one thread at a time.

#include <stddef.h>
#include <stdint.h>

#include "tovadmod/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Opaque handle of a predictor.
typedef void* PredictorHandle;

// Builds a predictor from a symbol JSON text and a parameter file held in
// memory; neither is kept after the call.  `dev_type` must be 1 (cpu),
// `dev_id` is ignored.  Input `i` is named `input_keys[i]` and has the shape
// `input_shape_data[input_shape_indptr[i] .. input_shape_indptr[i + 1])`;
// the first dimension is the largest batch the predictor will accept.
// The net's outputs are the graph's heads.  On success `*out` owns the
// predictor (free it with MXPredFree); on -1 `*out` is left unchanged.
TOVAD_EXPORT int MXPredCreate(const char* symbol_json, const void* param_bytes, int param_size,
                              int dev_type, int dev_id, uint32_t num_input_nodes,
                              const char** input_keys, const uint32_t* input_shape_indptr,
                              const uint32_t* input_shape_data, PredictorHandle* out);

// As MXPredCreate, but the net is cut down to the layers that the
// `num_output_nodes` layers named in `output_keys` need; those layers'
// outputs, in graph order, become the net's outputs.  On -1 `*out` is set
// to null.
TOVAD_EXPORT int MXPredCreatePartialOut(const char* symbol_json, const void* param_bytes,
                                        int param_size, int dev_type, int dev_id,
                                        uint32_t num_input_nodes, const char** input_keys,
                                        const uint32_t* input_shape_indptr,
                                        const uint32_t* input_shape_data, uint32_t num_output_nodes,
                                        const char** output_keys, PredictorHandle* out);

// Copies `size` floats into the input `key`.  `size` must be the input's
// element count at the current batch.  `key` must be a declared input.
TOVAD_EXPORT int MXPredSetInput(PredictorHandle handle, const char* key, const float* data,
                                uint32_t size);

// Runs every layer once.
TOVAD_EXPORT int MXPredForward(PredictorHandle handle);

// Runs layer `step` alone and stores the number of layers after it in
// `*step_left`; a step past the end runs nothing and stores 0.
TOVAD_EXPORT int MXPredPartialForward(PredictorHandle handle, int step, int* step_left);

// Clears, and commits, the history kept by streaming layers.
TOVAD_EXPORT int MXResetInterBuff(PredictorHandle handle);
TOVAD_EXPORT int MXUpdateInterBuff(PredictorHandle handle);

// Runs the net at `batch` rows (at most the batch given at creation).
TOVAD_EXPORT int MXPredSetDynamicBatch(PredictorHandle handle, uint32_t batch);

// Shape of output `index` at the current batch.  `*shape_data` belongs to
// the predictor and stays valid until the next call for the same index.
TOVAD_EXPORT int MXPredGetOutputShape(PredictorHandle handle, uint32_t index, uint32_t** shape_data,
                                      uint32_t* shape_ndim);

// Copies output `index` into `data`; `size` must be its element count.
TOVAD_EXPORT int MXPredGetOutput(PredictorHandle handle, uint32_t index, float* data,
                                 uint32_t size);

// Frees the predictor; a null handle is accepted.  Always 0.
TOVAD_EXPORT int MXPredFree(PredictorHandle handle);

// A fixed text: this engine keeps no error state (its errors are fatal).
TOVAD_EXPORT const char* MXGetLastError();

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // TOVADMOD_C_PREDICT_API_H_
