// Float and int8 GEMM against OpenBLAS (one thread) and against our own
// reference loops, measured in the same process.  OpenBLAS exports the same
// cblas_* names as our library, so it is loaded privately with dlopen and
// called through dlsym; our kernels are linked statically.
//
// Prints Google Benchmark's table (medians of 5 repetitions after a warm-up)
// and then a summary with the rates and ratios.

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "orvik_blas_64/src/orvik_blas/orvik_cblas.h"
#include "orvik_blas_64/src/orvik_blas_quanti/orvik_blas_i8.h"

namespace {

using SgemmFn = void (*)(int, int, int, int, int, int, float, const float*, int, const float*, int,
                         float, float*, int);
SgemmFn g_openblas_sgemm = nullptr;

bool LoadOpenBlas() {
  // Must be set before the library starts its thread pool.
  setenv("OPENBLAS_NUM_THREADS", "1", 1);
  const char* const kNames[] = {"libopenblas.so.0", "libopenblas.so"};
  void* handle = nullptr;
  for (const char* name : kNames) {
    handle = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (handle != nullptr) break;
  }
  if (handle == nullptr) {
    fprintf(stderr, "OpenBLAS not found (install libopenblas-dev): %s\n", dlerror());
    return false;
  }
  g_openblas_sgemm = reinterpret_cast<SgemmFn>(dlsym(handle, "cblas_sgemm"));
  auto set_threads = reinterpret_cast<void (*)(int)>(dlsym(handle, "openblas_set_num_threads"));
  if (set_threads != nullptr) set_threads(1);
  return g_openblas_sgemm != nullptr;
}

struct Shape {
  int M, N, K;
  std::string Name() const {
    return std::to_string(M) + "x" + std::to_string(N) + "x" + std::to_string(K);
  }
};

std::vector<float> RandomFloats(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

std::vector<signed char> RandomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> dist(-128, 127);
  std::vector<signed char> v(n);
  for (signed char& x : v) x = static_cast<signed char>(dist(rng));
  return v;
}

// Row-major C = A * op(B), as a fully connected layer calls it: B^T when
// the weights are stored one output per row, B when stored transposed.
void BM_Sgemm(benchmark::State& state, Shape s, bool b_trans, bool openblas) {
  const std::vector<float> A = RandomFloats(static_cast<size_t>(s.M) * s.K, 1);
  const std::vector<float> B = RandomFloats(static_cast<size_t>(s.N) * s.K, 2);
  std::vector<float> C(static_cast<size_t>(s.M) * s.N);
  const CBLAS_TRANSPOSE tb = b_trans ? CblasTrans : CblasNoTrans;
  const int ldb = b_trans ? s.K : s.N;
  for (auto _ : state) {
    if (openblas) {
      g_openblas_sgemm(CblasRowMajor, CblasNoTrans, tb, s.M, s.N, s.K, 1.0f, A.data(), s.K,
                       B.data(), ldb, 0.0f, C.data(), s.N);
    } else {
      cblas_sgemm(CblasRowMajor, CblasNoTrans, tb, s.M, s.N, s.K, 1.0f, A.data(), s.K, B.data(),
                  ldb, 0.0f, C.data(), s.N);
    }
    benchmark::DoNotOptimize(C.data());
    benchmark::ClobberMemory();
  }
  state.counters["GFLOP/s"] = benchmark::Counter(2.0 * s.M * s.N * s.K * 1e-9,
                                                 benchmark::Counter::kIsIterationInvariantRate);
}

// Row-major int8 C = A * B (nn), the fast entry or the plain reference loop.
void BM_I8Gemm(benchmark::State& state, Shape s, bool reference) {
  const std::vector<signed char> A = RandomBytes(static_cast<size_t>(s.M) * s.K, 3);
  const std::vector<signed char> B = RandomBytes(static_cast<size_t>(s.K) * s.N, 4);
  std::vector<int> C(static_cast<size_t>(s.M) * s.N);
  for (auto _ : state) {
    if (reference) {
      seq_matrix_mul_i8_i32_nn_c(s.M, s.N, s.K, 1, A.data(), B.data(), 0, C.data());
    } else {
      orvik_i8_i32_gemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, s.M, s.N, s.K, 1, A.data(), s.K,
                        B.data(), s.N, 0, C.data(), s.N);
    }
    benchmark::DoNotOptimize(C.data());
    benchmark::ClobberMemory();
  }
  state.counters["GMAC/s"] = benchmark::Counter(1.0 * s.M * s.N * s.K * 1e-9,
                                                benchmark::Counter::kIsIterationInvariantRate);
}

