#include "tools/tovad/segmenter.h"

#include <algorithm>
#include <utility>

#include "tovadmod/tovad_api.h"

namespace tovad_cli {

Segmenter::Segmenter(void* handle, int score_delay_frames, SegmentSink segments, AudioSink audio)
    : handle_(handle),
      score_delay_frames_(score_delay_frames),
      segment_sink_(std::move(segments)),
      audio_sink_(std::move(audio)) {}

void Segmenter::Start() {
  Tovad_toolkit_reset(handle_, true);
  pending_.clear();
  samples_fed_ = 0;
  base_frame_ = 0;
  clock_ = 0;
  open_clock_ = -1;
  vad_start_ = vad_end_ = -1;
}

void Segmenter::Feed(const int16_t* pcm, size_t n) {
  samples_fed_ += static_cast<int64_t>(n);
  size_t i = 0;
  if (!pending_.empty()) {
    const size_t take = std::min(n, kFrameSamples - pending_.size());
    pending_.insert(pending_.end(), pcm, pcm + take);
    i = take;
    if (pending_.size() < static_cast<size_t>(kFrameSamples)) return;
    RunFrame(pending_.data());
    pending_.clear();
  }
  for (; i + kFrameSamples <= n; i += kFrameSamples) RunFrame(pcm + i);
  pending_.assign(pcm + i, pcm + n);
}

void Segmenter::RunFrame(const int16_t* frame) {
  const int index = clock_++;
  Tovad_toolkit_predict(handle_, kFrameSamples, frame, &vad_start_, &vad_end_);
  if (vad_start_ >= 0 && open_clock_ < 0) open_clock_ = index;
  if (vad_start_ < 0 || vad_end_ < 0) return;
  // A hangover close reports the frame before the deciding one and keeps
  // the hangover tail in the segment; a forced cutoff shows up one frame
  // late and has no tail.
  const int tail = vad_end_ == index - 1 ? Tovad_toolkit_get_voice_to_sil_th(handle_) : 0;
  Close(vad_end_ - tail, vad_end_, false);
  Tovad_toolkit_reset(handle_, false);
  base_frame_ += index + 1;
  clock_ = 0;
  open_clock_ = -1;
  vad_start_ = vad_end_ = -1;
}

void Segmenter::Close(int last_voice_clock, int lib_end, bool at_end_of_input) {
  const double frame_s = static_cast<double>(kFrameSamples) / 16000.0;
  const double duration = static_cast<double>(samples_fed_) / 16000.0;
  const int first_voice_clock = open_clock_ - Tovad_toolkit_get_sil_to_voice_th(handle_);
  Segment seg;
  seg.start = static_cast<double>(base_frame_ + first_voice_clock - score_delay_frames_) * frame_s;
  seg.start = std::max(seg.start, 0.0);
  if (at_end_of_input) {
    seg.end = duration;
  } else {
    last_voice_clock = std::max(last_voice_clock, first_voice_clock);
    seg.end =
        static_cast<double>(base_frame_ + last_voice_clock + 1 - score_delay_frames_) * frame_s;
  }
  seg.end = std::min(std::max(seg.end, seg.start), duration);
  seg.lib_start_frame = base_frame_ + vad_start_;
  seg.lib_end_frame = base_frame_ + lib_end;
  seg.cut_by_end_of_input = at_end_of_input;
  if (segment_sink_) segment_sink_(seg);
  if (!audio_sink_) return;
  int n = 0;
  short* data = nullptr;
  Tovad_toolkit_get_vad_segment_raw_data(handle_, &n, &data);
  if (data == nullptr || n <= 0) return;
  // The library hands out audio up to the newest frame; keep the segment.
  const int64_t want = (static_cast<int64_t>(lib_end) - vad_start_ + 1) * kFrameSamples;
  const size_t keep = static_cast<size_t>(std::min<int64_t>(n, std::max<int64_t>(want, 0)));
  audio_sink_(seg, reinterpret_cast<const int16_t*>(data), keep);
}

void Segmenter::Finish() {
  if (vad_start_ >= 0 && vad_end_ < 0) {
    if (open_clock_ < 0) open_clock_ = clock_ - 1;
    Close(clock_ - 1, clock_ - 1, true);
  }
  pending_.clear();
  vad_start_ = vad_end_ = -1;
  open_clock_ = -1;
}

}  // namespace tovad_cli
