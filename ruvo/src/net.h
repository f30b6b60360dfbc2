#ifndef RUVO_SRC_NET_H_
#define RUVO_SRC_NET_H_

// DefaultNet, the one implementation of Net.  Every tensor of a net is an
// element of blobs_, addressed by blob id: graph variables become "Input"
// layers whose tops are the arguments and parameters, and every other top
// is a view of one of a few slabs chosen by the memory plan.

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ruvo/json_load.h"
#include "ruvo/layer.h"
#include "ruvo/ndarray.h"
#include "ruvo/net.h"

namespace orvik {
namespace ruvo {

// `name + "_" + output` for each of the layer's outputs.
std::vector<std::string> GetLayerOutputs(const Layer* layer);

class DefaultNet : public Net {
 public:
  // What Forward runs on: the layer and pointers into blobs_, built once.
  struct LayerContext {
    Layer* layer = nullptr;
    std::vector<NDArray*> bottom_blobs;
    std::vector<NDArray*> top_blobs;
    std::vector<NDArray*> aux_blobs;
  };

  DefaultNet();
  ~DefaultNet() override;

  int Config(const char* symbol_json, const void* param_bytes, size_t param_size,
             uint32_t num_input_nodes, const char** input_keys, const uint32_t* input_shape_indptr,
             const uint32_t* input_shape_data, uint32_t num_output_nodes,
             const char** output_keys) override;
  int Forward() override;
  int ResetInterBuff() override;
  int UpdateInterBuff() override;
  int Forward(int step, int* step_left) override;
  int SetInput(const char* key, const float* data, uint32_t size) override;
  int SetDynamicBatch(uint32_t batch) override;
  int GetOutput(uint32_t index, float* data, uint32_t size) override;
  int GetOutputShape(uint32_t out_index, uint32_t** shape_data, uint32_t* shape_ndim) override;

  // Runs layers start .. end-1.
  int Run(int start, int end);

  // Build steps, public so that the plan can be inspected.
  int RemapNodes(JSONGraph& graph, std::vector<int>& node_remap, uint32_t num_outputs,
                 const char** output_keys);
  int CreateLayers(const JSONGraph& graph, std::vector<uint32_t>& node_row_ptr,
                   const std::vector<int>& node_remap);
  std::vector<std::string> ListAuxiliaryStates() const;
  int InferShapes(const std::vector<TShape>& arg_shapes, std::vector<TShape>& blob_shapes);
  int InferTypes(const std::vector<int>& arg_types, std::vector<int>& blob_types);
  std::vector<uint32_t> GetAuxBlobsIndex() const;
  int PlanMemory(const std::vector<TShape>& blob_shapes, const std::vector<int>& blob_types,
                 std::vector<int>& vstorage_ids);
  int InitInternalBlobs(const std::vector<TShape>& blob_shapes, const std::vector<int>& blob_types);
  int CacheLayerContexts(Layer* layer, int index);

  // Read-only views for inspection.
  const std::vector<NDArray>& blobs() const { return blobs_; }
  const std::vector<NDArray>& data_pool() const { return data_pool_; }
  const std::vector<std::shared_ptr<Layer>>& layers() const { return layers_; }
  const std::vector<uint32_t>& outs_blobs_index() const { return outs_blobs_index_; }
  const std::vector<uint32_t>& args_blobs_index() const { return args_blobs_index_; }
  const std::vector<std::string>& args_names() const { return args_names_; }
  const std::vector<std::string>& aux_names() const { return aux_names_; }
  const std::unordered_set<uint32_t>& batch_blobs() const { return batch_blobs_; }

 private:
  std::vector<NDArray> blobs_;
  std::vector<NDArray> data_pool_;
  std::vector<std::shared_ptr<Layer>> layers_;
  std::vector<uint32_t> args_blobs_index_;
  std::vector<uint32_t> outs_blobs_index_;
  std::unordered_set<uint32_t> batch_blobs_;
  std::vector<std::vector<uint32_t>> out_shapes_;
  std::vector<std::string> args_names_;
  std::vector<std::string> aux_names_;
  std::unordered_map<std::string, uint32_t> args_name_to_index_;
  bool nnvm_format_;
  Resource resource_;
  std::vector<LayerContext> layer_contexts_;
};

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_SRC_NET_H_
