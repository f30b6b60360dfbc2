// Streams, the parameter file reader and the symbol file reader, on files
// made by tools/model_writer (tests/data/ruvo/gen_engine_files.py) and on
// hand-made bytes for the malformed cases.

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ruvo/io.h"
#include "ruvo/json_load.h"
#include "ruvo/ndarray.h"
#include "tests/ruvo/death_text.h"
#include "tests/ruvo/net_fixture.h"

namespace orvik {
namespace ruvo {
namespace {

using ruvo_test::Fatal;

std::string ReadDataFile(const std::string& name) {
  return net_test::ReadFile(std::string(TOVAD_TEST_DATA_DIR) + "/ruvo/" + name);
}

// Little-endian byte builder for hand-made parameter files.
struct Bytes {
  template <class T>
  Bytes& put(T v) {
    s.append(reinterpret_cast<const char*>(&v), sizeof(v));
    return *this;
  }
  Bytes& u32(uint32_t v) { return put(v); }
  Bytes& u64(uint64_t v) { return put(v); }
  Bytes& raw(const std::string& t) { return s += t, *this; }
  Bytes& zeros(size_t n) { return s.append(n, '\0'), *this; }
  // Header of a parameter file with `count` arrays.
  Bytes& header(uint64_t count, uint64_t magic = kRUVONDArrayListMagic) {
    return u64(magic).u64(0).u64(count);
  }
  // dev_type, dev_id, type flag of a non-empty record.
  Bytes& dev(int32_t flag) { return put(1).put(0).put(flag); }
  const std::string& str() const { return s; }
  std::string s;
};

constexpr uint32_t kModern = 0xF993FAC8;

void LoadAll(std::string bytes, std::vector<NDArray>* data, std::vector<std::string>* names) {
  io::MemoryFixedSizeStream fi(&bytes[0], bytes.size());
  NDArray::Load(&fi, *data, *names);
}

const std::string kPastEnd = Fatal("curr_ptr_ + size <= buffer_size_", "");

TEST(MemoryStreamTest, ReadsWritesSeeksAndNeverPassesTheEnd) {
  char block[8] = {1, 2, 3, 4, 5, 6, 7, 8}, out[3];
  io::MemoryFixedSizeStream s(block, sizeof(block));
  EXPECT_EQ(s.Read(out, 3), 3u);
  s.Write(out, 2);
  s.Seek(6);
  EXPECT_EQ(s.Read(out + 1, 2), 2u);  // up to the very end
  EXPECT_EQ(std::string(block, 8) + out[2], std::string("\1\2\3\1\2\6\7\10\10", 9));
  s.Seek(100);  // unchecked; a size 0 write returns at once
  s.Write(out, 0);
  EXPECT_EQ(s.Tell(), 100u);
  // Past the end, also by lengths that would wrap the position around.
  const struct {
    size_t at, n;
    bool write;
  } bad[] = {{0, 9, false}, {7, 2, true}, {4, SIZE_MAX - 2, false}, {9, 0, false}};
  for (const auto& c : bad) {
    io::MemoryFixedSizeStream t(block, 8);
    t.Seek(c.at);
    EXPECT_DEATH(c.write ? t.Write(block, c.n) : static_cast<void>(t.Read(out, c.n)), kPastEnd);
  }
}

// A stream that hands out fewer bytes than asked for at its end, as a file
// stream would: the reader's own short-read handling becomes visible.
class ShortStream : public io::Stream {
 public:
  explicit ShortStream(std::string data) : data_(std::move(data)) {}
  size_t Read(void* ptr, size_t size) override {
    size_t n = std::min(size, data_.size() - pos_);
    if (n) memcpy(ptr, data_.data() + pos_, n);
    pos_ += n;
    return n;
  }
  void Write(const void*, size_t) override {}

