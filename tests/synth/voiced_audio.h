#ifndef TESTS_SYNTH_VOICED_AUDIO_H_
#define TESTS_SYNTH_VOICED_AUDIO_H_

// An endless 16 kHz stream of voice-like stretches and pauses, generated
// block by block so that hours of it need no memory: low-level noise
// everywhere, and in voiced stretches a tone with four harmonics, a
// wandering pitch and a syllable-rate envelope.  Stretch lengths (0.5 to
// 3 s of voice, 0.3 to 4 s of pause) come from the seed, so a seed always
// gives the same samples.  Also plain Gaussian noise.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace tovad_synth {

class VoicedAudio {
 public:
  explicit VoicedAudio(uint64_t seed) : state_(seed * 2654435761u + 1) { NextStretch(); }

  // The next `n` samples voiced or not, for voice at chosen places.
  void Force(bool voiced, int64_t n) {
    voiced_ = voiced;
    left_ = n;
    pos_ = 0;
  }

  void Fill(int16_t* out, int64_t n) {
    for (int64_t i = 0; i < n; ++i) {
      if (left_ == 0) NextStretch();
      --left_;
      double v = 30.0 * std::sqrt(-2.0 * std::log(Uniform())) * std::cos(2 * M_PI * Uniform());
      if (voiced_) {
        const double t = static_cast<double>(pos_++) / 16000.0;
        phase_ += 2 * M_PI * (pitch_ + 40.0 * std::sin(2 * M_PI * 1.5 * t)) / 16000.0;
        if (phase_ > 2 * M_PI) phase_ -= 2 * M_PI;
        const double env = 0.6 + 0.4 * std::sin(2 * M_PI * 4.0 * t);
        v += 3000.0 * env *
             (std::sin(phase_) + 0.6 * std::sin(2 * phase_) + 0.4 * std::sin(3 * phase_) +
              0.2 * std::sin(4 * phase_));
      }
      out[i] = static_cast<int16_t>(std::lround(v));
    }
  }

 private:
  double Uniform() {
    state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
    return ((state_ >> 11) + 0.5) / 9007199254740992.0;
  }

  void NextStretch() {
    voiced_ = !voiced_;
    const double seconds = voiced_ ? 0.5 + 2.5 * Uniform() : 0.3 + 3.7 * Uniform();
    left_ = static_cast<int64_t>(seconds * 16000.0);
    pitch_ = 120.0 + 120.0 * Uniform();
    pos_ = 0;
  }

  uint64_t state_;
  bool voiced_ = true;  // flipped to a pause by the first stretch
  int64_t left_ = 0;
  int64_t pos_ = 0;
  double pitch_ = 150.0;
  double phase_ = 0.0;
};

// `n` samples of Gaussian noise of deviation `sigma`, clipped to 16 bits.
inline std::vector<int16_t> GaussianNoise(size_t n, uint32_t seed, float sigma) {
  std::mt19937 gen(seed);
  std::normal_distribution<float> dist(0.0f, sigma);
  std::vector<int16_t> pcm(n);
  for (int16_t& s : pcm)
    s = static_cast<int16_t>(std::max(-32768.0f, std::min(32767.0f, dist(gen))));
  return pcm;
}

}  // namespace tovad_synth

#endif  // TESTS_SYNTH_VOICED_AUDIO_H_
