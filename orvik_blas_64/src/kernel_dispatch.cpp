#include "orvik_blas_64/src/kernel_dispatch.h"

#include <atomic>

#if defined(__aarch64__)
#include <sys/auxv.h>
#ifndef HWCAP_ASIMDDP
#define HWCAP_ASIMDDP (1 << 20)
#endif
#endif

namespace orvik_blas_kernels {
namespace {

#define ORVIK_KERNEL_TABLE(ns) \
  {                            \
    #ns, ns::sgemm_blocked, ns::sgemv_n, ns::sgemv_t, ns::saxpy, ns::sdot, ns::i8_gemm, \
        ns::i8_dot, ns::i8_gemv_packed                                                   \
  }

const KernelTable kGeneric = ORVIK_KERNEL_TABLE(generic);
#if defined(__x86_64__)
const KernelTable kAvx2 = ORVIK_KERNEL_TABLE(avx2);
const KernelTable kAvx512 = ORVIK_KERNEL_TABLE(avx512);
const KernelTable kAvx512Vnni = ORVIK_KERNEL_TABLE(avx512vnni);
#elif defined(__aarch64__)
const KernelTable kDotprod = ORVIK_KERNEL_TABLE(dotprod);
#endif

struct Supported {
  const KernelTable* list[5] = {};
  Supported() {
    int n = 0;
    list[n++] = &kGeneric;
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
      list[n++] = &kAvx2;
      if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
          __builtin_cpu_supports("avx512vl")) {
        list[n++] = &kAvx512;
        if (__builtin_cpu_supports("avx512vnni")) list[n++] = &kAvx512Vnni;
      }
    }
#elif defined(__aarch64__)
    // NEON is part of the baseline; the 8-bit dot product (SDOT) is an
    // optional extension that the kernel reports.
    if (getauxval(AT_HWCAP) & HWCAP_ASIMDDP) list[n++] = &kDotprod;
#endif
  }
};

const Supported& GetSupported() {
  static const Supported supported;
  return supported;
}

std::atomic<const KernelTable*> g_override{nullptr};

}  // namespace

const KernelTable* const* SupportedKernels() { return GetSupported().list; }

const KernelTable& ActiveKernels() {
  const KernelTable* forced = g_override.load(std::memory_order_relaxed);
  if (forced != nullptr) return *forced;
  // The widest variant the processor runs.
  static const KernelTable* const best = [] {
    const KernelTable* const* list = SupportedKernels();
    const KernelTable* pick = list[0];
    for (int i = 0; list[i] != nullptr; ++i) pick = list[i];
    return pick;
  }();
  return *best;
}

void OverrideKernelsForTesting(const KernelTable* table) {
  g_override.store(table, std::memory_order_relaxed);
}

}  // namespace orvik_blas_kernels