// Keeps the median CPU time per iteration of every benchmark for the
// summary: CPU time, because the machine is shared and wall time also
// counts the time other processes hold the core.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& reports) override {
    ConsoleReporter::ReportRuns(reports);
    for (const Run& run : reports) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        median_ns_[run.run_name.function_name] = run.GetAdjustedCPUTime();
      }
    }
  }
  double Rate(const std::string& name, double work) const {
    auto it = median_ns_.find(name);
    return it == median_ns_.end() ? 0.0 : work / it->second;  // giga-units per second
  }

 private:
  std::map<std::string, double> median_ns_;
};

const Shape kSgemmShapes[] = {{1, 256, 120},  {1, 256, 256},   {1, 2, 256},
                              {16, 256, 120}, {256, 256, 256}, {512, 512, 512}};
// The one-row shapes are a streaming 8-bit net's per-frame products.
const Shape kI8Shapes[] = {{1, 32, 96}, {1, 32, 360}, {64, 64, 64}, {256, 256, 256}};

}  // namespace

int main(int argc, char** argv) {
  if (!LoadOpenBlas()) return 1;
  for (const char* form : {"nt", "nn"}) {
    for (const Shape& s : kSgemmShapes) {
      for (bool openblas : {false, true}) {
        const std::string name =
            "sgemm_" + std::string(form) + "/" + s.Name() + (openblas ? "/openblas" : "/ours");
        benchmark::RegisterBenchmark(name.c_str(), BM_Sgemm, s, form[1] == 't', openblas)
            ->MinWarmUpTime(0.1)
            ->Repetitions(5)
            ->ReportAggregatesOnly(true);
      }
    }
  }
  for (const Shape& s : kI8Shapes) {
    for (bool reference : {false, true}) {
      const std::string name = "i8gemm/" + s.Name() + (reference ? "/reference" : "/ours");
      benchmark::RegisterBenchmark(name.c_str(), BM_I8Gemm, s, reference)
          ->MinWarmUpTime(0.1)
          ->Repetitions(5)
          ->ReportAggregatesOnly(true);
    }
    // Our float GEMM in the same nn form, for the multiply-accumulate rate.
    const std::string name = "sgemm_i8size/" + s.Name() + "/ours";
    benchmark::RegisterBenchmark(
        name.c_str(),
        [s](benchmark::State& state) {
          const std::vector<float> A = RandomFloats(static_cast<size_t>(s.M) * s.K, 5);
          const std::vector<float> B = RandomFloats(static_cast<size_t>(s.K) * s.N, 6);
          std::vector<float> C(static_cast<size_t>(s.M) * s.N);
          for (auto _ : state) {
            cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, s.M, s.N, s.K, 1.0f, A.data(),
                        s.K, B.data(), s.N, 0.0f, C.data(), s.N);
            benchmark::DoNotOptimize(C.data());
            benchmark::ClobberMemory();
          }
        })
        ->MinWarmUpTime(0.1)
        ->Repetitions(5)
        ->ReportAggregatesOnly(true);
  }

  benchmark::Initialize(&argc, argv);
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  for (const char* form : {"nt", "nn"}) {
    printf("\nsgemm row-major A*%s, one thread, GFLOP/s (median CPU time of 5)\n",
           form[1] == 't' ? "B^T" : "B");
    printf("%-16s %10s %10s %8s\n", "M x N x K", "ours", "OpenBLAS", "ratio");
    for (const Shape& s : kSgemmShapes) {
      const double flops = 2.0 * s.M * s.N * s.K;
      const std::string prefix = "sgemm_" + std::string(form) + "/" + s.Name();
      const double ours = reporter.Rate(prefix + "/ours", flops);
      const double ref = reporter.Rate(prefix + "/openblas", flops);
      printf("%-16s %10.2f %10.2f %8.2f\n", s.Name().c_str(), ours, ref,
             ref > 0 ? ours / ref : 0.0);
    }
  }
  printf("\nint8 GEMM nn, GMAC/s (median CPU time of 5)\n");
  printf("%-16s %10s %12s %10s %12s %12s\n", "M x N x K", "i8 ours", "i8 reference", "sgemm ours",
         "vs reference", "vs sgemm");
  for (const Shape& s : kI8Shapes) {
    const double macs = 1.0 * s.M * s.N * s.K;
    const double ours = reporter.Rate("i8gemm/" + s.Name() + "/ours", macs);
    const double ref = reporter.Rate("i8gemm/" + s.Name() + "/reference", macs);
    const double f32 = reporter.Rate("sgemm_i8size/" + s.Name() + "/ours", macs);
    printf("%-16s %10.2f %12.2f %10.2f %12.2f %12.2f\n", s.Name().c_str(), ours, ref, f32,
           ref > 0 ? ours / ref : 0.0, f32 > 0 ? ours / f32 : 0.0);
  }
  benchmark::Shutdown();
  return 0;
}
