#ifndef TOOLS_TOVAD_OUTPUT_H_
#define TOOLS_TOVAD_OUTPUT_H_

#include <string>
#include <vector>

#include "tools/tovad/audio_reader.h"
#include "tools/tovad/segmenter.h"

namespace tovad_cli {

enum class Format { kDefault, kJson, kRttm, kAudacity };

// Parses "default", "json", "rttm" or "audacity".
bool ParseFormat(const std::string& name, Format* out);

struct FileResult {
  std::string path;
  AudioInfo info;
  double duration = 0.0;  // seconds of 16 kHz audio fed
  std::vector<Segment> segments;
};

// Text of one file's segments in a line format (not JSON).  `with_name`
// prefixes default lines with the file name, for runs over several files.
// `raw` prints the library's own positions instead of the speech bounds.
std::string FormatLines(Format format, const FileResult& r, bool with_name, bool raw);

// One JSON document for all files.
std::string FormatJson(const std::vector<FileResult>& results, bool raw);

// File name without directories and the last extension ("a/b.c.wav" -> "b.c").
std::string FileStem(const std::string& path);

}  // namespace tovad_cli

#endif  // TOOLS_TOVAD_OUTPUT_H_
