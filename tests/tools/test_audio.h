#ifndef TESTS_TOOLS_TEST_AUDIO_H_
#define TESTS_TOOLS_TEST_AUDIO_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tovad_test {

// `seconds` of 16 kHz silence with 440 Hz tone bursts of amplitude
// `amplitude` over the given [start, end) spans in seconds.
std::vector<int16_t> ToneBursts(double seconds, const std::vector<std::pair<double, double>>& spans,
                                double amplitude = 8000.0);

// Writes interleaved 16-bit samples; `sf_format` is a libsndfile major
// format (SF_FORMAT_WAV, SF_FORMAT_FLAC, SF_FORMAT_OGG).  Returns success.
bool WriteAudio(const std::string& path, int sf_format, int rate, int channels,
                const std::vector<int16_t>& interleaved);

// Reads a whole file as interleaved 16-bit samples.
bool ReadAudio(const std::string& path, int* rate, int* channels, std::vector<int16_t>* out);

// 16 kHz mono to `rate` stereo whose channels differ (1.5x left, 0.5x
// right) but average to the input.
std::vector<int16_t> ToStereoAtRate(const std::vector<int16_t>& mono16k, int rate);

// A fresh empty directory under the test's temporary directory.
std::string FreshDir(const std::string& name);

}  // namespace tovad_test

#endif  // TESTS_TOOLS_TEST_AUDIO_H_
