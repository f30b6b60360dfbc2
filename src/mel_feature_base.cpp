#include "src/mel_feature_base.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "src/tovad_fast_math.h"

namespace Tovad_toolkit {
namespace {

// dst[k] += scale * row[k], fused.
TOVAD_FMA_CLONES void fma_row(float* dst, float scale, const float* row, int32_t n) {
  for (int32_t k = 0; k < n; ++k) dst[k] = std::fma(scale, row[k], dst[k]);
}

// out[b] = sum of weights[j] * power[offset[b] + j] over the bank's width,
// fused, in bin order from 0.  Each bank's order is fixed, so speed comes
// from running four banks' chains side by side while all four have bins.
TOVAD_FMA_CLONES void mel_dot(float* out, const float* weights, const float* power,
                              const int32_t* offset, const int32_t* width, int32_t banks) {
  int32_t b = 0;
  for (; b + 4 <= banks; b += 4) {
    const float* w[4];
    const float* p[4];
    float sum[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    int32_t common = width[b];
    for (int32_t l = 0; l < 4; ++l) {
      w[l] = weights;
      p[l] = power + (offset[b + l] < 0 ? 0 : offset[b + l]);  // an empty bank has weight 0
      weights += width[b + l];
      if (width[b + l] < common) common = width[b + l];
    }
    for (int32_t j = 0; j < common; ++j) {
      for (int32_t l = 0; l < 4; ++l) sum[l] = std::fma(w[l][j], p[l][j], sum[l]);
    }
    for (int32_t l = 0; l < 4; ++l) {
      for (int32_t j = common; j < width[b + l]; ++j) sum[l] = std::fma(w[l][j], p[l][j], sum[l]);
      out[b + l] = sum[l];
    }
  }
  for (; b < banks; ++b) {
    float sum = 0.0f;
    const float* p = power + (offset[b] < 0 ? 0 : offset[b]);
    for (int32_t j = 0; j < width[b]; ++j) sum = std::fma(weights[j], p[j], sum);
    out[b] = sum;
    weights += width[b];
  }
}

}  // namespace

// Three windows end to end: identity, the regression delta over +-2 frames,
// and that delta convolved with itself over +-4 frames.
const int32_t MelFeatureBase::delta_scales_offsets_[4] = {0, 1, 6, 15};
const float MelFeatureBase::delta_scales_[15] = {1.0f,                                // order 0
                                                 -0.2f,  -0.1f, 0.0f,  0.1f,   0.2f,  // order 1
                                                 0.04f,  0.04f, 0.01f, -0.04f, -0.1f,
                                                 -0.04f, 0.01f, 0.04f, 0.04f};  // order 2

MelFeatureBase::MelFeatureBase()
    : frame_cnt_(0),
      wav_buffer_(nullptr),
      hamming_window_(nullptr),
      delta_order_(0),
      final_feature_dim_(0),
      feature_history_(nullptr),
      mean_(nullptr),
      var_(nullptr),
      n_mel_banks_(0),
      mel_bank_coefficents_(nullptr),
      mel_bank_width_(nullptr),
      mel_bank_fft_offset_(nullptr),
      fft_dim_(512),
      n_feature_history_(10),
      samples_per_window_(400),
      samples_per_shift_(160),
      frame_(nullptr),
      spectrum_(nullptr),
      power_(nullptr) {}

MelFeatureBase::~MelFeatureBase() {
  delete[] wav_buffer_;
  delete[] hamming_window_;
  delete[] feature_history_;
  delete[] mean_;
  delete[] var_;
  delete[] mel_bank_coefficents_;
  delete[] mel_bank_width_;
  delete[] mel_bank_fft_offset_;
  delete[] frame_;
  delete[] spectrum_;
  delete[] power_;
}

void MelFeatureBase::check_dims(int32_t n_mel_banks, int32_t delta_order) {
  if (n_mel_banks != 40 && n_mel_banks != 80) {
    fprintf(stderr, "错误: fbank的特征维度只能为40或者80, 输入的维度为%d\n", n_mel_banks);
    abort();
  }
  // Taken as unsigned, so a negative order fails as well.
  if (static_cast<uint32_t>(delta_order) >= 3) {
    fprintf(stderr, "错误: delta_order的值只能为0、1、2中的一个, 输入的值为%d\n", delta_order);
    abort();
  }
}

void MelFeatureBase::setup(int32_t n_mel_banks, int32_t delta_order, const float* meanvar) {
  n_mel_banks_ = n_mel_banks;
  delta_order_ = delta_order;
  final_feature_dim_ = n_mel_banks_ * (delta_order_ + 1);
  feature_history_ = new float[n_feature_history_ * n_mel_banks_];
  wav_buffer_ = new float[3 * samples_per_shift_];
  mean_ = new float[final_feature_dim_];
  var_ = new float[final_feature_dim_];
  std::memcpy(mean_, meanvar, final_feature_dim_ * sizeof(float));
  std::memcpy(var_, meanvar + final_feature_dim_, final_feature_dim_ * sizeof(float));
  hamming_window_ = new float[samples_per_window_];
  mel_bank_width_ = new int32_t[n_mel_banks_];
  mel_bank_fft_offset_ = new int32_t[n_mel_banks_];
  frame_ = new float[fft_dim_ + 2];
  spectrum_ = new float[fft_dim_ + 2];
  power_ = new float[fft_dim_ / 2 + 1];
}

void MelFeatureBase::appendWav(const int16_t* wav) {
  std::memmove(wav_buffer_, wav_buffer_ + samples_per_shift_,
               2 * samples_per_shift_ * sizeof(float));
  float* newest = wav_buffer_ + 2 * samples_per_shift_;
  for (int32_t i = 0; i < samples_per_shift_; ++i) newest[i] = static_cast<float>(wav[i]);
}

float* MelFeatureBase::computeFrameMelEnergy() {
  // The window covers the oldest 400 of the 480 samples; the newest 80 wait
  // for the next frame.
  for (int32_t i = 0; i < samples_per_window_; ++i) frame_[i] = wav_buffer_[i] * hamming_window_[i];
  for (int32_t i = samples_per_window_; i < fft_dim_ + 2; ++i) frame_[i] = 0.0f;
  fft_client_.fft(spectrum_, frame_, fft_dim_);
  for (int32_t k = 0; k < fft_dim_ / 2; ++k) {
    const float re = spectrum_[2 * k];
    const float im = spectrum_[2 * k + 1];
    power_[k] = re * re + im * im;
  }
  std::memmove(feature_history_, feature_history_ + n_mel_banks_,
               (n_feature_history_ - 1) * n_mel_banks_ * sizeof(float));
  float* row = feature_history_ + (n_feature_history_ - 1) * n_mel_banks_;
  computeMelBankEnergy(row, power_);
  return row;
}

void MelFeatureBase::seedHistory() {
  const float* row = feature_history_ + (n_feature_history_ - 1) * n_mel_banks_;
  for (int32_t r = 0; r < n_feature_history_ - 1; ++r) {
    std::memcpy(feature_history_ + r * n_mel_banks_, row, n_mel_banks_ * sizeof(float));
  }
}

bool MelFeatureBase::writeDeltasIfReady(float* feats) {
  if (frame_cnt_ <= 2 * (delta_order_ + 1)) return false;
  // The window of the highest order ends at the newest row, so the centre
  // row is 2 x delta_order_ frames old.
  addDelta(feats, feature_history_ + (n_feature_history_ - 4 * delta_order_ - 1) * n_mel_banks_);
  return true;
}

void MelFeatureBase::addDelta(float* out, const float* base) {
  const int32_t n = n_mel_banks_;
  const float* centre = base + 2 * delta_order_ * n;
  std::memset(out, 0, final_feature_dim_ * sizeof(float));
  for (int32_t o = 0; o <= delta_order_; ++o) {
    const float* scales = delta_scales_ + delta_scales_offsets_[o];
    const int32_t half = (delta_scales_offsets_[o + 1] - delta_scales_offsets_[o] - 1) / 2;
    float* dst = out + o * n;
    for (int32_t j = -half; j <= half; ++j) {
      fma_row(dst, scales[j + half], centre + j * n, n);
    }
  }
}

void MelFeatureBase::computeMelBankEnergy(float* out, const float* power) {
  mel_dot(out, mel_bank_coefficents_, power, mel_bank_fft_offset_, mel_bank_width_, n_mel_banks_);
}

float MelFeatureBase::melScale(float freq) { return 1127.0f * std::log(1.0f + freq / 700.0f); }

void MelFeatureBase::initMelBankCoefficents(float mel_spacing) {
  const int32_t n_bins = fft_dim_ / 2;  // bin 256 (Nyquist) takes no part
  const float bin_width = 16000.0f / fft_dim_;

  // Weight of bin i in bank b; 0 outside the open triangle.
  auto weight = [&](int32_t b, int32_t i) {
    const float left = b * mel_spacing;
    const float center = (b + 1) * mel_spacing;
    const float right = (b + 2) * mel_spacing;
    const float m = melScale(i * bin_width);
    if (!(m > left && m < right)) return 0.0f;
    return m <= center ? (m - left) / (center - left) : (right - m) / (right - center);
  };
  auto in_bank = [&](int32_t b, int32_t i) {
    const float m = melScale(i * bin_width);
    return m > b * mel_spacing && m < (b + 2) * mel_spacing;
  };

  int32_t total = 0;
  for (int32_t b = 0; b < n_mel_banks_; ++b) {
    int32_t first = -1;
    int32_t last = -1;
    for (int32_t i = 0; i < n_bins; ++i) {
      if (!in_bank(b, i)) continue;
      if (first < 0) first = i;
      last = i;
    }
    mel_bank_fft_offset_[b] = first;
    mel_bank_width_[b] = first < 0 ? 1 : last - first + 1;
    total += mel_bank_width_[b];
  }

  delete[] mel_bank_coefficents_;
  mel_bank_coefficents_ = new float[total];
  float* dst = mel_bank_coefficents_;
  for (int32_t b = 0; b < n_mel_banks_; ++b) {
    for (int32_t j = 0; j < mel_bank_width_[b]; ++j) {
      dst[j] = mel_bank_fft_offset_[b] < 0 ? 0.0f : weight(b, mel_bank_fft_offset_[b] + j);
    }
    dst += mel_bank_width_[b];
  }
}

float MelFeatureBase::bufferEnergy(int32_t first) const {
  float sum = 0.0f;
  for (int32_t i = first; i < first + samples_per_shift_; ++i)
    sum += wav_buffer_[i] * wav_buffer_[i];
  // The same scale as the frame buffer's energy although these samples are
  // not scaled to [-1, 1): the level reads 2^30 higher, as the models expect.
  const float power = sum * 41943.04f;
  if (power < 1.0f) return 0.0f;
  return fast_log2(power) * 0.30103 * 10.0;
}

void MelFeatureBase::resetHistory() {
  frame_cnt_ = 0;
  std::memset(feature_history_, 0, n_feature_history_ * n_mel_banks_ * sizeof(float));
  std::memset(wav_buffer_, 0, 3 * samples_per_shift_ * sizeof(float));
}

}  // namespace Tovad_toolkit
