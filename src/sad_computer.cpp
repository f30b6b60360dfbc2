#include "src/sad_computer.h"

#include <cmath>
#include <cstdio>

#include "src/tovad_fast_math.h"

namespace Tovad_toolkit {

namespace {

const uint32_t kOutputs = 4;
const uint32_t kMedianLength = 11;
const uint32_t kBins = 257;
const uint32_t kOrder = 12;
// Pitch lags 31 .. 254 and 256: 500 down to about 62.5 Hz.  Lag 255 is left
// out on purpose; closing the gap changes the values.
const uint32_t kMinLag = 31;
const uint32_t kLags = 224;
const uint32_t kLastLag = 256;
const uint32_t kHpsBins = 128;

// The acc of one Levinson step: r[i+2] + sum_j a[j] * r[i+2-j], fused in
// the order of j.
TOVAD_FMA_CLONES float levinson_acc(const float* r, const float* a, uint32_t i) {
  float acc = r[i + 2];
  for (uint32_t j = 1; j <= i + 1; ++j) acc = std::fma(a[j], r[i + 2 - j], acc);
  return acc;
}

// In-place update of a[1 .. i] by the reflection k, fused as the recursion
// requires.
TOVAD_FMA_CLONES void levinson_update(float* a, float k, uint32_t i) {
  for (uint32_t j = 1; j <= (i >> 1); ++j) {
    const float u = a[j];
    const float v = a[i + 1 - j];
    a[j] = std::fma(k, v, u);
    a[i + 1 - j] = std::fma(k, u, v);
  }
  if (i & 1) {
    const uint32_t h = (i + 1) >> 1;
    a[h] = std::fma(k, a[h], a[h]);
  }
}

}  // namespace

Sad_Computer::Sad_Computer(Tovad_buff* mem, Tovad_fft* fft)
    : Computer(mem, fft), med_filter(new Median_Filter*[kOutputs]) {
  for (uint32_t i = 0; i < kOutputs; ++i) med_filter[i] = new Median_Filter(kMedianLength);
  reset();
}

Sad_Computer::~Sad_Computer() {
  for (uint32_t i = 0; i < kOutputs; ++i) delete med_filter[i];
  delete[] med_filter;
}

void Sad_Computer::reset() {
  for (uint32_t i = 0; i < kOutputs; ++i) med_filter[i]->reset();
}

uint32_t Sad_Computer::compute_feats(float* out) {
  const float* corr = compute_corr();
  compute_harm_clarity(corr, out);
  compute_lperr(corr, out + 2);
  compute_hps(out + 3);
  for (uint32_t i = 0; i < kOutputs; ++i) out[i] = med_filter[i]->insert(out[i]);
  return kOutputs;
}

const float* Sad_Computer::compute_corr() {
  // The inverse transform of the power spectrum is the circular
  // autocorrelation of the windowed frame; r[0] is its energy.
  const float* fft_bins = mem->wave_fft;
  float* power = mem->fft_in;
  for (uint32_t k = 0; k < kBins; ++k) {
    power[2 * k] = fft_bins[2 * k] * fft_bins[2 * k] + fft_bins[2 * k + 1] * fft_bins[2 * k + 1];
    power[2 * k + 1] = 0.0f;
  }
  float* r = mem->general_buff + 32;
  fft->ifft(r, power, 512);
  return r;
}

void Sad_Computer::compute_harm_clarity(const float* r, float* out) {
  // d[j] = 0.8 sqrt(2 |r0 - r_L|): a magnitude difference function of the
  // lag, from the autocorrelation.
  float* d = mem->fft_in;
  const float r0 = r[0];
  float rmax = r[kLastLag];
  for (uint32_t j = 0; j < kLags; ++j) {
    const float rl = r[kMinLag + j];
    d[j] = 2.0f * std::fabs(r0 - rl);
    if (rl > rmax) rmax = rl;
  }
  for (uint32_t j = 0; j < kLags; ++j) d[j] = static_cast<float>(0.8 * fast_sqrt(d[j]));
  const float last = static_cast<float>(0.8 * fast_sqrt(2.0f * std::fabs(r0 - r[kLastLag])));
  float dmax = last;
  float dmin = last;
  for (uint32_t j = 0; j < kLags; ++j) {
    dmax = d[j] > dmax ? d[j] : dmax;
    dmin = d[j] < dmin ? d[j] : dmin;
  }
  // Base-10 logarithm with no factor 10; the magnitude and the 1e-08 keep it
  // finite when r0 - rmax is zero or negative.  The ratio is taken in double.
  const double ratio = std::fabs(rmax / (r0 - rmax + 1e-08));
  out[0] = static_cast<float>(fast_log2(static_cast<float>(ratio)) * 0.30103);
  out[1] = static_cast<float>(1.0 - dmin / (dmax + 1e-08));
}

void Sad_Computer::compute_lperr(const float* r, float* out) {
  float* scaled = mem->general_buff;
  for (uint32_t n = 0; n <= kOrder; ++n) scaled[n] = static_cast<float>(r[n] / 480.0);
  const float e = LevinsonSolver_12points(scaled, mem->general_buff + 16);
  // The error comes from the autocorrelation divided by 480 and r[0] does
  // not: the gain is 480 times the prediction gain, which the trained
  // models expect.
  const float g = static_cast<float>(r[0] / (e + 1e-08) + 1e-08);
  out[0] = static_cast<float>(fast_log2(g) * 0.6931472);
}

float Sad_Computer::LevinsonSolver_12points(const float* r, float* a) {
  float e = r[0];
  float acc = r[1];
  for (uint32_t i = 0; i < kOrder; ++i) {
    // The reflection and the error go through double; k * k stays a float
    // product.  Silence makes both NaN, which ends as the 1e-08 below.
    const float k = static_cast<float>(-((1.0 / static_cast<double>(e)) * acc));
    e = static_cast<float>((1.0 - static_cast<double>(k * k)) * static_cast<double>(e));
    levinson_update(a, k, i);
    a[i + 1] = k;
    if (i < kOrder - 1) acc = levinson_acc(r, a, i);
  }
  a[0] = 1.0f;
  if (e < 0.0f) {
    fprintf(stderr,
            "Warning: Residual is %f and smaller than 0. this usually means input data is "
            "corrupted\n",
            static_cast<double>(e));
  }
  return e > 0.0f ? e : 1e-08f;
}

void Sad_Computer::compute_hps(float* out) {
  // Log power in decibels of the lowest 128 bins; a zero bin gives about
  // -382 from the approximation.
  const float* fft_bins = mem->wave_fft;
  float* p = mem->fft_out;
  for (uint32_t k = 0; k < kHpsBins; ++k) {
    const float power =
        fft_bins[2 * k] * fft_bins[2 * k] + fft_bins[2 * k + 1] * fft_bins[2 * k + 1];
    p[k] = static_cast<float>(fast_log2(power) * 0.30103 * 10.0);
  }
  // Eight harmonics of bases 2 .. 16 bins, read one bin low (h * b - 1).
  float best = -4194304.0f;
  for (uint32_t b = 2; b <= 16; ++b) {
    float s = 0.0f;
    for (uint32_t h = 1; h <= 8; ++h) s += p[h * b - 1];
    if (s > best) best = s;
  }
  out[0] = best;
}

}  // namespace Tovad_toolkit
