// The whole toolkit over one minute of audio: PCEN features, a net and the
// decision path, through libtovadmod.so's exported interface.  The nets are
// the two bundled models and a generated dense VAD-sized net (11 frames x 3
// x 40 in, 128, 128, 2 out).  Reported as the
// real-time factor (processing seconds per audio second, one thread) and
// the peak resident memory, with the debug recorder off and on (timing
// report and posterior log into the temporary folder).  The front end
// alone on the same audio is the reference measured in the same run.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "src/pcen_feature_extractor.h"
#include "tovadmod/tovad_api.h"

namespace {

constexpr int kFrame = 160;
constexpr int kAudioSeconds = 60;
constexpr uint32_t kFrames = 11, kChannels = 3, kBins = 40, kHidden = 128, kClasses = 2;

// One minute: noise throughout, harmonic bursts of 0.3 to 2 s with pauses.
std::vector<short> MakeAudio() {
  std::mt19937 rng(5);
  std::normal_distribution<double> noise(0.0, 40.0);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<short> pcm(static_cast<size_t>(kAudioSeconds) * 16000);
  size_t at = 0;
  double phase = 0.0;
  bool voiced = false;
  while (at < pcm.size()) {
    const size_t len =
        static_cast<size_t>((voiced ? 0.3 + 1.7 * u(rng) : 0.2 + 1.0 * u(rng)) * 16000);
    const double f0 = 110.0 + 140.0 * u(rng);
    for (size_t i = 0; i < len && at < pcm.size(); ++i, ++at) {
      double v = noise(rng);
      if (voiced) {
        phase += 2 * M_PI * f0 / 16000.0;
        v += 2500.0 * (std::sin(phase) + 0.5 * std::sin(2 * phase) + 0.3 * std::sin(3 * phase));
      }
      pcm[at] = static_cast<short>(std::lround(v));
    }
    voiced = !voiced;
  }
  return pcm;
}

void Put(std::ofstream& f, const void* p, size_t n) { f.write(static_cast<const char*>(p), n); }
void Put64(std::ofstream& f, uint64_t v) { Put(f, &v, 8); }
void Put32(std::ofstream& f, uint32_t v) { Put(f, &v, 4); }

// Writes conf, meanvar, symbol and parameter files of the dense net into
// a fresh folder and returns it.
std::string WriteModel(bool recorder) {
  char tmpl[] = "/tmp/tovad_bench_XXXXXX";
  const std::string dir = mkdtemp(tmpl);
  std::mt19937 rng(7);
  const uint32_t widths[] = {kFrames * kChannels * kBins, kHidden, kHidden, kClasses};
  std::ofstream p(dir + "/net.params", std::ios::binary);
  Put64(p, 0x112);
  Put64(p, 0);
  Put64(p, 6);
  for (int l = 0; l < 3; ++l) {
    const float scale = 1.0f / std::sqrt(static_cast<float>(widths[l]));
    std::uniform_real_distribution<float> w(-scale, scale);
    for (int bias = 0; bias < 2; ++bias) {
      std::vector<uint32_t> shape = bias ? std::vector<uint32_t>{widths[l + 1]}
                                         : std::vector<uint32_t>{widths[l + 1], widths[l]};
      size_t n = 1;
      Put32(p, 0xF993FAC8u);  // modern shape form
      Put32(p, static_cast<uint32_t>(shape.size()));
      for (uint32_t d : shape) {
        Put64(p, d);
        n *= d;
      }
      Put32(p, 1);  // cpu
      Put32(p, 0);
      Put32(p, 0);  // float32
      for (size_t i = 0; i < n; ++i) {
        const float v = w(rng);
        Put(p, &v, 4);
      }
    }
  }
  Put64(p, 6);
  for (int l = 1; l <= 3; ++l) {
    for (const char* kind : {"weight", "bias"}) {
      const std::string name = "arg:fc" + std::to_string(l) + "_" + kind;
      Put64(p, name.size());
      Put(p, name.data(), name.size());
    }
  }
  p.close();

  std::string json = "{\"nodes\": [{\"op\": \"null\", \"name\": \"data\", \"inputs\": []}";
  int prev = 0, next = 1;
  std::string args = "0";
  for (int l = 1; l <= 3; ++l) {
    const std::string fc = "fc" + std::to_string(l);
    json += ",{\"op\": \"null\", \"name\": \"" + fc + "_weight\", \"inputs\": []}";
    json += ",{\"op\": \"null\", \"name\": \"" + fc + "_bias\", \"inputs\": []}";
    args += "," + std::to_string(next) + "," + std::to_string(next + 1);
    json += ",{\"op\": \"FullyConnected\", \"name\": \"" + fc + "\", \"inputs\": [[" +
            std::to_string(prev) + ", 0], [" + std::to_string(next) + ", 0], [" +
            std::to_string(next + 1) + ", 0]], \"attr\": {\"num_hidden\": \"" +
            std::to_string(widths[l]) + "\"}}";
    prev = next + 2;
    next += 3;
    if (l < 3) {
      json += ",{\"op\": \"Activation\", \"name\": \"relu" + std::to_string(l) +
              "\", \"inputs\": [[" + std::to_string(prev) +
              ", 0]], \"attr\": {\"act_type\": \"relu\"}}";
      prev = next;
      next += 1;
    }
  }
  json += ",{\"op\": \"SoftmaxActivation\", \"name\": \"softmax\", \"inputs\": [[" +
          std::to_string(prev) + ", 0]]}], \"arg_nodes\": [" + args + "], \"heads\": [[" +
          std::to_string(next) + ", 0]]}";
  std::ofstream(dir + "/net.json") << json;

  std::ofstream mv(dir + "/meanvar.txt");
  for (uint32_t i = 0; i < kChannels * kBins; ++i) mv << "0 ";
  mv << "\n";
  for (uint32_t i = 0; i < kChannels * kBins; ++i) mv << "1 ";
  mv << "\n";
  mv.close();

  std::ofstream(dir + "/vad.conf")
      << "path_to_json=net.json\npath_to_param=net.params\npath_to_meanvar=meanvar.txt\n"
         "feature_type=pcen\nn_batch=1\nn_chan=3\nn_height=11\nn_width=40\nn_classes=2\n"
         "target_class=1\nwakeup_threshold=0.5\nsil_to_voice_hangover=10\n"
         "voice_to_sil_hangover=30\nextra_leading_sil=20\n"
         "cutoff_n_frame_max_vad_length=1000\ncutoff_n_frame_min_vad_length=300\n"
         "cutoff_n_frame_judging=50\ncutoff_threshold=0.3\nE_post_process_type=1\n";
  if (recorder) {
    // Segment files go to a folder that doesn't exist: they are not part
    // of what is measured, and without a folder they would land in /.
    std::ofstream(dir + "/vad.conf", std::ios::app)
        << "use_debug_function=1\nrt_log_path=" << dir << "/rt.log\nsoftmax_log_path=" << dir
        << "/softmax.log\nsave_vad_segment_dir=" << dir << "/none\n";
  }
  return dir;
}

double PeakRssMiB() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss / 1024.0;
}

