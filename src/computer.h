#ifndef TOVAD_COMPUTER_H_
#define TOVAD_COMPUTER_H_

#include <cstdint>

#include "src/tovad_buff.h"
#include "src/tovad_fft.h"

namespace Tovad_toolkit {

// One group of per-frame values of the composite front end, computed from
// the spectrum that the shared frame buffer holds for the newest frame.
// The buffer's scratch arrays and the transform are borrowed, not owned;
// nothing else may use them while compute_feats runs.
class Computer {
 public:
  Computer(Tovad_buff* mem, Tovad_fft* fft) : mem(mem), fft(fft) {}
  // Writes this computer's values for the current frame; returns how many.
  virtual uint32_t compute_feats(float* out) = 0;
  // Restores the state between frames to that of a new computer.
  virtual void reset() = 0;
  virtual ~Computer() {}
  Computer(const Computer&) = delete;
  Computer& operator=(const Computer&) = delete;

 protected:
  Tovad_buff* mem;
  Tovad_fft* fft;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_COMPUTER_H_
