// The debug recorder's files, read back after the tone model of
// tests/data/toolkit/gen_toolkit_model.py has scored synthesised bursts.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "toolkit_harness.h"

namespace {

using namespace toolkit_harness;

// Logs other than the standard streams carry the creating thread's id.
std::string LogPath(const ModelFolder& f, const std::string& name) {
  return f.dir + "/" + name + "-" + std::to_string(getpid());
}

// One flush of the recorder: its frames and the segment reported in them.
struct Flush {
  int offset, frames, start = -1, end = -1;
  bool operator==(const Flush& o) const { return start == o.start && end == o.end; }
};

// The caller's loop (reset after each end) with `keys` added to the conf;
// returns the flushes, the last one made by destroy.
std::vector<Flush> RunHandle(const ModelFolder& f, const std::string& keys,
                             const std::vector<short>& pcm) {
  std::ofstream(f.dir + "/vad.conf", std::ios::app)
      << "rt_log_path=" << f.dir << "/rt.log\nsoftmax_log_path=" << f.dir
      << "/softmax.log\ndump_file_path=" << f.dir << "/dump\nsave_vad_segment_dir=" << f.dir
      << "/seg\n"
      << keys;
  void* h = QuietInit("vad.conf", f.dir.c_str());
  std::vector<Flush> flushes(1, Flush{0, 0});
  for (int at = 0; at < kBurstFrames; ++at) {
    Flush& cur = flushes.back();
    Tovad_toolkit_predict(h, kFrame, pcm.data() + at * kFrame, &cur.start, &cur.end);
    cur.frames += 1;
    if (cur.end >= 0) {
      Tovad_toolkit_reset(h, false);
      flushes.push_back(Flush{at + 1, 0});
    }
  }
  Tovad_toolkit_destory(h);
  return flushes;
}

std::vector<std::string> Lines(const std::string& path, const std::string& having) {
  std::ifstream in(path);
  std::vector<std::string> out;
  for (std::string line; std::getline(in, line);) {
    if (line.find(having) != std::string::npos) out.push_back(line);
  }
  return out;
}

TEST(DebugerTest, RecordsWhatTheHandleSawAndDecided) {
  const std::vector<short> pcm = TwoBursts();
  ModelFolder f("on");
  const std::vector<Flush> flushes = RunHandle(
      f,
      "use_debug_function=1\nrt_rate_calculation_interval=50\nextra_vad_segment_prefix=20\n"
      "extra_vad_segment_suffix=15\n",
      pcm);
  ASSERT_EQ(flushes.size(), 3u);  // one segment per burst, then the rest
  ASSERT_EQ(flushes[2].start, -1);

  // Track 1: the input plus the noise table shifted down by 3, the same
  // pattern in every frame.
  const std::vector<int16_t> dump = ReadAll<int16_t>(LogPath(f, "dump"));
  ASSERT_EQ(dump.size(), 3u * pcm.size());
  const int table[] = {-18, -18, 0, 34, 51, 60, 25, 43};
  for (int j = 0; j < 8; ++j) EXPECT_EQ(dump[3 * j] - pcm[j], table[j] >> 3) << "sample " << j;
  std::vector<int16_t> seen(pcm.size());
  for (size_t i = 0; i < pcm.size(); ++i) {
    seen[i] = dump[3 * i];
    const int pattern = dump[3 * (i % kFrame)] - pcm[i % kFrame];
    ASSERT_EQ(seen[i], static_cast<int16_t>(pcm[i] + pattern)) << "sample " << i;
  }

  // Track 2: the median of 7 of the logged class 1 posteriors (the window
  // starts as zeros and runs on across the cheap resets).
  const std::vector<std::string> softmax = Lines(LogPath(f, "softmax.log"), "all priors:");
  ASSERT_EQ(softmax.size(), static_cast<size_t>(kBurstFrames));
  std::vector<float> window(7, 0.0f);
  for (int t = 0; t < kBurstFrames; ++t) {
    float p0, p1;
    std::istringstream(softmax[t].substr(softmax[t].find("priors:") + 7)) >> p0 >> p1;
    EXPECT_NE(softmax[t].find(p1 > p0 ? "class is: 1" : "class is: 0"), std::string::npos);
    window[t % 7] = p1;
    std::vector<float> sorted = window;
    std::sort(sorted.begin(), sorted.end());
    // The log keeps six decimals: up to one step of the truncated track.
    EXPECT_NEAR(dump[3 * t * kFrame + 1], std::trunc(std::min(sorted[3], 1.0f) * 32767.0), 1.0);
  }

  // Track 3 flags exactly the reported segment; each segment file holds the
  // frames from its start less the prefix on, and the next flush's first
  // frames up to the suffix, but not past the next voice.
  for (size_t k = 0; k < flushes.size(); ++k) {
    const Flush& fl = flushes[k];
    for (int t = 0; t < fl.frames; ++t) {
      const bool voice = fl.start >= 0 && t >= fl.start && t <= fl.end;
      EXPECT_EQ(dump[3 * (fl.offset + t) * kFrame + 2], voice ? 30000 : 0) << "frame " << t;
    }
    if (fl.start < 0) continue;
    std::vector<int16_t> want(seen.begin() + (fl.offset + std::max(fl.start - 20, 0)) * kFrame,
                              seen.begin() + (fl.offset + fl.frames) * kFrame);
    const Flush& next = flushes[k + 1];
    if (next.start >= 0) {
      want.insert(want.end(), seen.begin() + next.offset * kFrame,
                  seen.begin() + (next.offset + std::min(15, next.start)) * kFrame);
    }
    EXPECT_EQ(ReadAll<int16_t>(f.dir + "/seg/" + std::to_string(k) + ".pcm"), want)
        << "segment " << k;
  }
  EXPECT_FALSE(std::ifstream(f.dir + "/seg/2.pcm").good());

  // A report every 50 frames, none left for destroy; resets are marked.
  EXPECT_EQ(Lines(LogPath(f, "rt.log"), "RT of last 50 frames: compute feats = ").size(), 9u);
  EXPECT_EQ(Lines(LogPath(f, "rt.log"), "realtime cost of last 50 frames").size(), 9u);
  EXPECT_EQ(Lines(LogPath(f, "rt.log"), "]: RESET").size(), 2u);
  EXPECT_EQ(Lines(LogPath(f, "softmax.log"), "]: RESET").size(), 2u);

  // Off (anything but exactly 1) the recorder leaves no trace; on, with
  // paths that can't be opened, it is silent.  Decisions never change.
  for (const char* keys :
       {"use_debug_function=0\n", "use_debug_function=2\n",
        "use_debug_function=1\ndump_file_type=text\nrt_log_path=/no/r\n"
        "softmax_log_path=/no/s\ndump_file_path=/no/d\nsave_vad_segment_dir=/no\n"}) {
    ModelFolder other("off");
    EXPECT_TRUE(RunHandle(other, keys, pcm) == flushes) << keys;
    const std::string ls =
        "ls " + other.dir + " " + other.dir + "/seg | grep -e log -e dump -e pcm";
    EXPECT_NE(system(ls.c_str()), 0) << keys;
  }
}

}  // namespace
