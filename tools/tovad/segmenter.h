#ifndef TOOLS_TOVAD_SEGMENTER_H_
#define TOOLS_TOVAD_SEGMENTER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace tovad_cli {

constexpr int kFrameSamples = 160;  // 10 ms at 16 kHz

// One voice segment of a file.
struct Segment {
  // Speech boundaries in seconds from the start of the file: the library's
  // positions with its leading silence and closing hangover taken off and
  // moved back by the score delay.
  double start = 0.0;
  double end = 0.0;
  // The library's own positions, in frames from the start of the file
  // (leading silence and hangover tail included, not delay-corrected).
  int64_t lib_start_frame = 0;
  int64_t lib_end_frame = 0;
  // True when the input ended while the segment was still open.
  bool cut_by_end_of_input = false;
};

// Runs a toolkit handle over one file's 16 kHz samples.  Samples go in one
// frame per call so that a segment's end is seen at the frame that decides
// it; after each end the segment is handed out and the handle is reset with
// `full` false, so the next segment is found with warm features.  Nothing
// is kept per segment: a stream of any length runs in constant memory.
class Segmenter {
 public:
  // Receives each segment as it closes.
  using SegmentSink = std::function<void(const Segment&)>;
  // Receives each segment with the library's raw audio from its start to
  // its end (valid during the call only).
  using AudioSink = std::function<void(const Segment&, const int16_t*, size_t)>;

  Segmenter(void* handle, int score_delay_frames, SegmentSink segments, AudioSink audio);

  // Begins a file: full reset of the handle, counters to zero.
  void Start();
  // Any block size; a partial frame waits for the next call.
  void Feed(const int16_t* pcm, size_t n);
  // Ends the file; a segment still open ends at the end of the input.
  void Finish();

  int64_t samples_fed() const { return samples_fed_; }

 private:
  void RunFrame(const int16_t* frame);
  void Close(int last_voice_clock, int lib_end, bool at_end_of_input);

  void* handle_;
  int score_delay_frames_;
  SegmentSink segment_sink_;
  AudioSink audio_sink_;
  std::vector<int16_t> pending_;
  int64_t samples_fed_ = 0;
  int64_t base_frame_ = 0;  // frames of the file before the last reset
  int clock_ = 0;           // frames since the last reset
  int open_clock_ = -1;     // frame at which the open segment was reported
  int vad_start_ = -1;
  int vad_end_ = -1;
};

}  // namespace tovad_cli

#endif  // TOOLS_TOVAD_SEGMENTER_H_
