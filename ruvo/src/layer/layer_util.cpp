#include "ruvo/src/layer/layer_util.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "orvik_blas_64/src/math_functions.h"
#include "orviklog/src/logging.h"

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

int32_t ReadNumHidden(const LayerAttrs& attrs) {
  std::string num_hidden_symbol;
  if (attrs.count("num_hidden")) {
    num_hidden_symbol = attrs.at("num_hidden");
  } else {
    RTC_LOG(LS_ENGINE) << "Invalid key: "
                       << "num_hidden";
  }
  // Named as the layers' member, which the check text shows.
  int32_t num_hidden_ = 0;
  ReadAttrValue(num_hidden_symbol, &num_hidden_);
  CHECK_GE(num_hidden_, 1);
  return num_hidden_;
}

float QuantizeWeightRows(const float* w, int rows, int k, signed char* q, float* row_sum) {
  // Starting bounds as the scan has always been seeded: the largest float
  // and the smallest normal one.
  float lo = 3.4028235e+38f;
  float hi = 1.1754944e-38f;
  math::orvik_cpu_min_max_neon<float>(rows * k, w, &lo, &hi);
  const float scale = 127.0f / std::max(std::fabs(lo), std::fabs(hi));
  for (int r = 0; r < rows; ++r) {
    int32_t sum = 0;
    for (int c = 0; c < k; ++c) {
      const size_t i = static_cast<size_t>(r) * k + c;
      // Truncation toward zero, then a clamp for products that round just
      // past 127.
      const int32_t v = std::min(127, std::max(-127, TruncToInt32(scale * w[i])));
      q[i] = static_cast<signed char>(v);
      sum += v;
    }
    row_sum[r] = static_cast<float>(sum) / scale;
  }
  return scale;
}

}  // namespace ruvo
}  // namespace orvik
