#ifndef TOVAD_BUFF_H_
#define TOVAD_BUFF_H_

// Wave memory of the composite feature path: keeps the recent 10 ms frames,
// makes the pre-emphasised, windowed 30 ms analysis frame of the newest one,
// and holds its 512-point spectrum for the MFCC and SAD computers, to which
// it also lends its scratch arrays.

#include <cstdint>

#include "src/tovad_fft.h"

namespace Tovad_toolkit {

class Tovad_buff {
 public:
  static const uint32_t n_reserved_frame = 12;  // frame slots before the memory wraps
  static const uint32_t n_left_context = 2;     // older frames joined to the newest

  Tovad_buff();
  ~Tovad_buff();
  Tovad_buff(const Tovad_buff&) = delete;
  Tovad_buff& operator=(const Tovad_buff&) = delete;

  // Takes exactly 160 samples and refreshes the spectrum.
  void append_wave_frame(const int16_t* frame);
  // 257 complex bins of the newest analysis frame, interleaved; unscaled.
  const float* get_wave_fft();
  // Energy of the newest frame in decibels; 0 for (near) silence.
  float get_energy_of_current_frame();
  // Clears only the first three samples of the oldest frame of the next
  // analysis frame; all other history stays.
  void reset();
  // Start of frame slot `slot` of the sample memory (160 floats).
  float* get_wave_frame(uint32_t slot);

  // Scratch lent to the computers; no content is kept between frames.
  float* general_buff;  // 4096 floats
  float* fft_in;        // 4098 floats: the windowed frame, then scratch
  float* fft_out;       // 4098 floats
  float* wave_fft;      // 514 floats: the spectrum of the newest frame

  // Blackman window over the 480-sample analysis frame, then a zero.
  static const float harmming_window[481];

 private:
  float* wave_buff;  // 12 slots of 160 samples scaled to [-1, 1), plus 4 spare floats
  Tovad_fft* fft;
  uint32_t current_wave_pos;  // next slot to write
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_BUFF_H_
