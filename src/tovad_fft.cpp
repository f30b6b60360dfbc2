#include "src/tovad_fft.h"

#include <cstring>

namespace Tovad_toolkit {
namespace {

// cos(2*pi*j/4096) for the first quarter turn; with the symmetries of cosine
// it gives every twiddle of the five lengths, since every denominator
// divides 4096.
const float kCosQuarter[1025] = {
#include "src/tovad_fft_cos_table.inc"
};

// Factor lists: stage count, first stride, then (radix, remainder) pairs;
// the last pair is the first stage processed.
const ne10_int32_t kFactors256[] = {3, 16, 4, 32, 4, 8, 8, 1};
const ne10_int32_t kFactors512[] = {4, 64, 4, 64, 4, 16, 4, 4, 4, 1};
const ne10_int32_t kFactors1024[] = {4, 64, 4, 128, 4, 32, 4, 8, 8, 1};
const ne10_int32_t kFactors2048[] = {5, 256, 4, 256, 4, 64, 4, 16, 4, 4, 4, 1};
const ne10_int32_t kFactors4096[] = {5, 256, 4, 512, 4, 128, 4, 32, 4, 8, 8, 1};

float cos_turn(int32_t j) {  // cos(2*pi*j/4096)
  j &= 4095;
  if (j <= 1024) return kCosQuarter[j];
  if (j <= 2048) return -kCosQuarter[2048 - j];
  if (j <= 3072) return -kCosQuarter[j - 2048];
  return kCosQuarter[4096 - j];
}

// exp(-2*pi*i*j/4096)
ne10_fft_cpx_float32_t unit_root(int32_t j) {
  return {cos_turn(j), -cos_turn(j + 3072)};  // sin(x) = cos(x - pi/2)
}

template <size_t kCount>
void build_plan(ne10_fft_r2c_state_float32_t* plan, int32_t n,
                const ne10_int32_t (&factors)[kCount], ne10_int32_t* factor_store,
                ne10_fft_cpx_float32_t* buffer, ne10_fft_cpx_float32_t* twiddles,
                ne10_fft_cpx_float32_t* super_twiddles) {
  const int32_t ncfft = n / 2;
  std::memset(factor_store, 0, 64 * sizeof(ne10_int32_t));
  std::memcpy(factor_store, factors, sizeof factors);
  std::memset(buffer, 0, n * sizeof(ne10_fft_cpx_float32_t));
  std::memset(twiddles, 0, ncfft * sizeof(ne10_fft_cpx_float32_t));

  // Blocks of the stages after the first, in processing order: the pairs
  // from the second last back to the first.
  const int32_t stages = factors[0];
  ne10_fft_cpx_float32_t* tw = twiddles;
  for (int32_t s = stages - 1; s >= 1; --s) {
    const int32_t p = factors[2 * s];
    const int32_t m = factors[2 * s + 1];
    const int32_t step = 4096 / (p * m);
    for (int32_t q = 1; q < p; ++q) {
      for (int32_t j = 0; j < m; ++j) tw[(q - 1) * m + j] = unit_root(q * j * step);
    }
    tw += (p - 1) * m;
  }

  // -i * exp(-2*pi*i*(k+1)/n): the real part is the sine term.
  const int32_t step = 4096 / n;
  for (int32_t k = 0; k < ncfft / 2; ++k) {
    const ne10_fft_cpx_float32_t w = unit_root((k + 1) * step);
    super_twiddles[k] = {w.i, -w.r};
  }

  plan->buffer = buffer;
  plan->ncfft = ncfft;
  plan->factors = factor_store;
  plan->twiddles = twiddles;
  plan->super_twiddles = super_twiddles;
}

}  // namespace

Tovad_fft::Tovad_fft() {
  build_plan(&fft_real_f32_256, 256, kFactors256, factor_f32_256, buffer_f32_256, twiddles_f32_256,
             supper_twiddles_f32_256);
  build_plan(&fft_real_f32_512, 512, kFactors512, factor_f32_512, buffer_f32_512, twiddles_f32_512,
             supper_twiddles_f32_512);
  build_plan(&fft_real_f32_1024, 1024, kFactors1024, factor_f32_1024, buffer_f32_1024,
             twiddles_f32_1024, supper_twiddles_f32_1024);
  build_plan(&fft_real_f32_2048, 2048, kFactors2048, factor_f32_2048, buffer_f32_2048,
             twiddles_f32_2048, supper_twiddles_f32_2048);
  build_plan(&fft_real_f32_4096, 4096, kFactors4096, factor_f32_4096, buffer_f32_4096,
             twiddles_f32_4096, supper_twiddles_f32_4096);
  h_fft_real_f32_256 = &fft_real_f32_256;
  h_fft_real_f32_512 = &fft_real_f32_512;
  h_fft_real_f32_1024 = &fft_real_f32_1024;
  h_fft_real_f32_2048 = &fft_real_f32_2048;
  h_fft_real_f32_4096 = &fft_real_f32_4096;
}

ne10_fft_r2c_cfg_float32_t Tovad_fft::plan_for(int32_t n) {
  if (n == 256) return h_fft_real_f32_256;
  if (n == 512) return h_fft_real_f32_512;
  if (n == 1024) return h_fft_real_f32_1024;
  if (n == 2048) return h_fft_real_f32_2048;
  if (n == 4096) return h_fft_real_f32_4096;
  return nullptr;
}

}  // namespace Tovad_toolkit
