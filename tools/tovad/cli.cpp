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
  Progress(size_t files, bool on)
      : files_(files), on_(on), stdout_shared_(isatty(STDOUT_FILENO) == 1), begin_(Clock::now()) {}
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
  // as it closes.  `body`, when given, goes out between `head` and `tail`
  // and is emptied.  Returns false if the body could not be read back.
  bool Print(const std::string& head, TextSpool* body = nullptr,
             const std::string& tail = std::string()) {
    std::lock_guard<std::mutex> lock(mu_);
    const char last = !tail.empty()                         ? tail.back()
                      : body != nullptr && body->size() > 0 ? body->back()
                      : !head.empty()                       ? head.back()
                                                            : '\0';
    if (last == '\0') return true;
    WipeLocked();
    std::fputs(head.c_str(), stdout);
    const bool ok = body == nullptr || body->WriteTo(stdout);
    std::fputs(tail.c_str(), stdout);
    std::fflush(stdout);
    line_open_ = last != '\n';
    Draw(true);
    return ok;
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
    // On a shared terminal, wiping our line would wipe a JSON line being written.
    if (!on_ || (line_open_ && stdout_shared_)) return;
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
  bool stdout_shared_;      // stdout is a terminal too
  bool line_open_ = false;  // stdout's last line is not finished
  Clock::time_point begin_;
  Clock::time_point last_{};
  size_t done_ = 0;
  int64_t samples_ = 0;
  bool shown_ = false;
};

struct FileRun {
  FileResult result;
  TextSpool text;     // its segments in the output format, when not printed at once
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

// Runs one file (or standard input) through a fresh handle, handing each
// segment to `on_segment` as it closes.
void RunFile(Handles* handles, const Options& o, const ModelConf& model, const std::string& path,
             Progress* progress, const Segmenter::SegmentSink& on_segment, FileRun* run) {
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
  Segmenter seg(handle, model.score_delay_frames, on_segment, sink);
  seg.Start();
  std::vector<int16_t> block;
  while (reader.Read(&block, &run->error)) {
    seg.Feed(block.data(), block.size());
    progress->AddSamples(block.size());
  }
  if (!run->error.empty()) {
    handles->End(handle);
    return;
  }
  seg.Finish();
  r.duration = static_cast<double>(seg.samples_fed()) / kTargetRate;
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
  // A segment's text; `index` counts the file's segments, for JSON's commas.
  auto segment_text = [&](const std::string& path, const Segment& s, size_t index) {
    return FormatSegment(o.format, path, s, with_name, o.raw, index == 0);
  };
  // A finished file goes out whole: its error, or what its spool holds
  // (framed as a file object in JSON).
  bool json_opened = false;
  auto finish = [&](FileRun& run) {
    if (run.error.empty()) {
      std::string head, tail;
      if (json) {
        head = JsonFileHead(run.result, !json_opened);
        tail = JsonFileTail();
        json_opened = true;
      }
      if (!progress.Print(head, &run.text, tail))
        run.error = "cannot read back the spooled output of '" + run.result.path + "'";
    }
    run.text.Clear();
    if (!run.error.empty()) {
      progress.Error(run.error);
      status = kExitInputError;
    }
  };

  if (n_workers == 1) {
    // Line formats print each segment as it closes, so a live stream is
    // heard live; JSON holds a file's segments until its duration is known.
    for (size_t i = 0; i < n_files; ++i) {
      size_t count = 0;
      FileRun& run = runs[i];
      RunFile(
          &handles, o, model, o.files[i], &progress,
          [&](const Segment& s) {
            const std::string text = segment_text(o.files[i], s, count++);
            if (json)
              run.text.Append(text);
            else
              progress.Print(text);
          },
          &run);
      progress.FileDone();
      finish(run);
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
          size_t count = 0;
          RunFile(
              &handles, o, model, o.files[i], &progress,
              [&](const Segment& s) { runs[i].text.Append(segment_text(o.files[i], s, count++)); },
              &runs[i]);
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
      finish(runs[i]);
    }
    for (std::thread& t : workers) t.join();
  }
  progress.Wipe();
  if (json) progress.Print(JsonEnd(json_opened));

  return status;
}

}  // namespace tovad_cli
