#include "src/tovad_feature_extractor.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "src/tovad_fast_math.h"

namespace Tovad_toolkit {

namespace {

const char kSource[] = "src/tovad_feature_extractor";
const uint32_t kDeltaRows = 10;

// out[i] = 10 * x[i] - (sum of column i over the 10 rows, in row order),
// the difference fused.
TOVAD_FMA_CLONES void running_difference(float* out, const float* x, const float* rows,
                                         uint32_t stride, uint32_t dim) {
  for (uint32_t i = 0; i < dim; ++i) {
    float s = 0.0f;
    for (uint32_t r = 0; r < kDeltaRows; ++r) s += rows[r * stride + i];
    out[i] = std::fma(x[i], 10.0f, -s);
  }
}

}  // namespace

const uint32_t Tovad_feature_extractor::n_static;
const uint32_t Tovad_feature_extractor::n_feats;

Tovad_feature_extractor::Tovad_feature_extractor(int dynamic_mean_capacity)
    : Tovad_feature_extractor(nullptr, 0, dynamic_mean_capacity, nullptr) {}

Tovad_feature_extractor::Tovad_feature_extractor(const float* meanvar_table, int dim,
                                                 int dynamic_mean_capacity,
                                                 const float* mfcc_mean)
    : mem(new Tovad_buff()),
      fft(new Tovad_fft()),
      delta_buff(nullptr),
      delta_buff_idx(0),
      delta_buff_capacity(0),
      delta_buff_byte_size(0),
      meanvar(nullptr),
      max_dim(0),
      mfcc_computer(new Mfcc_Computer(mem, fft)),
      sad_computer(new Sad_Computer(mem, fft)) {
  if (dynamic_mean_capacity > 0) mfcc_computer->enable_dynamic_mean(dynamic_mean_capacity, mfcc_mean);
  if (meanvar_table != nullptr) {
    max_dim = static_cast<uint32_t>(dim);
    meanvar = new float[2 * static_cast<size_t>(max_dim)];
    memcpy(meanvar, meanvar_table, 2 * static_cast<size_t>(max_dim) * sizeof(float));
  }
}

Tovad_feature_extractor::~Tovad_feature_extractor() {
  delete mfcc_computer;
  delete sad_computer;
  delete[] delta_buff;
  delete[] meanvar;
  delete fft;
  delete mem;
}

void Tovad_feature_extractor::getFeats(const int16_t* wav, float* feats) {
  // A table of another size is found at the first frame.  Checked before
  // anything is written, so a caller that sized its buffer by the table
  // is not overrun first.
  if (meanvar != nullptr && max_dim != n_feats) {
    fprintf(stderr, "%s:%d :%s%d%s%d", kSource, 29, "ERROR: internal dim is ",
            static_cast<int>(n_feats), ", but meanvar dim is ", static_cast<int>(max_dim));
    abort();
  }
  // Both computers read the spectrum of this frame.
  mem->append_wave_frame(wav);
  mfcc_computer->compute_feats(feats);
  sad_computer->compute_feats(feats + 12);
  if (delta_buff == nullptr) {
    delta_buff_capacity = kDeltaRows;
    delta_buff_byte_size = kDeltaRows * 2 * n_static * sizeof(float);
    delta_buff = new float[kDeltaRows * 2 * n_static];
    reset_delta_buff();
  }
  apply_unname_delta2(feats, n_static);
  if (meanvar == nullptr) return;
  apply_meanvar(feats);
}

void Tovad_feature_extractor::apply_unname_delta2(float* feats, int dim) {
  // Ten times the value minus the sum of the ten frames before, with no
  // division: the ring starts at zero, so the first ten frames give inflated
  // differences, as the trained models saw them.
  const uint32_t n = static_cast<uint32_t>(dim);
  running_difference(feats + n, feats, delta_buff, 2 * n, n);
  running_difference(feats + 2 * n, feats + n, delta_buff + n, 2 * n, n);
  memcpy(delta_buff + delta_buff_idx * 2 * n, feats, 2 * n * sizeof(float));
  delta_buff_idx = (delta_buff_idx + 1) % delta_buff_capacity;
}

void Tovad_feature_extractor::apply_meanvar(float* feats) {
  for (uint32_t i = 0; i < max_dim; ++i) feats[i] += meanvar[i];
  for (uint32_t i = 0; i < max_dim; ++i) feats[i] *= meanvar[max_dim + i];
}

float Tovad_feature_extractor::get_energy_of_current_frame() {
  return mem->get_energy_of_current_frame();
}

void Tovad_feature_extractor::reset_delta_buff() {
  memset(delta_buff, 0, delta_buff_byte_size);
  delta_buff_idx = 0;
}

void Tovad_feature_extractor::reset() {
  mfcc_computer->reset();
  sad_computer->reset();
  mem->reset();
  if (delta_buff != nullptr) reset_delta_buff();
}

}  // namespace Tovad_toolkit
