#ifndef TOOLS_TOVAD_OUTPUT_H_
#define TOOLS_TOVAD_OUTPUT_H_

#include <cstdio>
#include <string>

#include "tools/tovad/audio_reader.h"
#include "tools/tovad/segmenter.h"

namespace tovad_cli {

enum class Format { kDefault, kJson, kRttm, kAudacity };

// Parses "default", "json", "rttm" or "audacity".
bool ParseFormat(const std::string& name, Format* out);

// What is known of a file once it has been read to the end.
struct FileResult {
  std::string path;
  AudioInfo info;
  double duration = 0.0;  // seconds of 16 kHz audio fed
};

// One segment of `path` in its output form: a line in the line formats, an
// element of the file's "segments" array in JSON (`first` leaves out the
// separator).  `with_name` prefixes default lines with the file name, for
// runs over several files.  `raw` prints the library's own positions
// instead of the speech bounds.
std::string FormatSegment(Format format, const std::string& path, const Segment& s, bool with_name,
                          bool raw, bool first);

// The JSON document is written a piece at a time: the file objects in
// order, each one's head (which holds its duration) before its segments and
// its tail after them, then the end of the document.  `first` is true for
// the first file object written.
std::string JsonFileHead(const FileResult& r, bool first);
std::string JsonFileTail();
// `opened` tells whether any file object was written.
std::string JsonEnd(bool opened);

// Text that may outgrow memory, such as the segments of a day-long stream:
// up to `memory_limit` bytes stay in memory, anything more moves to an
// unlinked temporary file, so a long stream costs disk rather than memory.
// Should no temporary file be had, the text stays in memory.
class TextSpool {
 public:
  explicit TextSpool(size_t memory_limit = 64 * 1024) : limit_(memory_limit) {}
  ~TextSpool();
  TextSpool(const TextSpool&) = delete;
  TextSpool& operator=(const TextSpool&) = delete;

  void Append(const std::string& text);
  // Writes the whole text to `out` and empties the spool.  Returns false if
  // the temporary file could not be written or read back.
  bool WriteTo(FILE* out);
  // Drops the text.
  void Clear();
  size_t size() const { return size_; }
  // The last character appended, '\0' when empty.
  char back() const { return back_; }
  // Bytes of memory the spool holds.
  size_t memory_bytes() const { return buffer_.capacity(); }

 private:
  void Spill();

  size_t limit_;
  std::string buffer_;
  FILE* file_ = nullptr;
  bool spill_failed_ = false;  // no temporary file: keep the text in memory
  bool write_failed_ = false;
  size_t size_ = 0;
  char back_ = '\0';
};

// File name without directories and the last extension ("a/b.c.wav" -> "b.c").
std::string FileStem(const std::string& path);

}  // namespace tovad_cli

#endif  // TOOLS_TOVAD_OUTPUT_H_
