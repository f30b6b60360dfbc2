// Decision post-processing per frame: the whole decision path with the
// mode 1 energy stage and a force cutoff, and its two window statistics
// beside the plain reference of sorting a copy of the window each frame.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "src/energy_post_process.h"
#include "src/median_filter.h"
#include "src/post_process.h"

namespace {

using Tovad_toolkit::ConfigMap;
using Tovad_toolkit::Energy_post_process;
using Tovad_toolkit::Median_Filter;
using Tovad_toolkit::Post_process;

// A stream of alternating voice and silence runs, with energies to match,
// long enough that the window statistics are in steady state.
struct Stream {
  std::vector<float> prior;  // 2 classes per frame
  std::vector<float> energy;
};

Stream MakeStream(size_t frames) {
  std::mt19937 gen(5);
  std::uniform_int_distribution<int> run(20, 200);
  std::uniform_real_distribution<float> jitter(-0.08f, 0.08f);
  Stream s;
  bool voice = false;
  while (s.energy.size() < frames) {
    const int n = run(gen);
    for (int i = 0; i < n; ++i) {
      const float p = (voice ? 0.85f : 0.1f) + jitter(gen);
      s.prior.push_back(1.0f - p);
      s.prior.push_back(p);
      s.energy.push_back((voice ? 70.0f : 45.0f) + 100.0f * jitter(gen));
    }
    voice = !voice;
  }
  return s;
}

const size_t kStreamFrames = 8192;

// Constructors log every key read to stderr; keep that out of the report.
template <typename Make>
auto Quietly(Make make) -> decltype(make()) {
  fflush(stderr);
  const int saved = dup(2);
  const int null_fd = open("/dev/null", O_WRONLY);
  if (null_fd >= 0) {
    dup2(null_fd, 2);
    close(null_fd);
  }
  auto obj = make();
  fflush(stderr);
  if (saved >= 0) {
    dup2(saved, 2);
    close(saved);
  }
  return obj;
}

void BM_ApplyPostProcess_EnergyMode1_Cutoff(benchmark::State& state) {
  const ConfigMap config = {{"target_class", "1"},
                            {"n_batch", "1"},
                            {"n_classes", "2"},
                            {"sil_to_voice_hangover", "10"},
                            {"voice_to_sil_hangover", "30"},
                            {"extra_leading_sil", "20"},
                            {"wakeup_threshold", "0.5"},
                            {"E_post_process_type", "1"},
                            {"cutoff_n_frame_max_vad_length", "1500"},
                            {"cutoff_n_frame_min_vad_length", "100"},
                            {"cutoff_n_frame_judging", "50"},
                            {"cutoff_threshold", "0.5"}};
  auto pp = Quietly([&] { return std::make_unique<Post_process>(config, false); });
  const Stream s = MakeStream(kStreamFrames);
  size_t f = 0;
  int32_t start = -1, end = -1;
  int64_t segments = 0;
  for (auto _ : state) {
    pp->apply_post_process(&s.prior[2 * f], &s.energy[f], &start, &end);
    benchmark::DoNotOptimize(start);
    if (end != -1) {  // as a caller would, between segments
      pp->reset(false);
      ++segments;
    }
    if (++f == kStreamFrames) f = 0;
  }
  state.counters["segments"] = static_cast<double>(segments);
}
BENCHMARK(BM_ApplyPostProcess_EnergyMode1_Cutoff);

// The running median: sorted window with two binary searches and one move.
void BM_MedianInsert(benchmark::State& state) {
  Median_Filter filter(static_cast<uint32_t>(state.range(0)));
  const Stream s = MakeStream(kStreamFrames);
  size_t f = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(filter.insert(s.energy[f]));
    if (++f == kStreamFrames) f = 0;
  }
}
BENCHMARK(BM_MedianInsert)->Arg(7)->Arg(11);

// Reference: keep the ring and sort a copy on each insert.
void BM_MedianSortCopy(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  std::vector<float> ring(n, 0.0f), copy(n);
  const Stream s = MakeStream(kStreamFrames);
  size_t f = 0, idx = 0;
  for (auto _ : state) {
    ring[idx] = s.energy[f];
    idx = (idx + 1) % n;
    std::copy(ring.begin(), ring.end(), copy.begin());
    std::sort(copy.begin(), copy.end());
    benchmark::DoNotOptimize(copy[n / 2]);
    if (++f == kStreamFrames) f = 0;
  }
}
BENCHMARK(BM_MedianSortCopy)->Arg(7)->Arg(11);

// The mode 1 energy stage over its default window of 1000 frames.
void BM_EnergyMode1Frame(benchmark::State& state) {
  const ConfigMap config = {{"E_post_process_type", "1"}};
  auto stage = Quietly([&] { return std::make_unique<Energy_post_process>(config); });
  const Stream s = MakeStream(kStreamFrames);
  size_t f = 0;
  for (auto _ : state) {
    float vad = s.prior[2 * f + 1];
    stage->apply_energy_post_process(1, &s.energy[f], &vad);
    benchmark::DoNotOptimize(vad);
    if (++f == kStreamFrames) f = 0;
  }
}
BENCHMARK(BM_EnergyMode1Frame);

// Reference for its two quantiles: copy the 1000-frame ring and select
// both ranks with nth_element on each frame.
void BM_EnergyQuantilesNthElement(benchmark::State& state) {
  const size_t n = 1000;
  std::vector<float> ring(n, 0.0f), copy(n);
  const Stream s = MakeStream(kStreamFrames);
  size_t f = 0, idx = 0;
  for (auto _ : state) {
    ring[idx] = s.energy[f];
    idx = (idx + 1) % n;
    std::copy(ring.begin(), ring.end(), copy.begin());
    std::nth_element(copy.begin(), copy.begin() + 800, copy.end());
    std::nth_element(copy.begin(), copy.begin() + 400, copy.begin() + 800);
    benchmark::DoNotOptimize(copy[400] + copy[800]);
    if (++f == kStreamFrames) f = 0;
  }
}
BENCHMARK(BM_EnergyQuantilesNthElement);

}  // namespace

BENCHMARK_MAIN();
