#include "checks.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace rtc {

void PrintError(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
}

void DumpBacktrace() {}

FatalMessage::FatalMessage(const char* file, int line) { Init(file, line); }

FatalMessage::FatalMessage(const char* file, int line, std::string* result) {
  Init(file, line);
  stream_ << "Check failed: " << *result << "\n# ";
  delete result;
}

void FatalMessage::Init(const char* file, int line) {
  // errno is whatever it was when the check failed; it is often stale.
  int err = errno;
  stream_ << "\n\n#\n# Fatal error in " << file << ", line " << line
          << "\n# last system error: " << err << "\n# ";
}

FatalMessage::~FatalMessage() {
  fflush(stdout);
  fflush(stderr);
  stream_ << "\n#\n";
  // The report goes out as text, never as a format: names and strings read
  // from model files end up in it, and a '%' there would be a conversion
  // with no argument behind it (a stray read, a write for "%n", or a width
  // of gigabytes).
  PrintError("%s", stream_.str().c_str());
  DumpBacktrace();
  fflush(stderr);
  abort();
}

}  // namespace rtc
