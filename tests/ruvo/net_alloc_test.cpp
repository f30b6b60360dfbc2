// After the first run, running a net allocates nothing: every blob was
// planned at build time and the layers' scratch only grows.  Counted with
// a replacement of the global operator new in this test binary (tensor
// storage is made with make_shared, so a new tensor is counted too).

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "tests/ruvo/net_fixture.h"

namespace {
std::atomic<long> g_news{0};
}  // namespace

void* operator new(size_t size) {
  g_news.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace {

TEST(NetAllocTest, SteadyStateRunsAllocateNothing) {
  // The counter sees allocations at all.
  const long start = g_news.load();
  std::string* volatile probe = new std::string(64, 'x');
  delete probe;
  ASSERT_GT(g_news.load(), start);

  for (const char* name :
       {"mlp", "fc_quant", "softmax", "concat", "reshape", "slice", "flatten", "activations"}) {
    net_test::Model m = net_test::LoadModel(name);
    const auto& c = m.cases.at(0);
    PredictorHandle h = net_test::Create(m, c);
    ASSERT_NE(h, nullptr) << name;
    net_test::SetInputs(h, c);
    MXPredForward(h);  // the first run prepares weights and scratch

    std::vector<float> out(1 << 16);
    uint32_t* shape = nullptr;
    uint32_t ndim = 0;
    MXPredGetOutputShape(h, 0, &shape, &ndim);
    uint32_t count = 1;
    for (uint32_t i = 0; i < ndim; ++i) count *= shape[i];

    const long before = g_news.load();
    for (int i = 0; i < 5; ++i) {
      net_test::SetInputs(h, c);
      MXPredForward(h);
      MXPredGetOutput(h, 0, out.data(), count);
    }
    EXPECT_EQ(g_news.load() - before, 0) << name;
    MXPredFree(h);
  }
}

}  // namespace
