#include "src/median_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

namespace Tovad_toolkit {
namespace {

// Exact agreement with a window that sorts a copy (zeros at the start, the
// upper middle of an even window) over many lengths.  Small integer values
// give many ties, where removing the wrong copy would show.  A reset
// window behaves like a fresh one, and a copy is deep.
TEST(MedianFilterTest, MatchesSortingOracle) {
  std::mt19937 rng(1234);
  std::uniform_int_distribution<int> small(0, 3);
  std::uniform_real_distribution<float> wide(-5.0f, 5.0f);
  for (uint32_t n : {1u, 2u, 3u, 4u, 7u, 8u, 11u, 31u}) {
    for (int ties = 0; ties < 2; ++ties) {
      Median_Filter f(n);
      std::deque<float> window(n, 0.0f);
      for (int i = 0; i < 600; ++i) {
        if (i == 500) {
          f.reset();
          window.assign(n, 0.0f);
        }
        const float v = ties && i < 500 ? static_cast<float>(small(rng)) : wide(rng);
        window.pop_front();
        window.push_back(v);
        std::vector<float> sorted(window.begin(), window.end());
        std::sort(sorted.begin(), sorted.end());
        ASSERT_EQ(f.insert(v), sorted[n / 2]) << "n=" << n << " ties=" << ties << " i=" << i;
      }
      Median_Filter copy(f), twin(f);
      for (uint32_t i = 0; i < n; ++i) copy.insert(100.0f);
      const float v = wide(rng);
      window.pop_front();
      window.push_back(v);
      std::sort(window.begin(), window.end());
      const float m = f.insert(v);
      EXPECT_EQ(m, window[n / 2]) << "the copy reached the original, n=" << n;
      EXPECT_EQ(twin.insert(v), m) << "a copy holds the window, n=" << n;
    }
  }
}

}  // namespace
}  // namespace Tovad_toolkit
