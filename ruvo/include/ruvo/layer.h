#ifndef RUVO_LAYER_H_
#define RUVO_LAYER_H_

// The operator interface of the engine, its scratch provider and the
// registry that makes layers from operator names.
//
// Lifecycle of every layer in a net: creator, SetType, SetName, Init,
// get_num_inputs, get_num_outputs, ListAuxiliaryStates, wiring of bottoms_,
// auxes_ and tops_ (blob ids), InferShape, InferType, GetBatchBlobs, then
// Forward any number of times (ResetInterBuff / UpdateInterBuff between),
// then the destructor.  Counts and lists may depend on what Init parsed.

#include <cstdint>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "orviklog/src/checks.h"
#include "ruvo/base.h"
#include "ruvo/ndarray.h"

namespace orvik {
namespace ruvo {

// Three scratch buffers shared by all layers of one net.  A layer asks for
// its scratch on every Forward; a buffer only grows, so the steady state
// allocates nothing.  Nothing survives from one layer to the next.
class Resource {
 public:
  static constexpr int num_inter_buf_ = 3;

  // Each buffer starts as a (16) array of default_type_flag.
  Resource();

  // A view of buffer `idx` as `shape` and `dtype`.  When the buffer has
  // fewer bytes than asked for it is replaced by a fresh array of exactly
  // that shape and type (handles given out earlier keep the old block).
  NDArray GetInterBuf(int idx, TShape shape, int dtype);

  NDArray inter_buf_[num_inter_buf_];
};

typedef std::unordered_map<std::string, std::string> LayerAttrs;

class Layer {
 public:
  Layer() = default;
  virtual ~Layer() = default;
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  // Runs the layer on the blobs given by bottoms_, tops_ and auxes_, in that
  // order.  Returns 0; the default does nothing and returns -1.
  virtual int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
                      std::vector<NDArray*>& aux_blobs);
  virtual uint32_t get_num_inputs() const { return 1; }
  virtual uint32_t get_num_outputs() const { return 1; }
  virtual std::vector<std::string> ListArguments() const { return {"data"}; }
  virtual std::vector<std::string> ListOutputs() const { return {"output"}; }
  virtual std::vector<std::string> ListAuxiliaryStates() const { return {}; }
  // For layers that keep state from one Forward to the next; 0.
  virtual int ResetInterBuff() { return 0; }
  virtual int UpdateInterBuff() { return 0; }
  // Fills empty shapes it can infer; a filled slot is given.  The default
  // changes nothing.
  virtual bool InferShape(std::vector<TShape>& in_shape, std::vector<TShape>& out_shape,
                          std::vector<TShape>& aux_shape);
  // Default: one output of the first input's type, which must be known.
  virtual bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                         std::vector<int>& aux_type);
  // Parses the attributes (all text) and sets inited_.
  virtual void Init(const LayerAttrs& attrs);
  // Pairs (input, output) that may share memory.
  virtual std::vector<std::pair<int, int>> FInplaceOption() const { return {}; }
  // Positions in bottoms_ / tops_ of the blobs whose first dimension is
  // the batch.
  virtual std::vector<uint32_t> GetInputBatchBlobs() const { return {0}; }
  virtual std::vector<uint32_t> GetOutputBatchBlobs() const { return {0}; }

  std::string GetName() const { return name_; }
  std::string GetType() const { return type_; }
  void SetName(std::string name) { name_ = std::move(name); }
  void SetType(std::string type) { type_ = std::move(type); }
  std::vector<uint32_t>& GetBottoms() { return bottoms_; }
  std::vector<uint32_t>& GetAuxes() { return auxes_; }
  std::vector<uint32_t>& GetTops() { return tops_; }
  // Blob ids: bottoms_[i] for each i of GetInputBatchBlobs(), then tops_[i]
  // for each i of GetOutputBatchBlobs().
  std::vector<uint32_t> GetBatchBlobs() const;

  bool inited_ = false;
  std::string type_;
  std::string name_;
  std::vector<uint32_t> bottoms_;
  std::vector<uint32_t> auxes_;
  std::vector<uint32_t> tops_;
  // The net's scratch provider; set by the net after all blobs exist, null
  // during Init.
  Resource* resource_ = nullptr;
};

// A variable of the graph: arguments and parameters are the tops of Input
// layers.  It has no inputs and computes nothing.
class Input : public Layer {
 public:
  int Forward(const std::vector<NDArray*>& bottom_blobs, std::vector<NDArray*>& top_blobs,
              std::vector<NDArray*>& aux_blobs) override;
  uint32_t get_num_inputs() const override { return 0; }
  std::vector<std::string> ListArguments() const override { return {}; }
  bool InferType(std::vector<int>& in_type, std::vector<int>& out_type,
                 std::vector<int>& aux_type) override;
  std::vector<uint32_t> GetInputBatchBlobs() const override { return {}; }
  std::vector<uint32_t> GetOutputBatchBlobs() const override { return {}; }
};

Layer* Input_layer_creator();

// ------------------------------------------------------------- registry

// Index of operator `name` in the registry, or -1 (logged at severity 4)
// when there is none.
int layer_to_index(const char* name);

// A new layer of registry entry `index`, owned by the caller, or null
// (logged at severity 4) when the index is outside the table or the
// operator is not built into this library.
Layer* create_layer(int index);

// ------------------------------------------------------ attribute idiom
//
//   std::string no_bias_symbol = AttrText(attrs, "no_bias", "False");
//   if (attrs.count("no_bias")) RUVO_CHECK_BOOL_ATTR(no_bias_symbol);
//   no_bias_ = no_bias_symbol == "True";
//
// The check prints the local variable's name, so name it as the layer's
// messages require.

// The attribute's text, or `dflt` when the map has no such key.
inline std::string AttrText(const LayerAttrs& attrs, const std::string& key,
                            const std::string& dflt) {
  auto it = attrs.find(key);
  return it == attrs.end() ? dflt : it->second;
}

// Booleans are spelled "True" or "False" and nothing else.
#define RUVO_CHECK_BOOL_ATTR(var) CHECK(((var) == "True" || (var) == "False"))

// Reads boolean attribute `key` into `member` through the local text `var`;
// only a present key is checked.
#define RUVO_BOOL_ATTR(attrs, key, dflt, var, member) \
  do {                                                \
    std::string var = (dflt);                         \
    if ((attrs).count(key)) {                         \
      var = (attrs).at(key);                          \
      RUVO_CHECK_BOOL_ATTR(var);                      \
    }                                                 \
    (member) = (var == "True");                       \
  } while (0)

// Reads a number or a shape from attribute text with the stream operators.
// Returns false (and leaves *value as the stream left it) when nothing
// could be read.
template <typename T>
bool ReadAttrValue(const std::string& text, T* value) {
  std::istringstream is(text);
  return static_cast<bool>(is >> *value);
}

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_LAYER_H_
