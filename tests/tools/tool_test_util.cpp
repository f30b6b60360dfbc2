#include "tests/tools/tool_test_util.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <soxr.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tovad_test {

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::vector<double> JsonNumbers(const std::string& json, const std::string& key) {
  std::vector<double> out;
  const std::string mark = "\"" + key + "\": ";
  for (size_t at = json.find(mark); at != std::string::npos; at = json.find(mark, at + 1))
    out.push_back(std::strtod(json.c_str() + at + mark.size(), nullptr));
  return out;
}

Spans JsonSpans(const std::string& json) {
  const std::vector<double> starts = JsonNumbers(json, "start"), ends = JsonNumbers(json, "end");
  EXPECT_EQ(starts.size(), ends.size()) << json;
  Spans spans;
  for (size_t i = 0; i < std::min(starts.size(), ends.size()); ++i)
    spans.emplace_back(starts[i], ends[i]);
  return spans;
}

void ExpectSpansNear(const Spans& got, const Spans& want, double tolerance) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_NEAR(got[i].first, want[i].first, tolerance) << "start of segment " << i;
    EXPECT_NEAR(got[i].second, want[i].second, tolerance) << "end of segment " << i;
  }
}

std::vector<int16_t> ToneBursts(double seconds, const Spans& spans, double amplitude) {
  const size_t n = static_cast<size_t>(std::lround(seconds * 16000.0));
  std::vector<int16_t> pcm(n, 0);
  for (const auto& [a, b] : spans) {
    const size_t to = std::min(n, static_cast<size_t>(std::lround(b * 16000.0)));
    for (size_t i = static_cast<size_t>(std::lround(a * 16000.0)); i < to; ++i)
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

std::vector<int16_t> ReadAudio(const std::string& path) {
  SF_INFO info = {};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  EXPECT_NE(f, nullptr) << "cannot read " << path;
  if (f == nullptr) return {};
  EXPECT_EQ(info.samplerate * 10 + info.channels, 160001) << path << " is not 16 kHz mono";
  std::vector<int16_t> out(static_cast<size_t>(info.frames));
  EXPECT_EQ(sf_readf_short(f, out.data(), info.frames), info.frames) << path;
  sf_close(f);
  return out;
}

std::vector<int16_t> ToStereoAtRate(const std::vector<int16_t>& mono16k, int rate) {
  std::vector<float> in(mono16k.size());
  for (size_t i = 0; i < in.size(); ++i) in[i] = mono16k[i] / 32768.0f;
  std::vector<float> out(static_cast<size_t>(in.size() * (double(rate) / 16000.0)) + 64);
  size_t odone = 0;
  const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
  EXPECT_EQ(soxr_oneshot(16000, rate, 1, in.data(), in.size(), nullptr, out.data(), out.size(),
                         &odone, &io, nullptr, nullptr),
            nullptr);
  std::vector<int16_t> stereo(2 * odone);
  for (size_t i = 0; i < odone; ++i) {
    const float v = out[i] * 32768.0f;
    const float tone = 3000.0f * std::sin(static_cast<float>(2.0 * M_PI * 220.0 * i / rate));
    stereo[2 * i] = static_cast<int16_t>(std::lround(std::clamp(v + tone, -32768.f, 32767.f)));
    stereo[2 * i + 1] = static_cast<int16_t>(std::lround(std::clamp(v - tone, -32768.f, 32767.f)));
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
