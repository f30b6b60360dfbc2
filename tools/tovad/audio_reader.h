#ifndef TOOLS_TOVAD_AUDIO_READER_H_
#define TOOLS_TOVAD_AUDIO_READER_H_

#include <cstdint>
#include <string>
#include <vector>

namespace tovad_cli {

// The rate the library listens at.
constexpr int kTargetRate = 16000;

struct AudioInfo {
  int sample_rate = 0;
  int channels = 0;
  int64_t frames = 0;  // per channel, at `sample_rate`; 0 when unknown
};

// Layout of headerless input: 16-bit little-endian PCM.
struct RawFormat {
  int sample_rate = kTargetRate;
  int channels = 1;
};

// Decodes WAV, FLAC, OGG (whatever libsndfile reads) chunk by chunk and
// hands out 16 kHz mono 16-bit samples: channels are averaged, other rates
// go through a high-quality resampler, 16 kHz input passes untouched.
class AudioReader {
 public:
  AudioReader() = default;
  ~AudioReader();
  AudioReader(const AudioReader&) = delete;
  AudioReader& operator=(const AudioReader&) = delete;

  // Opens `path`; on failure returns false and sets `error` to one line.
  bool Open(const std::string& path, std::string* error);
  // Reads standard input: a WAV stream, or headerless PCM laid out as
  // `raw` says when it is given.  Reads in small blocks so that a live
  // source is heard with little delay.
  bool OpenStdin(const RawFormat* raw, std::string* error);
  const AudioInfo& info() const { return info_; }

  // Replaces `out` with the next block of 16 kHz samples.  Returns false
  // once the input is exhausted and nothing is left (then `out` is empty)
  // or on a decoding error (then `error` is set).
  bool Read(std::vector<int16_t>* out, std::string* error);

  // Fraction of the input consumed so far, 0 to 1.
  double Progress() const;

 private:
  void Close();
  bool Attach(void* file, int sample_rate, int channels, int64_t frames, std::string* error);
  void Append(const float* mono, size_t n, std::vector<int16_t>* out) const;

  void* file_ = nullptr;       // SNDFILE*
  void* resampler_ = nullptr;  // soxr_t, null at 16 kHz
  AudioInfo info_;
  std::string path_;
  int64_t chunk_frames_ = 0;
  int64_t frames_read_ = 0;
  bool input_done_ = false;
  bool flushed_ = false;
  std::vector<float> interleaved_;
  std::vector<float> mono_;
  std::vector<float> resampled_;
};

// Float sample in [-1, 1) to 16 bits, rounded to nearest and clipped.
int16_t FloatToPcm16(float x);

}  // namespace tovad_cli

#endif  // TOOLS_TOVAD_AUDIO_READER_H_