const std::vector<short>& Audio() {
  static const std::vector<short> audio = MakeAudio();
  return audio;
}

// The caller's loop over the minute: frames in, and a reset after every
// segment end.
void RunToolkit(benchmark::State& state, const char* conf, const std::string& dir) {
  // Start-up prints a line per key read: keep it out of the report.
  fflush(stderr);
  const int saved = dup(2);
  if (freopen("/dev/null", "w", stderr) == nullptr) return;
  void* h = Tovad_toolkit_init(conf, dir.c_str());
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  const std::vector<short>& pcm = Audio();
  int segments = 0;
  for (auto _ : state) {
    int start = -1, end = -1;
    for (size_t at = 0; at + kFrame <= pcm.size(); at += kFrame) {
      Tovad_toolkit_predict(h, kFrame, pcm.data() + at, &start, &end);
      if (end >= 0) {
        ++segments;
        Tovad_toolkit_reset(h, false);
        start = end = -1;
      }
    }
  }
  Tovad_toolkit_destory(h);
  state.counters["real_time_factor"] =
      benchmark::Counter(static_cast<double>(kAudioSeconds) * state.iterations(),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["segments_per_minute"] = static_cast<double>(segments) / state.iterations();
  state.counters["peak_rss_MiB"] = PeakRssMiB();
}

// The bundled models over the same minute, first so that the peak memory
// of the first one is its own: 0 the 8-bit streaming default, 1 the float
// dense net.
void BM_BundledModelOneMinute(benchmark::State& state) {
  const char* const names[] = {"default", "dense"};
  RunToolkit(state, "tovad.conf", std::string(TOVAD_MODELS_DIR) + "/" + names[state.range(0)]);
}
BENCHMARK(BM_BundledModelOneMinute)
    ->ArgName("dense")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);

// A generated dense net, with the debug recorder off (0) or on (1).
void BM_ToolkitOneMinute(benchmark::State& state) {
  const std::string dir = WriteModel(state.range(0) != 0);
  RunToolkit(state, "vad.conf", dir);
  if (system(("rm -rf " + dir).c_str()) != 0) state.SkipWithError("cleanup failed");
}
BENCHMARK(BM_ToolkitOneMinute)
    ->ArgName("recorder")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(2.0);

// Reference: the PCEN front end alone over the same minute.
void BM_FrontEndOneMinute(benchmark::State& state) {
  std::vector<float> meanvar(2 * kChannels * kBins, 0.0f);
  std::fill(meanvar.begin() + kChannels * kBins, meanvar.end(), 1.0f);
  Tovad_toolkit::PcenFeatureExtractor extractor(kBins, meanvar.data());
  std::vector<float> feats(kChannels * kBins);
  const std::vector<short>& pcm = Audio();
  for (auto _ : state) {
    for (size_t at = 0; at + kFrame <= pcm.size(); at += kFrame) {
      extractor.getFeats(reinterpret_cast<const int16_t*>(pcm.data() + at), feats.data());
    }
    benchmark::DoNotOptimize(feats.data());
  }
  state.counters["real_time_factor"] =
      benchmark::Counter(static_cast<double>(kAudioSeconds) * state.iterations(),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_FrontEndOneMinute)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
