// A dense VAD-sized net, one frame at a time: input 11x3x40, hidden 128 and
// 128 with relu, output 2 with softmax.  MXPredForward is timed beside a
// plain-loop evaluation of the same weights in the same process; the peak
// resident memory and the slab bytes of the memory plan are reported as
// counters, beside the bytes the plan's rule gives for this net.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <ctime>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "orvik_blas_64/src/math_functions.h"
#include "ruvo/src/layer/quantitemporalconvolution.h"
#include "ruvo/src/net.h"
#include "tovadmod/c_predict_api.h"

namespace {

constexpr uint32_t kFrames = 11;
constexpr uint32_t kChannels = 3;
constexpr uint32_t kBins = 40;
constexpr uint32_t kInput = kFrames * kChannels * kBins;
constexpr uint32_t kHidden = 128;
constexpr uint32_t kClasses = 2;

struct Layer {
  uint32_t in, out;
  std::vector<float> w, b;
};

struct Model {
  std::string json;
  std::string params;
  std::vector<Layer> layers;
};

void Put(std::string* s, const void* p, size_t n) { s->append(static_cast<const char*>(p), n); }
void Put64(std::string* s, uint64_t v) { Put(s, &v, 8); }
void Put32(std::string* s, uint32_t v) { Put(s, &v, 4); }

// One array record in the modern shape form, float data.
void PutArray(std::string* s, const std::vector<uint32_t>& shape, const std::vector<float>& v) {
  Put32(s, 0xF993FAC8u);
  Put32(s, static_cast<uint32_t>(shape.size()));
  for (uint32_t d : shape) Put64(s, d);
  Put32(s, 1);  // dev_type
  Put32(s, 0);  // dev_id
  Put32(s, 0);  // float32
  Put(s, v.data(), v.size() * sizeof(float));
}

Model MakeModel(bool online_quanti) {
  Model m;
  std::mt19937 rng(7);
  const uint32_t widths[] = {kInput, kHidden, kHidden, kClasses};
  for (int i = 0; i < 3; ++i) {
    Layer l;
    l.in = widths[i];
    l.out = widths[i + 1];
    const float scale = 1.0f / std::sqrt(static_cast<float>(l.in));
    std::uniform_real_distribution<float> u(-scale, scale);
    l.w.resize(l.in * l.out);
    l.b.resize(l.out);
    for (float& x : l.w) x = u(rng);
    for (float& x : l.b) x = u(rng);
    m.layers.push_back(l);
  }

  const std::string q = online_quanti ? ", \"online_quanti\": \"True\"" : "";
  m.json = std::string("{\"nodes\": [") +
           "{\"op\": \"null\", \"name\": \"data\", \"inputs\": []}," +
           "{\"op\": \"null\", \"name\": \"fc1_weight\", \"inputs\": []}," +
           "{\"op\": \"null\", \"name\": \"fc1_bias\", \"inputs\": []}," +
           "{\"op\": \"FullyConnected\", \"name\": \"fc1\", \"inputs\": [[0, 0], [1, 0], [2, 0]], "
           "\"attr\": {\"num_hidden\": \"128\"" +
           q + "}}," +
           "{\"op\": \"Activation\", \"name\": \"relu1\", \"inputs\": [[3, 0]], \"attr\": "
           "{\"act_type\": \"relu\"}}," +
           "{\"op\": \"null\", \"name\": \"fc2_weight\", \"inputs\": []}," +
           "{\"op\": \"null\", \"name\": \"fc2_bias\", \"inputs\": []}," +
           "{\"op\": \"FullyConnected\", \"name\": \"fc2\", \"inputs\": [[4, 0], [5, 0], [6, 0]], "
           "\"attr\": {\"num_hidden\": \"128\"" +
           q + "}}," +
           "{\"op\": \"Activation\", \"name\": \"relu2\", \"inputs\": [[7, 0]], \"attr\": "
           "{\"act_type\": \"relu\"}}," +
           "{\"op\": \"null\", \"name\": \"fc3_weight\", \"inputs\": []}," +
           "{\"op\": \"null\", \"name\": \"fc3_bias\", \"inputs\": []}," +
           "{\"op\": \"FullyConnected\", \"name\": \"fc3\", \"inputs\": [[8, 0], [9, 0], [10, 0]], "
           "\"attr\": {\"num_hidden\": \"2\"}}," +
           "{\"op\": \"null\", \"name\": \"softmax_label\", \"inputs\": []}," +
           "{\"op\": \"SoftmaxOutput\", \"name\": \"softmax\", \"inputs\": [[11, 0], [12, 0]]}" +
           "], \"arg_nodes\": [0, 1, 2, 5, 6, 9, 10, 12], \"heads\": [[13, 0]]}";

  std::string& p = m.params;
  Put64(&p, 0x112);
  Put64(&p, 0);
  Put64(&p, 6);
  for (const Layer& l : m.layers) {
    PutArray(&p, {l.out, l.in}, l.w);
    PutArray(&p, {l.out}, l.b);
  }
  Put64(&p, 6);
  for (int i = 1; i <= 3; ++i) {
    for (const char* kind : {"weight", "bias"}) {
      const std::string name = "arg:fc" + std::to_string(i) + "_" + kind;
      Put64(&p, name.size());
      p += name;
    }
  }
  return m;
}

std::vector<float> Frame() {
  std::mt19937 rng(11);
  std::normal_distribution<float> n(0.0f, 1.0f);
  std::vector<float> x(kInput);
  for (float& v : x) v = n(rng);
  return x;
}

const char* kKeys[] = {"data"};
const uint32_t kIndptr[] = {0, 4};
const uint32_t kShape[] = {1, kFrames, kChannels, kBins};

PredictorHandle Create(const Model& m) {
  PredictorHandle h = nullptr;
  MXPredCreate(m.json.c_str(), m.params.data(), static_cast<int>(m.params.size()), 1, 0, 1, kKeys,
               kIndptr, kShape, &h);
  return h;
}

double PeakRssKiB() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return static_cast<double>(ru.ru_maxrss);
}

