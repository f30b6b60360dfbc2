// Runs the library's own PCEN front end over audio files and writes the raw
// features, so that training sees exactly what the detector computes.
//
//   tovad_feature_dump [--width 40|80] IN.wav OUT.f32 [IN.wav OUT.f32 ...]
//
// IN is 16 kHz mono (anything libsndfile reads).  OUT holds one row of
// 3 x width little-endian floats per complete 10 ms frame (static, delta,
// delta-delta), before the mean and variance terms: the extractor is given
// mean 0 and factor 1, and training applies (mean + x) * factor itself.
// Each frame gets the same fixed low-level pattern the toolkit adds before
// prediction.  Rows of the warm-up frames, which the extractor leaves
// unwritten, are zero.  Each file starts with a fresh extractor.
#include <sndfile.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "src/internal_init_wav.h"
#include "src/pcen_feature_extractor.h"

namespace {

constexpr int kFrame = 160;

int Fail(const std::string& msg) {
  std::fprintf(stderr, "tovad_feature_dump: %s\n", msg.c_str());
  return 2;
}

bool ReadMono16k(const std::string& path, std::vector<int16_t>* pcm, std::string* error) {
  SF_INFO info = {};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  if (f == nullptr) {
    *error = "cannot read '" + path + "': " + sf_strerror(nullptr);
    return false;
  }
  if (info.samplerate != 16000 || info.channels != 1) {
    sf_close(f);
    *error = "'" + path + "' is not 16 kHz mono";
    return false;
  }
  pcm->resize(static_cast<size_t>(info.frames));
  const sf_count_t got = sf_readf_short(f, pcm->data(), info.frames);
  sf_close(f);
  if (got != info.frames) {
    *error = "cannot decode '" + path + "'";
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int width = 40;
  int first = 1;
  if (argc > 2 && std::strcmp(argv[1], "--width") == 0) {
    width = std::atoi(argv[2]);
    first = 3;
  }
  if (width != 40 && width != 80) return Fail("--width must be 40 or 80");
  if (argc - first < 2 || (argc - first) % 2 != 0)
    return Fail("usage: tovad_feature_dump [--width 40|80] IN.wav OUT.f32 [IN OUT ...]");
  const int dim = 3 * width;
  std::vector<float> meanvar(2 * dim, 0.0f);
  std::fill(meanvar.begin() + dim, meanvar.end(), 1.0f);

  std::vector<int16_t> pcm;
  std::vector<float> rows;
  std::string error;
  for (int i = first; i + 1 < argc; i += 2) {
    if (!ReadMono16k(argv[i], &pcm, &error)) return Fail(error);
    auto fx = std::make_unique<Tovad_toolkit::PcenFeatureExtractor>(width, meanvar.data());
    const size_t n_frames = pcm.size() / kFrame;
    rows.assign(n_frames * dim, 0.0f);
    int16_t frame[kFrame];
    for (size_t t = 0; t < n_frames; ++t) {
      for (int j = 0; j < kFrame; ++j) {
        // As the toolkit does: an arithmetic shift and a 16-bit wrap.
        frame[j] =
            static_cast<int16_t>(pcm[t * kFrame + j] + (Tovad_toolkit::internal_init_wav[j] >> 3));
      }
      fx->getFeats(frame, rows.data() + t * dim);
    }
    FILE* out = std::fopen(argv[i + 1], "wb");
    if (out == nullptr) return Fail(std::string("cannot write '") + argv[i + 1] + "'");
    const size_t wrote = std::fwrite(rows.data(), sizeof(float), rows.size(), out);
    if (std::fclose(out) != 0 || wrote != rows.size())
      return Fail(std::string("cannot write '") + argv[i + 1] + "'");
  }
  return 0;
}
