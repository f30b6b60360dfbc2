// Convolutions at VAD size: a window of 11 frames x 40 features x 3
// channels, 3x3 kernels with padding 1, 32 then 64 filters.  Each layer is
// timed alone (DefaultNet::Forward(step)), float Convolution beside
// AlphaConvolution, and a three-layer net (conv, conv, FullyConnected,
// softmax) is timed per MXPredForward in float and in 8 bits.  The ratio
// float / 8-bit is the figure of merit; the target is 2x or more for the net.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "ruvo/src/net.h"
#include "tovadmod/c_predict_api.h"

namespace {

constexpr uint32_t kFrames = 11;
constexpr uint32_t kBins = 40;
constexpr uint32_t kChannels = 3;
constexpr uint32_t kFilters1 = 32;
constexpr uint32_t kFilters2 = 64;
constexpr uint32_t kClasses = 2;

// A symbol graph written node by node.
struct Graph {
  std::vector<std::string> nodes;
  std::vector<int> args;

  int Var(const std::string& name) {
    args.push_back(static_cast<int>(nodes.size()));
    nodes.push_back("{\"op\": \"null\", \"name\": \"" + name + "\", \"inputs\": []}");
    return static_cast<int>(nodes.size()) - 1;
  }
  int Op(const std::string& op, const std::string& name, const std::vector<int>& in,
         const std::map<std::string, std::string>& attr) {
    std::string s = "{\"op\": \"" + op + "\", \"name\": \"" + name + "\", \"inputs\": [";
    for (size_t i = 0; i < in.size(); ++i) {
      s += (i ? ", [" : "[") + std::to_string(in[i]) + ", 0, 0]";
    }
    s += "], \"attr\": {";
    bool first = true;
    for (const auto& kv : attr) {
      s += (first ? "\"" : ", \"") + kv.first + "\": \"" + kv.second + "\"";
      first = false;
    }
    nodes.push_back(s + "}}");
    return static_cast<int>(nodes.size()) - 1;
  }
  std::string Json(int head) const {
    std::string s = "{\"nodes\": [";
    for (size_t i = 0; i < nodes.size(); ++i) s += (i ? ",\n" : "") + nodes[i];
    s += "], \"arg_nodes\": [";
    for (size_t i = 0; i < args.size(); ++i) s += (i ? ", " : "") + std::to_string(args[i]);
    return s + "], \"heads\": [[" + std::to_string(head) +
           ", 0, 0]], \"attrs\": {\"mxnet_version\": [\"int\", 10600]}}";
  }
};

// A parameter file written array by array.
struct Params {
  std::string body;
  std::vector<std::string> names;

