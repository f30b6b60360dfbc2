#include "src/debuger.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace Tovad_toolkit {

namespace {

constexpr int32_t kFrameSamples = 160;
constexpr double kFrameSeconds = 0.01;

// The "[<local time>-<ns> thread:<pid>]" part of a log line.
struct LogStamp {
  char local[40];
  long nsec;
  int pid;
};

LogStamp log_stamp() {
  LogStamp s;
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm local;
  localtime_r(&now.tv_sec, &local);
  strftime(s.local, sizeof(s.local), "%Y%m%d-%H%M%S-", &local);
  s.nsec = now.tv_nsec;
  s.pid = getpid();
  return s;
}

int64_t to_ns(const timespec& t) { return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec; }

}  // namespace

void Debuger::init_default_config() {
  default_config["rt_rate_calculation_interval"] = "100";
  default_config["rt_log_path"] = "/dev/stderr";
  default_config["softmax_log_path"] = "/dev/null";
  default_config["dump_file_path"] = "/dev/null";
  default_config["dump_file_type"] = "wav";
  default_config["save_vad_segment_dir"] = "";
  default_config["extra_vad_segment_prefix"] = "100";
  default_config["extra_vad_segment_suffix"] = "100";
}

std::string Debuger::get_config(const ConfigMap& user, const std::string& key) {
  const std::string* value = find_config(user, default_config, key);
  if (value == nullptr) {
    fprintf(stderr, "%s:%d :%s%s%s", "src/debuger", __LINE__, "ERROR: can`t read value of key <",
            key.c_str(), ">\n");
    abort();
  }
  return *value;
}

bool Debuger::is_system_stream(const std::string& path) {
  return path == "/dev/null" || path == "/dev/stderr" || path == "/dev/stdout";
}

FILE* Debuger::open_log(const std::string& path) {
  if (is_system_stream(path)) return fopen(path.c_str(), "w");
  char name[256];
  snprintf(name, sizeof(name), "%s-%ld", path.c_str(), static_cast<long>(syscall(SYS_gettid)));
  return fopen(name, "w");
}

Debuger::Debuger(const ConfigMap& config) {
  init_default_config();
  save_vad_segment_dir = get_config(config, "save_vad_segment_dir");
  extra_vad_segment_prefix = config_to_int(get_config(config, "extra_vad_segment_prefix"));
  extra_vad_segment_suffix = config_to_int(get_config(config, "extra_vad_segment_suffix"));
  rt_rate_calculation_interval = config_to_int(get_config(config, "rt_rate_calculation_interval"));
  rt_log_path = get_config(config, "rt_log_path");
  softmax_log_path = get_config(config, "softmax_log_path");
  dump_file_path = get_config(config, "dump_file_path");
  dump_file_type = get_config(config, "dump_file_type");

  rt_out = open_log(rt_log_path);
  softmax_out = open_log(softmax_log_path);
  dump_out = open_log(dump_file_path);
  if (dump_file_type != "wav" && dump_file_type != "text") {
    fprintf(stderr, "%s:%d :%s", "src/debuger", __LINE__,
            " ERROR: dump_file_type must be one of 'wav' and 'text'");
    abort();
  }

  segment_id = 0;
  clk_curr = timespec{};
  n_frame = 0;
  nsec_start_point = nsec_compute_feats = nsec_predict = nsec_post_process = nsec_total = 0;
  nsec_start_point_realtime = nsec_compute_feats_realtime = nsec_predict_realtime =
      nsec_post_process_realtime = nsec_total_realtime = 0;
  current_vad_seg_out = nullptr;
  last_vad_seg_out = nullptr;
}

Debuger::~Debuger() {
  rt_save_debug_info();
  dump_save_debug_info();
  for (FILE* f : {rt_out, softmax_out, dump_out, current_vad_seg_out}) {
    if (f != nullptr) fclose(f);
  }
}

int64_t Debuger::elapsed(clockid_t clock, int64_t start) {
  clock_gettime(clock, &clk_curr);
  return to_ns(clk_curr) - start;
}

void Debuger::rt_record_start_time(int32_t n_batch) {
  n_frame += n_batch;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &clk_curr);
  nsec_start_point = to_ns(clk_curr);
  clock_gettime(CLOCK_REALTIME, &clk_curr);
  nsec_start_point_realtime = to_ns(clk_curr);
}

