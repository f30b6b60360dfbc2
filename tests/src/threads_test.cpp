// Handles and predictors on many threads at once.  Built also under
// ThreadSanitizer (-DTOVAD_TSAN=ON), where a race anywhere in the library
// fails the run.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "tests/ruvo/net_fixture.h"
#include "tests/synth/voiced_audio.h"
#include "toolkit_harness.h"

namespace {

using namespace toolkit_harness;

constexpr int kThreads = 8;
constexpr int kSignals = 3;  // threads i and i + 3 share a signal
constexpr int kSeconds = 20;

// Runs body(t) on kThreads threads started together, so their work overlaps.
template <typename F>
void OnThreads(F body) {
  std::atomic<int> waiting{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ++waiting;
      while (waiting.load() < kThreads) std::this_thread::yield();
      body(t);
    });
  }
  for (std::thread& th : threads) th.join();
}

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
  // Handles are made on the threads too: start-up runs concurrently.
  std::vector<std::vector<Segment>> got(kThreads);
  OnThreads([&](int t) {
    void* vad = Tovad_toolkit_init(conf.c_str(), nullptr);
    got[t] = Segments(vad, signals[t % kSignals], kBlock);
    Tovad_toolkit_destory(vad);
  });
  testing::internal::GetCapturedStderr();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(got[t], expected[t % kSignals]) << "thread " << t;
  }
  remove(conf.c_str());
}

TEST(Threads, PredictorsCreatedAndFreedConcurrently) {
  const net_test::Model model{net_test::ReadFile(kToolkitData + "tone_model.json"),
                              net_test::ReadFile(kToolkitData + "tone_model.params"),
                              {}};
  auto run = [&](float offset) {
    PredictorHandle pred = net_test::CreateForData(model, {1, 5, 3, 40});
    std::vector<float> input(600);
    for (size_t i = 0; i < input.size(); ++i) input[i] = offset + 0.01f * (i % 40);
    MXPredSetInput(pred, "data", input.data(), 600);
    MXPredForward(pred);
    const std::vector<float> out = net_test::GetOutput(pred, 0).values;
    MXPredFree(pred);
    return out;
  };
  std::vector<std::vector<float>> expected(kThreads);
  for (int t = 0; t < kThreads; ++t) expected[t] = run(0.25f * t);
  std::vector<int> mismatches(kThreads, 0);
  OnThreads([&](int t) {
    for (int r = 0; r < 40; ++r) mismatches[t] += run(0.25f * t) != expected[t];
  });
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}

}  // namespace
