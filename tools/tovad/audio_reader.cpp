#include "tools/tovad/audio_reader.h"

#include <sndfile.h>
#include <soxr.h>

#include <unistd.h>

#include <cmath>

namespace tovad_cli {
namespace {

constexpr sf_count_t kChunkFrames = 8192;
// 50 ms at 16 kHz: a pipe read waits for a whole block.
constexpr sf_count_t kLiveChunkFrames = 800;

SNDFILE* AsFile(void* p) { return static_cast<SNDFILE*>(p); }
soxr_t AsSoxr(void* p) { return static_cast<soxr_t>(p); }

}  // namespace

int16_t FloatToPcm16(float x) {
  // libsndfile scales 16-bit input by 1/32768, so this is exact for it.
  const float v = std::nearbyint(x * 32768.0f);
  if (v >= 32767.0f) return 32767;
  if (v <= -32768.0f) return -32768;
  return static_cast<int16_t>(v);
}

AudioReader::~AudioReader() { Close(); }

void AudioReader::Close() {
  if (resampler_ != nullptr) soxr_delete(AsSoxr(resampler_));
  if (file_ != nullptr) sf_close(AsFile(file_));
  resampler_ = nullptr;
  file_ = nullptr;
}

bool AudioReader::Open(const std::string& path, std::string* error) {
  Close();
  path_ = path;
  SF_INFO sfi = {};
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &sfi);
  if (f == nullptr) {
    *error = "cannot read '" + path + "': " + sf_strerror(nullptr);
    return false;
  }
  chunk_frames_ = kChunkFrames;
  return Attach(f, sfi.samplerate, sfi.channels, sfi.frames, error);
}

bool AudioReader::OpenStdin(const RawFormat* raw, std::string* error) {
  Close();
  path_ = "-";
  SF_INFO sfi = {};
  if (raw != nullptr) {
    sfi.format = SF_FORMAT_RAW | SF_FORMAT_PCM_16 | SF_ENDIAN_LITTLE;
    sfi.samplerate = raw->sample_rate;
    sfi.channels = raw->channels;
  }
  SNDFILE* f = sf_open_fd(STDIN_FILENO, SFM_READ, &sfi, SF_FALSE);
  if (f == nullptr) {
    *error = std::string("cannot read standard input: ") + sf_strerror(nullptr) +
             (raw == nullptr ? " (for headerless PCM give --raw-input)" : "");
    return false;
  }
  chunk_frames_ = kLiveChunkFrames;
  // A stream's header cannot know its length.
  return Attach(f, sfi.samplerate, sfi.channels, 0, error);
}

bool AudioReader::Attach(void* file, int sample_rate, int channels, int64_t frames,
                         std::string* error) {
  file_ = file;
  frames_read_ = 0;
  input_done_ = false;
  flushed_ = false;
  if (channels < 1 || sample_rate < 1) {
    *error = "cannot read '" + path_ + "': no audio channels or no sample rate";
    Close();
    return false;
  }
  info_.sample_rate = sample_rate;
  info_.channels = channels;
  info_.frames = frames > 0 ? frames : 0;
  if (sample_rate != kTargetRate) {
    soxr_error_t err = nullptr;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t q = soxr_quality_spec(SOXR_HQ, 0);
    // One thread: the tool runs beside other work and the resampler is cheap.
    const soxr_runtime_spec_t rt = soxr_runtime_spec(1);
    soxr_t s = soxr_create(sample_rate, kTargetRate, 1, &err, &io, &q, &rt);
    if (s == nullptr || err != nullptr) {
      *error = "cannot resample '" + path_ + "' from " + std::to_string(sample_rate) +
               " Hz: " + (err != nullptr ? err : "resampler failed");
      Close();
      return false;
    }
    resampler_ = s;
  }
  return true;
}

double AudioReader::Progress() const {
  if (info_.frames <= 0) return 0.0;
  const double p = static_cast<double>(frames_read_) / static_cast<double>(info_.frames);
  return p > 1.0 ? 1.0 : p;
}

void AudioReader::Append(const float* mono, size_t n, std::vector<int16_t>* out) const {
  for (size_t i = 0; i < n; ++i) out->push_back(FloatToPcm16(mono[i]));
}

bool AudioReader::Read(std::vector<int16_t>* out, std::string* error) {
  out->clear();
  if (file_ == nullptr) return false;
  while (out->empty()) {
    if (input_done_) {
      if (resampler_ == nullptr || flushed_) return false;
      // Drain what the resampler still holds behind its filter delay.
      resampled_.resize(4096);
      size_t odone = 0;
      soxr_error_t err =
          soxr_process(AsSoxr(resampler_), nullptr, 0, nullptr, resampled_.data(), 4096, &odone);
      if (err != nullptr) {
        *error = "cannot resample '" + path_ + "': " + err;
        return false;
      }
      if (odone == 0) {
        flushed_ = true;
        return false;
      }
      Append(resampled_.data(), odone, out);
      return true;
    }
    const int ch = info_.channels;
    interleaved_.resize(static_cast<size_t>(chunk_frames_) * ch);
    const sf_count_t got = sf_readf_float(AsFile(file_), interleaved_.data(), chunk_frames_);
    if (got < chunk_frames_) {
      input_done_ = true;
      if (sf_error(AsFile(file_)) != SF_ERR_NO_ERROR) {
        *error = "cannot decode '" + path_ + "': " + sf_strerror(AsFile(file_));
        return false;
      }
    }
    frames_read_ += got;
    mono_.resize(static_cast<size_t>(got));
    for (sf_count_t i = 0; i < got; ++i) {
      float sum = 0.0f;
      for (int c = 0; c < ch; ++c) sum += interleaved_[static_cast<size_t>(i) * ch + c];
      mono_[static_cast<size_t>(i)] = ch == 1 ? sum : sum / static_cast<float>(ch);
    }
    if (resampler_ == nullptr) {
      Append(mono_.data(), mono_.size(), out);
      continue;
    }
    // Enough room for the whole ratio plus the resampler's buffered tail.
    const size_t cap =
        static_cast<size_t>(std::ceil(static_cast<double>(got) * kTargetRate / info_.sample_rate)) +
        4096;
    resampled_.resize(cap);
    size_t used = 0;
    do {
      size_t idone = 0, odone = 0;
      soxr_error_t err = soxr_process(AsSoxr(resampler_), mono_.data() + used, mono_.size() - used,
                                      &idone, resampled_.data(), cap, &odone);
      if (err != nullptr) {
        *error = "cannot resample '" + path_ + "': " + err;
        return false;
      }
      used += idone;
      Append(resampled_.data(), odone, out);
    } while (used < mono_.size());
  }
  return true;
}

}  // namespace tovad_cli
