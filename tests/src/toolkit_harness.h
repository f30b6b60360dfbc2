// What the toolkit suites share: the tone model's conf, synthesised tone
// bursts, a quiet start-up and the caller's loop.  The model is the small
// dense net of tests/data/toolkit/gen_toolkit_model.py.
#ifndef TESTS_SRC_TOOLKIT_HARNESS_H_
#define TESTS_SRC_TOOLKIT_HARNESS_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/synth/voiced_audio.h"
#include "tovadmod/tovad_api.h"

namespace toolkit_harness {

constexpr int kFrame = 160;
const std::string kToolkitData = TOVAD_TEST_DATA_DIR "/toolkit/";

// The conf of the tone model; `model_dir` is put before the model paths
// (empty: they resolve through the prefix given to init).
inline std::string ToneConf(const std::string& model_dir = "") {
  return "path_to_json=" + model_dir + "tone_model.json\npath_to_param=" + model_dir +
         "tone_model.params\npath_to_meanvar=" + model_dir +
         "tone_meanvar.txt\nfeature_type=pcen\n"
         "n_batch=1\nn_chan=3\nn_height=5\nn_width=40\nn_classes=2\ntarget_class=1\n"
         "wakeup_threshold=0.5\nsil_to_voice_hangover=5\nvoice_to_sil_hangover=30\n"
         "extra_leading_sil=10\ncutoff_n_frame_max_vad_length=0\n";
}

// A per-process folder (CTest runs cases in parallel, also from other
// builds) holding the model and `conf` as vad.conf; removed with the object.
struct ModelFolder {
  explicit ModelFolder(const std::string& name, const std::string& conf = ToneConf())
      : dir(testing::TempDir() + "/toolkit_" + std::to_string(getpid()) + "_" + name) {
    EXPECT_EQ(system(("rm -rf " + dir + " && mkdir -p " + dir + "/seg && cp " + kToolkitData +
                      "tone_* " + dir)
                         .c_str()),
              0);
    std::ofstream(dir + "/vad.conf") << conf;
  }
  ~ModelFolder() { EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0); }
  std::string dir;
};

// Start-up reports every key on stderr; kept out of the test output.
inline void* QuietInit(const std::string& conf, const char* prefix) {
  testing::internal::CaptureStderr();
  void* h = Tovad_toolkit_init(conf.c_str(), prefix);
  testing::internal::GetCapturedStderr();
  return h;
}

// A handle of the model in `dir`, destroyed with the object.
using Handle = std::unique_ptr<void, int (*)(void*)>;
inline Handle Open(const std::string& dir) {
  return Handle(QuietInit("vad.conf", dir.c_str()), Tovad_toolkit_destory);
}

struct Segment {
  int start = -1, end = -1;
  bool operator==(const Segment& o) const { return start == o.start && end == o.end; }
};
inline void PrintTo(const Segment& s, std::ostream* os) {
  *os << "(" << s.start << ", " << s.end << ")";
}

// The voice-like stretches of tests/synth/voiced_audio.h from frame
// edges[0] to edges[1], edges[2] to edges[3] and so on; its noise floor
// alone elsewhere.
inline std::vector<short> ToneAudio(int n_frames, std::vector<int> edges, uint64_t seed = 7) {
  std::vector<short> pcm(static_cast<size_t>(n_frames) * kFrame);
  tovad_synth::VoicedAudio gen(seed);
  edges.push_back(n_frames);
  int at = 0;
  for (size_t k = 0; k < edges.size(); at = edges[k++]) {
    const int64_t n = static_cast<int64_t>(edges[k] - at) * kFrame;
    gen.Force(k % 2 == 1, n);
    gen.Fill(pcm.data() + static_cast<size_t>(at) * kFrame, n);
  }
  return pcm;
}

// Two bursts, frames 100-180 and 280-330, in 4.8 s.
constexpr int kBurstFrames = 480;
inline std::vector<short> TwoBursts() { return ToneAudio(kBurstFrames, {100, 180, 280, 330}); }

// The outputs after each whole frame, fed in blocks of `block` samples.
inline std::vector<Segment> RunPerFrame(void* h, const std::vector<short>& pcm,
                                        size_t block = kFrame) {
  std::vector<Segment> out;
  Segment cur;
  for (size_t at = 0; at < pcm.size(); at += block) {
    const size_t n = std::min(block, pcm.size() - at);
    Tovad_toolkit_predict(h, static_cast<int>(n), pcm.data() + at, &cur.start, &cur.end);
    if ((at + n) / kFrame > at / kFrame) out.resize((at + n) / kFrame, cur);
  }
  return out;
}

// The caller's loop: after each end, reset with `full` false.  Positions
// are as returned, counted from the last reset; `*reset_at`, if given,
// gets the frames fed before each reset.
inline std::vector<Segment> Segments(void* h, const std::vector<short>& pcm, size_t block = kFrame,
                                     std::vector<int>* reset_at = nullptr) {
  std::vector<Segment> out;
  Segment cur;
  for (size_t at = 0; at < pcm.size(); at += block) {
    const size_t n = std::min(block, pcm.size() - at);
    Tovad_toolkit_predict(h, static_cast<int>(n), pcm.data() + at, &cur.start, &cur.end);
    if (cur.end >= 0) {
      out.push_back(cur);
      if (reset_at != nullptr) reset_at->push_back(static_cast<int>((at + n) / kFrame));
      Tovad_toolkit_reset(h, false);
      cur = Segment();
    }
  }
  return out;
}

template <typename T>
std::vector<T> ReadAll(const std::string& path, size_t skip_bytes = 0) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<T> v((bytes.size() - std::min(skip_bytes, bytes.size())) / sizeof(T));
  std::copy_n(bytes.data() + skip_bytes, v.size() * sizeof(T), reinterpret_cast<char*>(v.data()));
  return v;
}

}  // namespace toolkit_harness

#endif  // TESTS_SRC_TOOLKIT_HARNESS_H_
