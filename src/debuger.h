#ifndef TOVAD_DEBUGER_H_
#define TOVAD_DEBUGER_H_

#include <time.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "src/tovad_config.h"

namespace Tovad_toolkit {

// Debug recorder of one handle, made only when `use_debug_function` is 1.
// It reports how fast the pipeline runs against real time, logs each
// frame's class posteriors, and keeps what the detector saw and decided
// (the frame with its added pattern, the score, the segment flag) until a
// flush, which writes it to the dump as text or as three interleaved
// 16-bit tracks and cuts it into one raw PCM file per voice segment.
//
// A log path other than /dev/null, /dev/stderr or /dev/stdout gets the
// creating thread's id appended ("path-1234"), so handles on different
// threads don't share a file.  A path that can't be opened is not
// reported: that output just stays empty.
class Debuger {
 public:
  // Reads its keys, opens the three logs, and aborts on a `dump_file_type`
  // other than "wav" or "text".
  explicit Debuger(const ConfigMap& config);
  // Prints a pending timing report, flushes, and closes every file.
  ~Debuger();
  Debuger(const Debuger&) = delete;
  Debuger& operator=(const Debuger&) = delete;

  // Frame timing.  Every stage is measured from the frame's start, on the
  // process CPU clock and on the wall clock.
  void rt_record_start_time(int32_t n_batch);
  void rt_record_compute_feats_time();
  void rt_record_predict_time();
  void rt_record_post_process_time();
  void rt_record_total_time();
  // Writes the two report lines once `rt_rate_calculation_interval`
  // frames are waiting, and starts counting again.
  void rt_save_debug_info();

  // Per-frame records, kept until the next flush.
  void dump_add_pcm_data(const int16_t* pcm, int32_t n_samples);
  void dump_add_prior_data(const float* prior, int32_t n);  // scores capped at 1.0
  void dump_add_vad_data(const int32_t* vad, int32_t n);
  // Sets the flag of every recorded frame from `from` on: marks the frames
  // a segment reaches back to once it opens.
  void dump_change_vad_status(int32_t from, int8_t status);
  // Writes the recorded frames to the dump and the segment files.  Aborts
  // if the three records disagree in length.
  void dump_save_debug_info();

  // One posterior log line: the winning class, its posterior, then all.
  void softmax_save_debug_info(const float* prior, int32_t n_classes);
  // Marks a handle reset in the timing and posterior logs, and in a text dump.
  void log_reset();

  static bool is_system_stream(const std::string& path);

 private:
  void init_default_config();
  std::string get_config(const ConfigMap& user, const std::string& key);
  FILE* open_log(const std::string& path);
  void write_dump(size_t n);
  int64_t elapsed(clockid_t clock, int64_t start);

  int32_t rt_rate_calculation_interval;
  std::string rt_log_path;
  std::string softmax_log_path;
  std::string dump_file_type;
  std::string dump_file_path;
  std::string save_vad_segment_dir;
  int32_t extra_vad_segment_prefix;  // frames kept ahead of a segment's first voice frame
  int32_t extra_vad_segment_suffix;  // frames appended to the previous segment's file
  int32_t segment_id;                // number of the next segment file
  timespec clk_curr;
  int32_t n_frame;  // frames since the last report
  // CPU time in ns: the frame's start, then sums from the start to the end
  // of features, net, post-processing and the whole frame.
  int64_t nsec_start_point;
  int64_t nsec_compute_feats;
  int64_t nsec_predict;
  int64_t nsec_post_process;
  int64_t nsec_total;
  // The same by the wall clock.
  int64_t nsec_start_point_realtime;
  int64_t nsec_compute_feats_realtime;
  int64_t nsec_predict_realtime;
  int64_t nsec_post_process_realtime;
  int64_t nsec_total_realtime;
  FILE* rt_out;
  FILE* dump_out;
  FILE* softmax_out;
  FILE* current_vad_seg_out;
  FILE* last_vad_seg_out;
  ConfigMap default_config;
  std::vector<int16_t> wav_buffer;  // 160 samples per frame
  std::vector<float> prior_buffer;  // one score per frame
  std::vector<int8_t> vad_buffer;   // one flag per frame
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_DEBUGER_H_
