#include "ruvo/src/layer/layer_util.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace orvik {
namespace ruvo {

namespace {

void SkipSpace(const std::string& s, size_t* p) {
  while (*p < s.size() && isspace(static_cast<unsigned char>(s[*p]))) ++*p;
}

// One entry at *p: a decimal integer (with an optional "L" suffix) or
// "None".  Returns false if there is none.
bool ReadEntry(const std::string& s, size_t* p, int* value) {
  SkipSpace(s, p);
  if (s.compare(*p, 4, "None") == 0) {
    *p += 4;
    *value = kNoneValue;
    return true;
  }
  const char* begin = s.c_str() + *p;
  char* end = nullptr;
  errno = 0;
  const long v = strtol(begin, &end, 10);
  if (end == begin || errno != 0 || v <= INT_MIN || v > INT_MAX) return false;
  *value = static_cast<int>(v);
  *p += static_cast<size_t>(end - begin);
  if (*p < s.size() && s[*p] == 'L') ++*p;
  return true;
}

}  // namespace

std::vector<int> ParseSignedTuple(const std::string& text, const char* key) {
  std::vector<int> out;
  size_t p = 0;
  SkipSpace(text, &p);
  bool ok = true;
  if (p < text.size() && (text[p] == '(' || text[p] == '[')) {
    const char close = text[p] == '(' ? ')' : ']';
    ++p;
    SkipSpace(text, &p);
    if (p < text.size() && text[p] == close) {
      ++p;
    } else {
      while (true) {
        int v = 0;
        if (!ReadEntry(text, &p, &v)) {
          ok = false;
          break;
        }
        out.push_back(v);
        SkipSpace(text, &p);
        if (p < text.size() && text[p] == ',') {
          ++p;
          SkipSpace(text, &p);
          if (p < text.size() && text[p] == close) {
            ++p;
            break;
          }
          continue;
        }
        if (p < text.size() && text[p] == close) {
          ++p;
          break;
        }
        ok = false;
        break;
      }
    }
  } else {
    int v = 0;
    ok = ReadEntry(text, &p, &v);
    if (ok) out.push_back(v);
  }
  SkipSpace(text, &p);
  CHECK(ok && p == text.size()) << "Invalid tuple for " << key << ": " << text;
  return out;
}

int ParseIntOrNone(const std::string& text, const char* key) {
  size_t p = 0;
  int v = 0;
  const bool ok = ReadEntry(text, &p, &v);
  SkipSpace(text, &p);
  CHECK(ok && p == text.size()) << "Invalid integer for " << key << ": " << text;
  return v;
}

}  // namespace ruvo
}  // namespace orvik