void Debuger::rt_record_compute_feats_time() {
  nsec_compute_feats += elapsed(CLOCK_PROCESS_CPUTIME_ID, nsec_start_point);
  nsec_compute_feats_realtime += elapsed(CLOCK_REALTIME, nsec_start_point_realtime);
}

void Debuger::rt_record_predict_time() {
  nsec_predict += elapsed(CLOCK_PROCESS_CPUTIME_ID, nsec_start_point);
  nsec_predict_realtime += elapsed(CLOCK_REALTIME, nsec_start_point_realtime);
}

void Debuger::rt_record_post_process_time() {
  nsec_post_process += elapsed(CLOCK_PROCESS_CPUTIME_ID, nsec_start_point);
  nsec_post_process_realtime += elapsed(CLOCK_REALTIME, nsec_start_point_realtime);
}

void Debuger::rt_record_total_time() {
  nsec_total += elapsed(CLOCK_PROCESS_CPUTIME_ID, nsec_start_point);
  nsec_total_realtime += elapsed(CLOCK_REALTIME, nsec_start_point_realtime);
}

void Debuger::rt_save_debug_info() {
  if (n_frame < rt_rate_calculation_interval) return;
  if (rt_out != nullptr) {
    // The sums all run from the frame's start: a stage is the difference
    // to the one before.  CPU time is per second of audio; wall time is
    // plain seconds.
    const double audio = n_frame * kFrameSeconds;
    LogStamp s = log_stamp();
    fprintf(rt_out,
            "INFO[%s%09ld thread:%d]: RT of last %d frames: compute feats = %.6f; predict = %.6f; "
            "post_process = %.6f; total = %.6f\n",
            s.local, s.nsec, s.pid, n_frame, nsec_compute_feats / 1e9 / audio,
            (nsec_predict - nsec_compute_feats) / 1e9 / audio,
            (nsec_post_process - nsec_predict) / 1e9 / audio, nsec_total / 1e9 / audio);
    s = log_stamp();
    fprintf(rt_out,
            "INFO[%s%09ld thread:%d]: realtime cost of last %d frames: compute feats = %.6f; "
            "predict = %.6f; post_process = %.6f; total = %.6f\n",
            s.local, s.nsec, s.pid, n_frame, static_cast<float>(nsec_compute_feats_realtime) / 1e9f,
            static_cast<float>(nsec_predict_realtime - nsec_compute_feats_realtime) / 1e9f,
            static_cast<float>(nsec_post_process_realtime - nsec_predict_realtime) / 1e9f,
            static_cast<float>(nsec_total_realtime) / 1e9f);
  }
  n_frame = 0;
  nsec_start_point = nsec_compute_feats = nsec_predict = nsec_post_process = nsec_total = 0;
  nsec_start_point_realtime = nsec_compute_feats_realtime = nsec_predict_realtime =
      nsec_post_process_realtime = nsec_total_realtime = 0;
}

void Debuger::dump_add_pcm_data(const int16_t* pcm, int32_t n_samples) {
  wav_buffer.insert(wav_buffer.end(), pcm, pcm + n_samples);
}

void Debuger::dump_add_prior_data(const float* prior, int32_t n) {
  for (int32_t i = 0; i < n; ++i) prior_buffer.push_back(std::min(prior[i], 1.0f));
}

void Debuger::dump_add_vad_data(const int32_t* vad, int32_t n) {
  for (int32_t i = 0; i < n; ++i) vad_buffer.push_back(static_cast<int8_t>(vad[i]));
}

void Debuger::dump_change_vad_status(int32_t from, int8_t status) {
  for (size_t i = static_cast<size_t>(std::max(from, 0)); i < vad_buffer.size(); ++i) {
    vad_buffer[i] = status;
  }
}

