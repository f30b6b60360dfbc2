// One LSTM step at VAD size (input 40, hidden 64, one layer, batch 1), as
// the streaming detector runs it once per frame: the RNN layer's Forward
// beside plain loops over the same weights in the same run.  The ratio
// loops / layer is the figure of merit; the target is 3x or more.

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "ruvo/layer.h"

namespace {

using orvik::ruvo::kFloat32;
using orvik::ruvo::NDArray;
using orvik::ruvo::TShape;

constexpr uint32_t kInput = 40;
constexpr uint32_t kHidden = 64;

struct Step {
  std::unique_ptr<orvik::ruvo::Layer> layer;
  orvik::ruvo::Resource resource;
  std::vector<NDArray> arrays;
  std::vector<NDArray*> bottoms, tops, auxes;

  Step() {
    layer.reset(orvik::ruvo::create_layer(orvik::ruvo::layer_to_index("RNN")));
    layer->Init({{"state_size", std::to_string(kHidden)},
                 {"num_layers", "1"},
                 {"mode", "lstm"},
                 {"state_inputs", "True"},
                 {"state_outputs", "True"}});
    std::vector<TShape> in(4), out, aux;
    in[0] = TShape{1, 1, kInput};
    layer->InferShape(in, out, aux);
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-0.3f, 0.3f);
    for (const auto* shapes : {&in, &out}) {
      for (const TShape& s : *shapes) {
        arrays.emplace_back(s, kFloat32);
        float* p = arrays.back().dptr<float>();
        for (uint32_t i = 0; i < s.Size(); ++i) p[i] = u(rng);
      }
    }
    for (size_t i = 0; i < arrays.size(); ++i) {
      (i < in.size() ? bottoms : tops).push_back(&arrays[i]);
    }
    layer->resource_ = &resource;
  }
};

inline float Sigmoid(float x) { return 1.0f / (1.0f + expf(-x)); }

void BM_LstmStepLayer(benchmark::State& state) {
  Step s;
  for (auto _ : state) {
    s.layer->Forward(s.bottoms, s.tops, s.auxes);
    // The new state is the next frame's input.
    std::copy_n(s.tops[1]->dptr<float>(), kHidden, s.bottoms[2]->dptr<float>());
    std::copy_n(s.tops[2]->dptr<float>(), kHidden, s.bottoms[3]->dptr<float>());
    benchmark::DoNotOptimize(s.tops[0]->dptr<float>()[0]);
  }
}
BENCHMARK(BM_LstmStepLayer);

// The same step as straightforward loops: one dot product per gate row.
void BM_LstmStepPlainLoops(benchmark::State& state) {
  Step s;
  const float* x = s.bottoms[0]->dptr<float>();
  const float* w = s.bottoms[1]->dptr<float>();
  const float* wh = w + 4 * kHidden * kInput;
  const float* b = w + 4 * kHidden * (kInput + kHidden);
  float* h = s.bottoms[2]->dptr<float>();
  float* c = s.bottoms[3]->dptr<float>();
  std::vector<float> gates(4 * kHidden), y(kHidden);
  for (auto _ : state) {
    for (uint32_t r = 0; r < 4 * kHidden; ++r) {
      float sum = b[r] + b[4 * kHidden + r];
      for (uint32_t k = 0; k < kInput; ++k) sum += w[r * kInput + k] * x[k];
      for (uint32_t k = 0; k < kHidden; ++k) sum += wh[r * kHidden + k] * h[k];
      gates[r] = sum;
    }
    for (uint32_t k = 0; k < kHidden; ++k) {
      const float ct = c[k] * Sigmoid(gates[kHidden + k]) +
                       Sigmoid(gates[k]) * tanhf(gates[2 * kHidden + k]);
      y[k] = Sigmoid(gates[3 * kHidden + k]) * tanhf(ct);
      c[k] = ct;
    }
    std::copy(y.begin(), y.end(), h);
    benchmark::DoNotOptimize(y[0]);
  }
}
BENCHMARK(BM_LstmStepPlainLoops);

}  // namespace

BENCHMARK_MAIN();
