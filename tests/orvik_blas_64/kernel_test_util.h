#ifndef TESTS_ORVIK_BLAS_64_KERNEL_TEST_UTIL_H_
#define TESTS_ORVIK_BLAS_64_KERNEL_TEST_UTIL_H_

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "orvik_blas_64/src/kernel_dispatch.h"

namespace orvik_test {

// Runs `body` once with each kernel variant the processor supports forced
// in, then restores the automatic choice.  `body` gets the variant's name
// for its failure messages.
inline void ForEachKernelVariant(const std::function<void(const std::string&)>& body) {
  const orvik_blas_kernels::KernelTable* const* list = orvik_blas_kernels::SupportedKernels();
  for (int i = 0; list[i] != nullptr; ++i) {
    orvik_blas_kernels::OverrideKernelsForTesting(list[i]);
    body(list[i]->name);
  }
  orvik_blas_kernels::OverrideKernelsForTesting(nullptr);
}

inline std::vector<float> RandomFloats(std::mt19937* rng, size_t n) {
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = dist(*rng);
  return v;
}

inline std::vector<signed char> RandomBytes(std::mt19937* rng, size_t n) {
  std::uniform_int_distribution<int> dist(-128, 127);
  std::vector<signed char> v(n);
  for (signed char& x : v) x = static_cast<signed char>(dist(*rng));
  return v;
}

}  // namespace orvik_test

#endif  // TESTS_ORVIK_BLAS_64_KERNEL_TEST_UTIL_H_
