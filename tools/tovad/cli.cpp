#include "tools/tovad/cli.h"

#include <fcntl.h>
#include <getopt.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/tovad/audio_reader.h"
#include "tools/tovad/model_conf.h"
#include "tools/tovad/output.h"
#include "tools/tovad/segmenter.h"
#include "tools/tovad/startup_log.h"
#include "tovadmod/tovad_api.h"

#ifndef TOVAD_VERSION
#define TOVAD_VERSION "unknown"
#endif

namespace tovad_cli {
namespace {

constexpr const char* kUsage =
    "Usage: tovad [OPTIONS] FILE...\n"
    "Finds the voice segments of audio files (WAV, FLAC, OGG; any rate and\n"
    "channel count) and prints one line per segment: start and end in seconds.\n"
    "FILE '-' reads standard input (a WAV stream, or headerless PCM with\n"
    "--raw-input) and prints each segment as soon as it closes.\n"
    "\n"
    "Options:\n"
    "  -c, --conf FILE            model conf to use (default: the bundled model)\n"
    "  -m, --model NAME           bundled model to use: default (8-bit, streaming)\n"
    "                             or dense (float, 20-frame window)\n"
    "  -f, --format FMT           default, json, rttm or audacity\n"
    "  -w, --write-segments DIR   write each segment as a 16 kHz WAV into DIR\n"
    "      --raw                  print the library's own positions (with its\n"
    "                             leading silence and hangover tail)\n"
    "  -j, --jobs N               run N files at a time (output stays in order)\n"
    "      --raw-input            standard input is 16-bit little-endian PCM\n"
    "      --rate HZ              its sample rate (default 16000)\n"
    "      --channels N           its channel count (default 1)\n"
    "  -v, --verbose              show the library's start-up lines\n"
    "  -q, --quiet                keep them hidden (the default)\n"
    "  -h, --help                 show this help\n"
    "  -V, --version              show the version\n"
    "\n"
    "Exit status: 0 on success, 2 on bad usage, unreadable input or a missing\n"
    "or broken model.\n";

int Fail(const std::string& msg) {
  std::fprintf(stderr, "tovad: %s\n", msg.c_str());
  return kExitInputError;
}

struct Options {
  std::string conf;
  std::string model = kDefaultModelName;
  Format format = Format::kDefault;
  std::string segment_dir;
  bool verbose = false;
  bool raw = false;
  int jobs = 1;
  bool raw_input = false;
  bool raw_layout_given = false;  // --rate or --channels
  RawFormat raw_format;
  std::vector<std::string> files;
};

bool ParseCount(const char* text, int lo, int hi, int* out) {
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return false;
  *out = static_cast<int>(v);
  return true;
}

// Returns -1 to go on, or the exit code.
int ParseArgs(int argc, char** argv, Options* o) {
  enum { kRawOpt = 1000, kRawInputOpt, kRateOpt, kChannelsOpt };
  static const option kLong[] = {{"conf", required_argument, nullptr, 'c'},
                                 {"model", required_argument, nullptr, 'm'},
                                 {"format", required_argument, nullptr, 'f'},
                                 {"write-segments", required_argument, nullptr, 'w'},
                                 {"raw", no_argument, nullptr, kRawOpt},
                                 {"quiet", no_argument, nullptr, 'q'},
                                 {"verbose", no_argument, nullptr, 'v'},
                                 {"jobs", required_argument, nullptr, 'j'},
                                 {"raw-input", no_argument, nullptr, kRawInputOpt},
                                 {"rate", required_argument, nullptr, kRateOpt},
                                 {"channels", required_argument, nullptr, kChannelsOpt},
                                 {"help", no_argument, nullptr, 'h'},
                                 {"version", no_argument, nullptr, 'V'},
                                 {nullptr, 0, nullptr, 0}};
  optind = 0;  // getopt state is global; start afresh on every run
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, ":c:m:f:w:qvj:hV", kLong, nullptr)) != -1) {
    switch (c) {
      case 'c':
        o->conf = optarg;
        break;
      case 'm':
        if (!IsModelName(optarg))
          return Fail(std::string("bad model name '") + optarg + "' (letters, digits, '-', '_')");
        o->model = optarg;
        break;
      case 'f':
        if (!ParseFormat(optarg, &o->format))
          return Fail(std::string("unknown format '") + optarg +
                      "' (use default, json, rttm or audacity)");
        break;
      case 'w':
        o->segment_dir = optarg;
        break;
      case kRawOpt:
        o->raw = true;
        break;
      case 'q':
        o->verbose = false;
        break;
      case 'v':
        o->verbose = true;
        break;
      case 'j':
        if (!ParseCount(optarg, 1, 256, &o->jobs))
          return Fail(std::string("bad job count '") + optarg + "' (1 to 256)");
        break;
      case kRawInputOpt:
        o->raw_input = true;
        break;
      case kRateOpt:
        if (!ParseCount(optarg, 1000, 768000, &o->raw_format.sample_rate))
          return Fail(std::string("bad rate '") + optarg + "' (1000 to 768000 Hz)");
        o->raw_layout_given = true;
        break;
      case kChannelsOpt:
        if (!ParseCount(optarg, 1, 64, &o->raw_format.channels))
          return Fail(std::string("bad channel count '") + optarg + "' (1 to 64)");
        o->raw_layout_given = true;
        break;
      case 'h':
        std::fputs(kUsage, stdout);
        return kExitOk;
      case 'V':
        std::printf("tovad %s (libtovadmod)\n", TOVAD_VERSION);
        return kExitOk;
      case ':':
        return Fail(std::string("option '") + argv[optind - 1] + "' needs a value");
      default:
        return Fail(std::string("unknown option '") + argv[optind - 1] + "'; see tovad --help");
    }
  }
  for (int i = optind; i < argc; ++i) o->files.push_back(argv[i]);
  if (o->files.empty()) return Fail("no input file; see tovad --help");
  int stdin_count = 0;
  for (const std::string& f : o->files) stdin_count += f == "-" ? 1 : 0;
  if (stdin_count > 1) return Fail("standard input ('-') can be read only once");
  if (o->raw_input && stdin_count == 0)
    return Fail("--raw-input applies to standard input; name it as '-'");
  if (o->raw_layout_given && !o->raw_input)
    return Fail("--rate and --channels describe headerless input; add --raw-input");
  return -1;
}

