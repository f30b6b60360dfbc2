#include "tests/tools/test_audio.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <soxr.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace tovad_test {

std::vector<int16_t> ToneBursts(double seconds, const std::vector<std::pair<double, double>>& spans,
                                double amplitude) {
  const size_t n = static_cast<size_t>(std::lround(seconds * 16000.0));
  std::vector<int16_t> pcm(n, 0);
  for (const auto& [a, b] : spans) {
    const size_t from = static_cast<size_t>(std::lround(a * 16000.0));
    const size_t to = std::min(n, static_cast<size_t>(std::lround(b * 16000.0)));
    for (size_t i = from; i < to; ++i)
      pcm[i] =
          static_cast<int16_t>(std::lround(amplitude * std::sin(2.0 * M_PI * 440.0 * i / 16000.0)));
  }
  return pcm;
}

bool WriteAudio(const std::string& path, int sf_format, int rate, int channels,
                const std::vector<int16_t>& interleaved) {
  SF_INFO info = {};
  info.samplerate = rate;
  info.channels = channels;
  info.format = sf_format | (sf_format == SF_FORMAT_OGG ? SF_FORMAT_VORBIS : SF_FORMAT_PCM_16);
  SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
  if (f == nullptr) return false;
  const sf_count_t frames = static_cast<sf_count_t>(interleaved.size() / channels);
  const bool ok = sf_writef_short(f, interleaved.data(), frames) == frames;
  return sf_close(f) == 0 && ok;
}

bool ReadAudio(const std::string& path, int* rate, int* channels, std::vector<int16_t>* out) {
  SF_INFO info = {};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  if (f == nullptr) return false;
  out->resize(static_cast<size_t>(info.frames) * info.channels);
  const sf_count_t got = sf_readf_short(f, out->data(), info.frames);
  sf_close(f);
  *rate = info.samplerate;
  *channels = info.channels;
  return got == info.frames;
}

std::vector<int16_t> ToStereoAtRate(const std::vector<int16_t>& mono16k, int rate) {
  std::vector<float> in(mono16k.size());
  for (size_t i = 0; i < in.size(); ++i) in[i] = mono16k[i] / 32768.0f;
  std::vector<float> out(static_cast<size_t>(in.size() * (double(rate) / 16000.0)) + 64);
  size_t odone = 0;
  const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
  soxr_error_t err = soxr_oneshot(16000, rate, 1, in.data(), in.size(), nullptr, out.data(),
                                  out.size(), &odone, &io, nullptr, nullptr);
  EXPECT_EQ(err, nullptr);
  std::vector<int16_t> stereo(2 * odone);
  for (size_t i = 0; i < odone; ++i) {
    const float v = out[i] * 32768.0f;
    stereo[2 * i] = static_cast<int16_t>(std::lround(std::clamp(1.5f * v, -32768.f, 32767.f)));
    stereo[2 * i + 1] = static_cast<int16_t>(std::lround(std::clamp(0.5f * v, -32768.f, 32767.f)));
  }
  return stereo;
}

std::string FreshDir(const std::string& name) {
  // CTest runs cases of one binary in parallel processes: keep them apart.
  const std::string dir = testing::TempDir() + "/tovad_" + std::to_string(getpid()) + "_" + name;
  const std::string cmd = "rm -rf '" + dir + "' && mkdir -p '" + dir + "'";
  EXPECT_EQ(std::system(cmd.c_str()), 0);
  return dir;
}

}  // namespace tovad_test
