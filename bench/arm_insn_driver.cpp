// Runs the matrix kernels once each at the bundled nets' shapes, every call
// between InsnRegionBegin() and InsnRegionEnd(), so that an instruction
// trace of the emulator can count what one call executes
// (bench/arm_insn_count.sh).  Each shape runs through the library's entry
// point, as the layers call it, and through the plain loop of
// arm_insn_reference.cpp.  One warm-up call of each comes first, so the
// marked calls do not include picking the kernel variant, binding symbols
// or first touches of memory.
//
//   arm_insn_driver [SUBSTRING]
//
// runs the shapes whose label contains SUBSTRING (all without one) and
// prints the int8 kernel variant in use ("variant <name>"), then, in the
// order of the marked regions, one line per region:
// "<label> <multiply-adds>".  The first region is empty: its count is the
// cost of the markers themselves.  Exits 1 if a kernel's result differs
// from the plain loop's.

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "bench/arm_insn_reference.h"
#include "orvik_blas_64/src/kernel_dispatch.h"
#include "orvik_blas_64/src/orvik_blas/orvik_cblas.h"
#include "orvik_blas_64/src/orvik_blas_quanti/orvik_blas_i8.h"

// The markers: out of line and opaque, so the trace shows every call.
extern "C" __attribute__((noipa)) void InsnRegionBegin() { asm volatile("" ::: "memory"); }
extern "C" __attribute__((noipa)) void InsnRegionEnd() { asm volatile("" ::: "memory"); }

namespace {

struct Shape {
  // "i8p": one row against B packed at set-up, as the 8-bit layers run one
  // frame; "i8": the int8 GEMM entry, nn; "f32": float GEMM, nt, as a
  // dense layer calls it.
  const char* kind;
  int M, N, K;
};

// Int8: the streaming net's layers per frame (first temporal convolution
// 3 taps x 120 bytes, the other four 3 x 32, the output layer 32 -> 2),
// the same through the GEMM entry, and the two convolutions over 16 frames
// in one call.  Float: the dense net per frame (2400 -> 64 -> 32 -> 2), the
// 11x3x40 -> 128 -> 128 -> 2 net per frame, and both first layers and a
// 128 x 128 layer over 16 frames.
const Shape kShapes[] = {
    {"i8p", 1, 32, 360},    {"i8p", 1, 32, 96},    {"i8p", 1, 2, 32},     {"i8", 1, 32, 360},
    {"i8", 1, 32, 96},      {"i8", 1, 2, 32},      {"i8", 16, 32, 360},   {"i8", 16, 32, 96},
    {"f32", 1, 64, 2400},   {"f32", 1, 32, 64},    {"f32", 1, 2, 32},     {"f32", 1, 128, 1320},
    {"f32", 1, 128, 128},   {"f32", 1, 2, 128},    {"f32", 16, 64, 2400}, {"f32", 16, 128, 1320},
    {"f32", 16, 128, 128}};

std::string Label(const Shape& s, const char* who) {
  return std::string(s.kind) + "/" + std::to_string(s.M) + "x" + std::to_string(s.N) + "x" +
         std::to_string(s.K) + "/" + who;
}

void Mark(const std::string& label, long macs) {
  printf("%s %ld\n", label.c_str(), macs);
  fflush(stdout);
}

// One call to warm up (symbol binding, the kernel choice), then the counted one.
template <typename F>
void Measure(const Shape& s, const char* who, long macs, const F& run) {
  run();
  Mark(Label(s, who), macs);
  InsnRegionBegin();
  run();
  InsnRegionEnd();
}

bool RunI8(const Shape& s, std::mt19937* rng) {
  std::uniform_int_distribution<int> byte(-128, 127);
  std::vector<int8_t> A(static_cast<size_t>(s.M) * s.K), B(static_cast<size_t>(s.K) * s.N);
  for (int8_t& v : A) v = static_cast<int8_t>(byte(*rng));
  for (int8_t& v : B) v = static_cast<int8_t>(byte(*rng));
  std::vector<int32_t> ours(static_cast<size_t>(s.M) * s.N), plain(ours.size());
  const long macs = static_cast<long>(s.M) * s.N * s.K;
  auto run_ours = [&] {
    orvik_i8_i32_gemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, s.M, s.N, s.K, 1,
                      reinterpret_cast<const signed char*>(A.data()), s.K,
                      reinterpret_cast<const signed char*>(B.data()), s.N, 0, ours.data(), s.N);
  };
  auto run_plain = [&] { PlainI8GemmNN(s.M, s.N, s.K, A.data(), B.data(), plain.data()); };
  Measure(s, "ours", macs, run_ours);
  Measure(s, "plain", macs, run_plain);
  if (ours != plain) {
    fprintf(stderr, "%s: the kernel's result differs from the plain loop's\n",
            Label(s, "ours").c_str());
    return false;
  }
  return true;
}

