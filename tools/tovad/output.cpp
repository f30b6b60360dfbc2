#include "tools/tovad/output.h"

#include <cstdio>

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

std::string FormatLines(Format format, const FileResult& r, bool with_name, bool raw) {
  std::string out;
  for (const Segment& s : r.segments) {
    const double a = StartOf(s, raw), b = EndOf(s, raw);
    switch (format) {
      case Format::kDefault:
        if (with_name) out += r.path + "\t";
        out += Printf("%.3f\t%.3f\n", a, b);
        break;
      case Format::kRttm:
        // Type, file id, channel, onset, duration, then the speaker fields.
        out += "SPEAKER " + FileStem(r.path) + " 1 " + Printf("%.3f %.3f", a, b - a) +
               " <NA> <NA> speech <NA> <NA>\n";
        break;
      case Format::kAudacity:
        out += Printf("%.6f\t%.6f", a, b) + "\tspeech\n";
        break;
      case Format::kJson:
        break;
    }
  }
  return out;
}

std::string FormatJson(const std::vector<FileResult>& results, bool raw) {
  std::string out = "{\"files\": [";
  for (size_t i = 0; i < results.size(); ++i) {
    const FileResult& r = results[i];
    char head[160];
    std::snprintf(head, sizeof(head),
                  ", \"sample_rate\": %d, \"channels\": %d, \"duration\": %.3f, \"segments\": [",
                  r.info.sample_rate, r.info.channels, r.duration);
    out += std::string(i ? ", " : "") + "{\"file\": " + JsonString(r.path) + head;
    for (size_t k = 0; k < r.segments.size(); ++k) {
      const Segment& s = r.segments[k];
      out += (k ? ", " : "") +
             Printf("{\"start\": %.3f, \"end\": %.3f", StartOf(s, raw), EndOf(s, raw));
      out += s.cut_by_end_of_input ? ", \"cut_by_end_of_input\": true}" : "}";
    }
    out += "]}";
  }
  return out + "]}\n";
}

}  // namespace tovad_cli