void Debuger::write_dump(size_t n) {
  if (dump_out == nullptr) return;
  const int pid = getpid();
  if (dump_file_type == "text") {
    const LogStamp s = log_stamp();
    fprintf(dump_out, "INFO[%s%09ld thread:%d]: start sgments record\n", s.local, s.nsec, s.pid);
    for (size_t f = 0; f < n; ++f) {
      fprintf(dump_out, "INFO[thread:%d]: prior = %.6f vad = %d\n", pid, prior_buffer[f],
              vad_buffer[f]);
    }
    return;
  }
  // Three interleaved tracks per sample: the audio, the score in Q15
  // (truncated), the flag as 30000.
  for (size_t f = 0; f < n; ++f) {
    // A score outside [0, 1] or NaN (a net without softmax) saturates
    // rather than wraps.
    const double q15 = prior_buffer[f] * 32767.0;
    const int16_t score = q15 != q15 ? 0 : static_cast<int16_t>(std::max(-32768.0, std::min(32767.0, q15)));
    const int16_t flag = static_cast<int16_t>(vad_buffer[f] * 30000);
    for (int32_t j = 0; j < kFrameSamples; ++j) {
      const int16_t sample[3] = {wav_buffer[f * kFrameSamples + j], score, flag};
      fwrite(sample, sizeof(sample), 1, dump_out);
    }
  }
}

void Debuger::dump_save_debug_info() {
  const size_t n = prior_buffer.size();
  if (vad_buffer.size() != n || wav_buffer.size() != n * kFrameSamples) {
    fprintf(stderr, "%s:%d :%s", "src/debuger", __LINE__,
            "ERROR: internel buff array size error, this must be maro.lind`s fault (╯‵□′)╯︵┻━┻");
    abort();
  }
  write_dump(n);

  int32_t first = -1;
  for (size_t f = 0; f < n; ++f) {
    if (vad_buffer[f] != 0) {
      first = static_cast<int32_t>(f);
      break;
    }
  }

  last_vad_seg_out = current_vad_seg_out;
  if (first == -1 && !save_vad_segment_dir.empty()) {
    current_vad_seg_out = nullptr;
  } else {
    // Without a folder every flush still tries "/<id>.pcm", which normally
    // can't be opened and so records nothing.
    char name[256];
    snprintf(name, sizeof(name), "%s/%d.pcm", save_vad_segment_dir.c_str(), segment_id);
    segment_id += 1;
    current_vad_seg_out = fopen(name, "w");
  }

  // The previous segment's file gets the audio that followed it, up to
  // the next voice.
  if (last_vad_seg_out != nullptr) {
    const int32_t tail = std::min(extra_vad_segment_suffix, first);
    if (tail >= 1) {
      fwrite(wav_buffer.data(), sizeof(int16_t), static_cast<size_t>(tail) * kFrameSamples,
             last_vad_seg_out);
    }
  }
  if (current_vad_seg_out != nullptr) {
    const size_t begin = static_cast<size_t>(std::max(first - extra_vad_segment_prefix, 0));
    if (begin < n) {
      fwrite(wav_buffer.data() + begin * kFrameSamples, sizeof(int16_t),
             (n - begin) * kFrameSamples, current_vad_seg_out);
    }
  }
  if (last_vad_seg_out != nullptr) {
    fclose(last_vad_seg_out);
    last_vad_seg_out = nullptr;
  }

  wav_buffer.clear();
  prior_buffer.clear();
  vad_buffer.clear();
}

void Debuger::softmax_save_debug_info(const float* prior, int32_t n_classes) {
  if (softmax_out == nullptr) return;
  // First class with the highest posterior; all zeros give class 0.
  int32_t best = 0;
  float best_prior = 0.0f;
  for (int32_t k = 0; k < n_classes; ++k) {
    if (prior[k] > best_prior) {
      best = k;
      best_prior = prior[k];
    }
  }
  const LogStamp s = log_stamp();
  fprintf(softmax_out,
          "INFO[%s%09ld thread:%d]: class is: %d at prior = %.6f, all priors:", s.local, s.nsec,
          s.pid, best, best_prior);
  for (int32_t k = 0; k < n_classes; ++k) fprintf(softmax_out, " %.6f", prior[k]);
  fputc('\n', softmax_out);
}

void Debuger::log_reset() {
  const LogStamp s = log_stamp();
  FILE* outs[] = {rt_out, softmax_out, dump_file_type == "text" ? dump_out : nullptr};
  for (FILE* f : outs) {
    if (f != nullptr) fprintf(f, "INFO[%s%09ld thread:%d]: RESET\n", s.local, s.nsec, s.pid);
  }
}

}  // namespace Tovad_toolkit
