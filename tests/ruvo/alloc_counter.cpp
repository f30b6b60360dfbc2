// A replacement of the global operator new that counts calls, for tests
// that check a steady state allocates nothing.  In its own file so that no
// call site sees both halves inlined.

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> g_news{0};
}  // namespace

long AllocCount() { return g_news.load(std::memory_order_relaxed); }

void* operator new(size_t size) {
  g_news.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
