#include "tools/tovad/cli.h"

#include <fcntl.h>
#include <getopt.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/tovad/audio_reader.h"
#include "tools/tovad/model_conf.h"
#include "tools/tovad/output.h"
#include "tools/tovad/segmenter.h"
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
    "\n"
    "Options:\n"
    "  -c, --conf FILE            model conf to use (default: the bundled model)\n"
    "  -f, --format FMT           default, json, rttm or audacity\n"
    "  -w, --write-segments DIR   write each segment as a 16 kHz WAV into DIR\n"
    "      --raw                  print the library's own positions (with its\n"
    "                             leading silence and hangover tail)\n"
    "  -q, --quiet                silence the library's start-up lines\n"
    "  -h, --help                 show this help\n"
    "  -V, --version              show the version\n"
    "\n"
    "Exit status: 0 on success, 2 on bad usage, unreadable input or a missing\n"
    "or broken model.\n";

// Progress bar on stderr, only when it is a terminal and the input is long.
class Progress {
 public:
  Progress(const std::string& name, double seconds)
      : name_(name), on_(isatty(STDERR_FILENO) == 1 && seconds >= 30.0) {}
  ~Progress() {
    if (on_ && shown_ >= 0) std::fprintf(stderr, "\r\033[K");
  }
  void Update(double fraction) {
    if (!on_) return;
    const int pct = static_cast<int>(fraction * 100.0);
    if (pct == shown_) return;
    shown_ = pct;
    constexpr int kWidth = 30;
    const int fill = pct * kWidth / 100;
    std::fprintf(stderr, "\r[%s%s] %3d%% %s", std::string(fill, '#').c_str(),
                 std::string(kWidth - fill, '.').c_str(), pct, name_.c_str());
    std::fflush(stderr);
  }

 private:
  std::string name_;
  bool on_;
  int shown_ = -1;
};

// Sends fd 2 to /dev/null for as long as it lives, when asked to.
class StderrSilencer {
 public:
  explicit StderrSilencer(bool on) {
    if (!on) return;
    std::fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    const int null_fd = open("/dev/null", O_WRONLY);
    if (saved_ < 0 || null_fd < 0) {
      if (null_fd >= 0) close(null_fd);
      return;
    }
    dup2(null_fd, STDERR_FILENO);
    close(null_fd);
  }
  ~StderrSilencer() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }

 private:
  int saved_ = -1;
};

int Fail(const std::string& msg) {
  std::fprintf(stderr, "tovad: %s\n", msg.c_str());
  return kExitInputError;
}

struct Options {
  std::string conf;
  Format format = Format::kDefault;
  std::string segment_dir;
  bool quiet = false;
  bool raw = false;
  std::vector<std::string> files;
};

// Returns -1 to go on, or the exit code.
int ParseArgs(int argc, char** argv, Options* o) {
  enum { kRawOpt = 1000 };
  static const option kLong[] = {{"conf", required_argument, nullptr, 'c'},
                                 {"format", required_argument, nullptr, 'f'},
                                 {"write-segments", required_argument, nullptr, 'w'},
                                 {"raw", no_argument, nullptr, kRawOpt},
                                 {"quiet", no_argument, nullptr, 'q'},
                                 {"help", no_argument, nullptr, 'h'},
                                 {"version", no_argument, nullptr, 'V'},
                                 {nullptr, 0, nullptr, 0}};
  optind = 0;  // getopt state is global; start afresh on every run
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, ":c:f:w:qhV", kLong, nullptr)) != -1) {
    switch (c) {
      case 'c':
        o->conf = optarg;
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
        o->quiet = true;
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
  return -1;
}

bool FindModel(const Options& o, ModelConf* model, std::string* error) {
  if (!o.conf.empty()) return LoadModelConf(o.conf, model, error);
  std::string looked;
  for (const std::string& dir : DefaultModelDirs(ExecutableDir())) {
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

}  // namespace

int RunTovad(int argc, char** argv) {
  Options o;
  const int parsed = ParseArgs(argc, argv, &o);
  if (parsed >= 0) return parsed;

  // Everything the library would abort on is checked before it is asked.
  std::string error;
  for (const std::string& f : o.files) {
    AudioReader probe;
    if (!probe.Open(f, &error)) return Fail(error);
  }
  ModelConf model;
  if (!FindModel(o, &model, &error)) return Fail(error);
  if (!o.segment_dir.empty() && !PrepareSegmentDir(o.segment_dir, &error)) return Fail(error);

  void* handle;
  {
    StderrSilencer quiet(o.quiet);
    handle = Tovad_toolkit_init(model.init_file.c_str(),
                                model.init_dir.empty() ? nullptr : model.init_dir.c_str());
  }

  int status = kExitOk;
  std::vector<FileResult> results;
  std::vector<int16_t> block;
  for (const std::string& path : o.files) {
    FileResult r;
    r.path = path;
    AudioReader reader;
    if (!reader.Open(path, &error)) {
      status = Fail(error);
      continue;
    }
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
    Segmenter seg(handle, model.score_delay_frames, sink);
    seg.Start();
    {
      Progress bar(path, static_cast<double>(r.info.frames) / r.info.sample_rate);
      while (reader.Read(&block, &error)) {
        seg.Feed(block.data(), block.size());
        bar.Update(reader.Progress());
      }
    }
    if (!error.empty()) {
      status = Fail(error);
      error.clear();
      continue;
    }
    seg.Finish();
    if (!write_error.empty()) status = Fail(write_error);
    r.duration = static_cast<double>(seg.samples_fed()) / kTargetRate;
    r.segments = seg.segments();
    if (o.format != Format::kJson) {
      std::fputs(FormatLines(o.format, r, o.files.size() > 1, o.raw).c_str(), stdout);
      std::fflush(stdout);
    }
    results.push_back(std::move(r));
  }
  if (o.format == Format::kJson) std::fputs(FormatJson(results, o.raw).c_str(), stdout);
  std::fflush(stdout);

  {
    StderrSilencer quiet(o.quiet);
    Tovad_toolkit_destory(handle);
  }
  return status;
}

}  // namespace tovad_cli
