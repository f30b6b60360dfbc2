// Streams, the parameter file reader and the symbol file reader, on files
// made by tools/model_writer (tests/data/ruvo/gen_engine_files.py) and on
// hand-made bytes for the malformed cases.

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ruvo/io.h"
#include "ruvo/json_load.h"
#include "ruvo/ndarray.h"
#include "tests/ruvo/death_text.h"

namespace orvik {
namespace ruvo {
namespace {

using ruvo_test::Fatal;
using ruvo_test::RegexEscape;

std::string ReadDataFile(const std::string& name) {
  const std::string path = std::string(TOVAD_TEST_DATA_DIR) + "/ruvo/" + name;
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "missing test data " << path;
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
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

// ------------------------------------------------------------ io streams

TEST(MemoryStreamTest, ReadsWritesAndSeeks) {
  char block[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  io::MemoryFixedSizeStream s(block, sizeof(block));
  EXPECT_EQ(s.Tell(), 0u);
  char out[3];
  EXPECT_EQ(s.Read(out, 3), 3u);
  EXPECT_EQ(out[2], 3);
  EXPECT_EQ(s.Tell(), 3u);
  EXPECT_EQ(s.Read(out, 0), 0u);
  const char in[2] = {40, 50};
  s.Write(in, 2);
  EXPECT_EQ(block[3], 40);
  EXPECT_EQ(block[4], 50);
  s.Seek(6);
  EXPECT_EQ(s.Read(out, 2), 2u);  // up to the very end
  EXPECT_EQ(out[1], 8);
  s.Seek(100);  // unchecked
  EXPECT_EQ(s.Tell(), 100u);
  s.Write(in, 0);  // size 0 returns at once, even out of range
  EXPECT_EQ(s.Tell(), 100u);
}

TEST(MemoryStreamDeathTest, NeverPassesTheEnd) {
  char block[8] = {};
  EXPECT_DEATH(
      {
        io::MemoryFixedSizeStream s(block, 8);
        char out[9];
        s.Read(out, 9);
      },
      RegexEscape(kStreamCheck));
  EXPECT_DEATH(
      {
        io::MemoryFixedSizeStream s(block, 8);
        s.Seek(7);
        s.Write(block, 2);
      },
      RegexEscape(kStreamCheck));
  // Lengths that would wrap the position around are refused, too.
  EXPECT_DEATH(
      {
        io::MemoryFixedSizeStream s(block, 8);
        s.Seek(4);
        char out[1];
        s.Read(out, SIZE_MAX - 2);
      },
      RegexEscape(kStreamCheck));
  EXPECT_DEATH(
      {
        io::MemoryFixedSizeStream s(block, 8);
        s.Seek(9);
        char out[1];
        s.Read(out, 0);
      },
      RegexEscape(kStreamCheck));
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

// --------------------------------------------------------- array records

// Expected contents of tests/data/ruvo/params_*.params: element i of each
// array is i * scale + offset in the array's type (see the generator).
struct ExpectedArray {
  const char* name;
  TShape shape;
  int flag;  // -1: an empty array
  double scale, offset;
};

std::vector<unsigned char> RampBytes(const ExpectedArray& e) {
  std::vector<unsigned char> out;
  auto put = [&out](const void* p, size_t n) {
    out.insert(out.end(), static_cast<const unsigned char*>(p),
               static_cast<const unsigned char*>(p) + n);
  };
  for (index_t i = 0; i < e.shape.Size(); ++i) {
    const double v = i * e.scale + e.offset;
    switch (e.flag) {
      case kFloat32: {
        float f = static_cast<float>(v);
        put(&f, 4);
        break;
      }
      case kFloat64:
        put(&v, 8);
        break;
      case kUint8: {
        uint8_t u = static_cast<uint8_t>(v);
        put(&u, 1);
        break;
      }
      case kInt32: {
        int32_t x = static_cast<int32_t>(v);
        put(&x, 4);
        break;
      }
      case kInt8: {
        int8_t x = static_cast<int8_t>(v);
        put(&x, 1);
        break;
      }
      case kInt64: {
        int64_t x = static_cast<int64_t>(v);
        put(&x, 8);
        break;
      }
      case kFloat16:  // raw bytes 0, 1, 2, ... (16 per element)
        for (int b = 0; b < 16; ++b) out.push_back(static_cast<unsigned char>(i * 16 + b));
        break;
    }
  }
  return out;
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
    EXPECT_EQ(data[k].offset_, 0u);
    EXPECT_EQ(data[k].batch_max_, 0u);
    EXPECT_EQ(data[k].shift_, 255);
    const std::vector<unsigned char> want = RampBytes(e);
    ASSERT_EQ(data[k].chunk_->bytes_, want.size());
    if (!want.empty()) {
      EXPECT_EQ(memcmp(data[k].chunk_->dptr_, want.data(), want.size()), 0);
    }
  }
  EXPECT_EQ(data[0].dptr<float>()[11], 1.75f);  // 11 * 0.25 - 1
  EXPECT_EQ(data[3].dptr<signed char>()[17], 55);
}

INSTANTIATE_TEST_SUITE_P(BothShapeForms, WrittenParamsTest,
                         ::testing::Values("params_modern.params", "params_legacy.params"));

TEST(ParamsTest, EmptyListAndUnequalCounts) {
  std::vector<NDArray> data(3);
  std::vector<std::string> names(2);
  LoadAll(ReadDataFile("params_empty.params"), &data, &names);
  EXPECT_TRUE(data.empty());
  EXPECT_TRUE(names.empty());

  // Ten arrays with nine names pass this reader; the net rejects them.
  LoadAll(ReadDataFile("params_ten_nine.params"), &data, &names);
  ASSERT_EQ(data.size(), 10u);
  ASSERT_EQ(names.size(), 9u);
  EXPECT_EQ(names[8], "arg:p8");
  EXPECT_EQ(data[9].dptr<float>()[0], 9.0f);
}

TEST(ParamsTest, EmptyRecordsConsumeOnlyTheirShape) {
  const struct {
    std::string bytes;
    size_t consumed;
  } cases[] = {
      {Bytes().u32(0).u32(77).str(), 4},               // legacy ndim 0
      {Bytes().u32(kModern).u32(0).u32(77).str(), 8},  // modern ndim 0
  };
  for (const auto& c : cases) {
    std::string bytes = c.bytes;
    io::MemoryFixedSizeStream fi(&bytes[0], bytes.size());
    NDArray a(TShape{3}, kFloat32);
    a.shift_ = 3;
    ASSERT_TRUE(a.Load(&fi));
    EXPECT_TRUE(a.is_none());
    EXPECT_EQ(a.shift_, 255);
    EXPECT_EQ(a.dtype(), -1);
    EXPECT_EQ(a.shape().ndim(), 0u);
    EXPECT_EQ(fi.Tell(), c.consumed);
  }
}

TEST(ParamsTest, ShapeForms) {
  // Legacy: 32-bit dimensions as they are.
  std::string legacy = Bytes().u32(2).u32(3).u32(0xFFFFFFFF).str();
  io::MemoryFixedSizeStream f1(&legacy[0], legacy.size());
  TShape s;
  ASSERT_TRUE(LegacyTShapeLoad(&f1, &s));
  EXPECT_EQ(s, (TShape{3, 0xFFFFFFFF}));
  // Modern: only the low 32 bits of a 64-bit dimension are kept.
  std::string modern =
      Bytes().u32(kModern).u32(6).i64(0x100000003LL).i64(-1).i64(1).i64(2).i64(5).i64(7).str();
  io::MemoryFixedSizeStream f2(&modern[0], modern.size());
  ASSERT_TRUE(LegacyTShapeLoad(&f2, &s));
  EXPECT_EQ(s, (TShape{3, 0xFFFFFFFF, 1, 2, 5, 7}));
  EXPECT_EQ(f2.Tell(), modern.size());
}

TEST(ParamsTest, ShortReadsReturnFalseAndLeaveTheTarget) {
  const std::string full =
      Bytes().u32(kModern).u32(2).i64(2).i64(2).dev(kInt32).u32(1).u32(2).u32(3).u32(4).str();
  // Cut at every position inside the record.
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

  TShape s{9};
  ShortStream legacy(Bytes().u32(3).u32(1).u32(2).str());
  EXPECT_FALSE(LegacyTShapeLoad(&legacy, &s));
}

TEST(ParamsTest, SaveWritesNothing) {
  char block[1];
  io::MemoryFixedSizeStream fo(block, 0);
  NDArray a(TShape{2}, kFloat32);
  EXPECT_TRUE(a.Save(&fo));
  NDArray::Save(&fo, {a}, {"arg:a"});
  EXPECT_EQ(fo.Tell(), 0u);
}

// Each malformed file and the words it must end with.
struct BadParams {
  const char* what;
  std::string bytes;
  std::string report;
};

class BadParamsDeathTest : public ::testing::TestWithParam<BadParams> {};

TEST_P(BadParamsDeathTest, EndsInTheCheck) {
  const BadParams& c = GetParam();
  std::vector<NDArray> data;
  std::vector<std::string> names;
  EXPECT_DEATH(LoadAll(c.bytes, &data, &names), c.report) << c.what;
}

const std::string kInvalid = "Invalid NDArray file format";
const std::string kGoodRecord = Bytes().u32(1).u32(2).dev(kFloat32).u32(0).u32(0).str();

INSTANTIATE_TEST_SUITE_P(
    Files, BadParamsDeathTest,
    ::testing::Values(
        BadParams{"magic 0x113", Bytes().header(0, 0x113).u64(0).str(),
                  Fatal("header == kRUVONDArrayListMagic", kInvalid)},
        BadParams{"empty file", "", RegexEscape(kStreamCheck)},
        BadParams{"truncated data",
                  Bytes().header(1).raw(kGoodRecord.substr(0, kGoodRecord.size() - 1)).str(),
                  RegexEscape(kStreamCheck)},
        BadParams{"first word one above the magic",
                  Bytes().header(1).u32(kModern + 1).zeros(64).u64(0).str(),
                  RegexEscape(kStreamCheck)},
        BadParams{"unknown type flag", Bytes().header(1).u32(1).u32(1).dev(7).zeros(16).str(),
                  Fatal("type > -1 && type < kUnused", "Type not initialized!")},
        BadParams{"negative type flag", Bytes().header(1).u32(1).u32(1).dev(-1).zeros(16).str(),
                  Fatal("type > -1 && type < kUnused", "Type not initialized!")},
        BadParams{"element count beyond 32 bits",
                  Bytes().header(1).u32(2).u32(65536).u32(65536).dev(kInt8).zeros(64).str(),
                  RegexEscape("# Check failed: shape_size_fits\n# NDArray.Load: element count "
                              "of shape (65536,65536) exceeds 32 bits")},
        BadParams{"data larger than the file",
                  Bytes().header(1).u32(1).u32(1000).dev(kFloat32).zeros(64).str(),
                  RegexEscape(kStreamCheck)},
        BadParams{"huge legacy ndim", Bytes().header(1).u32(0xFFFFFFF0).zeros(8).str(),
                  RegexEscape(kStreamCheck)},
        BadParams{"huge modern ndim", Bytes().header(1).u32(kModern).u32(0x7FFFFFFF).str(),
                  RegexEscape(kStreamCheck)},
        BadParams{"huge array count", Bytes().header(0xFFFFFFFFFFFFFFFFull).zeros(8).str(),
                  RegexEscape(kStreamCheck)},
        BadParams{"huge name count", Bytes().header(0).u64(0x2000000000000000ull).zeros(8).str(),
                  RegexEscape(kStreamCheck)},
        BadParams{"huge name length",
                  Bytes().header(0).u64(1).u64(0xFFFFFFFFFFFFFF00ull).raw("abc").str(),
                  RegexEscape(kStreamCheck)},
        BadParams{"missing name count", Bytes().header(1).raw(kGoodRecord).str(),
                  RegexEscape(kStreamCheck)}),
    [](const ::testing::TestParamInfo<BadParams>& info) {
      std::string name;
      for (char ch : std::string(info.param.what)) name += isalnum(ch) ? ch : '_';
      return name;
    });

// The "Invalid NDArray file format" checks speak for streams that return
// short counts instead of stopping.
TEST(ParamsDeathTest, ShortStreamsMeetTheFormatChecks) {
  auto load = [](const std::string& bytes) {
    ShortStream fi(bytes);
    std::vector<NDArray> data;
    std::vector<std::string> names;
    NDArray::Load(&fi, data, names);
  };
  EXPECT_DEATH(load(""), Fatal("fi->Read(&header, sizeof(header)) == sizeof(header)", kInvalid));
  EXPECT_DEATH(load(Bytes().u64(kRUVONDArrayListMagic).str()),
               Fatal("fi->Read(&reserved, sizeof(reserved)) == sizeof(reserved)", kInvalid));
  EXPECT_DEATH(load(Bytes().u64(kRUVONDArrayListMagic).u64(0).str()),
               Fatal("fi->Read(&sz, sizeof(sz)) == sizeof(sz)", kInvalid));
  EXPECT_DEATH(load(Bytes().header(1).u32(1).u32(4).dev(kFloat32).str()),
               Fatal("dst.Load(fi)", kInvalid));
  EXPECT_DEATH(load(Bytes().header(0).u64(1).u32(3).str()),
               Fatal("fi->Read(&strsz, sizeof(strsz)) == sizeof(strsz)", kInvalid));
  EXPECT_DEATH(load(Bytes().header(0).u64(1).u64(5).raw("abc").str()),
               Fatal("fi->Read(&keystr[0], nbytes) == nbytes", kInvalid));
}

TEST(ParamsTest, ZeroLengthNamesAndFlagTwo) {
  std::vector<NDArray> data;
  std::vector<std::string> names;
  std::string raw32;
  for (int i = 0; i < 32; ++i) raw32 += static_cast<char>(100 + i);
  LoadAll(
      Bytes().header(1).u32(1).u32(2).dev(kFloat16).raw(raw32).u64(2).u64(0).u64(2).raw("ab").str(),
      &data, &names);
  ASSERT_EQ(data.size(), 1u);
  EXPECT_EQ(data[0].chunk_->bytes_, 32u);  // 16 bytes per element
  EXPECT_EQ(memcmp(data[0].chunk_->dptr_, raw32.data(), 32), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"", "ab"}));
}

// ------------------------------------------------------------ symbol file

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

TEST(SymbolTest, NewStyleFile) {
  JSONGraph g = LoadGraph(ReadDataFile("symbol_new.json"));
  EXPECT_EQ(g.mxnet_version, 10600);
  ASSERT_EQ(g.nodes.size(), 12u);
  EXPECT_EQ(g.arg_nodes, (std::vector<uint32_t>{0, 1, 2, 4, 5, 6, 7, 10}));
  ASSERT_EQ(g.heads.size(), 1u);
  ExpectEntry(g.heads[0], 11, 0);

  const JSONNode& data = g.nodes[0];
  EXPECT_EQ(data.op, "null");
  EXPECT_EQ(data.name, "data");
  EXPECT_TRUE(data.inputs.empty());
  EXPECT_EQ(data.attrs.at("__op_type_str__"), "null");

  const JSONNode& bn = g.nodes[8];
  EXPECT_EQ(bn.op, "BatchNorm");
  ASSERT_EQ(bn.inputs.size(), 5u);  // three inputs and two aux states
  ExpectEntry(bn.inputs[0], 3, 0);  // [3, 0, 0]
  ExpectEntry(bn.inputs[4], 7, 0);
  EXPECT_EQ(bn.attrs.at("eps"), "0.001");  // "attr" wins over "param"
  EXPECT_EQ(bn.attrs.at("momentum"), "0.9");
  EXPECT_EQ(bn.attrs.at("fix_gamma"), "False");
  EXPECT_EQ(bn.attrs.size(), 4u);

  // An "__op_type_str__" in the file gives way to the node's op.
  EXPECT_EQ(g.nodes[9].attrs.at("__op_type_str__"), "Activation");
  EXPECT_EQ(g.nodes[9].attrs.at("act_type"), "relu");
}

TEST(SymbolTest, OldStyleFile) {
  JSONGraph g = LoadGraph(ReadDataFile("symbol_old.json"));
  EXPECT_EQ(g.mxnet_version, 800);
  ASSERT_EQ(g.nodes.size(), 5u);
  EXPECT_EQ(g.nodes[2].attrs.at("num_hidden"), "6");
  ASSERT_EQ(g.nodes[4].inputs.size(), 1u);
  ExpectEntry(g.nodes[4].inputs[0], 3, 1);
  ASSERT_EQ(g.heads.size(), 2u);
  ExpectEntry(g.heads[0], 3, 0);
  ExpectEntry(g.heads[1], 4, 0);
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

  JSONGraph empty = LoadGraph(R"({"nodes":[],"arg_nodes":[],"heads":[]})");
  EXPECT_TRUE(empty.nodes.empty());
  EXPECT_TRUE(empty.arg_nodes.empty());
  EXPECT_TRUE(empty.heads.empty());

  // Extra entry elements are ignored; a node key "attrs" is not read.
  JSONGraph g = LoadGraph(R"({"nodes":[
      {"op":"null","name":"a","inputs":[]},{"op":"null","name":"b","inputs":[]},
      {"op":"null","name":"c","inputs":[]},{"op":"null","name":"d","inputs":[]},
      {"op":"relu","name":"e","inputs":[[3,0,0],[1,2,9,9]],"attrs":{"k":"v"}}],
      "arg_nodes":[0,1,2,3],"heads":[[4,0,5]]})");
  ASSERT_EQ(g.nodes[4].inputs.size(), 2u);
  ExpectEntry(g.nodes[4].inputs[0], 3, 0);
  ExpectEntry(g.nodes[4].inputs[1], 1, 2);
  EXPECT_EQ(g.nodes[4].attrs.count("k"), 0u);
  ExpectEntry(g.heads[0], 4, 0);
}

struct BadGraph {
  const char* what;
  std::string text;
  std::string report;
};

class BadGraphDeathTest : public ::testing::TestWithParam<BadGraph> {};

TEST_P(BadGraphDeathTest, EndsInTheCheck) {
  const BadGraph& c = GetParam();
  EXPECT_DEATH(LoadGraph(c.text), c.report) << c.what;
}

std::string Has(const std::string& object, const std::string& key) {
  return "cJSON_HasObjectItem(" + object + ", \"" + key + "\") == 1 (0 vs. 1)";
}

const char kNode[] = R"({"op":"null","name":"x","inputs":[]})";

INSTANTIATE_TEST_SUITE_P(
    Files, BadGraphDeathTest,
    ::testing::Values(
        BadGraph{"version 900", Graph(R"(,"attrs":{"mxnet_version":["int",900]})"),
                 Fatal("version >= 901 (900 vs. 901)", "nnvm began from 0.9.1")},
        BadGraph{"empty attrs", Graph(R"(,"attrs":{})"),
                 Fatal(Has("jattr", "mxnet_version"), "mxnet:nnvm, no mxnet_version specified!")},
        BadGraph{
            "version type", Graph(R"(,"attrs":{"mxnet_version":["float",10600]})"),
            Fatal("type == std::string(\"int\")", "invalid mxnet_version type, should be int")},
        BadGraph{"version of three", Graph(R"(,"attrs":{"mxnet_version":["int",10600,1]})"),
                 Fatal("i < 2 (2 vs. 2)", "invalid mxnet_version format")},
        BadGraph{"unparsable text", "{\"nodes\": [",
                 Fatal(Has("symbol_str", "nodes"), "nodes not exists!")},
        BadGraph{"no arg_nodes", R"({"nodes":[],"heads":[]})",
                 Fatal(Has("symbol_str", "arg_nodes"), "arg_nodes not exists!")},
        BadGraph{"no heads", R"({"nodes":[],"arg_nodes":[]})",
                 Fatal(Has("symbol_str", "heads"), "heads not exists!")},
        BadGraph{"node without op", Graph("", R"([{"name":"x","inputs":[]}])"),
                 Fatal(Has("jnode", "op"), "node:op not exist!")},
        BadGraph{"node without name", Graph("", R"([{"op":"null","inputs":[]}])"),
                 Fatal(Has("jnode", "name"), "node:name not exist!")},
        BadGraph{"node without inputs", Graph("", R"([{"op":"null","name":"x"}])"),
                 Fatal(Has("jnode", "inputs"), "node:inputs not exist!")},
        BadGraph{
            "input of one element",
            Graph("", std::string("[") + kNode + R"(,{"op":"relu","name":"y","inputs":[[0]]}])"),
            RegexEscape("# Check failed: cJSON_GetArraySize(jEntry) >= 2 (1 vs. 2)")},
        BadGraph{"head of one element", R"({"nodes":[],"arg_nodes":[],"heads":[[0]]})",
                 RegexEscape("# Check failed: cJSON_GetArraySize(jEntry) >= 2 (1 vs. 2)")},
        BadGraph{"op not a string", Graph("", R"([{"op":5,"name":"x","inputs":[]}])"),
                 Fatal("text != nullptr", "node:op is not a string")},
        BadGraph{"attr value not a string",
                 Graph("", R"([{"op":"null","name":"x","inputs":[],"attr":{"k":1}}])"),
                 Fatal("text != nullptr", "node:attr is not a string")},
        BadGraph{"param not an object",
                 Graph("", R"([{"op":"null","name":"x","inputs":[],"param":["a"]}])"),
                 Fatal("item->string != nullptr", "node:param is not an object")},
        BadGraph{
            "input names a later node",
            Graph("", std::string("[") + kNode + R"(,{"op":"relu","name":"y","inputs":[[1,0]]}])"),
            Fatal("e.node_id < node_index (1 vs. 1)",
                  "node y: an input must name an earlier node")},
        BadGraph{
            "input with a negative id",
            Graph("", std::string("[") + kNode + R"(,{"op":"relu","name":"y","inputs":[[-1,0]]}])"),
            Fatal("e.node_id < node_index (4294967295 vs. 1)",
                  "node y: an input must name an earlier node")},
        BadGraph{"argument past the end", R"({"nodes":[],"arg_nodes":[0],"heads":[]})",
                 Fatal("node_id < nodes.size() (0 vs. 0)", "arg_nodes: no such node")},
        BadGraph{"head past the end", Graph("").replace(Graph("").find("[[0,0]]"), 7, "[[1,0]]"),
                 Fatal("head.node_id < nodes.size() (1 vs. 1)", "heads: no such node")}),
    [](const ::testing::TestParamInfo<BadGraph>& info) {
      std::string name;
      for (char ch : std::string(info.param.what)) name += isalnum(ch) ? ch : '_';
      return name;
    });

}  // namespace
}  // namespace ruvo
}  // namespace orvik
