#include "src/median_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

namespace Tovad_toolkit {
namespace {

// Oracle: keeps the last n values (starting as n zeros) and sorts a copy.
class SortingMedian {
 public:
  explicit SortingMedian(size_t n) : window_(n, 0.0f) {}
  float insert(float v) {
    window_.pop_front();
    window_.push_back(v);
    std::vector<float> sorted(window_.begin(), window_.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted[sorted.size() / 2];
  }

 private:
  std::deque<float> window_;
};

// Exact agreement with the sorting oracle (zeros at the start, the upper
// middle of an even window) over many lengths.  Small integer values give
// many ties, where removing the wrong copy would show.  A reset window
// behaves like a fresh one.
TEST(MedianFilterTest, MatchesSortingOracle) {
  std::mt19937 rng(1234);
  std::uniform_int_distribution<int> small(0, 3);
  std::uniform_real_distribution<float> wide(-5.0f, 5.0f);
  for (uint32_t n : {1u, 2u, 3u, 4u, 7u, 8u, 11u, 31u}) {
    for (int ties = 0; ties < 2; ++ties) {
      Median_Filter f(n);
      SortingMedian oracle(n);
      for (int i = 0; i < 500; ++i) {
        const float v = ties ? static_cast<float>(small(rng)) : wide(rng);
        ASSERT_EQ(f.insert(v), oracle.insert(v)) << "n=" << n << " ties=" << ties << " i=" << i;
      }
      f.reset();
      SortingMedian fresh(n);
      for (int i = 0; i < 2 * static_cast<int>(n); ++i) {
        const float v = wide(rng);
        ASSERT_EQ(f.insert(v), fresh.insert(v)) << "after reset, n=" << n << " i=" << i;
      }
    }
  }
}

TEST(MedianFilterTest, CopyIsDeep) {
  Median_Filter a(5);
  for (float v : {3.0f, 1.0f, 4.0f}) a.insert(v);
  Median_Filter b(a);
  // Pushing the copy around must not reach the original.
  for (int i = 0; i < 5; ++i) b.insert(100.0f);
  EXPECT_EQ(a.insert(1.0f), 1.0f);  // window 0,3,1,4,1
  Median_Filter c(a);
  EXPECT_EQ(a.insert(5.0f), c.insert(5.0f));
  EXPECT_EQ(b.insert(100.0f), 100.0f);
}

}  // namespace
}  // namespace Tovad_toolkit
