#ifndef TOVAD_FAST_MATH_H_
#define TOVAD_FAST_MATH_H_

// Approximate log2 and square root of the front end.  They are part of the
// numerical behaviour of the features: do not swap them for exact library
// functions, the trained models expect exactly these values.

#include <cstdint>
#include <cstring>

// Loops built on std::fma get a second copy for x86-64 processors with the
// FMA instruction, picked at load time; elsewhere std::fma is either a
// single instruction already or the library call.  A fused multiply-add
// rounds once whichever way it is computed, so the results are the same.
// ThreadSanitizer cannot run the load-time picker (it runs before the
// sanitizer is up), so that build keeps one copy.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TOVAD_NO_CLONES 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define TOVAD_NO_CLONES 1
#endif
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__)) && !defined(TOVAD_NO_CLONES)
#define TOVAD_FMA_CLONES __attribute__((target_clones("fma", "default")))
#else
#define TOVAD_FMA_CLONES
#endif

namespace Tovad_toolkit {

inline uint32_t float_bits(float x) {
  uint32_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

inline float bits_float(uint32_t b) {
  float x;
  std::memcpy(&x, &b, sizeof x);
  return x;
}

// Exponent plus a quadratic fit of log2 on the mantissa taken in [0.5, 1).
// Absolute error stays below about 0.01.
inline float fast_log2(float x) {
  const uint32_t b = float_bits(x);
  const float e = static_cast<float>(static_cast<int32_t>((b >> 23) & 255) - 126);
  const float m = bits_float((b & 0x807FFFFFu) | 0x3F000000u);
  return e + (m * (m * -1.3333334f + 4.0f) - 0.6666666f) - 2.0f;
}

// x times two Newton steps of the reciprocal square root seeded by the bit
// trick; 0 gives 0.
inline float fast_sqrt(float x) {
  const float h = 0.5f * x;
  // Arithmetic shift of the signed bits, as the seed is defined.
  const int32_t sbits = static_cast<int32_t>(float_bits(x));
  const float y0 = bits_float(0x5F375A86u - static_cast<uint32_t>(sbits >> 1));
  const float y1 = y0 * (1.5f - y0 * (h * y0));
  const float y2 = y1 * (1.5f - y1 * (h * y1));
  return y2 * x;
}

}  // namespace Tovad_toolkit

#endif  // TOVAD_FAST_MATH_H_
