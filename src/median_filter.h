#ifndef TOVAD_MEDIAN_FILTER_H_
#define TOVAD_MEDIAN_FILTER_H_

#include <cstdint>

namespace Tovad_toolkit {

// Replaces one occurrence of `old_value` in the ascending array `sorted` of
// `n` values by `value`, keeping it ascending: two binary searches and one
// move.  Of several values equal to `old_value` the last one goes.
void sorted_window_replace(float* sorted, uint32_t n, float old_value, float value);

// Running median over the last `n` inserted values.  The window starts as
// `n` zeros, so the first outputs lean towards 0.
class Median_Filter {
 public:
  explicit Median_Filter(uint32_t n);
  Median_Filter(const Median_Filter& other);  // deep copy of the window
  Median_Filter& operator=(const Median_Filter&) = delete;
  ~Median_Filter();

  // Pushes `value` out of the oldest one and returns the new median; for an
  // even length the upper of the two middle values.
  float insert(float value);

  // Zeroes the window.  The ring position stays where it is.
  void reset();

 private:
  uint32_t n_buff;
  float* buff;       // the window, ascending
  float* queue;      // the window in order of arrival, as a ring
  uint32_t cur_idx;  // ring place of the oldest value, replaced next
};

}  // namespace Tovad_toolkit

#endif  // TOVAD_MEDIAN_FILTER_H_
