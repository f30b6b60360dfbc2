// Acoustic front end: the real FFT of length 512 beside FFTW's
// single-precision real FFT (FFTW_MEASURE plans) in the same process, and
// the PCEN and composite extractors per 160-sample frame on the same audio.

#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <memory>
#include <random>
#include <vector>

#include "src/pcen_feature_extractor.h"
#include "src/tovad_feature_extractor.h"
#include "src/tovad_fft.h"

namespace {

using Tovad_toolkit::PcenFeatureExtractor;
using Tovad_toolkit::Tovad_feature_extractor;
using Tovad_toolkit::Tovad_fft;

const int kLength = 512;

std::vector<float> Signal(size_t n) {
  std::mt19937 gen(1);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> x(n);
  for (float& v : x) v = dist(gen);
  return x;
}

void BM_TovadFftForward512(benchmark::State& state) {
  auto fft = std::make_unique<Tovad_fft>();
  std::vector<float> in = Signal(kLength);
  std::vector<float> out(kLength + 2);
  for (auto _ : state) {
    fft->fft(out.data(), in.data(), kLength);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TovadFftForward512);

void BM_TovadFftInverse512(benchmark::State& state) {
  auto fft = std::make_unique<Tovad_fft>();
  std::vector<float> in = Signal(kLength + 2);
  std::vector<float> out(kLength);
  for (auto _ : state) {
    fft->ifft(out.data(), in.data(), kLength);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TovadFftInverse512);

void BM_FftwForward512(benchmark::State& state) {
  float* in = fftwf_alloc_real(kLength);
  fftwf_complex* out = fftwf_alloc_complex(kLength / 2 + 1);
  fftwf_plan plan = fftwf_plan_dft_r2c_1d(kLength, in, out, FFTW_MEASURE);
  std::vector<float> x = Signal(kLength);
  std::copy(x.begin(), x.end(), in);  // planning with FFTW_MEASURE overwrites the arrays
  for (auto _ : state) {
    fftwf_execute(plan);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  fftwf_destroy_plan(plan);
  fftwf_free(in);
  fftwf_free(out);
}
BENCHMARK(BM_FftwForward512);

void BM_FftwInverse512(benchmark::State& state) {
  fftwf_complex* in = fftwf_alloc_complex(kLength / 2 + 1);
  float* out = fftwf_alloc_real(kLength);
  // A complex-to-real transform may use its input as scratch; keep the
  // input intact so every run transforms the same spectrum, as ours does.
  fftwf_plan plan = fftwf_plan_dft_c2r_1d(kLength, in, out, FFTW_MEASURE | FFTW_PRESERVE_INPUT);
  std::vector<float> x = Signal(kLength + 2);
  std::copy(x.begin(), x.end(), reinterpret_cast<float*>(in));
  for (auto _ : state) {
    fftwf_execute(plan);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  fftwf_destroy_plan(plan);
  fftwf_free(in);
  fftwf_free(out);
}
BENCHMARK(BM_FftwInverse512);

// A second of noise with a speech-like level.
std::vector<int16_t> SpeechLevelNoise() {
  std::mt19937 gen(2);
  std::normal_distribution<float> dist(0.0f, 3000.0f);
  std::vector<int16_t> pcm(100 * 160);
  for (int16_t& s : pcm)
    s = static_cast<int16_t>(std::max(-32768.0f, std::min(32767.0f, dist(gen))));
  return pcm;
}

// One frame of getFeats on a warmed-up extractor.
template <typename Extractor>
void RunFrames(benchmark::State& state, Extractor* ex, size_t dim) {
  std::vector<int16_t> pcm = SpeechLevelNoise();
  std::vector<float> feats(dim);
  for (int f = 0; f < 10; ++f) ex->getFeats(pcm.data() + 160 * f, feats.data());
  size_t frame = 0;
  for (auto _ : state) {
    ex->getFeats(pcm.data() + 160 * frame, feats.data());
    benchmark::DoNotOptimize(feats.data());
    benchmark::ClobberMemory();
    frame = (frame + 1) % 100;
  }
}

void BM_PcenGetFeats(benchmark::State& state) {
  const int32_t banks = static_cast<int32_t>(state.range(0));
  std::vector<float> meanvar(2 * banks * 3, 0.0f);
  std::fill(meanvar.begin() + banks * 3, meanvar.end(), 1.0f);
  auto pcen = std::make_unique<PcenFeatureExtractor>(banks, meanvar.data());
  RunFrames(state, pcen.get(), banks * 3);
}
BENCHMARK(BM_PcenGetFeats)->Arg(40)->Arg(80)->Unit(benchmark::kMicrosecond);

// The composite extractor as the predictor builds it by default: a table of
// 48 and a running cepstral mean over 500 frames.
void BM_CompositeGetFeats(benchmark::State& state) {
  std::vector<float> meanvar(2 * 48, 0.0f);
  std::fill(meanvar.begin() + 48, meanvar.end(), 1.0f);
  auto composite = std::make_unique<Tovad_feature_extractor>(meanvar.data(), 48, 500, nullptr);
  RunFrames(state, composite.get(), 48);
}
BENCHMARK(BM_CompositeGetFeats)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
