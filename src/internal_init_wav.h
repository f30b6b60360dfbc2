#ifndef TOVAD_INTERNAL_INIT_WAV_H_
#define TOVAD_INTERNAL_INIT_WAV_H_

#include <cstdint>

namespace Tovad_toolkit {

// Fixed low-level noise, values within -157..163.  Its first 160 samples
// are added (shifted right by 3) to every frame the net sees, and the
// table primes the front end when a caller has no audio of its own.
constexpr int kInternalInitWavLength = 8000;
extern const int16_t internal_init_wav[kInternalInitWavLength];

}  // namespace Tovad_toolkit

#endif  // TOVAD_INTERNAL_INIT_WAV_H_
