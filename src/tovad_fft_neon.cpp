// Transform workers of Tovad_fft: mixed-radix decimation in time on the
// complex half-length sequence, then the split into the real spectrum.
//
// Inside, values are kept split (all real parts, then all imaginary parts)
// so that each butterfly works on four transforms or four bins at once with
// plain vector arithmetic.  The vector type is the GCC/Clang extension, so
// the same source compiles to SSE, NEON or scalar code.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "src/tovad_fft.h"

namespace Tovad_toolkit {
namespace {

typedef float v4f __attribute__((vector_size(16)));

inline v4f load4(const float* p) {
  v4f v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline void store4(float* p, v4f v) { std::memcpy(p, &v, sizeof v); }

inline v4f reverse4(v4f a) { return __builtin_shufflevector(a, a, 3, 2, 1, 0); }

// Four complex values, split.
struct cv4 {
  v4f r;
  v4f i;
};

inline cv4 operator+(cv4 a, cv4 b) { return {a.r + b.r, a.i + b.i}; }
inline cv4 operator-(cv4 a, cv4 b) { return {a.r - b.r, a.i - b.i}; }

// a * w, or a * conj(w) for the inverse.
template <bool kInverse>
inline cv4 twiddle(cv4 a, cv4 w) {
  if (kInverse) return {a.r * w.r + a.i * w.i, a.i * w.r - a.r * w.i};
  return {a.r * w.r - a.i * w.i, a.i * w.r + a.r * w.i};
}

// Four interleaved complex values (8 floats) to split form, and back.
inline cv4 load_interleaved(const float* p) {
  const v4f a = load4(p);
  const v4f b = load4(p + 4);
  return {__builtin_shufflevector(a, b, 0, 2, 4, 6), __builtin_shufflevector(a, b, 1, 3, 5, 7)};
}

inline void store_interleaved(float* p, cv4 c) {
  store4(p, __builtin_shufflevector(c.r, c.i, 0, 4, 1, 5));
  store4(p + 4, __builtin_shufflevector(c.r, c.i, 2, 6, 3, 7));
}

inline cv4 load_split(const float* re, const float* im, int32_t k) {
  return {load4(re + k), load4(im + k)};
}

inline void store_split(float* re, float* im, int32_t k, cv4 c) {
  store4(re + k, c.r);
  store4(im + k, c.i);
}

inline void transpose4(v4f& a, v4f& b, v4f& c, v4f& d) {
  const v4f t0 = __builtin_shufflevector(a, b, 0, 4, 1, 5);
  const v4f t1 = __builtin_shufflevector(a, b, 2, 6, 3, 7);
  const v4f t2 = __builtin_shufflevector(c, d, 0, 4, 1, 5);
  const v4f t3 = __builtin_shufflevector(c, d, 2, 6, 3, 7);
  a = __builtin_shufflevector(t0, t2, 0, 1, 4, 5);
  b = __builtin_shufflevector(t0, t2, 2, 3, 6, 7);
  c = __builtin_shufflevector(t1, t3, 0, 1, 4, 5);
  d = __builtin_shufflevector(t1, t3, 2, 3, 6, 7);
}

// In-place 4-point DFT, outputs in natural order.
template <bool kInverse>
inline void butterfly4(cv4& a0, cv4& a1, cv4& a2, cv4& a3) {
  const cv4 b0 = a0 + a2;
  const cv4 b1 = a0 - a2;
  const cv4 b2 = a1 + a3;
  const cv4 b3 = a1 - a3;
  a0 = b0 + b2;
  a2 = b0 - b2;
  // b1 -/+ i*b3
  if (kInverse) {
    a1 = {b1.r - b3.i, b1.i + b3.r};
    a3 = {b1.r + b3.i, b1.i - b3.r};
  } else {
    a1 = {b1.r + b3.i, b1.i - b3.r};
    a3 = {b1.r - b3.i, b1.i + b3.r};
  }
}

// In-place 8-point DFT: two 4-point DFTs joined by the eighth roots of unity,
// whose only constant is sqrt(1/2) (0x3F3504F3).
template <bool kInverse>
inline void butterfly8(cv4* a) {
  const float kHalfSqrt2 = 0.707106769084930419921875f;
  cv4 e0 = a[0], e1 = a[2], e2 = a[4], e3 = a[6];
  cv4 o0 = a[1], o1 = a[3], o2 = a[5], o3 = a[7];
  butterfly4<kInverse>(e0, e1, e2, e3);
  butterfly4<kInverse>(o0, o1, o2, o3);
  if (kInverse) {
    o1 = {(o1.r - o1.i) * kHalfSqrt2, (o1.r + o1.i) * kHalfSqrt2};
    o2 = {-o2.i, o2.r};
    o3 = {(-o3.r - o3.i) * kHalfSqrt2, (o3.r - o3.i) * kHalfSqrt2};
  } else {
    o1 = {(o1.r + o1.i) * kHalfSqrt2, (o1.i - o1.r) * kHalfSqrt2};
    o2 = {o2.i, -o2.r};
    o3 = {(o3.i - o3.r) * kHalfSqrt2, (-o3.r - o3.i) * kHalfSqrt2};
  }
  a[0] = e0 + o0;
  a[4] = e0 - o0;
  a[1] = e1 + o1;
  a[5] = e1 - o1;
  a[2] = e2 + o2;
  a[6] = e2 - o2;
  a[3] = e3 + o3;
  a[7] = e3 - o3;
}

// First stage, radix P and no twiddles: Y[r][q] = sum_t W_P^(t*q) z[r + R*t],
// stored at r*P + q.  Four values of r at a time, so the results are
// transposed on the way out.  `src_re`/`src_im` is the split input, or, if
// `src_im` is null, `src_re` holds interleaved complex input.
template <int P, bool kInverse>
void first_stage(float* dst_re, float* dst_im, const float* src_re, const float* src_im,
                 int32_t R) {
  for (int32_t r = 0; r < R; r += 4) {
    cv4 a[P];
    for (int t = 0; t < P; ++t) {
      const int32_t idx = r + R * t;
      a[t] = src_im ? load_split(src_re, src_im, idx) : load_interleaved(src_re + 2 * idx);
    }
    if (P == 8) {
      butterfly8<kInverse>(a);
    } else {
      butterfly4<kInverse>(a[0], a[1], a[2], a[3]);
    }
    for (int h = 0; h < P; h += 4) {
      transpose4(a[h].r, a[h + 1].r, a[h + 2].r, a[h + 3].r);
      transpose4(a[h].i, a[h + 1].i, a[h + 2].i, a[h + 3].i);
      for (int l = 0; l < 4; ++l) store_split(dst_re, dst_im, (r + l) * P + h, a[h + l]);
    }
  }
}

// Radix-4 stage joining sub-transforms of length m:
// Y'[r][k + m*q] = sum_t W_4^(t*q) (W_4m^(t*k) Y[r + R*t][k]), Y[r][k] at
// r*m + k and Y'[r][k] at r*4m + k.  With kToOutput (last inverse stage),
// the results are scaled and written interleaved to `out` instead.
template <bool kInverse, bool kToOutput>
void radix4_stage(float* dst_re, float* dst_im, const float* src_re, const float* src_im,
                  const ne10_fft_cpx_float32_t* tw, int32_t m, int32_t R, float* out, float scale) {
  const float* twf = reinterpret_cast<const float*>(tw);
  for (int32_t k = 0; k < m; k += 4) {
    const cv4 w1 = load_interleaved(twf + 2 * k);
    const cv4 w2 = load_interleaved(twf + 2 * (m + k));
    const cv4 w3 = load_interleaved(twf + 2 * (2 * m + k));
    for (int32_t r = 0; r < R; ++r) {
      cv4 a0 = load_split(src_re, src_im, r * m + k);
      cv4 a1 = twiddle<kInverse>(load_split(src_re, src_im, (r + R) * m + k), w1);
      cv4 a2 = twiddle<kInverse>(load_split(src_re, src_im, (r + 2 * R) * m + k), w2);
      cv4 a3 = twiddle<kInverse>(load_split(src_re, src_im, (r + 3 * R) * m + k), w3);
      butterfly4<kInverse>(a0, a1, a2, a3);
      const int32_t base = r * 4 * m + k;
      if (kToOutput) {
        const v4f s = {scale, scale, scale, scale};
        store_interleaved(out + 2 * base, {a0.r * s, a0.i * s});
        store_interleaved(out + 2 * (base + m), {a1.r * s, a1.i * s});
        store_interleaved(out + 2 * (base + 2 * m), {a2.r * s, a2.i * s});
        store_interleaved(out + 2 * (base + 3 * m), {a3.r * s, a3.i * s});
      } else {
        store_split(dst_re, dst_im, base, a0);
        store_split(dst_re, dst_im, base + m, a1);
        store_split(dst_re, dst_im, base + 2 * m, a2);
        store_split(dst_re, dst_im, base + 3 * m, a3);
      }
    }
  }
}

// Complex FFT of ncfft points from `src` (interleaved if `src_im` is null) by
// the factor list.  The scratch holds two split work areas of ncfft complex
// values each; they take turns as source and destination.  Returns the area
// holding the result, or, when `out` is given (inverse), writes the last
// stage there, scaled, interleaved.
template <bool kInverse>
float* complex_fft(float* scratch, const float* src_re, const float* src_im,
                   const ne10_fft_r2c_state_float32_t* cfg, float* out) {
  const int32_t M = cfg->ncfft;
  const ne10_int32_t* factors = cfg->factors;
  const int32_t stages = factors[0];
  const int32_t fstride = factors[1];
  const int32_t first_radix = factors[2 * stages];
  float* area[2] = {scratch, scratch + 2 * M};

  if (first_radix == 8) {
    first_stage<8, kInverse>(area[0], area[0] + M, src_re, src_im, fstride);
  } else {
    first_stage<4, kInverse>(area[0], area[0] + M, src_re, src_im, fstride);
  }
  const float scale = 1.0f / static_cast<float>(fstride * first_radix);  // 1/M, exact

  int cur = 0;
  const ne10_fft_cpx_float32_t* tw = cfg->twiddles;
  for (int32_t s = stages - 1; s >= 1; --s) {
    // The lists use radix 4 after the first stage.
    const int32_t m = factors[2 * s + 1];
    const int32_t R = M / (4 * m);
    float* dst = area[cur ^ 1];
    if (s == 1 && out != nullptr) {
      radix4_stage<kInverse, true>(dst, dst + M, area[cur], area[cur] + M, tw, m, R, out, scale);
    } else {
      radix4_stage<kInverse, false>(dst, dst + M, area[cur], area[cur] + M, tw, m, R, out, scale);
    }
    tw += 3 * m;
    cur ^= 1;
  }
  return area[cur];
}

void bad_first_radix(const char* fmt, int line) {
  fprintf(stderr, fmt, "src/tovad_fft_neon", line);
  abort();
}

// Real forward FFT of 2*ncfft samples into ncfft + 1 complex bins.
void ne10_fft_r2c_1d_float32_neon(ne10_fft_cpx_float32_t* fout, float* fin,
                                  ne10_fft_r2c_state_float32_t* cfg) {
  const ne10_int32_t first_radix = cfg->factors[2 * cfg->factors[0]];
  if (first_radix != 8 && first_radix != 4) {
    bad_first_radix("%s:%d ERROR: only support fft length at 2^n\n", 843);
  }
  const int32_t M = cfg->ncfft;
  float* out = reinterpret_cast<float*>(fout);
  // z[n] = x[2n] + i*x[2n+1], read straight from the interleaved input.
  const float* z =
      complex_fft<false>(reinterpret_cast<float*>(cfg->buffer), fin, nullptr, cfg, nullptr);
  const float* zr = z;
  const float* zi = z + M;

  out[0] = zr[0] + zi[0];
  out[1] = 0.0f;
  out[2 * M] = zr[0] - zi[0];
  out[2 * M + 1] = 0.0f;

  // X[k] = (f1 + tw*f2)/2 and X[M-k] = conj(f1 - tw*f2)/2 with
  // f1 = Z[k] + conj(Z[M-k]), f2 = Z[k] - conj(Z[M-k]); four bins at a time,
  // and bin M/2 is met from both sides with the same value.
  const float* stw = reinterpret_cast<const float*>(cfg->super_twiddles);
  const v4f half = {0.5f, 0.5f, 0.5f, 0.5f};
  for (int32_t k = 1; k + 3 <= M / 2; k += 4) {
    const cv4 a = load_split(zr, zi, k);
    const cv4 b = {reverse4(load4(zr + M - k - 3)), reverse4(load4(zi + M - k - 3))};
    const cv4 f1 = {a.r + b.r, a.i - b.i};
    const cv4 f2 = {a.r - b.r, a.i + b.i};
    const cv4 t = twiddle<false>(f2, load_interleaved(stw + 2 * (k - 1)));
    store_interleaved(out + 2 * k, {half * (f1.r + t.r), half * (f1.i + t.i)});
    store_interleaved(out + 2 * (M - k - 3),
                      {reverse4(half * (f1.r - t.r)), reverse4(half * (t.i - f1.i))});
  }
}

// Real inverse FFT of ncfft + 1 complex bins into 2*ncfft samples.
void ne10_fft_c2r_1d_float32_neon(float* fout, ne10_fft_cpx_float32_t* fin,
                                  ne10_fft_r2c_state_float32_t* cfg) {
  const ne10_int32_t first_radix = cfg->factors[2 * cfg->factors[0]];
  if (first_radix != 8 && first_radix != 4) {
    bad_first_radix("%s:%d ERROR: only support ifft length at 2^n\n", 933);
  }
  const int32_t M = cfg->ncfft;
  const float* in = reinterpret_cast<const float*>(fin);
  float* scratch = reinterpret_cast<float*>(cfg->buffer);
  // The split is written to the second work area, which the first stage
  // reads while it writes the first.
  float* zr = scratch + 2 * M;
  float* zi = zr + M;

  zr[0] = 0.5f * (in[0] + in[2 * M]);
  zi[0] = 0.5f * (in[0] - in[2 * M]);
  // Z[k] = (f1 + conj(tw)*f2)/2, Z[M-k] = conj(f1 - conj(tw)*f2)/2 with
  // f1 = X[k] + conj(X[M-k]), f2 = X[k] - conj(X[M-k]).
  const float* stw = reinterpret_cast<const float*>(cfg->super_twiddles);
  const v4f half = {0.5f, 0.5f, 0.5f, 0.5f};
  for (int32_t k = 1; k + 3 <= M / 2; k += 4) {
    const cv4 a = load_interleaved(in + 2 * k);
    cv4 b = load_interleaved(in + 2 * (M - k - 3));
    b = {reverse4(b.r), reverse4(b.i)};
    const cv4 f1 = {a.r + b.r, a.i - b.i};
    const cv4 f2 = {a.r - b.r, a.i + b.i};
    const cv4 t = twiddle<true>(f2, load_interleaved(stw + 2 * (k - 1)));
    store_split(zr, zi, k, {half * (f1.r + t.r), half * (f1.i + t.i)});
    store_split(zr, zi, M - k - 3, {reverse4(half * (f1.r - t.r)), reverse4(half * (t.i - f1.i))});
  }

  complex_fft<true>(scratch, zr, zi, cfg, fout);
}

}  // namespace

void Tovad_fft::fft(float* out, float* in, int32_t n) {
  ne10_fft_r2c_cfg_float32_t cfg = plan_for(n);
  if (cfg == nullptr) return;  // not one of the five lengths: leave `out` alone
  ne10_fft_r2c_1d_float32_neon(reinterpret_cast<ne10_fft_cpx_float32_t*>(out), in, cfg);
}

void Tovad_fft::ifft(float* out, float* in, int32_t n) {
  ne10_fft_r2c_cfg_float32_t cfg = plan_for(n);
  if (cfg == nullptr) return;
  ne10_fft_c2r_1d_float32_neon(out, reinterpret_cast<ne10_fft_cpx_float32_t*>(in), cfg);
}

}  // namespace Tovad_toolkit
