#include "ruvo/json_load.h"

#include "orviklog/src/checks.h"

namespace orvik {
namespace ruvo {

namespace {

// A string item's text.  A number or an object where a string belongs has
// no text; that ends here rather than in a string built from null.
std::string StringOf(const cJSON* item, const char* what) {
  const char* text = item->valuestring;
  CHECK(text != nullptr) << what << " is not a string";
  return text;
}

// Reads an [node_id, index, ...] entry; further elements are ignored.
JSONNode::Entry ReadEntry(cJSON* jEntry) {
  CHECK_GE(cJSON_GetArraySize(jEntry), 2);
  JSONNode::Entry e;
  e.node_id = static_cast<uint32_t>(cJSON_GetArrayItem(jEntry, 0)->valueint);
  e.index = static_cast<uint32_t>(cJSON_GetArrayItem(jEntry, 1)->valueint);
  return e;
}

// Inserts the children of an object of strings; a key already present
// keeps its value.
void ReadStringMap(cJSON* jobj, const char* what,
                   std::unordered_map<std::string, std::string>* out) {
  for (cJSON* item = jobj->child; item != nullptr; item = item->next) {
    CHECK(item->string != nullptr) << what << " is not an object";
    out->emplace(item->string, StringOf(item, what));
  }
}

}  // namespace

JSONNode::JSONNode(cJSON* jnode) {
  CHECK_EQ(cJSON_HasObjectItem(jnode, "op"), 1) << "node:op not exist!";
  op = StringOf(cJSON_GetObjectItem(jnode, "op"), "node:op");
  CHECK_EQ(cJSON_HasObjectItem(jnode, "name"), 1) << "node:name not exist!";
  name = StringOf(cJSON_GetObjectItem(jnode, "name"), "node:name");
  CHECK_EQ(cJSON_HasObjectItem(jnode, "inputs"), 1) << "node:inputs not exist!";
  for (cJSON* jEntry = cJSON_GetObjectItem(jnode, "inputs")->child; jEntry != nullptr;
       jEntry = jEntry->next) {
    inputs.push_back(ReadEntry(jEntry));
  }
  if (cJSON_HasObjectItem(jnode, "attr")) {
    ReadStringMap(cJSON_GetObjectItem(jnode, "attr"), "node:attr", &attrs);
  }
  if (cJSON_HasObjectItem(jnode, "param")) {
    std::unordered_map<std::string, std::string> param;
    ReadStringMap(cJSON_GetObjectItem(jnode, "param"), "node:param", &param);
    attrs.insert(param.begin(), param.end());
  }
  attrs["__op_type_str__"] = op;
}

void JSONGraph::Load(cJSON* symbol_str) {
  CHECK_EQ(cJSON_HasObjectItem(symbol_str, "nodes"), 1) << "nodes not exists!";
  for (cJSON* jnode = cJSON_GetObjectItem(symbol_str, "nodes")->child; jnode != nullptr;
       jnode = jnode->next) {
    nodes.emplace_back(jnode);
    // The file lists nodes in topological order; the net relies on it.
    const size_t node_index = nodes.size() - 1;
    for (const JSONNode::Entry& e : nodes.back().inputs) {
      CHECK_LT(e.node_id, node_index)
          << "node " << nodes.back().name << ": an input must name an earlier node";
    }
  }

  CHECK_EQ(cJSON_HasObjectItem(symbol_str, "arg_nodes"), 1) << "arg_nodes not exists!";
  for (cJSON* item = cJSON_GetObjectItem(symbol_str, "arg_nodes")->child; item != nullptr;
       item = item->next) {
    const uint32_t node_id = static_cast<uint32_t>(item->valueint);
    CHECK_LT(node_id, nodes.size()) << "arg_nodes: no such node";
    arg_nodes.push_back(node_id);
  }

  CHECK_EQ(cJSON_HasObjectItem(symbol_str, "heads"), 1) << "heads not exists!";
  for (cJSON* jEntry = cJSON_GetObjectItem(symbol_str, "heads")->child; jEntry != nullptr;
       jEntry = jEntry->next) {
    const JSONNode::Entry head = ReadEntry(jEntry);
    CHECK_LT(head.node_id, nodes.size()) << "heads: no such node";
    heads.push_back(head);
  }

  if (!cJSON_HasObjectItem(symbol_str, "attrs")) return;  // old style
  cJSON* jattr = cJSON_GetObjectItem(symbol_str, "attrs");
  CHECK_EQ(cJSON_HasObjectItem(jattr, "mxnet_version"), 1)
      << "mxnet:nnvm, no mxnet_version specified!";
  int i = 0;
  for (cJSON* item = cJSON_GetObjectItem(jattr, "mxnet_version")->child; item != nullptr;
       item = item->next, ++i) {
    CHECK_LT(i, 2) << "invalid mxnet_version format";
    if (i == 0) {
      std::string type = StringOf(item, "mxnet_version type");
      CHECK(type == std::string("int")) << "invalid mxnet_version type, should be int";
    } else {
      int version = item->valueint;
      CHECK_GE(version, 901) << "nnvm began from 0.9.1";
      mxnet_version = version;
    }
  }
}

}  // namespace ruvo
}  // namespace orvik
