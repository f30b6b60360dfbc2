#include "src/mfcc_computer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "src/tovad_fast_math.h"

namespace Tovad_toolkit {

namespace {

const char kSource[] = "src/mfcc_computer";
const uint32_t kBins = 257;  // bins of the 512-point spectrum
const uint32_t kFilters = 13;
const uint32_t kMedianLength = 11;

// Output point i reads bin interp_idx[i] + interp_c[i] of the spectrum.
#include "src/mfcc_warp_table.inc"

}  // namespace

Mfcc_Computer::Mfcc_Computer(Tovad_buff* mem, Tovad_fft* fft)
    : Computer(mem, fft),
      med_filter(new Median_Filter*[kFilters]),
      mean(nullptr),
      dynamic_mean(nullptr),
      dynamic_mean_idx(0),
      dynamic_mean_capacity(0) {
  for (uint32_t i = 0; i < kFilters; ++i) med_filter[i] = new Median_Filter(kMedianLength);
  reset();
}

Mfcc_Computer::~Mfcc_Computer() {
  for (uint32_t i = 0; i < kFilters; ++i) delete med_filter[i];
  delete[] med_filter;
  delete[] mean;
  delete[] dynamic_mean;
}

float Mfcc_Computer::abs_complex(float re, float im) { return fast_sqrt(re * re + im * im); }

void Mfcc_Computer::interp1(const float* in, float* out) {
  for (uint32_t i = 0; i < kBins - 1; ++i) {
    const int32_t a = interp_idx[i];
    out[i] = in[a] + interp_c[i] * (in[a + 1] - in[a]);
  }
  out[kBins - 1] = in[kBins - 1];
}

uint32_t Mfcc_Computer::compute_feats(float* out) {
  const float* fft_bins = mem->wave_fft;
  float* mag = mem->fft_out;
  float* warped = mem->general_buff;
  float* log_spec = mem->fft_in;

  for (uint32_t k = 0; k < kBins; ++k) mag[k] = abs_complex(fft_bins[2 * k], fft_bins[2 * k + 1]);
  interp1(mag, warped);
  // Natural logarithm by the shared approximation; a zero magnitude gives
  // about -88 and needs no guard.
  for (uint32_t k = 0; k < kBins; ++k) {
    log_spec[2 * k] = static_cast<float>(fast_log2(warped[k]) * 0.6931472);
    log_spec[2 * k + 1] = 0.0f;
  }
  float* cep = mem->fft_out;
  fft->ifft(cep, log_spec, 512);

  // The cepstrum of a real log spectrum is symmetric: doubling folds in
  // the mirror half.
  float* c = mem->general_buff;
  c[0] = cep[0];
  for (uint32_t n = 1; n <= n_cepstra; ++n) c[n] = cep[n] + cep[n];
  if (dynamic_mean != nullptr) apply_dynamic_mean(c);
  for (uint32_t i = 0; i < n_cepstra; ++i) out[i] = med_filter[i]->insert(c[i]);
  return n_cepstra;
}

void Mfcc_Computer::apply_dynamic_mean(float* x) {
  float* sum = dynamic_mean + dynamic_mean_capacity * n_cepstra;
  float* row = dynamic_mean + dynamic_mean_idx * n_cepstra;
  // The sum is updated, never recomputed, so it carries its rounding on.
  for (uint32_t i = 0; i < n_cepstra; ++i) sum[i] -= row[i];
  memcpy(row, x, n_cepstra * sizeof(float));
  for (uint32_t i = 0; i < n_cepstra; ++i) sum[i] += row[i];
  const float n = static_cast<float>(dynamic_mean_capacity);
  for (uint32_t i = 0; i < n_cepstra; ++i) x[i] -= sum[i] / n;
  dynamic_mean_idx = (dynamic_mean_idx + 1) % dynamic_mean_capacity;
}

void Mfcc_Computer::enable_dynamic_mean(int capacity, const float* init_mean) {
  if (dynamic_mean != nullptr) {
    fprintf(stderr, "%s:%d ERROR: do NOT enable mfcc dynamic mean TWICE\n", kSource, 98);
    abort();
  }
  dynamic_mean_capacity = static_cast<uint32_t>(capacity);
  mean = new float[n_cepstra]();
  // Taken as they stand: from a meanvar table these are the negated means.
  if (init_mean != nullptr) memcpy(mean, init_mean, n_cepstra * sizeof(float));
  dynamic_mean = new float[(static_cast<size_t>(dynamic_mean_capacity) + 1) * n_cepstra];
  reset_dynamic_mean();
}

void Mfcc_Computer::reset_dynamic_mean() {
  if (dynamic_mean == nullptr) {
    fprintf(stderr, "%s:%d ERROR: mean must be set before using dynamic mean\n", kSource, 128);
    abort();
  }
  dynamic_mean_idx = 0;
  for (uint32_t r = 0; r <= dynamic_mean_capacity; ++r) {
    memcpy(dynamic_mean + r * n_cepstra, mean, n_cepstra * sizeof(float));
  }
  float* sum = dynamic_mean + dynamic_mean_capacity * n_cepstra;
  const float n = static_cast<float>(dynamic_mean_capacity);
  for (uint32_t i = 0; i < n_cepstra; ++i) sum[i] *= n;
}

void Mfcc_Computer::reset_median_filter() {
  for (uint32_t i = 0; i < kFilters; ++i) med_filter[i]->reset();
}

void Mfcc_Computer::reset() {
  if (dynamic_mean != nullptr) reset_dynamic_mean();
  reset_median_filter();
}

}  // namespace Tovad_toolkit
