#ifndef TESTS_RUVO_NET_FIXTURE_H_
#define TESTS_RUVO_NET_FIXTURE_H_

// Reads the nets written by the generators in tests/ruvo (graph,
// parameters, and inputs with their expected outputs computed in numpy),
// builds predictors from them and compares what they give.  A missing file
// fails the test.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tovadmod/c_predict_api.h"

// Allocations made so far through operator new, in binaries that link
// alloc_counter.cpp (ExpectNetMatches needs it).
long AllocCount();

namespace net_test {

// Float results against numpy in double: a few float roundings per
// element, and the polynomial exponential of the softmax (about 1e-7
// relative), stay well inside these.
constexpr float kAtol = 2e-6f;
constexpr float kRtol = 2e-5f;

struct Tensor {
  std::vector<uint32_t> shape;
  std::vector<float> values;
};

struct IoCase {
  std::string name;
  std::vector<std::pair<std::string, Tensor>> inputs;  // in file order
  std::map<std::string, Tensor> outputs;
  std::map<std::string, Tensor> bounds;
};

struct Model {
  std::string json;
  std::string params;
  std::vector<IoCase> cases;
};

// The whole file; a missing one fails the test.
inline std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  EXPECT_TRUE(f.good()) << "missing test data " << path;
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

// "case NAME", then blocks "input|output|bound KEY NDIM D0 D1 ..." each
// followed by its values.
inline std::vector<IoCase> ParseIo(const std::string& text) {
  std::vector<IoCase> cases;
  std::istringstream in(text);
  for (std::string kind, key; in >> kind >> key;) {
    if (kind == "case") {
      cases.push_back({key, {}, {}, {}});
      continue;
    }
    Tensor t;
    uint32_t ndim = 0;
    in >> ndim;
    t.shape.resize(ndim);
    size_t count = 1;
    for (uint32_t& d : t.shape) count *= (in >> d, d);
    for (std::string v; t.values.size() < count && in >> v;) {
      t.values.push_back(std::strtof(v.c_str(), nullptr));  // also "inf" and "nan"
    }
    EXPECT_TRUE(!cases.empty() && (kind == "input" || kind == "output" || kind == "bound")) << kind;
    if (cases.empty()) break;
    if (kind == "input") {
      cases.back().inputs.emplace_back(key, t);
    } else {
      (kind == "output" ? cases.back().outputs : cases.back().bounds)[key] = t;
    }
  }
  return cases;
}

// tests/data/net/<name>-symbol.json, <name>.params (or <params_name>.params)
// and <name>.io.
inline Model LoadModel(const std::string& name, const std::string& params_name = "") {
  const std::string dir = std::string(TOVAD_TEST_DATA_DIR) + "/net/";
  Model m;
  m.json = ReadFile(dir + name + "-symbol.json");
  m.params = ReadFile(dir + (params_name.empty() ? name : params_name) + ".params");
  m.cases = ParseIo(ReadFile(dir + name + ".io"));
  return m;
}

// Input keys and shapes of a case, in the layout MXPredCreate takes.
struct InputShapes {
  std::vector<const char*> keys;
  std::vector<uint32_t> indptr{0};
  std::vector<uint32_t> data;
};

inline InputShapes ShapesOf(const IoCase& c) {
  InputShapes s;
  for (const auto& in : c.inputs) {
    s.keys.push_back(in.first.c_str());
    s.data.insert(s.data.end(), in.second.shape.begin(), in.second.shape.end());
    s.indptr.push_back(static_cast<uint32_t>(s.data.size()));
  }
  return s;
}

// MXPredCreate (or MXPredCreatePartialOut when output keys are given) with
// the input shapes `s`; fails the test on a non-zero result.
inline PredictorHandle Create(const Model& m, InputShapes s,
                              std::vector<const char*> output_keys = {}) {
  PredictorHandle h = nullptr;
  const auto n_in = static_cast<uint32_t>(s.keys.size());
  const int size = static_cast<int>(m.params.size());
  const int ret =
      output_keys.empty()
          ? MXPredCreate(m.json.c_str(), m.params.data(), size, 1, 0, n_in, s.keys.data(),
                         s.indptr.data(), s.data.data(), &h)
          : MXPredCreatePartialOut(m.json.c_str(), m.params.data(), size, 1, 0, n_in,
                                   s.keys.data(), s.indptr.data(), s.data.data(),
                                   static_cast<uint32_t>(output_keys.size()), output_keys.data(),
                                   &h);
  EXPECT_EQ(ret, 0);
  return h;
}

// With the input shapes of case `c`.
inline PredictorHandle Create(const Model& m, const IoCase& c,
                              std::vector<const char*> output_keys = {}) {
  return Create(m, ShapesOf(c), output_keys);
}

// With the one input "data" of the 4-d `shape`, as a stream of frames is fed.
inline PredictorHandle CreateForData(const Model& m, std::vector<uint32_t> shape) {
  return Create(m, InputShapes{{"data"}, {0, 4}, shape});
}

inline void SetInputs(PredictorHandle h, const IoCase& c) {
  for (const auto& in : c.inputs) {
    MXPredSetInput(h, in.first.c_str(), in.second.values.data(),
                   static_cast<uint32_t>(in.second.values.size()));
  }
}

// Output `index` with its shape as the predictor reports it.
inline Tensor GetOutput(PredictorHandle h, uint32_t index) {
  uint32_t* shape = nullptr;
  uint32_t ndim = 0;
  MXPredGetOutputShape(h, index, &shape, &ndim);
  Tensor t;
  t.shape.assign(shape, shape + ndim);
  size_t count = 1;
  for (uint32_t d : t.shape) count *= d;
  t.values.resize(count);
  MXPredGetOutput(h, index, t.values.data(), static_cast<uint32_t>(count));
  return t;
}

// Element-wise |got - want| <= kAtol + kRtol * |want|.
inline void ExpectNear(const Tensor& got, const Tensor& want, const std::string& what) {
  ASSERT_EQ(got.shape, want.shape) << what;
  for (size_t i = 0; i < want.values.size(); ++i) {
    const float tol = kAtol + kRtol * std::fabs(want.values[i]);
    EXPECT_NEAR(got.values[i], want.values[i], tol) << what << " element " << i;
  }
}

// An 8-bit output as GetOutput copies it (one byte an element), widened.
inline std::vector<float> Widened(const Tensor& t) {
  size_t count = 1;
  for (uint32_t d : t.shape) count *= d;
  const auto* bytes = reinterpret_cast<const signed char*>(t.values.data());
  return std::vector<float>(bytes, bytes + count);
}

// Every case of the fixture net `name` through the prediction interface.
// Head i is heads[i], or with no heads the case's i-th output in key order
// (shifts left out).  An output with a bound in the case stays within it
// (and, over all cases, is off somewhere: an approximate path must not be
// the exact one); one with a "<key>.shift" is 8-bit and exact; any other is
// within atol + rtol * |want|.  A second run gives the first run's outputs
// bit for bit and allocates nothing.
inline void ExpectNetMatches(const std::string& name, std::vector<std::string> heads, float atol,
                             float rtol) {
  const long start = AllocCount();
  Model m = LoadModel(name);
  ASSERT_GT(AllocCount(), start) << "the counter sees allocations";
  ASSERT_FALSE(m.cases.empty()) << name;
  std::map<std::string, double> max_err;
  for (const IoCase& c : m.cases) {
    std::vector<std::string> keys = heads;
    for (const auto& out : c.outputs) {
      const std::string& k = out.first;
      const bool shift = k.size() > 6 && k.compare(k.size() - 6, 6, ".shift") == 0;
      if (heads.empty() && !shift) keys.push_back(k);
    }
    PredictorHandle h = Create(m, c);
    ASSERT_NE(h, nullptr) << name;
    SetInputs(h, c);
    EXPECT_EQ(MXPredForward(h), 0);
    std::vector<Tensor> first;
    for (uint32_t i = 0; i < keys.size(); ++i) {
      first.push_back(GetOutput(h, i));
      const Tensor& got = first.back();
      const std::string what = name + "/" + c.name + "/" + keys[i];
      const Tensor& want = c.outputs.at(keys[i]);
      ASSERT_EQ(got.shape, want.shape) << what;
      if (c.outputs.count(keys[i] + ".shift")) {
        EXPECT_EQ(Widened(got), want.values) << what;
        continue;
      }
      for (size_t j = 0; j < want.values.size(); ++j) {
        const double err = std::fabs(got.values[j] - want.values[j]);
        const bool bounded = c.bounds.count(keys[i]) != 0;
        const double tol = atol + rtol * std::fabs(want.values[j]);
        EXPECT_LE(err, bounded ? c.bounds.at(keys[i]).values[j] : tol) << what << " element " << j;
        if (bounded) max_err[keys[i]] = std::max(max_err[keys[i]], err);
      }
    }
    SetInputs(h, c);
    const long before = AllocCount();
    EXPECT_EQ(MXPredForward(h), 0);
    EXPECT_EQ(AllocCount() - before, 0) << name << ": steady-state allocations";
    for (uint32_t i = 0; i < keys.size(); ++i) {  // bitwise: 8-bit outputs fill floats with bytes
      const Tensor again = GetOutput(h, i);
      const size_t bytes = again.values.size() * 4;
      EXPECT_EQ(std::memcmp(again.values.data(), first[i].values.data(), bytes), 0)
          << name << ": the second run differs, head " << keys[i];
    }
    MXPredFree(h);
  }
  for (const auto& e : max_err) EXPECT_GT(e.second, 0.0) << name << "/" << e.first << " is exact";
}

}  // namespace net_test

#endif  // TESTS_RUVO_NET_FIXTURE_H_
