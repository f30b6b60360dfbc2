// The audio reader of the tovad program: any file libsndfile takes,
// decoded, mixed down and resampled to 16 kHz.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/fuzz/fuzz_support.h"
#include "tools/tovad/audio_reader.h"

namespace {

// A small file can claim hours of audio; past this many output samples a
// run only costs time.
constexpr size_t kMaxSamples = size_t{1} << 22;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tovad_fuzz::MemFile file;
  file.Set(data, size);
  tovad_cli::AudioReader reader;
  std::string error;
  if (!reader.Open(file.path(), &error)) return 0;
  std::vector<int16_t> block;
  size_t total = 0;
  while (total < kMaxSamples && reader.Read(&block, &error)) {
    total += block.size();
    reader.Progress();
  }
  return 0;
}
