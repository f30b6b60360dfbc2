#include "src/tovad_buff.h"

#include <cmath>
#include <cstring>

#include "src/tovad_fast_math.h"

namespace Tovad_toolkit {

namespace {
const uint32_t kFrameShift = 160;
const uint32_t kAnalysisLength = (Tovad_buff::n_left_context + 1) * kFrameShift;  // 480
const uint32_t kWaveLength = Tovad_buff::n_reserved_frame * kFrameShift;          // 1920
const int32_t kFftLength = 512;

// out[i] = (w[i] - 0.97 * w[i-1]) * window[i] for i in [1, n), the
// difference as one fused multiply-subtract.
TOVAD_FMA_CLONES void pre_emphasis_window(float* out, const float* w, const float* window,
                                          uint32_t n) {
  for (uint32_t i = 1; i < n; ++i) out[i] = std::fma(-0.97f, w[i - 1], w[i]) * window[i];
}

}  // namespace

const uint32_t Tovad_buff::n_reserved_frame;
const uint32_t Tovad_buff::n_left_context;

const float Tovad_buff::harmming_window[481] = {
#include "src/tovad_buff_window.inc"
};

Tovad_buff::Tovad_buff()
    : general_buff(new float[4096]),
      fft_in(new float[4098]),
      fft_out(new float[4098]),
      wave_fft(new float[514]),
      wave_buff(new float[kWaveLength + 4]),
      fft(new Tovad_fft()),
      current_wave_pos(n_left_context + 1) {
  // The three slots before the first frame are silence.
  std::memset(wave_buff, 0, (kWaveLength + 4) * sizeof(float));
  std::memset(fft_in, 0, 4098 * sizeof(float));
  std::memset(wave_fft, 0, 514 * sizeof(float));
}

Tovad_buff::~Tovad_buff() {
  delete[] general_buff;
  delete[] fft_in;
  delete[] fft_out;
  delete[] wave_fft;
  delete[] wave_buff;
  delete fft;
}

void Tovad_buff::append_wave_frame(const int16_t* frame) {
  if (current_wave_pos == n_reserved_frame) {
    // Keep the left context and start over; the analysis frame then lies in
    // slots 0 to 2, continuous with what came before.
    std::memmove(wave_buff, wave_buff + (n_reserved_frame - n_left_context) * kFrameShift,
                 n_left_context * kFrameShift * sizeof(float));
    current_wave_pos = n_left_context;
  }
  float* slot = wave_buff + current_wave_pos * kFrameShift;
  for (uint32_t i = 0; i < kFrameShift; ++i) slot[i] = frame[i] * 3.0517578125e-05f;  // 1/32768
  ++current_wave_pos;

  for (int32_t i = kAnalysisLength; i < kFftLength; ++i) fft_in[i] = 0.0f;
  // There is no pre-emphasis history across the left edge of the frame.
  const float* w = wave_buff + (current_wave_pos - (n_left_context + 1)) * kFrameShift;
  fft_in[0] = 0.0f;
  pre_emphasis_window(fft_in, w, harmming_window, kAnalysisLength);
  fft_in[kAnalysisLength] = 0.0f;
  fft->fft(wave_fft, fft_in, kFftLength);
}

const float* Tovad_buff::get_wave_fft() { return wave_fft; }

float Tovad_buff::get_energy_of_current_frame() {
  const float* x = wave_buff + (current_wave_pos - 1) * kFrameShift;
  float sum = 0.0f;
  for (uint32_t i = 0; i < kFrameShift; ++i) sum += x[i] * x[i];
  // 2^30 / 160^2: back to the 16-bit sample scale, and the frame length twice.
  const float power = sum * 41943.04f;
  if (power < 1.0f) return 0.0f;
  return fast_log2(power) * 0.30103 * 10.0;
}

void Tovad_buff::reset() {
  std::memset(wave_buff + (current_wave_pos - (n_left_context + 1)) * kFrameShift, 0,
              3 * sizeof(float));
}

float* Tovad_buff::get_wave_frame(uint32_t slot) { return wave_buff + slot * kFrameShift; }

}  // namespace Tovad_toolkit