bool FindModel(const Options& o, ModelConf* model, std::string* error) {
  if (!o.conf.empty()) return LoadModelConf(o.conf, model, error);
  std::string looked;
  for (const std::string& dir : BundledModelDirs(ExecutableDir(), o.model)) {
    const std::string conf = dir + "/" + kConfName;
    if (access(conf.c_str(), F_OK) == 0) return LoadModelConf(conf, model, error);
    looked += (looked.empty() ? "" : ", ") + dir;
  }
  *error = "no model found (looked in " + looked + "); give one with --conf FILE";
  return false;
}

bool PrepareSegmentDir(const std::string& dir, std::string* error) {
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    if (mkdir(dir.c_str(), 0777) != 0) {
      *error = "cannot create directory '" + dir + "': " + std::strerror(errno);
      return false;
    }
    return true;
  }
  if (!S_ISDIR(st.st_mode) || access(dir.c_str(), W_OK) != 0) {
    *error = "cannot write into '" + dir + "': not a writable directory";
    return false;
  }
  return true;
}

bool WriteWav(const std::string& path, const int16_t* pcm, size_t n, std::string* error) {
  SF_INFO info = {};
  info.samplerate = kTargetRate;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* f = sf_open(path.c_str(), SFM_WRITE, &info);
  if (f == nullptr) {
    *error = "cannot write '" + path + "': " + sf_strerror(nullptr);
    return false;
  }
  const sf_count_t done = sf_write_short(f, pcm, static_cast<sf_count_t>(n));
  sf_close(f);
  if (done != static_cast<sf_count_t>(n)) {
    *error = "cannot write '" + path + "': short write";
    return false;
  }
  return true;
}

// The progress line on stderr: files done, audio done and speed against
// real time.  Shown only on a terminal, redrawn at most ten times a second,
// wiped before anything goes to stdout so the two never share a line.
class Progress {
 public:
  Progress(size_t files, bool on) : files_(files), on_(on), begin_(Clock::now()) {}
  ~Progress() { Wipe(); }

