// Streams, the parameter file reader and the symbol file reader, on files
// made by tools/model_writer (tests/data/ruvo/gen_engine_files.py) and on
// hand-made bytes for the malformed cases.

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
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
using ruvo_test::RegexEscape;

std::string ReadDataFile(const std::string& name) {
  return net_test::ReadFile(std::string(TOVAD_TEST_DATA_DIR) + "/ruvo/" + name);
}

// Little-endian byte builder for hand-made parameter files.
class Bytes {
 public:
  Bytes& u32(uint32_t v) { return Put(&v, 4); }
  Bytes& i32(int32_t v) { return Put(&v, 4); }
  Bytes& u64(uint64_t v) { return Put(&v, 8); }
  Bytes& i64(int64_t v) { return Put(&v, 8); }
  Bytes& raw(const std::string& s) { return Put(s.data(), s.size()); }
  Bytes& zeros(size_t n) {
    data_.append(n, '\0');
    return *this;
  }
  // Header of a parameter file with `count` arrays.
  Bytes& header(uint64_t count, uint64_t magic = kRUVONDArrayListMagic) {
    return u64(magic).u64(0).u64(count);
  }
  // dev_type, dev_id, type flag of a non-empty record.
  Bytes& dev(int32_t flag) { return i32(1).i32(0).i32(flag); }
  const std::string& str() const { return data_; }

 private:
  Bytes& Put(const void* p, size_t n) {
    data_.append(static_cast<const char*>(p), n);
    return *this;
  }
  std::string data_;
};

constexpr uint32_t kModern = 0xF993FAC8;

void LoadAll(std::string bytes, std::vector<NDArray>* data, std::vector<std::string>* names) {
  io::MemoryFixedSizeStream fi(&bytes[0], bytes.size());
  NDArray::Load(&fi, *data, *names);
}

const char kStreamCheck[] = "# Check failed: curr_ptr_ + size <= buffer_size_\n#";

