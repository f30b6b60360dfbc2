#ifndef RUVO_NET_H_
#define RUVO_NET_H_

// The engine's entry: a net built once from a symbol graph and a parameter
// block, then run any number of times.  Every operation returns 0 unless
// told otherwise; failures are fatal checks.

#include <cstddef>
#include <cstdint>
#include <memory>

namespace orvik {
namespace ruvo {

class Net {
 public:
  virtual ~Net() {}

  // An empty net; Config makes it runnable.
  static std::shared_ptr<Net> NewNet();

  // Builds layers, binds parameters and plans memory.  The shape of input i
  // is input_shape_data[input_shape_indptr[i] .. input_shape_indptr[i+1]).
  // With num_output_nodes 0 the graph's heads are the outputs; otherwise the
  // graph is cut down to the named layers.  Returns -1 for an operator the
  // registry does not know.  Neither buffer is kept.
  virtual int Config(const char* symbol_json, const void* param_bytes, size_t param_size,
                     uint32_t num_input_nodes, const char** input_keys,
                     const uint32_t* input_shape_indptr, const uint32_t* input_shape_data,
                     uint32_t num_output_nodes, const char** output_keys) = 0;
  // Runs all layers.
  virtual int Forward() = 0;
  virtual int ResetInterBuff() = 0;
  virtual int UpdateInterBuff() = 0;
  // Runs layer `step` alone; *step_left is the number of layers after it.
  virtual int Forward(int step, int* step_left) = 0;
  virtual int SetInput(const char* key, const float* data, uint32_t size) = 0;
  virtual int SetDynamicBatch(uint32_t batch) = 0;
  virtual int GetOutput(uint32_t index, float* data, uint32_t size) = 0;
  // *shape_data stays valid until the next call for the same index.
  virtual int GetOutputShape(uint32_t out_index, uint32_t** shape_data, uint32_t* shape_ndim) = 0;
};

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_NET_H_