  void AddSamples(size_t n) {
    std::lock_guard<std::mutex> lock(mu_);
    samples_ += static_cast<int64_t>(n);
    Draw(false);
  }
  void FileDone() {
    std::lock_guard<std::mutex> lock(mu_);
    ++done_;
    Draw(true);
  }
  // Text to stdout, flushed at once: a reader of a pipe sees each segment
  // as it closes.
  void Print(const std::string& text) {
    std::lock_guard<std::mutex> lock(mu_);
    if (text.empty()) return;
    WipeLocked();
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
    Draw(true);
  }
  void Error(const std::string& msg) {
    std::lock_guard<std::mutex> lock(mu_);
    WipeLocked();
    Fail(msg);
    Draw(true);
  }
  void Wipe() {
    std::lock_guard<std::mutex> lock(mu_);
    WipeLocked();
  }
  // Runs `f` while no output of ours can start: the library's start-up
  // log is held back by redirecting fd 2 for the whole process.
  template <typename F>
  void Exclusive(F f) {
    std::lock_guard<std::mutex> lock(mu_);
    WipeLocked();
    f();
  }

 private:
  using Clock = std::chrono::steady_clock;

  void WipeLocked() {
    if (!shown_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    shown_ = false;
  }
  void Draw(bool force) {
    if (!on_) return;
    const Clock::time_point now = Clock::now();
    if (!force && now - last_ < std::chrono::milliseconds(100)) return;
    last_ = now;
    const double audio = static_cast<double>(samples_) / kTargetRate;
    const double wall = std::chrono::duration<double>(now - begin_).count();
    std::fprintf(stderr, "\r\033[K%zu/%zu files, %.1f s of audio, %.1fx real time", done_, files_,
                 audio, wall > 0.0 ? audio / wall : 0.0);
    std::fflush(stderr);
    shown_ = true;
  }

  std::mutex mu_;
  size_t files_;
  bool on_;
  Clock::time_point begin_;
  Clock::time_point last_{};
  size_t done_ = 0;
  int64_t samples_ = 0;
  bool shown_ = false;
};

struct FileRun {
  FileResult result;
  std::string error;  // one line, empty on success
};

// Starts and ends the toolkit handles of a run.  Each file gets a fresh
// one: a reset keeps some state of the last file, and output must not
// depend on which file ran before on the same thread.
class Handles {
 public:
  Handles(const ModelConf& model, bool verbose, Progress* progress)
      : model_(model),
        verbose_(verbose),
        progress_(progress),
        abort_line_("tovad: the library could not start with '" + model.conf_path +
                    "' (its report is above)\n") {}

  void* Start() {
    void* handle = nullptr;
    progress_->Exclusive([&] {
      StartupLog log(abort_line_.c_str(), kExitInputError);
      handle = Tovad_toolkit_init(model_.init_file.c_str(),
                                  model_.init_dir.empty() ? nullptr : model_.init_dir.c_str());
      log.Release(verbose_);
    });
    return handle;
  }
  void End(void* handle) {
    progress_->Exclusive([&] {
      StartupLog log(abort_line_.c_str(), kExitInputError);
      Tovad_toolkit_destory(handle);
      log.Release(verbose_);
    });
  }

 private:
  const ModelConf& model_;
  bool verbose_;
  Progress* progress_;
  std::string abort_line_;  // outlives every StartupLog that points at it
};

// Runs one file (or standard input) through a fresh handle.  `emit`, when set,
// receives the result each time new segments have closed, with the index
// of the first new one.
void RunFile(Handles* handles, const Options& o, const ModelConf& model, const std::string& path,
             Progress* progress, const std::function<void(const FileResult&, size_t)>& emit,
             FileRun* run) {
  FileResult& r = run->result;
  r.path = path;
  AudioReader reader;
  const bool ok = path == "-" ? reader.OpenStdin(o.raw_input ? &o.raw_format : nullptr, &run->error)
                             : reader.Open(path, &run->error);
  if (!ok) return;
  r.info = reader.info();
  size_t n_written = 0;
  std::string write_error;
  Segmenter::AudioSink sink;
  if (!o.segment_dir.empty()) {
    sink = [&](const Segment&, const int16_t* pcm, size_t n) {
      char name[32];
      std::snprintf(name, sizeof(name), "_%03zu.wav", ++n_written);
      if (write_error.empty())
        WriteWav(o.segment_dir + "/" + FileStem(path) + name, pcm, n, &write_error);
    };
  }
  void* handle = handles->Start();
  Segmenter seg(handle, model.score_delay_frames, sink);
  seg.Start();
  size_t emitted = 0;
  auto emit_new = [&] {
    if (!emit || seg.segments().size() == emitted) return;
    r.segments = seg.segments();
    emit(r, emitted);
    emitted = r.segments.size();
  };
  std::vector<int16_t> block;
  while (reader.Read(&block, &run->error)) {
    seg.Feed(block.data(), block.size());
    progress->AddSamples(block.size());
    emit_new();
  }
  if (!run->error.empty()) {
    handles->End(handle);
    return;
  }
  seg.Finish();
  r.duration = static_cast<double>(seg.samples_fed()) / kTargetRate;
  r.segments = seg.segments();
  emit_new();
  handles->End(handle);
  run->error = write_error;
}

}  // namespace

