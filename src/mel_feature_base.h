#ifndef TOVAD_MEL_FEATURE_BASE_H_
#define TOVAD_MEL_FEATURE_BASE_H_

// Steps shared by the fbank and PCEN extractors: the 480-sample buffer, the
// 25 ms Hamming frame over its oldest 400 samples, the power spectrum, the
// triangular mel bank, the ten-row history and the regression deltas.

#include <cstdint>

#include "src/feature_extractor.h"
#include "src/tovad_fft.h"

namespace Tovad_toolkit {

class MelFeatureBase : public FeatureExtractor {
 public:
  ~MelFeatureBase() override;
  MelFeatureBase(const MelFeatureBase&) = delete;
  MelFeatureBase& operator=(const MelFeatureBase&) = delete;

  // Dimension of the block getFeats writes: banks x (delta order + 1).
  int32_t feature_dim() const { return final_feature_dim_; }

 protected:
  MelFeatureBase();  // allocates nothing; setup() does, once the values are checked

  // Prints the first failing check's message to stderr and aborts.
  static void check_dims(int32_t n_mel_banks, int32_t delta_order);
  // Allocates the per-frame arrays and copies `meanvar` (means, then
  // variance terms, final_feature_dim_ floats each).  The caller then fills
  // hamming_window_, runs initMelBankCoefficents and reset.
  void setup(int32_t n_mel_banks, int32_t delta_order, const float* meanvar);

  // Shifts in 160 new samples, unscaled, behind the newest 320.
  void appendWav(const int16_t* wav);
  // Windows the oldest 400 buffered samples, transforms them, shifts the
  // history up one row and writes the frame's mel energies into the last
  // row, which it returns.
  float* computeFrameMelEnergy();
  // Copies the newest history row over the nine older ones.
  void seedHistory();
  // Writes the deltas of the centre row to `feats` once the history holds
  // enough real frames; returns whether it wrote.
  bool writeDeltasIfReady(float* feats);
  void addDelta(float* out, const float* base);
  void computeMelBankEnergy(float* out, const float* power);
  static float melScale(float freq);
  // Triangles spaced `mel_spacing` apart on the mel scale over 31.25 Hz bins.
  void initMelBankCoefficents(float mel_spacing);
  // Energy in decibels of wav_buffer_[first .. first + 159].
  float bufferEnergy(int32_t first) const;
  void resetHistory();

  int32_t frame_cnt_;
  float* wav_buffer_;      // 3 x 160 samples, oldest first
  float* hamming_window_;  // 400 floats
  int32_t delta_order_;
  int32_t final_feature_dim_;
  float* feature_history_;  // n_feature_history_ rows of n_mel_banks_; the last is the newest
  float* mean_;
  float* var_;
  int32_t n_mel_banks_;
  float* mel_bank_coefficents_;  // all banks' weights end to end
  int32_t* mel_bank_width_;
  int32_t* mel_bank_fft_offset_;

  const int32_t fft_dim_;
  const int32_t n_feature_history_;
  const int32_t samples_per_window_;
  const int32_t samples_per_shift_;
  static const int32_t delta_scales_offsets_[4];
  static const float delta_scales_[15];

  Tovad_fft fft_client_;

 private:
  // Per-frame scratch, kept so that getFeats allocates nothing.
  float* frame_;     // fft_dim_ + 2: the windowed frame, zero-padded
  float* spectrum_;  // fft_dim_ + 2: fft_dim_/2 + 1 complex bins
  float* power_;     // fft_dim_/2 + 1
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_MEL_FEATURE_BASE_H_