  void Put(const void* p, size_t n) { body.append(static_cast<const char*>(p), n); }
  void Add(const std::string& name, const std::vector<uint32_t>& shape, int32_t flag,
           const void* data, size_t bytes) {
    const uint32_t magic = 0xF993FAC8u;
    const uint32_t ndim = static_cast<uint32_t>(shape.size());
    Put(&magic, 4);
    Put(&ndim, 4);
    for (uint32_t d : shape) {
      const int64_t v = d;
      Put(&v, 8);
    }
    const int32_t dev[2] = {1, 0};
    Put(dev, 8);
    Put(&flag, 4);
    Put(data, bytes);
    names.push_back(name);
  }
  std::string Bytes() const {
    std::string s;
    const uint64_t head[3] = {0x112, 0, names.size()};
    s.append(reinterpret_cast<const char*>(head), sizeof(head));
    s += body;
    const uint64_t count = names.size();
    s.append(reinterpret_cast<const char*>(&count), 8);
    for (const auto& n : names) {
      const uint64_t len = n.size();
      s.append(reinterpret_cast<const char*>(&len), 8);
      s += n;
    }
    return s;
  }
};

std::mt19937 g_rng(7);

void AddFloat(Params* p, const std::string& name, const std::vector<uint32_t>& shape,
              float scale) {
  size_t n = 1;
  for (uint32_t d : shape) n *= d;
  std::uniform_real_distribution<float> u(-scale, scale);
  std::vector<float> v(n);
  for (float& x : v) x = u(g_rng);
  p->Add("arg:" + name, shape, 0, v.data(), n * 4);
}

void AddInt8(Params* p, const std::string& name, const std::vector<uint32_t>& shape, int lo,
             int hi) {
  size_t n = 1;
  for (uint32_t d : shape) n *= d;
  std::uniform_int_distribution<int> u(lo, hi);
  std::vector<signed char> v(n);
  for (signed char& x : v) x = static_cast<signed char>(u(g_rng));
  p->Add(name, shape, 5, v.data(), n);
}

void AddInt32(Params* p, const std::string& name, uint32_t n, int lo, int hi) {
  std::uniform_int_distribution<int> u(lo, hi);
  std::vector<int32_t> v(n);
  for (int32_t& x : v) x = u(g_rng);
  p->Add("arg:" + name, {n}, 4, v.data(), n * 4);
}

std::map<std::string, std::string> Conv(uint32_t filters) {
  return {{"kernel", "(3,3)"}, {"pad", "(1,1)"}, {"num_filter", std::to_string(filters)}};
}

// A float conv layer: data -> conv -> relu.
int FloatConv(Graph* g, Params* p, int in, const std::string& name, uint32_t cin, uint32_t f) {
  const int w = g->Var(name + "_weight");
  const int b = g->Var(name + "_bias");
  AddFloat(p, name + "_weight", {f, 3, 3, cin}, 0.2f);
  AddFloat(p, name + "_bias", {f}, 0.1f);
  const int c = g->Op("Convolution", name, {in, w, b}, Conv(f));
  return g->Op("Activation", name + "_relu", {c}, {{"act_type", "relu"}});
}

// An 8-bit conv layer with its rectifier fused.
int AlphaConv(Graph* g, Params* p, int in, const std::string& name, uint32_t cin, uint32_t f,
              bool float_out, uint32_t ky = 3, uint32_t kx = 3) {
  const int w = g->Var(name + "_weight");
  const int b = g->Var(name + "_bias");
  AddInt8(p, "arg:" + name + "_weight", {f, ky, kx, cin}, -60, 60);
  AddInt32(p, name + "_bias", f, -2000, 2000);
  std::vector<int> in_list = {in, w, b};
  for (const char* s : {"output_shift_history", "weight_shift_history", "bias_shift_history"}) {
    in_list.push_back(g->Var(name + "_" + s));
    AddInt8(p, "aux:" + name + "_" + s, {1}, 3, 3);
  }
  auto attrs = Conv(f);
  // Weights read as stored, filter by filter (the GEMM's B transposed);
  // at these sizes this measured a little faster than the transposed copy.
  attrs["transpose_weight"] = "False";
  if (float_out) {
    // The dense layer as a convolution over the whole window.
    attrs["kernel"] = "(" + std::to_string(ky) + "," + std::to_string(kx) + ")";
    attrs["pad"] = "(0,0)";
    attrs["disable_output_quantization"] = "True";
  } else {
    attrs["use_activation"] = "True";
  }
  return g->Op("AlphaConvolution", name, in_list, attrs);
}

struct Model {
  std::string json, params;
};

// conv 32, conv 64, FullyConnected 2, softmax; in float or in 8 bits.  The
// 8-bit net computes its dense layer as an AlphaConvolution whose kernel
// covers the whole window (the same product), with a float output for the
// softmax.
Model VadNet(bool eight_bit) {
  g_rng.seed(7);
  Graph g;
  Params p;
  int h = g.Var("data");
  if (eight_bit) {
    const int hist = g.Var("qin_input_shift_history");
    AddInt8(&p, "aux:qin_input_shift_history", {1}, 4, 4);
    h = g.Op("QuantiInput", "qin", {h, hist}, {});
    h = AlphaConv(&g, &p, h, "conv1", kChannels, kFilters1, false);
    h = AlphaConv(&g, &p, h, "conv2", kFilters1, kFilters2, false);
    h = AlphaConv(&g, &p, h, "fc", kFilters2, kClasses, true, kFrames, kBins);
    h = g.Op("Flatten", "flat", {h}, {});
  } else {
    h = FloatConv(&g, &p, h, "conv1", kChannels, kFilters1);
    h = FloatConv(&g, &p, h, "conv2", kFilters1, kFilters2);
    h = g.Op("Flatten", "flat", {h}, {});
    const int w = g.Var("fc_weight");
    const int b = g.Var("fc_bias");
    AddFloat(&p, "fc_weight", {kClasses, kFrames * kBins * kFilters2}, 0.01f);
    AddFloat(&p, "fc_bias", {kClasses}, 0.1f);
    h = g.Op("FullyConnected", "fc", {h, w, b}, {{"num_hidden", "2"}});
  }
  h = g.Op("SoftmaxActivation", "softmax", {h}, {});
  return {g.Json(h), p.Bytes()};
}

// One conv layer alone on an input of `cin` channels: float, or 8-bit
// behind a QuantiInput (only the conv is timed).
Model OneConv(bool eight_bit, uint32_t cin, uint32_t f) {
  g_rng.seed(11);
  Graph g;
  Params p;
  int h = g.Var("data");
  if (eight_bit) {
    const int hist = g.Var("qin_input_shift_history");
    AddInt8(&p, "aux:qin_input_shift_history", {1}, 4, 4);
    h = g.Op("QuantiInput", "qin", {h, hist}, {});
    h = AlphaConv(&g, &p, h, "conv", cin, f, false);
  } else {
    const int w = g.Var("conv_weight");
    const int b = g.Var("conv_bias");
    AddFloat(&p, "conv_weight", {f, 3, 3, cin}, 0.2f);
    AddFloat(&p, "conv_bias", {f}, 0.1f);
    h = g.Op("Convolution", "conv", {h, w, b}, Conv(f));
  }
  return {g.Json(h), p.Bytes()};
}

std::vector<float> Window(uint32_t channels) {
  std::mt19937 rng(3);
  std::normal_distribution<float> n(0.0f, 1.0f);
  std::vector<float> x(kFrames * kBins * channels);
  for (float& v : x) v = n(rng);
  return x;
}

void RunLayer(benchmark::State& state, bool eight_bit, uint32_t cin, uint32_t f) {
  const Model m = OneConv(eight_bit, cin, f);
  orvik::ruvo::DefaultNet net;
  const char* keys[] = {"data"};
  const uint32_t indptr[] = {0, 4};
  const uint32_t shape[] = {1, kFrames, kBins, cin};
  if (net.Config(m.json.c_str(), m.params.data(), m.params.size(), 1, keys, indptr, shape, 0,
                 nullptr) != 0) {
    state.SkipWithError("Config failed");
    return;
  }
  const std::vector<float> x = Window(cin);
  net.SetInput("data", x.data(), static_cast<uint32_t>(x.size()));
  net.Forward();  // first run prepares weights and scratch
  int step = -1;
  for (size_t i = 0; i < net.layers().size(); ++i) {
    if (net.layers()[i]->GetName() == "conv") step = static_cast<int>(i);
  }
  int left = 0;
  for (auto _ : state) {
    net.Forward(step, &left);
    benchmark::ClobberMemory();
  }
}

// conv 1: 3 -> 32 channels; conv 2: 32 -> 64 channels.
void BM_FloatConv32(benchmark::State& s) { RunLayer(s, false, kChannels, kFilters1); }
void BM_AlphaConv32(benchmark::State& s) { RunLayer(s, true, kChannels, kFilters1); }
void BM_FloatConv64(benchmark::State& s) { RunLayer(s, false, kFilters1, kFilters2); }
void BM_AlphaConv64(benchmark::State& s) { RunLayer(s, true, kFilters1, kFilters2); }
BENCHMARK(BM_FloatConv32)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AlphaConv32)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloatConv64)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AlphaConv64)->Unit(benchmark::kMicrosecond);

void RunNet(benchmark::State& state, bool eight_bit) {
  const Model m = VadNet(eight_bit);
  const char* keys[] = {"data"};
  const uint32_t indptr[] = {0, 4};
  const uint32_t shape[] = {1, kFrames, kBins, kChannels};
  PredictorHandle h = nullptr;
  MXPredCreate(m.json.c_str(), m.params.data(), static_cast<int>(m.params.size()), 1, 0, 1, keys,
               indptr, shape, &h);
  if (h == nullptr) {
    state.SkipWithError("MXPredCreate failed");
    return;
  }
  const std::vector<float> x = Window(kChannels);
  float out[kClasses];
  MXPredSetInput(h, "data", x.data(), static_cast<uint32_t>(x.size()));
  MXPredForward(h);
  for (auto _ : state) {
    MXPredForward(h);
    benchmark::ClobberMemory();
  }
  MXPredGetOutput(h, 0, out, kClasses);
  benchmark::DoNotOptimize(out);
  MXPredFree(h);
}

void BM_VadNetFloat(benchmark::State& s) { RunNet(s, false); }
void BM_VadNet8Bit(benchmark::State& s) { RunNet(s, true); }
BENCHMARK(BM_VadNetFloat)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_VadNet8Bit)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