 private:
  std::string data_;
  size_t pos_ = 0;
};

// Expected contents of tests/data/ruvo/params_*.params: element i of each
// array is i * scale + offset in the array's type (see the generator).
struct ExpectedArray {
  const char* name;
  TShape shape;
  int flag;  // -1: an empty array
  double scale, offset;
};

// Element i as a double; kFloat16 elements are read as their first raw byte.
double Element(const NDArray& a, index_t i) {
  const char* p = static_cast<const char*>(a.chunk_->dptr_);
  switch (a.dtype()) {
    case kFloat32: return reinterpret_cast<const float*>(p)[i];
    case kFloat64: return reinterpret_cast<const double*>(p)[i];
    case kUint8: return reinterpret_cast<const uint8_t*>(p)[i];
    case kInt32: return reinterpret_cast<const int32_t*>(p)[i];
    case kInt8: return reinterpret_cast<const int8_t*>(p)[i];
    case kInt64: return static_cast<double>(reinterpret_cast<const int64_t*>(p)[i]);
    default: return static_cast<unsigned char>(p[16 * i]);
  }
}

const ExpectedArray kWrittenArrays[] = {
    {"arg:fc1_weight", TShape{4, 3}, kFloat32, 0.25, -1.0},
    {"arg:fc1_bias", TShape{4}, kFloat32, 1.0, 0.5},
    {"aux:bn1_moving_mean", TShape{4}, kFloat32, -0.5, 0.0},
    {"arg:conv_weight", TShape{2, 3, 3, 1}, kInt8, 7, -64},
    {"arg:table", TShape{3, 2}, kInt32, -100000, 7},
    {"", TShape(), -1, 0, 0},
    {"arg:deep", TShape{1, 2, 1, 2, 2}, kFloat64, 1.0 / 3.0, 0.0},
    {"arg:u8", TShape{5}, kUint8, 50, 3},
    {"arg:i64", TShape{2}, kInt64, 1099511627776.0, -5},
    {"arg:f16", TShape{2}, kFloat16, 0, 0},
    {"arg:nothing", TShape{2, 0}, kFloat32, 0, 0},
};

class WrittenParamsTest : public ::testing::TestWithParam<const char*> {};

TEST_P(WrittenParamsTest, LoadBackWithNamesShapesTypesAndBytes) {
  std::vector<NDArray> data;
  std::vector<std::string> names;
  LoadAll(ReadDataFile(GetParam()), &data, &names);
  const size_t n = std::size(kWrittenArrays);
  ASSERT_EQ(data.size(), n);
  ASSERT_EQ(names.size(), n);
  for (size_t k = 0; k < n; ++k) {
    const ExpectedArray& e = kWrittenArrays[k];
    SCOPED_TRACE(e.name);
    EXPECT_EQ(names[k], e.name);
    EXPECT_EQ(data[k].dtype(), e.flag);
    if (e.flag < 0) continue;
    EXPECT_EQ(data[k].shape(), e.shape);
    ASSERT_EQ(data[k].chunk_->bytes_, e.shape.Size() * orvik_sizeof(e.flag));
    for (index_t i = 0; i < e.shape.Size(); ++i) {
      const double v = i * e.scale + e.offset;
      const double want =
          e.flag == kFloat32 ? static_cast<float>(v) : e.flag == kFloat16 ? 16.0 * i : v;
      ASSERT_EQ(Element(data[k], i), want) << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(BothShapeForms, WrittenParamsTest,
                         ::testing::Values("params_modern.params", "params_legacy.params"));

// An empty list clears the targets; ten arrays with nine names pass this
// reader (the net's own check on that is in net_test).
TEST(ParamsTest, CountsAsTheFileHasThem) {
  std::vector<NDArray> data(3);
  std::vector<std::string> names(2);
  LoadAll(ReadDataFile("params_empty.params"), &data, &names);
  EXPECT_TRUE(data.empty());
  EXPECT_TRUE(names.empty());
  LoadAll(ReadDataFile("params_ten_nine.params"), &data, &names);
  EXPECT_EQ(data.size(), 10u);
  EXPECT_EQ(names.size(), 9u);
}

TEST(ParamsTest, ShapeFormsAndEmptyRecords) {
  // Legacy 32-bit dimensions as they are; of a modern 64-bit one only the
  // low 32 bits.  An ndim of 0 is an empty array and reads nothing more.
  const struct {
    std::string bytes;
    TShape shape;
    size_t consumed;
  } cases[] = {
      {Bytes().u32(2).u32(3).u32(0xFFFFFFFF).u32(77).str(), TShape{3, 0xFFFFFFFF}, 12},
      {Bytes().u32(kModern).u32(3).put(0x100000003LL).put(-1LL).put(7LL).str(),
       TShape{3, 0xFFFFFFFF, 7}, 32},
      {Bytes().u32(0).u32(77).str(), TShape(), 4},
      {Bytes().u32(kModern).u32(0).u32(77).str(), TShape(), 8},
  };
  for (const auto& c : cases) {
    std::string bytes = c.bytes;
    io::MemoryFixedSizeStream fi(&bytes[0], bytes.size());
    TShape s{9};
    ASSERT_TRUE(LegacyTShapeLoad(&fi, &s));
    EXPECT_EQ(s, c.shape);
    EXPECT_EQ(fi.Tell(), c.consumed);
    if (c.shape.ndim() > 0) continue;
    io::MemoryFixedSizeStream again(&bytes[0], bytes.size());
    NDArray a(TShape{3}, kFloat32);
    a.shift_ = 3;
    ASSERT_TRUE(a.Load(&again));
    EXPECT_TRUE(a.is_none());
    EXPECT_EQ(a.shift_, 255);
    EXPECT_EQ(again.Tell(), c.consumed);
  }
}

TEST(ParamsTest, ShortReadsReturnFalseAndLeaveTheTarget) {
  const std::string full =
      Bytes().u32(kModern).u32(2).put(2LL).put(2LL).dev(kInt32).u32(1).u32(2).u32(3).u32(4).str();
  for (size_t cut = 0; cut < full.size(); ++cut) {
    ShortStream fi(full.substr(0, cut));
    NDArray target(TShape{1}, kInt8);
    auto chunk = target.chunk_;
    EXPECT_FALSE(target.Load(&fi)) << cut;
    EXPECT_EQ(target.chunk_, chunk) << cut;
    EXPECT_EQ(target.dtype(), kInt8) << cut;
  }
  ShortStream fi(full);
  NDArray target;
  ASSERT_TRUE(target.Load(&fi));
  EXPECT_EQ(target.dptr<int>()[3], 4);
}

// A malformed file: the report through a memory stream, which knows its
// end, and the format check met instead through a stream that returns short
// counts (none: the same report).
struct BadParams {
  const char* what;
  std::string bytes, report;
  const char* short_check = nullptr;
};

template <class Row>
std::string What(const ::testing::TestParamInfo<Row>& info) {
  return info.param.what;
}

const std::string kInvalid = "Invalid NDArray file format";
const std::string kRecord = Bytes().u32(1).u32(4).dev(kFloat32).str();  // data missing
const std::string kName = Bytes().header(0).u64(1).str();                // before a name

class BadParamsDeathTest : public ::testing::TestWithParam<BadParams> {};

TEST_P(BadParamsDeathTest, EndsInTheCheck) {
  std::vector<NDArray> data;
  std::vector<std::string> names;
  EXPECT_DEATH(LoadAll(GetParam().bytes, &data, &names), GetParam().report);
  if (!GetParam().short_check) return;
  ShortStream fi(GetParam().bytes);
  EXPECT_DEATH(NDArray::Load(&fi, data, names), Fatal(GetParam().short_check, kInvalid));
}

const BadParams kBadParams[] = {
    {"magic", Bytes().header(0, 0x113).u64(0).str(),
     Fatal("header == kRUVONDArrayListMagic", kInvalid)},
    {"empty", "", kPastEnd, "fi->Read(&header, sizeof(header)) == sizeof(header)"},
    {"no_reserved", Bytes().u64(kRUVONDArrayListMagic).str(), kPastEnd,
     "fi->Read(&reserved, sizeof(reserved)) == sizeof(reserved)"},
    {"no_count", Bytes().u64(kRUVONDArrayListMagic).u64(0).str(), kPastEnd,
     "fi->Read(&sz, sizeof(sz)) == sizeof(sz)"},
    {"type_flag", Bytes().header(1).u32(1).u32(1).dev(7).zeros(16).str(),
     Fatal("type > -1 && type < kUnused", "Type not initialized!")},
    {"count_past_32_bits", Bytes().header(1).u32(2).u32(65536).u32(65536).dev(kInt8).str(),
     Fatal("shape_size_fits",
           "NDArray.Load: element count of shape (65536,65536) exceeds 32 bits")},
    {"data_past_end", Bytes().header(1).raw(kRecord).zeros(8).str(), kPastEnd, "dst.Load(fi)"},
    // 34 GB claimed: the check must come before the allocation.
    {"data_huge", Bytes().header(1).u32(2).u32(65535).u32(65535).dev(kFloat64).str(), kPastEnd},
    {"huge_ndim", Bytes().header(1).u32(kModern).u32(0x7FFFFFFF).str(), kPastEnd},
    {"huge_count", Bytes().header(0xFFFFFFFFFFFFFFFFull).zeros(8).str(), kPastEnd},
    {"huge_name", Bytes().raw(kName).u64(0xFFFFFFFFFFFFFF00ull).raw("abc").str(), kPastEnd},
    {"name_past_end", Bytes().raw(kName).u64(5).raw("abc").str(), kPastEnd,
     "fi->Read(&keystr[0], nbytes) == nbytes"},
    {"no_name_size", Bytes().raw(kName).u32(3).str(), kPastEnd,
     "fi->Read(&strsz, sizeof(strsz)) == sizeof(strsz)"},
    {"no_name_count", Bytes().header(1).u32(1).u32(2).dev(kFloat32).zeros(8).str(), kPastEnd,
     "fi->Read(&sz, sizeof(sz)) == sizeof(sz)"},
};
INSTANTIATE_TEST_SUITE_P(Files, BadParamsDeathTest, ::testing::ValuesIn(kBadParams),
                         What<BadParams>);

JSONGraph LoadGraph(const std::string& text) {
  cJSON* root = cJSON_Parse(text.c_str());
  JSONGraph graph;
  graph.Load(root);
  cJSON_Delete(root);
  return graph;
}

using Entries = std::vector<std::pair<uint32_t, uint32_t>>;  // (node, output)
using Attrs = std::unordered_map<std::string, std::string>;

Entries Of(const std::vector<JSONNode::Entry>& es) {
  Entries out;
  for (const auto& e : es) out.emplace_back(e.node_id, e.index);
  return out;
}

TEST(SymbolTest, NewAndOldStyleFiles) {
  JSONGraph g = LoadGraph(ReadDataFile("symbol_new.json"));
  EXPECT_EQ(g.mxnet_version, 10600);
  ASSERT_EQ(g.nodes.size(), 12u);
  EXPECT_EQ(g.arg_nodes, (std::vector<uint32_t>{0, 1, 2, 4, 5, 6, 7, 10}));
  EXPECT_EQ(Of(g.heads), (Entries{{11, 0}}));
  EXPECT_EQ(g.nodes[0].attrs, (Attrs{{"__op_type_str__", "null"}}));
  // Three inputs and two aux states; "attr" wins over "param".
  EXPECT_EQ(Of(g.nodes[8].inputs), (Entries{{3, 0}, {4, 0}, {5, 0}, {6, 0}, {7, 0}}));
  EXPECT_EQ(g.nodes[8].attrs, (Attrs{{"eps", "0.001"}, {"fix_gamma", "False"}, {"momentum", "0.9"},
                                     {"__op_type_str__", "BatchNorm"}}));
  // An "__op_type_str__" in the file gives way to the node's op.
  EXPECT_EQ(g.nodes[9].attrs.at("__op_type_str__"), "Activation");

  JSONGraph old = LoadGraph(ReadDataFile("symbol_old.json"));
  EXPECT_EQ(old.mxnet_version, 800);
  ASSERT_EQ(old.nodes.size(), 5u);
  EXPECT_EQ(old.nodes[2].attrs.at("num_hidden"), "6");
  EXPECT_EQ(Of(old.nodes[4].inputs), (Entries{{3, 1}}));
  EXPECT_EQ(Of(old.heads), (Entries{{3, 0}, {4, 0}}));
}

// A minimal graph text with its "attrs" part (or none) spliced in.
std::string Graph(const std::string& attrs,
                  const std::string& nodes = R"([{"op":"null","name":"x","inputs":[]}])") {
  return R"({"nodes":)" + nodes + R"(,"arg_nodes":[0],"heads":[[0,0]])" + attrs + "}";
}

std::string Version(const std::string& v) {
  return Graph(R"(,"attrs":{"mxnet_version":)" + v + "}");
}

TEST(SymbolTest, VersionsAndSmallForms) {
  // No version, or a list of one element, is 800; other top-level and
  // "attrs" keys are ignored.
  const std::string other =
      R"(,"node_row_ptr":[0,1],"attrs":{"x":1,"mxnet_version":["int",10600]})";
  const std::pair<std::string, int> versions[] = {{Graph(""), 800},
                                                  {Version(R"(["int",901])"), 901},
                                                  {Version(R"(["int"])"), 800},
                                                  {Graph(other), 10600}};
  for (const auto& v : versions) EXPECT_EQ(LoadGraph(v.first).mxnet_version, v.second) << v.first;
  EXPECT_TRUE(LoadGraph(R"({"nodes":[],"arg_nodes":[],"heads":[]})").nodes.empty());
  // Extra entry elements are ignored; a node key "attrs" is not read.
  JSONGraph g = LoadGraph(R"({"nodes":[
      {"op":"null","name":"a","inputs":[]},{"op":"null","name":"b","inputs":[]},
      {"op":"null","name":"c","inputs":[]},{"op":"null","name":"d","inputs":[]},
      {"op":"relu","name":"e","inputs":[[3,0,0],[1,2,9,9]],"attrs":{"k":"v"}}],
      "arg_nodes":[0,1,2,3],"heads":[[4,0,5]]})");
  EXPECT_EQ(Of(g.nodes[4].inputs), (Entries{{3, 0}, {1, 2}}));
  EXPECT_EQ(g.nodes[4].attrs.count("k"), 0u);
  EXPECT_EQ(Of(g.heads), (Entries{{4, 0}}));
}

// A malformed symbol text and the report it must end with.
struct BadGraph {
  const char* what;
  std::string text, report;
};

class BadGraphDeathTest : public ::testing::TestWithParam<BadGraph> {};

TEST_P(BadGraphDeathTest, EndsInTheCheck) {
  EXPECT_DEATH(LoadGraph(GetParam().text), GetParam().report);
}

std::string Has(const std::string& object, const std::string& key, const std::string& message) {
  return Fatal("cJSON_HasObjectItem(" + object + ", \"" + key + "\") == 1 (0 vs. 1)", message);
}

// The graph with node "x" as given, or followed by a node with these inputs.
std::string Node(const std::string& x) { return Graph("", "[" + x + "]"); }
std::string Inputs(const std::string& in) {
  return Node(R"({"op":"null","name":"x","inputs":[]},{"op":"relu","name":"y","inputs":)" + in +
              "}");
}

// The string and object checks of a node are one helper each: one row for
// each.
const BadGraph kBadGraphs[] = {
    {"version_900", Version(R"(["int",900])"),
     Fatal("version >= 901 (900 vs. 901)", "nnvm began from 0.9.1")},
    {"empty_attrs", Graph(R"(,"attrs":{})"),
     Has("jattr", "mxnet_version", "mxnet:nnvm, no mxnet_version specified!")},
    {"version_type", Version(R"(["float",10600])"),
     Fatal("type == std::string(\"int\")", "invalid mxnet_version type, should be int")},
    {"version_of_three", Version(R"(["int",10600,1])"),
     Fatal("i < 2 (2 vs. 2)", "invalid mxnet_version format")},
    {"unparsable", "{\"nodes\": [", Has("symbol_str", "nodes", "nodes not exists!")},
    {"no_arg_nodes", R"({"nodes":[],"heads":[]})",
     Has("symbol_str", "arg_nodes", "arg_nodes not exists!")},
    {"no_heads", R"({"nodes":[],"arg_nodes":[]})", Has("symbol_str", "heads", "heads not exists!")},
    {"no_op", Node(R"({"name":"x","inputs":[]})"), Has("jnode", "op", "node:op not exist!")},
    {"no_name", Node(R"({"op":"null","inputs":[]})"), Has("jnode", "name", "node:name not exist!")},
    {"no_inputs", Node(R"({"op":"null","name":"x"})"),
     Has("jnode", "inputs", "node:inputs not exist!")},
    {"input_of_one", Inputs("[[0]]"), Fatal("cJSON_GetArraySize(jEntry) >= 2 (1 vs. 2)", "")},
    {"op_not_string", Node(R"({"op":5,"name":"x","inputs":[]})"),
     Fatal("text != nullptr", "node:op is not a string")},
    {"param_not_object", Node(R"({"op":"null","name":"x","inputs":[],"param":["a"]})"),
     Fatal("item->string != nullptr", "node:param is not an object")},
    {"input_later_node", Inputs("[[1,0]]"),
     Fatal("e.node_id < node_index (1 vs. 1)", "node y: an input must name an earlier node")},
    {"arg_past_end", R"({"nodes":[],"arg_nodes":[0],"heads":[]})",
     Fatal("node_id < nodes.size() (0 vs. 0)", "arg_nodes: no such node")},
    {"head_past_end",
     R"({"nodes":[{"op":"null","name":"x","inputs":[]}],"arg_nodes":[0],"heads":[[1,0]]})",
     Fatal("head.node_id < nodes.size() (1 vs. 1)", "heads: no such node")},
};
INSTANTIATE_TEST_SUITE_P(Files, BadGraphDeathTest, ::testing::ValuesIn(kBadGraphs), What<BadGraph>);

}  // namespace
}  // namespace ruvo
}  // namespace orvik
