#include "checks.h"

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace rtc {

namespace {

// The report is printed as a format string, so a '%' in a message starts a
// conversion.  Reading conversions print garbage at worst, but "%n" writes
// through whatever pointer is in the argument slot: a check like
// "a % num_group_ == 0" would corrupt memory while reporting.  Only that
// conversion is made literal; every other '%' stays a conversion.
std::string DefuseWritingConversions(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 1 < text.size() && text[i + 1] == '%') {
      out += "%%";
      ++i;
      continue;
    }
    size_t j = i + 1;
    while (j < text.size() && std::strchr("-+ #0'", text[j]) != nullptr) ++j;
    while (j < text.size() && (std::isdigit(static_cast<unsigned char>(text[j])) || text[j] == '*'))
      ++j;
    if (j < text.size() && text[j] == '.') {
      ++j;
      while (j < text.size() &&
             (std::isdigit(static_cast<unsigned char>(text[j])) || text[j] == '*'))
        ++j;
    }
    while (j < text.size() && std::strchr("hlLqjzt", text[j]) != nullptr) ++j;
    out += (j < text.size() && text[j] == 'n') ? "%%" : "%";
  }
  return out;
}

}  // namespace

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
  // The report is the format string: a '%' in a message is a conversion.
  std::string text = DefuseWritingConversions(stream_.str());
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#endif
  PrintError(text.c_str());
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  DumpBacktrace();
  fflush(stderr);
  abort();
}

}  // namespace rtc
