#include "tools/tovad/output.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace tovad_cli {
namespace {

double StartOf(const Segment& s, bool raw) {
  return raw ? static_cast<double>(s.lib_start_frame) * kFrameSamples / kTargetRate : s.start;
}
double EndOf(const Segment& s, bool raw) {
  return raw ? static_cast<double>(s.lib_end_frame + 1) * kFrameSamples / kTargetRate : s.end;
}

std::string Printf(const char* fmt, double a, double b) {
  char buf[96];
  std::snprintf(buf, sizeof(buf), fmt, a, b);
  return buf;
}

std::string JsonString(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof(buf), "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

}  // namespace

bool ParseFormat(const std::string& name, Format* out) {
  if (name == "default")
    *out = Format::kDefault;
  else if (name == "json")
    *out = Format::kJson;
  else if (name == "rttm")
    *out = Format::kRttm;
  else if (name == "audacity")
    *out = Format::kAudacity;
  else
    return false;
  return true;
}

std::string FileStem(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = base.find_last_of('.');
  if (dot != std::string::npos && dot > 0) base.resize(dot);
  return base;
}

std::string FormatSegment(Format format, const std::string& path, const Segment& s, bool with_name,
                          bool raw, bool first) {
  const double a = StartOf(s, raw), b = EndOf(s, raw);
  switch (format) {
    case Format::kDefault:
      return (with_name ? path + "\t" : std::string()) + Printf("%.3f\t%.3f\n", a, b);
    case Format::kRttm:
      // Type, file id, channel, onset, duration, then the speaker fields.
      return "SPEAKER " + FileStem(path) + " 1 " + Printf("%.3f %.3f", a, b - a) +
             " <NA> <NA> speech <NA> <NA>\n";
    case Format::kAudacity:
      return Printf("%.6f\t%.6f", a, b) + "\tspeech\n";
    case Format::kJson:
      return (first ? "" : ", ") + Printf("{\"start\": %.3f, \"end\": %.3f", a, b) +
             (s.cut_by_end_of_input ? ", \"cut_by_end_of_input\": true}" : "}");
  }
  return std::string();
}

std::string JsonFileHead(const FileResult& r, bool first) {
  char head[160];
  std::snprintf(head, sizeof(head),
                ", \"sample_rate\": %d, \"channels\": %d, \"duration\": %.3f, \"segments\": [",
                r.info.sample_rate, r.info.channels, r.duration);
  return std::string(first ? "{\"files\": [" : ", ") + "{\"file\": " + JsonString(r.path) + head;
}

std::string JsonFileTail() { return "]}"; }

std::string JsonEnd(bool opened) { return std::string(opened ? "" : "{\"files\": [") + "]}\n"; }

TextSpool::~TextSpool() {
  if (file_ != nullptr) std::fclose(file_);
}

void TextSpool::Append(const std::string& text) {
  if (text.empty()) return;
  size_ += text.size();
  back_ = text.back();
  if (buffer_.size() + text.size() > limit_ && !spill_failed_) Spill();
  if (file_ != nullptr && text.size() > limit_) {
    write_failed_ |= std::fwrite(text.data(), 1, text.size(), file_) != text.size();
    return;
  }
  buffer_ += text;
}

void TextSpool::Spill() {
  if (file_ == nullptr) {
    const char* dir = std::getenv("TMPDIR");
    std::string path =
        std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/tovad_spool_XXXXXX";
    const int fd = mkstemp(&path[0]);
    if (fd >= 0) {
      unlink(path.c_str());  // gone from the directory; lives until closed
      file_ = fdopen(fd, "w+b");
      if (file_ == nullptr) close(fd);
    }
    if (file_ == nullptr) {
      spill_failed_ = true;
      return;
    }
  }
  write_failed_ |= std::fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size();
  buffer_.clear();
}

bool TextSpool::WriteTo(FILE* out) {
  bool ok = !write_failed_;
  if (file_ != nullptr) {
    ok = ok && std::fflush(file_) == 0 && std::fseek(file_, 0, SEEK_SET) == 0;
    char chunk[8192];
    for (size_t n; ok && (n = std::fread(chunk, 1, sizeof(chunk), file_)) > 0;)
      std::fwrite(chunk, 1, n, out);
    ok = ok && std::ferror(file_) == 0;
  }
  std::fwrite(buffer_.data(), 1, buffer_.size(), out);
  Clear();
  return ok;
}

void TextSpool::Clear() {
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
  buffer_.clear();
  size_ = 0;
  back_ = '\0';
  write_failed_ = false;
}

}  // namespace tovad_cli