int RunTovad(int argc, char** argv) {
  Options o;
  const int parsed = ParseArgs(argc, argv, &o);
  if (parsed >= 0) return parsed;

  // Everything the library would abort on is checked before it is asked.
  std::string error;
  for (const std::string& f : o.files) {
    if (f == "-") continue;  // a stream can be opened only once
    AudioReader probe;
    if (!probe.Open(f, &error)) return Fail(error);
  }
  ModelConf model;
  if (!FindModel(o, &model, &error)) return Fail(error);
  if (!o.segment_dir.empty() && !PrepareSegmentDir(o.segment_dir, &error)) return Fail(error);

  bool reads_stdin = false;
  for (const std::string& f : o.files) reads_stdin = reads_stdin || f == "-";
  Progress progress(o.files.size(), isatty(STDERR_FILENO) == 1 && !reads_stdin);
  Handles handles(model, o.verbose, &progress);
  const size_t n_files = o.files.size();
  const size_t n_workers = std::min<size_t>(static_cast<size_t>(o.jobs), n_files);
  const bool with_name = n_files > 1;
  const bool json = o.format == Format::kJson;
  int status = kExitOk;
  std::vector<FileRun> runs(n_files);

  if (n_workers == 1) {
    // Segments go out as they close, so a live stream is heard live.
    std::function<void(const FileResult&, size_t)> emit;
    if (!json) {
      emit = [&](const FileResult& r, size_t from) {
        FileResult part = r;
        part.segments.erase(part.segments.begin(),
                            part.segments.begin() + static_cast<std::ptrdiff_t>(from));
        progress.Print(FormatLines(o.format, part, with_name, o.raw));
      };
    }
    for (size_t i = 0; i < n_files; ++i) {
      RunFile(&handles, o, model, o.files[i], &progress, emit, &runs[i]);
      progress.FileDone();
      if (!runs[i].error.empty()) {
        progress.Error(runs[i].error);
        status = kExitInputError;
      }
    }
  } else {
    // Workers take files in turn; the main thread prints them in argument
    // order as soon as each one and all before it are done.
    std::vector<char> done(n_files, 0);
    std::mutex mu;
    std::condition_variable cv;
    std::atomic<size_t> next{0};
    std::vector<std::thread> workers;
    for (size_t w = 0; w < n_workers; ++w) {
      workers.emplace_back([&] {
        for (size_t i; (i = next++) < n_files;) {
          RunFile(&handles, o, model, o.files[i], &progress, nullptr, &runs[i]);
          progress.FileDone();
          std::lock_guard<std::mutex> lock(mu);
          done[i] = 1;
          cv.notify_all();
        }
      });
    }
    for (size_t i = 0; i < n_files; ++i) {
      {
        std::unique_lock<std::mutex> lock(mu);
        cv.wait(lock, [&] { return done[i] != 0; });
      }
      if (!runs[i].error.empty()) {
        progress.Error(runs[i].error);
        status = kExitInputError;
      } else if (!json) {
        progress.Print(FormatLines(o.format, runs[i].result, with_name, o.raw));
      }
    }
    for (std::thread& t : workers) t.join();
  }
  progress.Wipe();

  if (json) {
    std::vector<FileResult> results;
    for (FileRun& run : runs)
      if (run.error.empty()) results.push_back(std::move(run.result));
    progress.Print(FormatJson(results, o.raw));
  }

  return status;
}

}  // namespace tovad_cli