// The packed one-row product: its 32-bit sums ("ours"), and the 8-bit
// outputs with bias, shift and rectifier that a temporal convolution takes
// ("narrow").  B is packed before the marked calls, as at set-up.
bool RunI8Packed(const Shape& s, std::mt19937* rng) {
  std::uniform_int_distribution<int> byte(-128, 127);
  std::vector<int8_t> a(static_cast<size_t>(s.K)), B(static_cast<size_t>(s.K) * s.N);
  for (int8_t& v : a) v = static_cast<int8_t>(byte(*rng));
  for (int8_t& v : B) v = static_cast<int8_t>(byte(*rng));
  std::vector<signed char> packed(orvik_i8_packed_b_bytes(s.N, s.K));
  orvik_i8_pack_b(0, s.N, s.K, reinterpret_cast<const signed char*>(B.data()), packed.data());
  std::vector<int32_t> bias(static_cast<size_t>(s.N)), ours(bias.size()), plain(bias.size());
  std::vector<unsigned char> shift(bias.size());
  std::vector<signed char> out8(bias.size());
  for (int j = 0; j < s.N; ++j) {
    bias[j] = byte(*rng) * 64;
    shift[j] = static_cast<unsigned char>(7 + j % 4);
  }
  const signed char* as = reinterpret_cast<const signed char*>(a.data());
  const long macs = static_cast<long>(s.N) * s.K;
  auto run_ours = [&] {
    orvik_i8_gemv_packed(s.N, s.K, as, packed.data(), nullptr, nullptr, 0, ours.data(), nullptr);
  };
  auto run_narrow = [&] {
    orvik_i8_gemv_packed(s.N, s.K, as, packed.data(), bias.data(), shift.data(), 0, nullptr,
                         out8.data());
  };
  auto run_plain = [&] { PlainI8GemmNN(1, s.N, s.K, a.data(), B.data(), plain.data()); };
  Measure(s, "ours", macs, run_ours);
  Measure(s, "narrow", macs, run_narrow);
  Measure(s, "plain", macs, run_plain);
  bool ok = ours == plain;
  for (int j = 0; j < s.N; ++j) {
    const int32_t v = (plain[j] + bias[j]) >> shift[j];
    ok = ok && out8[j] == (v < 0 ? 0 : v > 127 ? 127 : v);
  }
  if (!ok) fprintf(stderr, "%s: results differ from the plain loop's\n", Label(s, "ours").c_str());
  return ok;
}

bool RunF32(const Shape& s, std::mt19937* rng) {
  std::uniform_real_distribution<float> value(-1.0f, 1.0f);
  std::vector<float> A(static_cast<size_t>(s.M) * s.K), B(static_cast<size_t>(s.N) * s.K);
  for (float& v : A) v = value(*rng);
  for (float& v : B) v = value(*rng);
  std::vector<float> ours(static_cast<size_t>(s.M) * s.N), plain(ours.size());
  const long macs = static_cast<long>(s.M) * s.N * s.K;
  auto run_ours = [&] {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, s.M, s.N, s.K, 1.0f, A.data(), s.K,
                B.data(), s.K, 0.0f, ours.data(), s.N);
  };
  auto run_plain = [&] { PlainSgemmNT(s.M, s.N, s.K, A.data(), B.data(), plain.data()); };
  Measure(s, "ours", macs, run_ours);
  Measure(s, "plain", macs, run_plain);
  // Two float sums of K products in different orders differ by at most
  // about 2K roundings of the sum of the products' magnitudes.
  for (int i = 0; i < s.M; ++i) {
    for (int j = 0; j < s.N; ++j) {
      double mag = 0.0;
      for (int p = 0; p < s.K; ++p) mag += fabs(A[i * s.K + p] * B[j * s.K + p]);
      const double tol = 2.0 * s.K * 0x1p-24 * mag;
      if (fabs(static_cast<double>(ours[i * s.N + j]) - plain[i * s.N + j]) > tol) {
        fprintf(stderr, "%s: entry (%d, %d) is %g, the plain loop's %g\n",
                Label(s, "ours").c_str(), i, j, ours[i * s.N + j], plain[i * s.N + j]);
        return false;
      }
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const char* filter = argc > 1 ? argv[1] : "";
  printf("variant %s\n", orvik_blas_kernels::ActiveKernels().name);
  Mark("empty", 0);
  InsnRegionBegin();
  InsnRegionEnd();
  std::mt19937 rng(20261123);
  bool ok = true;
  for (const Shape& s : kShapes) {
    if (Label(s, "").find(filter) == std::string::npos) continue;
    if (strcmp(s.kind, "i8p") == 0) {
      ok = RunI8Packed(s, &rng) && ok;
    } else if (strcmp(s.kind, "i8") == 0) {
      ok = RunI8(s, &rng) && ok;
    } else {
      ok = RunF32(s, &rng) && ok;
    }
  }
  return ok ? 0 : 1;
}
