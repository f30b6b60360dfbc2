// Soak: hours of generated audio (voice-like stretches and pauses) through
// one handle of the bundled model, and through the tovad program reading
// the same stream as headerless PCM on its standard input, once printing
// lines and once writing JSON (whose segments wait for the end of the
// input).  Resident memory is sampled as the audio goes by; after start-up
// it must stay flat.  Reported: RSS after the first hour (the reference),
// peak and final RSS, and final / first-hour.
//
//   build/bench/bench/soak_bench [--benchmark_filter=...]
//   TOVAD_SOAK_HOURS=24 (default) sets the length; TOVAD_SOAK_TOVAD names
//   the tovad program (default: the one in this build tree).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/synth/voiced_audio.h"
#include "tovadmod/tovad_api.h"

namespace {

constexpr int kRate = 16000;
constexpr int kBlock = 1600;  // 100 ms per call

int64_t SoakSeconds() {
  const char* h = getenv("TOVAD_SOAK_HOURS");
  const double hours = h != nullptr ? atof(h) : 24.0;
  return static_cast<int64_t>(hours * 3600.0);
}

// Resident set of a process in MB, from /proc (VmRSS).
double RssMb(pid_t pid) {
  std::ifstream status("/proc/" + (pid == 0 ? std::string("self") : std::to_string(pid)) +
                       "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return atof(line.c_str() + 6) / 1024.0;
  }
  return 0.0;
}

struct Trace {
  double first_hour = 0.0, peak = 0.0, last = 0.0;
  void Sample(double mb, int64_t second) {
    if (mb <= 0.0) return;
    if (second >= 3600 && first_hour == 0.0) first_hour = mb;
    peak = std::max(peak, mb);
    last = mb;
  }
  void Report(benchmark::State& state) const {
    state.counters["rss_1h_MB"] = first_hour;
    state.counters["rss_peak_MB"] = peak;
    state.counters["rss_final_MB"] = last;
    state.counters["final_over_1h"] = first_hour > 0.0 ? last / first_hour : 0.0;
  }
};

void BM_SoakHandle(benchmark::State& state) {
  const int64_t seconds = SoakSeconds();
  for (auto _ : state) {
    Trace trace;
    void* vad = Tovad_toolkit_init("tovad.conf", TOVAD_MODEL_DIR);
    tovad_synth::VoicedAudio audio(1);
    std::vector<int16_t> block(kBlock);
    int start = -1, end = -1;
    int64_t segments = 0;
    for (int64_t s = 0; s < seconds; ++s) {
      for (int b = 0; b < kRate / kBlock; ++b) {
        audio.Fill(block.data(), kBlock);
        Tovad_toolkit_predict(vad, kBlock, block.data(), &start, &end);
        if (end >= 0) {
          ++segments;
          Tovad_toolkit_reset(vad, false);
          start = end = -1;
        }
      }
      if (s % 60 == 59) trace.Sample(RssMb(0), s + 1);
    }
    Tovad_toolkit_destory(vad);
    trace.Report(state);
    state.counters["segments"] = static_cast<double>(segments);
  }
  state.counters["audio_hours"] = seconds / 3600.0;
}
BENCHMARK(BM_SoakHandle)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

void BM_SoakTovadProgram(benchmark::State& state) {
  const int64_t seconds = SoakSeconds();
  const bool json = state.range(0) != 0;
  const char* program = getenv("TOVAD_SOAK_TOVAD");
  const std::string tovad = program != nullptr ? program : TOVAD_PROGRAM;
  std::vector<const char*> argv = {tovad.c_str(), "--raw-input", "-"};
  if (json) argv.insert(argv.begin() + 1, {"-f", "json"});
  argv.push_back(nullptr);
  signal(SIGPIPE, SIG_IGN);  // a tovad that dies shows in its exit status
  for (auto _ : state) {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) abort();
    const pid_t child = fork();
    if (child == 0) {
      const int devnull = open("/dev/null", O_WRONLY);
      dup2(pipe_fds[0], 0);
      dup2(devnull, 1);
      dup2(devnull, 2);
      close(pipe_fds[0]);
      close(pipe_fds[1]);
      execv(tovad.c_str(), const_cast<char* const*>(argv.data()));
      _exit(127);
    }
    close(pipe_fds[0]);
    const int fd = pipe_fds[1];
    Trace trace;
    tovad_synth::VoicedAudio audio(1);
    std::vector<int16_t> block(kRate);
    std::vector<uint8_t> bytes(2 * kRate);
    for (int64_t s = 0; s < seconds; ++s) {
      audio.Fill(block.data(), kRate);
      for (int i = 0; i < kRate; ++i) {
        bytes[2 * i] = static_cast<uint8_t>(block[i] & 0xff);  // little-endian
        bytes[2 * i + 1] = static_cast<uint8_t>(static_cast<uint16_t>(block[i]) >> 8);
      }
      if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) break;
      if (s % 60 == 59) trace.Sample(RssMb(child), s + 1);
    }
    close(fd);
    int status = 0;
    waitpid(child, &status, 0);
    trace.Report(state);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("tovad failed");
  }
  state.counters["audio_hours"] = seconds / 3600.0;
}
BENCHMARK(BM_SoakTovadProgram)
    ->ArgName("json")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