void RunForward(benchmark::State& state, bool online_quanti) {
  const Model m = MakeModel(online_quanti);
  PredictorHandle h = Create(m);
  if (h == nullptr) {
    state.SkipWithError("MXPredCreate failed");
    return;
  }
  const std::vector<float> x = Frame();
  float out[kClasses];
  MXPredSetInput(h, "data", x.data(), kInput);
  MXPredForward(h);  // first run prepares the weights
  for (auto _ : state) {
    MXPredForward(h);
    benchmark::ClobberMemory();
  }
  MXPredGetOutput(h, 0, out, kClasses);
  benchmark::DoNotOptimize(out);
  MXPredFree(h);
  state.counters["peak_rss_KiB"] = PeakRssKiB();
}

// MXPredForward of the float net at batch 1.
void BM_MXPredForward(benchmark::State& state) { RunForward(state, false); }
BENCHMARK(BM_MXPredForward)->Unit(benchmark::kMicrosecond);

// The same with the online 8-bit path in the two hidden layers.
void BM_MXPredForwardOnlineQuanti(benchmark::State& state) { RunForward(state, true); }
BENCHMARK(BM_MXPredForwardOnlineQuanti)->Unit(benchmark::kMicrosecond);

// A whole frame as the toolkit runs it: input copy, forward, output copy.
void BM_MXPredFrame(benchmark::State& state) {
  const Model m = MakeModel(false);
  PredictorHandle h = Create(m);
  const std::vector<float> x = Frame();
  float out[kClasses];
  for (auto _ : state) {
    MXPredSetInput(h, "data", x.data(), kInput);
    MXPredForward(h);
    MXPredGetOutput(h, 0, out, kClasses);
    benchmark::DoNotOptimize(out);
  }
  MXPredFree(h);
}
BENCHMARK(BM_MXPredFrame)->Unit(benchmark::kMicrosecond);

