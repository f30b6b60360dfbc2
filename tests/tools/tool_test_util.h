#ifndef TESTS_TOOLS_TOOL_TEST_UTIL_H_
#define TESTS_TOOLS_TOOL_TEST_UTIL_H_

// Shared by the tests of the tovad tool: running it, reading its JSON, and
// making and reading audio files.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tovad_test {

using Spans = std::vector<std::pair<double, double>>;  // [start, end) in seconds

struct ToolRun {
  int code = -1;  // exit code, -1 if the program did not exit normally
  std::string out;
  std::string err;
};

// The whole file; a test failure if it cannot be opened.
std::string ReadBytes(const std::string& path);
void WriteBytes(const std::string& path, const std::string& bytes);

// The numbers that follow "key": in the JSON output, in order.
std::vector<double> JsonNumbers(const std::string& json, const std::string& key);
// The segments of the JSON output, of all its files in order.
Spans JsonSpans(const std::string& json);

// Same count, and each bound within `tolerance` seconds of the wanted one.
void ExpectSpansNear(const Spans& got, const Spans& want, double tolerance);

// `seconds` of 16 kHz silence with 440 Hz tone bursts of amplitude
// `amplitude` over `spans`.
std::vector<int16_t> ToneBursts(double seconds, const Spans& spans, double amplitude = 8000.0);

// Writes interleaved 16-bit samples; `sf_format` is a libsndfile major
// format (SF_FORMAT_WAV, SF_FORMAT_OGG).  Returns success.
bool WriteAudio(const std::string& path, int sf_format, int rate, int channels,
                const std::vector<int16_t>& interleaved);

// A whole 16 kHz mono file; a test failure if it cannot be read or is
// not 16 kHz mono.
std::vector<int16_t> ReadAudio(const std::string& path);

// 16 kHz mono to `rate` stereo whose channels average to the input but
// each hold a steady tone as well, loud enough to be voice on its own.
std::vector<int16_t> ToStereoAtRate(const std::vector<int16_t>& mono16k, int rate);

// A fresh empty directory under the test's temporary directory.
std::string FreshDir(const std::string& name);

}  // namespace tovad_test

#endif  // TESTS_TOOLS_TOOL_TEST_UTIL_H_
