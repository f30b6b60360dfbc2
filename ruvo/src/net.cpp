#include "ruvo/src/net.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

#include "orviklog/src/checks.h"
#include "orviklog/src/logging.h"
#include "ruvo/io.h"
#include "ruvo/src/net_allocator.h"

namespace orvik {
namespace ruvo {

namespace {

// Blob id of output `index` of kept layer `new_node_id`; both must name
// something that exists.
uint32_t EntryBlob(const std::vector<uint32_t>& node_row_ptr, int new_node_id, uint32_t index,
                   uint32_t num_outputs) {
  CHECK(new_node_id >= 0);
  CHECK_LT(index, num_outputs) << "output index out of range for node";
  return node_row_ptr[new_node_id] + index;
}

}  // namespace

std::vector<std::string> GetLayerOutputs(const Layer* layer) {
  std::vector<std::string> outputs;
  const std::string name = layer->GetName();
  for (const std::string& o : layer->ListOutputs()) {
    outputs.push_back(name + "_" + o);
  }
  return outputs;
}

std::shared_ptr<Net> Net::NewNet() { return std::make_shared<DefaultNet>(); }

DefaultNet::DefaultNet() : nnvm_format_(false) {}

DefaultNet::~DefaultNet() {}

int DefaultNet::Config(const char* symbol_json, const void* param_bytes, size_t param_size,
                       uint32_t num_input_nodes, const char** input_keys,
                       const uint32_t* input_shape_indptr, const uint32_t* input_shape_data,
                       uint32_t num_output_nodes, const char** output_keys) {
  JSONGraph graph;
  {
    cJSON* root = cJSON_Parse(symbol_json);
    graph.Load(root);
    cJSON_Delete(root);
  }
  nnvm_format_ = graph.mxnet_version > 900;

  std::vector<int> node_remap(graph.nodes.size(), -1);
  RemapNodes(graph, node_remap, num_output_nodes, output_keys);

  std::vector<uint32_t> node_row_ptr;
  int ret = CreateLayers(graph, node_row_ptr, node_remap);
  if (ret < 0) {
    layers_.clear();
    blobs_.clear();
    return ret;
  }

  aux_names_ = ListAuxiliaryStates();
  const std::unordered_set<std::string> aux_set(aux_names_.begin(), aux_names_.end());

  for (uint32_t nid : graph.arg_nodes) {
    CHECK_LT(nid, node_remap.size()) << "argument node out of range";
    const int new_id = node_remap[nid];
    if (new_id < 0) continue;
    const std::string name = layers_[new_id]->GetName();
    if (aux_set.count(name)) continue;
    args_blobs_index_.push_back(node_row_ptr[new_id]);
    args_names_.push_back(name);
    args_name_to_index_[name] = static_cast<uint32_t>(args_names_.size() - 1);
  }
  const std::unordered_set<std::string> arg_set(args_names_.begin(), args_names_.end());

  for (const JSONNode::Entry& head : graph.heads) {
    CHECK_LT(head.node_id, node_remap.size()) << "output node out of range";
    const int new_node_id = node_remap[head.node_id];
    CHECK(new_node_id >= 0);
    outs_blobs_index_.push_back(
        EntryBlob(node_row_ptr, new_node_id, head.index, layers_[new_node_id]->get_num_outputs()));
  }
  out_shapes_.resize(outs_blobs_index_.size());

  // Parameters: "arg:" and "aux:" names, shared by handle with the loaded
  // arrays.
  std::map<std::string, NDArray> arg_params;
  std::map<std::string, NDArray> aux_params;
  {
    std::vector<NDArray> data;
    std::vector<std::string> names;
    io::MemoryFixedSizeStream stream(const_cast<void*>(param_bytes), param_size);
    NDArray::Load(&stream, data, names);
    CHECK_EQ(names.size(), data.size()) << "Invalid param file format";
    for (size_t i = 0; i < names.size(); ++i) {
      const std::string& full = names[i];
      if (strncmp(full.c_str(), "aux:", 4) == 0) {
        // An aux parameter the graph does not declare is kept as an
        // argument parameter; an unknown "arg:" one is dropped.
        const std::string key = full.substr(4);
        if (aux_set.count(key)) {
          aux_params[key] = data[i];
        } else {
          arg_params[key] = data[i];
        }
      } else if (strncmp(full.c_str(), "arg:", 4) == 0) {
        const std::string key = full.substr(4);
        if (arg_set.count(key)) arg_params[key] = data[i];
      }
    }
  }

  std::map<std::string, TShape> input_shapes;
  for (uint32_t i = 0; i < num_input_nodes; ++i) {
    input_shapes[input_keys[i]] = TShape(input_shape_data + input_shape_indptr[i],
                                         input_shape_data + input_shape_indptr[i + 1]);
  }
  std::vector<TShape> arg_shapes;
  for (const std::string& name : args_names_) {
    auto it = input_shapes.find(name);
    arg_shapes.push_back(it != input_shapes.end() ? it->second : TShape());
  }

  std::vector<TShape> blob_shapes(blobs_.size());
  InferShapes(arg_shapes, blob_shapes);

  std::vector<int> blob_types(blobs_.size(), -1);
  std::vector<int> arg_types;
  for (const std::string& name : args_names_) {
    auto it = arg_params.find(name);
    arg_types.push_back(it != arg_params.end() ? it->second.dtype() : 0);
  }
  InferTypes(arg_types, blob_types);

  // Arguments: the parameter's own array (no copy, no shape comparison), or
  // a fresh array for inputs and parameters the file lacks.
  for (const std::string& name : args_names_) {
    const uint32_t b = args_blobs_index_[args_name_to_index_[name]];
    auto it = arg_params.find(name);
    if (it == arg_params.end()) {
      blobs_[b] = NDArray(blob_shapes[b], blob_types[b]);
    } else {
      blobs_[b] = it->second;
    }
  }

  const std::vector<uint32_t> aux_blobs_index = GetAuxBlobsIndex();
  CHECK_EQ(aux_blobs_index.size(), aux_names_.size());
  for (size_t i = 0; i < aux_blobs_index.size(); ++i) {
    auto it = aux_params.find(aux_names_[i]);
    if (it != aux_params.end()) blobs_[aux_blobs_index[i]] = it->second;
  }

  InitInternalBlobs(blob_shapes, blob_types);

  layer_contexts_.resize(layers_.size());
  for (size_t i = 0; i < layers_.size(); ++i) {
    Layer* layer = layers_[i].get();
    layer->resource_ = &resource_;
    for (uint32_t id : layer->GetBatchBlobs()) {
      batch_blobs_.insert(id);
      NDArray& blob = blobs_[id];
      blob.batch_max_ = blob.shape().ndim() > 0 ? blob.shape()[0] : 0;
    }
    CacheLayerContexts(layer, static_cast<int>(i));
  }
  return 0;
}

int DefaultNet::RemapNodes(JSONGraph& graph, std::vector<int>& node_remap, uint32_t num_outputs,
                           const char** output_keys) {
  const size_t num_nodes = graph.nodes.size();
  if (num_outputs == 0) {
    for (size_t i = 0; i < num_nodes; ++i) node_remap[i] = static_cast<int>(i);
    return 0;
  }

  std::vector<bool> removed(num_nodes, true);
  std::vector<JSONNode::Entry> new_heads;
  // From the last node to the first, so that a node is reached only after
  // every node that may read it.
  for (size_t k = num_nodes; k-- > 0;) {
    const JSONNode& node = graph.nodes[k];
    const std::string& op = node.attrs.at("__op_type_str__");
    if (op == "null") continue;
    std::unique_ptr<Layer> layer(create_layer(layer_to_index(op.c_str())));
    if (!layer) {
      RTC_LOG(LS_ENGINE) << "unsupport layer type:" << op;
      return -1;
    }
    layer->SetType(op);
    layer->SetName(node.name);
    layer->Init(node.attrs);

    const std::vector<std::string> outputs = GetLayerOutputs(layer.get());
    for (size_t j = 0; j < outputs.size(); ++j) {
      for (uint32_t o = 0; o < num_outputs; ++o) {
        if (std::string(output_keys[o]) + "_output" == outputs[j]) {
          removed[k] = false;
          JSONNode::Entry e;
          e.node_id = static_cast<uint32_t>(k);
          e.index = static_cast<uint32_t>(j);
          new_heads.push_back(e);
        }
      }
    }
    if (!removed[k]) {
      size_t needed = layer->get_num_inputs();
      if (nnvm_format_) needed += layer->ListAuxiliaryStates().size();
      // A node with fewer inputs than its layer needs is reported by
      // CreateLayers.
      needed = std::min(needed, node.inputs.size());
      for (size_t i = 0; i < needed; ++i) {
        CHECK_LT(node.inputs[i].node_id, k) << "input refers to a node that is not before it";
        removed[node.inputs[i].node_id] = false;
      }
    }
  }

  int next_id = 0;
  for (size_t i = 0; i < num_nodes; ++i) {
    if (!removed[i]) node_remap[i] = next_id++;
  }
  graph.heads.assign(new_heads.rbegin(), new_heads.rend());
  return 0;
}

int DefaultNet::CreateLayers(const JSONGraph& graph, std::vector<uint32_t>& node_row_ptr,
                             const std::vector<int>& node_remap) {
  size_t num_kept = 0;
  for (int r : node_remap) {
    if (r >= 0) ++num_kept;
  }
  layers_.resize(num_kept);
  node_row_ptr.assign(1, 0);

  for (size_t nid = 0; nid < graph.nodes.size(); ++nid) {
    if (node_remap[nid] < 0) continue;
    const JSONNode& n = graph.nodes[nid];
    std::string op = n.attrs.at("__op_type_str__");
    if (op == "null") op = "Input";
    std::shared_ptr<Layer> layer(create_layer(layer_to_index(op.c_str())));
    if (!layer) {
      RTC_LOG(LS_ENGINE) << "unsupport layer type:" << op;
      return -1;
    }
    layer->SetType(op);
    layer->SetName(n.name);
    layer->Init(n.attrs);

    const uint32_t bottom_cnt = layer->get_num_inputs();
    const uint32_t top_cnt = layer->get_num_outputs();
    const uint32_t num_aux = static_cast<uint32_t>(layer->ListAuxiliaryStates().size());
    const uint32_t first_blob = node_row_ptr.back();
    const int self = node_remap[nid];

    if (!nnvm_format_) {
      CHECK_EQ(bottom_cnt, n.inputs.size())
          << "input size mismatch: layer " << op << " need " << bottom_cnt << " inputs";
      node_row_ptr.push_back(first_blob + top_cnt + num_aux);
    } else {
      CHECK_EQ(num_aux + bottom_cnt, n.inputs.size())
          << "input size mismatch: layer " << op << " need " << num_aux + bottom_cnt << " inputs";
      node_row_ptr.push_back(first_blob + top_cnt);
    }

    // Inputs name earlier nodes only (the file is in topological order);
    // the blob id of output e.index of kept node m is node_row_ptr[m] +
    // e.index.
    auto entry_blob = [&](const JSONNode::Entry& e) {
      CHECK_LT(e.node_id, nid) << "input refers to a node that is not before it";
      const int new_node_id = node_remap[e.node_id];
      CHECK(new_node_id >= 0);
      CHECK_LT(new_node_id, self);
      return EntryBlob(node_row_ptr, new_node_id, e.index, layers_[new_node_id]->get_num_outputs());
    };

    std::vector<uint32_t>& bottoms = layer->GetBottoms();
    bottoms.resize(bottom_cnt);
    for (uint32_t i = 0; i < bottom_cnt; ++i) bottoms[i] = entry_blob(n.inputs[i]);

    std::vector<uint32_t>& tops = layer->GetTops();
    tops.resize(top_cnt);
    for (uint32_t i = 0; i < top_cnt; ++i) tops[i] = first_blob + i;

    std::vector<uint32_t>& auxes = layer->GetAuxes();
    auxes.resize(num_aux);
    for (uint32_t j = 0; j < num_aux; ++j) {
      // Old style: the states follow the layer's tops.  New style: they
      // are the tops of the graph's variables listed behind the inputs.
      auxes[j] = !nnvm_format_ ? first_blob + top_cnt + j : entry_blob(n.inputs[bottom_cnt + j]);
    }

    layers_[self] = layer;
  }
  blobs_.resize(node_row_ptr.back());
  return 0;
}

std::vector<std::string> DefaultNet::ListAuxiliaryStates() const {
  std::vector<std::string> names;
  for (const auto& layer : layers_) {
    const std::string name = layer->GetName();
    for (const std::string& a : layer->ListAuxiliaryStates()) names.push_back(name + "_" + a);
  }
  return names;
}

std::vector<uint32_t> DefaultNet::GetAuxBlobsIndex() const {
  std::vector<uint32_t> ids;
  for (const auto& layer : layers_) {
    const std::vector<uint32_t>& auxes = layer->GetAuxes();
    ids.insert(ids.end(), auxes.begin(), auxes.end());
  }
  return ids;
}

int DefaultNet::InferShapes(const std::vector<TShape>& arg_shapes,
                            std::vector<TShape>& blob_shapes) {
  for (size_t i = 0; i < args_blobs_index_.size(); ++i) {
    blob_shapes[args_blobs_index_[i]] = arg_shapes[i];
  }
  for (const auto& layer : layers_) {
    if (layer->GetType() == "Input") continue;
    const std::vector<uint32_t>& bottoms = layer->GetBottoms();
    const std::vector<uint32_t>& tops = layer->GetTops();
    const std::vector<uint32_t>& auxes = layer->GetAuxes();
    std::vector<TShape> in;
    for (uint32_t b : bottoms) in.push_back(blob_shapes[b]);
    std::vector<TShape> out(tops.size());
    std::vector<TShape> aux(auxes.size());
    // The result is not examined: a layer that cannot decide leaves its
    // outputs empty.  Bottoms are written back, which is how weights get
    // their shapes.
    layer->InferShape(in, out, aux);
    for (size_t i = 0; i < bottoms.size() && i < in.size(); ++i) blob_shapes[bottoms[i]] = in[i];
    for (size_t i = 0; i < tops.size() && i < out.size(); ++i) blob_shapes[tops[i]] = out[i];
    for (size_t i = 0; i < auxes.size() && i < aux.size(); ++i) blob_shapes[auxes[i]] = aux[i];
  }
  return 0;
}

int DefaultNet::InferTypes(const std::vector<int>& arg_types, std::vector<int>& blob_types) {
  for (size_t i = 0; i < args_blobs_index_.size(); ++i) {
    blob_types[args_blobs_index_[i]] = arg_types[i];
  }
  for (const auto& layer : layers_) {
    if (layer->GetType() == "Input") continue;
    const std::vector<uint32_t>& bottoms = layer->GetBottoms();
    const std::vector<uint32_t>& tops = layer->GetTops();
    const std::vector<uint32_t>& auxes = layer->GetAuxes();
    std::vector<int> in;
    for (uint32_t b : bottoms) in.push_back(blob_types[b]);
    std::vector<int> out(tops.size(), -1);
    // Classes with auxiliary states size this list themselves.
    std::vector<int> aux;
    layer->InferType(in, out, aux);
    for (size_t i = 0; i < bottoms.size() && i < in.size(); ++i) blob_types[bottoms[i]] = in[i];
    for (size_t i = 0; i < tops.size() && i < out.size(); ++i) blob_types[tops[i]] = out[i];
    for (size_t i = 0; i < auxes.size() && i < aux.size(); ++i) blob_types[auxes[i]] = aux[i];
  }
  return 0;
}

int DefaultNet::PlanMemory(const std::vector<TShape>& blob_shapes,
                           const std::vector<int>& blob_types, std::vector<int>& vstorage_ids) {
  return PlanGraphMemory(layers_, outs_blobs_index_, blob_shapes, blob_types, vstorage_ids);
}

int DefaultNet::InitInternalBlobs(const std::vector<TShape>& blob_shapes,
                                  const std::vector<int>& blob_types) {
  std::vector<int> vstorage_ids;
  PlanMemory(blob_shapes, blob_types, vstorage_ids);

  // True byte size of each slab: the largest blob it serves.
  std::vector<size_t> pool_info;
  for (size_t i = 0; i < blobs_.size(); ++i) {
    if (vstorage_ids[i] < 0) {
      CHECK(!blobs_[i].is_none());
      continue;
    }
    const size_t bytes = static_cast<size_t>(blob_shapes[i].Size()) * orvik_sizeof(blob_types[i]);
    const size_t sid = static_cast<size_t>(vstorage_ids[i]);
    if (pool_info.size() < sid + 1) pool_info.resize(sid + 1, 0);
    pool_info[sid] = std::max(pool_info[sid], bytes);
  }

  data_pool_.clear();
  data_pool_.resize(pool_info.size());
  std::vector<size_t> sorted(pool_info.size());
  for (size_t i = 0; i < sorted.size(); ++i) sorted[i] = i;
  std::sort(sorted.begin(), sorted.end(),
            [&pool_info](size_t a, size_t b) { return pool_info[a] > pool_info[b]; });
  // Largest slabs first.  Every slab is an array of 32-bit words.
  for (size_t index : sorted) {
    const size_t nword = (pool_info[index] + 3) / 4;
    CHECK_LE(nword, std::numeric_limits<index_t>::max());
    data_pool_[index] = NDArray(TShape{static_cast<index_t>(nword)}, default_type_flag);
  }
  CHECK_EQ(data_pool_.size(), pool_info.size());

  for (size_t i = 0; i < blobs_.size(); ++i) {
    if (!blobs_[i].is_none()) continue;
    const int storage_id = vstorage_ids[i];
    CHECK_GE(storage_id, 0);
    blobs_[i] = data_pool_.at(storage_id).AsArray(blob_shapes[i], blob_types[i]);
  }
  return 0;
}

int DefaultNet::CacheLayerContexts(Layer* layer, int index) {
  LayerContext& c = layer_contexts_[index];
  c.layer = layer;
  for (uint32_t id : layer->GetBottoms()) c.bottom_blobs.push_back(&blobs_[id]);
  for (uint32_t id : layer->GetTops()) c.top_blobs.push_back(&blobs_[id]);
  for (uint32_t id : layer->GetAuxes()) c.aux_blobs.push_back(&blobs_[id]);
  return 0;
}

int DefaultNet::Run(int start, int end) {
  for (int i = start; i < end; ++i) {
    LayerContext& c = layer_contexts_[i];
    c.layer->Forward(c.bottom_blobs, c.top_blobs, c.aux_blobs);
  }
  return 0;
}

int DefaultNet::Forward() { return Run(0, static_cast<int>(layers_.size())); }

int DefaultNet::Forward(int step, int* step_left) {
  const size_t count = layers_.size();
  if (count > static_cast<uint32_t>(step)) {
    Run(step, step + 1);
    *step_left = static_cast<int>(count - 1 - step);
  } else {
    *step_left = 0;
  }
  return 0;
}

int DefaultNet::ResetInterBuff() {
  for (auto& layer : layers_) layer->ResetInterBuff();
  return 0;
}

int DefaultNet::UpdateInterBuff() {
  for (auto& layer : layers_) layer->UpdateInterBuff();
  return 0;
}

int DefaultNet::SetInput(const char* key, const float* data, uint32_t size) {
  auto it = args_name_to_index_.find(key);
  if (it == args_name_to_index_.end()) {
    RTC_LOG(LS_ENGINE) << "Cannot find input key " << key;
  }
  // An undeclared key has no blob to write to: stop here rather than write
  // through a missing entry.
  CHECK(it != args_name_to_index_.end()) << "Cannot find input key " << key;
  blobs_[args_blobs_index_[it->second]].SyncCopyFrom(data, size);
  return 0;
}

int DefaultNet::SetDynamicBatch(uint32_t batch) {
  for (uint32_t id : batch_blobs_) blobs_[id].SetCurBatch(batch);
  return 0;
}

int DefaultNet::GetOutput(uint32_t index, float* data, uint32_t size) {
  CHECK(index < outs_blobs_index_.size()) << "Output index out of range";
  blobs_[outs_blobs_index_[index]].SyncCopyTo(data, size);
  return 0;
}

int DefaultNet::GetOutputShape(uint32_t out_index, uint32_t** shape_data, uint32_t* shape_ndim) {
  CHECK(out_index < outs_blobs_index_.size());
  std::vector<uint32_t>& cached = out_shapes_[out_index];
  cached.clear();
  const TShape& shape = blobs_[outs_blobs_index_[out_index]].shape();
  for (uint32_t i = 0; i < shape.ndim(); ++i) cached.push_back(shape[i]);
  *shape_data = cached.data();
  *shape_ndim = static_cast<uint32_t>(cached.size());
  return 0;
}

}  // namespace ruvo
}  // namespace orvik
