#ifndef TOVAD_FFT_H_
#define TOVAD_FFT_H_

// Single-precision real FFT of the front end, for the lengths 256, 512,
// 1024, 2048 and 4096.  Every plan and table lives inside the object and is
// filled from constants by the constructor: a transform allocates nothing
// and computes no trigonometry.

#include <cstdint>

namespace Tovad_toolkit {

typedef int32_t ne10_int32_t;
typedef float ne10_float32_t;

struct ne10_fft_cpx_float32_t {
  ne10_float32_t r;
  ne10_float32_t i;
};

// Plan of one length N.
struct ne10_fft_r2c_state_float32_t {
  ne10_fft_cpx_float32_t* buffer;  // N complex of scratch
  ne10_int32_t ncfft;              // N/2, length of the inner complex FFT
  // Stage count S, first stride, then S pairs (radix, remainder); the last
  // pair is processed first.
  ne10_int32_t* factors;
  // One block per stage after the first, in processing order; for the pair
  // (p, m), entry (q-1)*m + j is exp(-2*pi*i*q*j/(p*m)).
  ne10_fft_cpx_float32_t* twiddles;
  // Entry k is -i*exp(-i*pi*(k+1)/ncfft), k < ncfft/2.
  ne10_fft_cpx_float32_t* super_twiddles;
};
typedef ne10_fft_r2c_state_float32_t* ne10_fft_r2c_cfg_float32_t;

class Tovad_fft {
 public:
  Tovad_fft();
  ~Tovad_fft() {}
  // The handles point into the object itself.
  Tovad_fft(const Tovad_fft&) = delete;
  Tovad_fft& operator=(const Tovad_fft&) = delete;

  // Forward transform of n real samples `in` into n/2 + 1 complex values,
  // interleaved (re, im) in `out` (n + 2 floats).  Unscaled; the imaginary
  // parts of bins 0 and n/2 are exact zeros.  An n other than the five
  // lengths does nothing.
  void fft(float* out, float* in, int32_t n);
  // Inverse of fft: n/2 + 1 interleaved complex values `in` (imaginary parts
  // of bins 0 and n/2 ignored) to n real samples in `out`, including the
  // 1/n scale.  An n other than the five lengths does nothing.
  void ifft(float* out, float* in, int32_t n);

 private:
  ne10_fft_r2c_cfg_float32_t plan_for(int32_t n);

  alignas(64) ne10_fft_cpx_float32_t buffer_f32_256[256];
  ne10_int32_t factor_f32_256[64];
  alignas(64) ne10_fft_cpx_float32_t twiddles_f32_256[128];
  alignas(64) ne10_fft_cpx_float32_t supper_twiddles_f32_256[64];
  ne10_fft_r2c_state_float32_t fft_real_f32_256;

  alignas(64) ne10_fft_cpx_float32_t buffer_f32_512[512];
  ne10_int32_t factor_f32_512[64];
  alignas(64) ne10_fft_cpx_float32_t twiddles_f32_512[256];
  alignas(64) ne10_fft_cpx_float32_t supper_twiddles_f32_512[128];
  ne10_fft_r2c_state_float32_t fft_real_f32_512;

  alignas(64) ne10_fft_cpx_float32_t buffer_f32_1024[1024];
  ne10_int32_t factor_f32_1024[64];
  alignas(64) ne10_fft_cpx_float32_t twiddles_f32_1024[512];
  alignas(64) ne10_fft_cpx_float32_t supper_twiddles_f32_1024[256];
  ne10_fft_r2c_state_float32_t fft_real_f32_1024;

  alignas(64) ne10_fft_cpx_float32_t buffer_f32_2048[2048];
  ne10_int32_t factor_f32_2048[64];
  alignas(64) ne10_fft_cpx_float32_t twiddles_f32_2048[1024];
  alignas(64) ne10_fft_cpx_float32_t supper_twiddles_f32_2048[512];
  ne10_fft_r2c_state_float32_t fft_real_f32_2048;

  alignas(64) ne10_fft_cpx_float32_t buffer_f32_4096[4096];
  ne10_int32_t factor_f32_4096[64];
  alignas(64) ne10_fft_cpx_float32_t twiddles_f32_4096[2048];
  alignas(64) ne10_fft_cpx_float32_t supper_twiddles_f32_4096[1024];
  ne10_fft_r2c_state_float32_t fft_real_f32_4096;

  ne10_fft_r2c_cfg_float32_t h_fft_real_f32_256;
  ne10_fft_r2c_cfg_float32_t h_fft_real_f32_512;
  ne10_fft_r2c_cfg_float32_t h_fft_real_f32_1024;
  ne10_fft_r2c_cfg_float32_t h_fft_real_f32_2048;
  ne10_fft_r2c_cfg_float32_t h_fft_real_f32_4096;
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_FFT_H_
