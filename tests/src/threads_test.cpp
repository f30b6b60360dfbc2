// Handles on many threads at once, each made, run and freed on its thread
// (so predictors are created, run and freed concurrently too).  Built also
// under ThreadSanitizer (-DTOVAD_TSAN=ON), where a race anywhere in the
// library fails the run.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "tests/synth/voiced_audio.h"
#include "toolkit_harness.h"

namespace {

using namespace toolkit_harness;

constexpr int kThreads = 8;
constexpr int kSignals = 3;  // threads i and i + 3 share a signal
constexpr int kSeconds = 20;

// Blocks of an odd size, so that frames straddle calls.
constexpr size_t kBlock = 373;

TEST(Threads, HandlesOnEightThreadsGiveTheSingleHandlePositions) {
  const std::string conf = testing::TempDir() + "threads_" + std::to_string(getpid()) + ".conf";
  std::ofstream(conf) << ToneConf(kToolkitData);
  std::vector<std::vector<int16_t>> signals(kSignals, std::vector<int16_t>(kSeconds * 16000));
  std::vector<std::vector<Segment>> expected(kSignals);
  testing::internal::CaptureStderr();  // start-up reports every key
  for (int s = 0; s < kSignals; ++s) {
    tovad_synth::VoicedAudio(s + 1).Fill(signals[s].data(), signals[s].size());
    void* vad = Tovad_toolkit_init(conf.c_str(), nullptr);
    expected[s] = Segments(vad, signals[s], kBlock);
    Tovad_toolkit_destory(vad);
    ASSERT_GE(expected[s].size(), 2u) << "signal " << s << " should hold several segments";
  }
  // Started together, so that their work overlaps.
  std::vector<std::vector<Segment>> got(kThreads);
  std::atomic<int> waiting{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ++waiting;
      while (waiting.load() < kThreads) std::this_thread::yield();
      void* vad = Tovad_toolkit_init(conf.c_str(), nullptr);
      got[t] = Segments(vad, signals[t % kSignals], kBlock);
      Tovad_toolkit_destory(vad);
    });
  }
  for (std::thread& th : threads) th.join();
  testing::internal::GetCapturedStderr();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(got[t], expected[t % kSignals]) << "thread " << t;
  }
  remove(conf.c_str());
}

}  // namespace