TEST(MemoryStreamTest, ReadsWritesSeeksAndNeverPassesTheEnd) {
  char block[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  io::MemoryFixedSizeStream s(block, sizeof(block));
  char out[3];
  EXPECT_EQ(s.Read(out, 3), 3u);
  EXPECT_EQ(out[2], 3);
  const char in[2] = {40, 50};
  s.Write(in, 2);
  EXPECT_EQ(block[4], 50);
  s.Seek(6);
  EXPECT_EQ(s.Read(out, 2), 2u);  // up to the very end
  EXPECT_EQ(out[1], 8);
  s.Seek(100);  // unchecked; a size 0 write returns at once
  s.Write(in, 0);
  EXPECT_EQ(s.Tell(), 100u);
  // Past the end, also by lengths that would wrap the position around.
  const struct {
    size_t at, n;
    bool write;
  } bad[] = {{0, 9, false}, {7, 2, true}, {4, SIZE_MAX - 2, false}, {9, 0, false}};
  for (const auto& c : bad) {
    EXPECT_DEATH(
        {
          io::MemoryFixedSizeStream t(block, 8);
          t.Seek(c.at);
          if (c.write) {
            t.Write(block, c.n);
          } else {
            t.Read(out, c.n);
          }
        },
        RegexEscape(kStreamCheck));
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
  size_t pos() const { return pos_; }

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
  const size_t n = sizeof(kWrittenArrays) / sizeof(kWrittenArrays[0]);
  ASSERT_EQ(data.size(), n);
  ASSERT_EQ(names.size(), n);
  for (size_t k = 0; k < n; ++k) {
    const ExpectedArray& e = kWrittenArrays[k];
    SCOPED_TRACE(e.name);
    EXPECT_EQ(names[k], e.name);
    if (e.flag < 0) {
      EXPECT_TRUE(data[k].is_none());
      EXPECT_EQ(data[k].dtype(), -1);
      continue;
    }
    ASSERT_FALSE(data[k].is_none());
    EXPECT_EQ(data[k].shape(), e.shape);
    EXPECT_EQ(data[k].dtype(), e.flag);
    EXPECT_EQ(data[k].shift_, 255);
    ASSERT_EQ(data[k].chunk_->bytes_, e.shape.Size() * orvik_sizeof(e.flag));
    for (index_t i = 0; i < e.shape.Size(); ++i) {
      const double v = i * e.scale + e.offset;
      const double want = e.flag == kFloat32 ? static_cast<float>(v) : e.flag == kFloat16 ? 16.0 * i : v;
      ASSERT_EQ(Element(data[k], i), want) << i;
    }
  }
  EXPECT_EQ(data[0].dptr<float>()[11], 1.75f);  // 11 * 0.25 - 1
  EXPECT_EQ(data[3].dptr<signed char>()[17], 55);
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
      {Bytes().u32(kModern).u32(3).i64(0x100000003LL).i64(-1).i64(7).str(),
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
      Bytes().u32(kModern).u32(2).i64(2).i64(2).dev(kInt32).u32(1).u32(2).u32(3).u32(4).str();
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

// A malformed file (or symbol text) and the report it must end with.
struct BadFile {
  const char* what;
  std::string bytes;
  std::string report;
};

std::string CaseName(const ::testing::TestParamInfo<BadFile>& info) {
  std::string name;
  for (char ch : std::string(info.param.what)) name += isalnum(ch) ? ch : '_';
  return name;
}

class BadParamsDeathTest : public ::testing::TestWithParam<BadFile> {};

TEST_P(BadParamsDeathTest, EndsInTheCheck) {
  std::vector<NDArray> data;
  std::vector<std::string> names;
  EXPECT_DEATH(LoadAll(GetParam().bytes, &data, &names), GetParam().report);
}

const std::string kInvalid = "Invalid NDArray file format";
const std::string kPastEnd = RegexEscape(kStreamCheck);
const std::string kBadType = Fatal("type > -1 && type < kUnused", "Type not initialized!");
const std::string kGoodRecord = Bytes().u32(1).u32(2).dev(kFloat32).u32(0).u32(0).str();

INSTANTIATE_TEST_SUITE_P(
    Files, BadParamsDeathTest,
    ::testing::Values(
        BadFile{"magic 0x113", Bytes().header(0, 0x113).u64(0).str(),
                Fatal("header == kRUVONDArrayListMagic", kInvalid)},
        BadFile{"empty file", "", kPastEnd},
        BadFile{"unknown type flag", Bytes().header(1).u32(1).u32(1).dev(7).zeros(16).str(), kBadType},
        BadFile{"negative type flag", Bytes().header(1).u32(1).u32(1).dev(-1).zeros(16).str(), kBadType},
        BadFile{"element count beyond 32 bits",
                Bytes().header(1).u32(2).u32(65536).u32(65536).dev(kInt8).zeros(64).str(),
                RegexEscape("# Check failed: shape_size_fits\n# NDArray.Load: element count "
                            "of shape (65536,65536) exceeds 32 bits")},
        BadFile{"data larger than the file",
                Bytes().header(1).u32(1).u32(1000).dev(kFloat32).zeros(64).str(), kPastEnd},
        BadFile{"huge modern ndim", Bytes().header(1).u32(kModern).u32(0x7FFFFFFF).str(), kPastEnd},
        BadFile{"huge array count", Bytes().header(0xFFFFFFFFFFFFFFFFull).zeros(8).str(), kPastEnd},
        BadFile{"huge name length", Bytes().header(0).u64(1).u64(0xFFFFFFFFFFFFFF00ull).raw("abc").str(),
                kPastEnd},
        BadFile{"missing name count", Bytes().header(1).raw(kGoodRecord).str(), kPastEnd}),
    CaseName);

// The "Invalid NDArray file format" checks speak for streams that return
// short counts instead of stopping.
TEST(ParamsDeathTest, ShortStreamsMeetTheFormatChecks) {
  const struct {
    std::string bytes, check;
  } cases[] = {
      {"", "fi->Read(&header, sizeof(header)) == sizeof(header)"},
      {Bytes().u64(kRUVONDArrayListMagic).str(), "fi->Read(&reserved, sizeof(reserved)) == sizeof(reserved)"},
      {Bytes().u64(kRUVONDArrayListMagic).u64(0).str(), "fi->Read(&sz, sizeof(sz)) == sizeof(sz)"},
      {Bytes().header(1).u32(1).u32(4).dev(kFloat32).str(), "dst.Load(fi)"},
      {Bytes().header(0).u64(1).u32(3).str(), "fi->Read(&strsz, sizeof(strsz)) == sizeof(strsz)"},
      {Bytes().header(0).u64(1).u64(5).raw("abc").str(), "fi->Read(&keystr[0], nbytes) == nbytes"},
  };
  for (const auto& c : cases) {
    EXPECT_DEATH(
        {
          ShortStream fi(c.bytes);
          std::vector<NDArray> data;
          std::vector<std::string> names;
          NDArray::Load(&fi, data, names);
        },
        Fatal(c.check, kInvalid));
  }
}

JSONGraph LoadGraph(const std::string& text) {
  cJSON* root = cJSON_Parse(text.c_str());
  JSONGraph graph;
  graph.Load(root);
  cJSON_Delete(root);
  return graph;
}

void ExpectEntry(const JSONNode::Entry& e, uint32_t node_id, uint32_t index) {
  EXPECT_EQ(e.node_id, node_id);
  EXPECT_EQ(e.index, index);
}

TEST(SymbolTest, NewAndOldStyleFiles) {
  JSONGraph g = LoadGraph(ReadDataFile("symbol_new.json"));
  EXPECT_EQ(g.mxnet_version, 10600);
  ASSERT_EQ(g.nodes.size(), 12u);
  EXPECT_EQ(g.arg_nodes, (std::vector<uint32_t>{0, 1, 2, 4, 5, 6, 7, 10}));
  ASSERT_EQ(g.heads.size(), 1u);
  ExpectEntry(g.heads[0], 11, 0);
  EXPECT_EQ(g.nodes[0].name, "data");
  EXPECT_EQ(g.nodes[0].attrs.at("__op_type_str__"), "null");
  const JSONNode& bn = g.nodes[8];
  EXPECT_EQ(bn.op, "BatchNorm");
  ASSERT_EQ(bn.inputs.size(), 5u);  // three inputs and two aux states
  ExpectEntry(bn.inputs[0], 3, 0);  // [3, 0, 0]
  ExpectEntry(bn.inputs[4], 7, 0);
  EXPECT_EQ(bn.attrs.at("eps"), "0.001");  // "attr" wins over "param"
  EXPECT_EQ(bn.attrs.at("fix_gamma"), "False");
  EXPECT_EQ(bn.attrs.size(), 4u);
  // An "__op_type_str__" in the file gives way to the node's op.
  EXPECT_EQ(g.nodes[9].attrs.at("__op_type_str__"), "Activation");

  JSONGraph old = LoadGraph(ReadDataFile("symbol_old.json"));
  EXPECT_EQ(old.mxnet_version, 800);
  ASSERT_EQ(old.nodes.size(), 5u);
  EXPECT_EQ(old.nodes[2].attrs.at("num_hidden"), "6");
  ExpectEntry(old.nodes[4].inputs.at(0), 3, 1);
  ASSERT_EQ(old.heads.size(), 2u);
  ExpectEntry(old.heads[1], 4, 0);
}

// A minimal graph text with its "attrs" part (or none) spliced in.
std::string Graph(const std::string& attrs,
                  const std::string& nodes = R"([{"op":"null","name":"x","inputs":[]}])") {
  return R"({"nodes":)" + nodes + R"(,"arg_nodes":[0],"heads":[[0,0]])" + attrs + "}";
}

TEST(SymbolTest, VersionsAndSmallForms) {
  EXPECT_EQ(LoadGraph(Graph("")).mxnet_version, 800);
  EXPECT_EQ(LoadGraph(Graph(R"(,"attrs":{"mxnet_version":["int",901]})")).mxnet_version, 901);
  // A version list of one element passes and keeps 800.
  EXPECT_EQ(LoadGraph(Graph(R"(,"attrs":{"mxnet_version":["int"]})")).mxnet_version, 800);
  // Other top-level and "attrs" keys are ignored.
  EXPECT_EQ(
      LoadGraph(Graph(R"(,"node_row_ptr":[0,1],"attrs":{"x":1,"mxnet_version":["int",10600]})"))
          .mxnet_version,
      10600);
  EXPECT_TRUE(LoadGraph(R"({"nodes":[],"arg_nodes":[],"heads":[]})").nodes.empty());
  // Extra entry elements are ignored; a node key "attrs" is not read.
  JSONGraph g = LoadGraph(R"({"nodes":[
      {"op":"null","name":"a","inputs":[]},{"op":"null","name":"b","inputs":[]},
      {"op":"null","name":"c","inputs":[]},{"op":"null","name":"d","inputs":[]},
      {"op":"relu","name":"e","inputs":[[3,0,0],[1,2,9,9]],"attrs":{"k":"v"}}],
      "arg_nodes":[0,1,2,3],"heads":[[4,0,5]]})");
  ASSERT_EQ(g.nodes[4].inputs.size(), 2u);
  ExpectEntry(g.nodes[4].inputs[1], 1, 2);
  EXPECT_EQ(g.nodes[4].attrs.count("k"), 0u);
  ExpectEntry(g.heads[0], 4, 0);
}

class BadGraphDeathTest : public ::testing::TestWithParam<BadFile> {};

TEST_P(BadGraphDeathTest, EndsInTheCheck) {
  EXPECT_DEATH(LoadGraph(GetParam().bytes), GetParam().report);
}

std::string Has(const std::string& object, const std::string& key) {
  return "cJSON_HasObjectItem(" + object + ", \"" + key + "\") == 1 (0 vs. 1)";
}

// Node x, then a node y with the given inputs.
std::string WithInputs(const std::string& inputs) {
  return Graph("", R"([{"op":"null","name":"x","inputs":[]},{"op":"relu","name":"y","inputs":)" +
                       inputs + "}]");
}

const std::string kShortEntry = RegexEscape("# Check failed: cJSON_GetArraySize(jEntry) >= 2 (1 vs. 2)");
const std::string kLaterNode = "node y: an input must name an earlier node";

INSTANTIATE_TEST_SUITE_P(
    Files, BadGraphDeathTest,
    ::testing::Values(
        BadFile{"version 900", Graph(R"(,"attrs":{"mxnet_version":["int",900]})"),
                Fatal("version >= 901 (900 vs. 901)", "nnvm began from 0.9.1")},
        BadFile{"empty attrs", Graph(R"(,"attrs":{})"),
                Fatal(Has("jattr", "mxnet_version"), "mxnet:nnvm, no mxnet_version specified!")},
        BadFile{"version type", Graph(R"(,"attrs":{"mxnet_version":["float",10600]})"),
                Fatal("type == std::string(\"int\")", "invalid mxnet_version type, should be int")},
        BadFile{"version of three", Graph(R"(,"attrs":{"mxnet_version":["int",10600,1]})"),
                Fatal("i < 2 (2 vs. 2)", "invalid mxnet_version format")},
        BadFile{"unparsable text", "{\"nodes\": [", Fatal(Has("symbol_str", "nodes"), "nodes not exists!")},
        BadFile{"no arg_nodes", R"({"nodes":[],"heads":[]})",
                Fatal(Has("symbol_str", "arg_nodes"), "arg_nodes not exists!")},
        BadFile{"no heads", R"({"nodes":[],"arg_nodes":[]})",
                Fatal(Has("symbol_str", "heads"), "heads not exists!")},
        BadFile{"node without op", Graph("", R"([{"name":"x","inputs":[]}])"),
                Fatal(Has("jnode", "op"), "node:op not exist!")},
        BadFile{"node without name", Graph("", R"([{"op":"null","inputs":[]}])"),
                Fatal(Has("jnode", "name"), "node:name not exist!")},
        BadFile{"node without inputs", Graph("", R"([{"op":"null","name":"x"}])"),
                Fatal(Has("jnode", "inputs"), "node:inputs not exist!")},
        BadFile{"input of one element", WithInputs("[[0]]"), kShortEntry},
        BadFile{"op not a string", Graph("", R"([{"op":5,"name":"x","inputs":[]}])"),
                Fatal("text != nullptr", "node:op is not a string")},
        BadFile{"attr value not a string", Graph("", R"([{"op":"null","name":"x","inputs":[],"attr":{"k":1}}])"),
                Fatal("text != nullptr", "node:attr is not a string")},
        BadFile{"param not an object", Graph("", R"([{"op":"null","name":"x","inputs":[],"param":["a"]}])"),
                Fatal("item->string != nullptr", "node:param is not an object")},
        BadFile{"input names a later node", WithInputs("[[1,0]]"),
                Fatal("e.node_id < node_index (1 vs. 1)", kLaterNode)},
        BadFile{"input with a negative id", WithInputs("[[-1,0]]"),
                Fatal("e.node_id < node_index (4294967295 vs. 1)", kLaterNode)},
        BadFile{"argument past the end", R"({"nodes":[],"arg_nodes":[0],"heads":[]})",
                Fatal("node_id < nodes.size() (0 vs. 0)", "arg_nodes: no such node")},
        BadFile{"head past the end", R"({"nodes":[{"op":"null","name":"x","inputs":[]}],"arg_nodes":[0],"heads":[[1,0]]})",
                Fatal("head.node_id < nodes.size() (1 vs. 1)", "heads: no such node")}),
    CaseName);

}  // namespace
}  // namespace ruvo
}  // namespace orvik
