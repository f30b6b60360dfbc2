#ifndef RUVO_JSON_LOAD_H_
#define RUVO_JSON_LOAD_H_

// The symbol file read into plain structures: the nodes in file order (a
// topological order), the argument nodes and the output heads.  Nothing is
// remapped here and no layer is made.

#include <cjson/cJSON.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace orvik {
namespace ruvo {

struct JSONNode {
  // One output of one node.
  struct Entry {
    uint32_t node_id = 0;
    uint32_t index = 0;
  };

  JSONNode() = default;
  // Reads a node object: "op", "name", "inputs", and the attributes of
  // "attr" and "param" ("attr" wins a key present in both).  The attribute
  // "__op_type_str__" is set to the node's op.  Problems are fatal.
  explicit JSONNode(cJSON* jnode);

  std::string name;
  std::string op;  // "null" for a variable
  std::unordered_map<std::string, std::string> attrs;
  std::vector<Entry> inputs;
};

struct JSONGraph {
  // Fills a default-constructed graph from the root of a parsed symbol
  // file (null for a text the parser rejected).  Every problem is fatal.
  // Besides the file's own rules it guarantees that every input names an
  // earlier node and that every argument and head names a node of the
  // graph; output indices are not checked here.
  void Load(cJSON* symbol_str);

  std::vector<JSONNode> nodes;
  std::vector<uint32_t> arg_nodes;
  std::vector<JSONNode::Entry> heads;
  // 800 for graphs without "attrs"; above 900 means that a node's inputs
  // list its auxiliary states behind its ordinary inputs.
  int32_t mxnet_version = 800;
};

}  // namespace ruvo
}  // namespace orvik

#endif  // RUVO_JSON_LOAD_H_
