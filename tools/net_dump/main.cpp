// Runs a net on fixed inputs and prints every output value exactly (as a
// hexadecimal float), so that two builds, for instance of two processor
// families, can be compared bit for bit.
//
//   tovad_net_dump SYMBOL.json PARAMS INPUTS
//
// INPUTS is a case file of the engine's fixtures ("case NAME" lines and
// "input KEY NDIM DIMS... VALUES..." lines, and "output LAYER ..." lines
// naming the layers whose outputs to print; the rest is skipped) or
// raw:D0,D1,...:FILE, a file of little-endian floats run as consecutive
// inputs "data" of that shape into a net of one head.  Prints one line per
// case and output, outputs in graph order: "CASE/INDEX v0 v1 ...".
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tovadmod/c_predict_api.h"

namespace {

struct Input {
  std::string key;
  std::vector<uint32_t> shape;
  std::vector<float> values;
};
struct Case {
  std::string name;
  std::vector<Input> inputs;
  std::vector<std::string> outputs;  // layer names; empty: the graph's one head
};

std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

std::vector<Case> ReadCaseFile(const std::string& text) {
  std::vector<Case> cases;
  std::istringstream in(text);
  for (std::string kind; in >> kind;) {
    if (kind == "case") {
      cases.emplace_back();
      in >> cases.back().name;
      continue;
    }
    Input t;
    uint32_t ndim = 0;
    in >> t.key >> ndim;
    size_t count = 1;
    t.shape.resize(ndim);
    for (uint32_t& d : t.shape) {
      in >> d;
      count *= d;
    }
    t.values.resize(count);
    for (float& v : t.values) {
      std::string word;
      in >> word;
      v = std::strtof(word.c_str(), nullptr);
    }
    if (cases.empty()) cases.emplace_back();
    if (kind == "input") cases.back().inputs.push_back(t);
    if (kind == "output") cases.back().outputs.push_back(t.key);
  }
  return cases;
}

// raw:D0,D1,...:FILE
std::vector<Case> ReadRaw(const std::string& arg) {
  const size_t colon = arg.find(':', 4);
  Input t{"data", {}, {}};
  std::istringstream dims(arg.substr(4, colon - 4));
  size_t count = 1;
  for (std::string d; std::getline(dims, d, ',');) {
    t.shape.push_back(static_cast<uint32_t>(std::stoul(d)));
    count *= t.shape.back();
  }
  const std::string bytes = ReadFile(arg.substr(colon + 1));
  std::vector<Case> cases;
  for (size_t at = 0; at + count * sizeof(float) <= bytes.size(); at += count * sizeof(float)) {
    t.values.resize(count);
    std::memcpy(t.values.data(), bytes.data() + at, count * sizeof(float));
    cases.push_back({"w" + std::to_string(cases.size()), {t}, {}});
  }
  return cases;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: tovad_net_dump SYMBOL.json PARAMS INPUTS\n");
    return 2;
  }
  const std::string json = ReadFile(argv[1]);
  const std::string params = ReadFile(argv[2]);
  const std::string inputs = argv[3];
  const std::vector<Case> cases =
      inputs.rfind("raw:", 0) == 0 ? ReadRaw(inputs) : ReadCaseFile(ReadFile(inputs));
  if (json.empty() || params.empty() || cases.empty()) {
    std::fprintf(stderr, "tovad_net_dump: missing or empty input files\n");
    return 2;
  }
  for (const Case& c : cases) {
    // One predictor per case: cases may differ in shape, and none may
    // inherit another's streaming history.
    std::vector<const char*> keys;
    std::vector<uint32_t> indptr{0}, dims;
    for (const Input& in : c.inputs) {
      keys.push_back(in.key.c_str());
      dims.insert(dims.end(), in.shape.begin(), in.shape.end());
      indptr.push_back(static_cast<uint32_t>(dims.size()));
    }
    // The layers a case names become the outputs, in graph order.
    std::vector<const char*> out_keys;
    for (const std::string& name : c.outputs) out_keys.push_back(name.c_str());
    PredictorHandle h = nullptr;
    const int built =
        out_keys.empty()
            ? MXPredCreate(json.c_str(), params.data(), static_cast<int>(params.size()), 1, 0,
                           static_cast<uint32_t>(keys.size()), keys.data(), indptr.data(),
                           dims.data(), &h)
            : MXPredCreatePartialOut(json.c_str(), params.data(), static_cast<int>(params.size()),
                                     1, 0, static_cast<uint32_t>(keys.size()), keys.data(),
                                     indptr.data(), dims.data(),
                                     static_cast<uint32_t>(out_keys.size()), out_keys.data(), &h);
    if (built != 0) {
      std::fprintf(stderr, "tovad_net_dump: the net does not build\n");
      return 1;
    }
    for (const Input& in : c.inputs) {
      MXPredSetInput(h, in.key.c_str(), in.values.data(), static_cast<uint32_t>(in.values.size()));
    }
    MXPredForward(h);
    const uint32_t outputs = out_keys.empty() ? 1 : static_cast<uint32_t>(out_keys.size());
    for (uint32_t out = 0; out < outputs; ++out) {
      uint32_t* shape = nullptr;
      uint32_t ndim = 0;
      MXPredGetOutputShape(h, out, &shape, &ndim);
      uint32_t size = 1;
      for (uint32_t i = 0; i < ndim; ++i) size *= shape[i];
      std::vector<float> values(size);
      MXPredGetOutput(h, out, values.data(), size);
      std::printf("%s/%u", c.name.c_str(), out);
      for (float v : values) std::printf(" %a", static_cast<double>(v));
      std::printf("\n");
    }
    MXPredFree(h);
  }
  return 0;
}