// Reference: the same net as plain loops (row dot products, relu,
// softmax), compiled with the tree's flags.
void BM_PlainLoops(benchmark::State& state) {
  const Model m = MakeModel(false);
  const std::vector<float> x = Frame();
  std::vector<float> a(kHidden), b(kHidden), out(kClasses);
  for (auto _ : state) {
    const float* in = x.data();
    std::vector<float>* bufs[] = {&a, &b, &out};
    for (int li = 0; li < 3; ++li) {
      const Layer& l = m.layers[li];
      float* y = bufs[li]->data();
      for (uint32_t o = 0; o < l.out; ++o) {
        float s = 0.0f;
        const float* w = &l.w[o * l.in];
        for (uint32_t i = 0; i < l.in; ++i) s += w[i] * in[i];
        s += l.b[o];
        y[o] = li < 2 ? (s > 0.0f ? s : 0.0f) : s;
      }
      in = y;
    }
    const float mx = std::max(out[0], out[1]);
    const float e0 = std::exp(out[0] - mx);
    const float e1 = std::exp(out[1] - mx);
    out[0] = e0 / (e0 + e1);
    out[1] = e1 / (e0 + e1);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_PlainLoops)->Unit(benchmark::kMicrosecond);

// Reference: the same kernel calls the layers make (GEMM, bias by a GEMM
// of depth 1, relu, softmax) without the net around them, to show what the
// engine adds per frame.
void BM_DirectKernels(benchmark::State& state) {
  using orvik::ruvo::math::orvik_cpu_gemm;
  const Model m = MakeModel(false);
  const std::vector<float> x = Frame();
  std::vector<float> a(kHidden), b(kHidden), out(kClasses);
  const float one = 1.0f;
  for (auto _ : state) {
    const float* in = x.data();
    std::vector<float>* bufs[] = {&a, &b, &out};
    for (int li = 0; li < 3; ++li) {
      const Layer& l = m.layers[li];
      float* y = bufs[li]->data();
      orvik_cpu_gemm<float>(CblasNoTrans, CblasTrans, 1, static_cast<int>(l.out),
                            static_cast<int>(l.in), 1.0f, in, l.w.data(), 0.0f, y);
      orvik_cpu_gemm<float>(CblasNoTrans, CblasNoTrans, 1, static_cast<int>(l.out), 1, 1.0f, &one,
                            l.b.data(), 1.0f, y);
      if (li < 2) {
        for (uint32_t o = 0; o < l.out; ++o) y[o] = y[o] > 0.0f ? y[o] : 0.0f;
      }
      in = y;
    }
    orvik::ruvo::math::softmax(out.data(), out.data(), kClasses);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_DirectKernels)->Unit(benchmark::kMicrosecond);

// Slab bytes of the plan against the rule.  The 128-float hidden blobs
// alternate between two slabs of 512 bytes (the relus run in place).  The
// 2-float outputs of fc3 and softmax (8 bytes, live at the same time) may
// not take a free 512-byte slab, which is more than 16 times their size,
// so each gets its own: 2 x 512 + 2 x 8 bytes in four slabs.
void BM_PlanSlabBytes(benchmark::State& state) {
  const Model m = MakeModel(false);
  double slab_bytes = 0;
  double slabs = 0;
  for (auto _ : state) {
    orvik::ruvo::DefaultNet net;
    net.Config(m.json.c_str(), m.params.data(), m.params.size(), 1, kKeys, kIndptr, kShape, 0,
               nullptr);
    slab_bytes = 0;
    for (const auto& slab : net.data_pool()) slab_bytes += slab.Size() * 4.0;
    slabs = static_cast<double>(net.data_pool().size());
  }
  state.counters["slab_bytes"] = slab_bytes;
  state.counters["slabs"] = slabs;
  state.counters["rule_bytes"] = 2.0 * kHidden * 4 + 2.0 * kClasses * 4;
  state.counters["rule_slabs"] = 4;
}
BENCHMARK(BM_PlanSlabBytes)->Unit(benchmark::kMicrosecond)->Iterations(20);


// The bundled streaming 8-bit model (models/default): one frame of 3 x 40
// features a call, the temporal layers keeping the history.
std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

const uint32_t kStreamShape[] = {1, 1, kChannels, kBins};
const uint32_t kStreamFrame = kChannels * kBins;

PredictorHandle CreateStream(const std::string& json, const std::string& params) {
  PredictorHandle h = nullptr;
  MXPredCreate(json.c_str(), params.data(), static_cast<int>(params.size()), 1, 0, 1, kKeys,
               kIndptr, kStreamShape, &h);
  return h;
}

double ThreadCpuMicros() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e6 + ts.tv_nsec * 1e-3;
}

// Median over seven rounds of whole frames (input copy, forward, output
// copy), in microseconds of this thread's CPU time per frame: the machine
// is shared, and wall time counts the other tenants too.
double MedianFrameMicros(PredictorHandle h, const std::vector<float>& x, uint32_t size) {
  constexpr int kRounds = 7, kPerRound = 2000;
  float out[kClasses];
  std::vector<double> t;
  for (int r = 0; r < kRounds; ++r) {
    const double t0 = ThreadCpuMicros();
    for (int i = 0; i < kPerRound; ++i) {
      MXPredSetInput(h, "data", x.data(), size);
      MXPredForward(h);
      MXPredGetOutput(h, 0, out, kClasses);
      benchmark::DoNotOptimize(out);
    }
    t.push_back((ThreadCpuMicros() - t0) / kPerRound);
  }
  std::sort(t.begin(), t.end());
  return t[kRounds / 2];
}

// A whole frame of the streaming 8-bit net.  Counters: the same frame of the
// float dense net (BM_MXPredFrame's) timed in turn in this run, the ratio,
// and the bytes the 8-bit net keeps: weights and tables as loaded, copies
// its layers make, and the slabs of the memory plan.
void BM_StreamInt8Frame(benchmark::State& state) {
  const std::string dir = TOVAD_MODEL_DIR "/";
  const std::string json = ReadFile(dir + "tovad.json");
  const std::string params = ReadFile(dir + "tovad.params");
  PredictorHandle h = CreateStream(json, params);
  if (h == nullptr) {
    state.SkipWithError("no streaming model in " TOVAD_MODEL_DIR);
    return;
  }
  const std::vector<float> x = Frame();  // its first frame is enough
  float out[kClasses];
  MXPredSetInput(h, "data", x.data(), kStreamFrame);
  MXPredForward(h);  // first run prepares the layers
  for (auto _ : state) {
    MXPredSetInput(h, "data", x.data(), kStreamFrame);
    MXPredForward(h);
    MXPredGetOutput(h, 0, out, kClasses);
    benchmark::DoNotOptimize(out);
  }

  const Model dense = MakeModel(false);
  PredictorHandle f = Create(dense);
  const double float_us = MedianFrameMicros(f, x, kInput);
  const double int8_us = MedianFrameMicros(h, x, kStreamFrame);
  MXPredFree(f);
  MXPredFree(h);
  state.counters["float_dense_us"] = float_us;
  state.counters["int8_stream_us"] = int8_us;
  state.counters["float_over_int8"] = float_us / int8_us;

  orvik::ruvo::DefaultNet net;
  net.Config(json.c_str(), params.data(), params.size(), 1, kKeys, kIndptr, kStreamShape, 0,
             nullptr);
  net.SetInput("data", x.data(), kStreamFrame);
  net.Forward();
  double weights = 0, copies = 0, slabs = 0;
  auto bytes = [](const orvik::ruvo::NDArray& a) {
    return a.is_none() ? 0.0 : a.Size() * static_cast<double>(orvik::ruvo::orvik_sizeof(a.dtype()));
  };
  for (size_t i = 0; i < net.args_names().size(); ++i) {
    if (net.args_names()[i] != "data") weights += bytes(net.blobs()[net.args_blobs_index()[i]]);
  }
  for (uint32_t id : net.GetAuxBlobsIndex()) weights += bytes(net.blobs()[id]);
  for (const auto& layer : net.layers()) {
    if (auto* t = dynamic_cast<orvik::ruvo::QuantiTemporalConvolution*>(layer.get())) {
      copies += bytes(t->weight_t_) + bytes(t->input_buff_);
    }
  }
  for (const auto& slab : net.data_pool()) slabs += bytes(slab);
  state.counters["weight_bytes"] = weights;
  state.counters["layer_copy_bytes"] = copies;
  state.counters["slab_bytes"] = slabs;
  state.counters["total_bytes"] = weights + copies + slabs;
}
BENCHMARK(BM_StreamInt8Frame)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
