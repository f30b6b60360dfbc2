#include "src/median_filter.h"

#include <algorithm>
#include <cstring>

namespace Tovad_toolkit {

void sorted_window_replace(float* sorted, uint32_t n, float old_value, float value) {
  // p: first place holding a value greater than `value`.
  const int64_t p = std::upper_bound(sorted, sorted + n, value) - sorted;
  // q: the last place holding `old_value`, just before the first greater one.
  int64_t q = (std::upper_bound(sorted, sorted + n, old_value) - sorted) - 1;
  // The old value is always in the window; only a NaN can make the search
  // miss it, and then the move must still stay inside the array.
  if (q < 0) q = 0;
  if (q >= p) {
    memmove(sorted + p + 1, sorted + p, static_cast<size_t>(q - p) * sizeof(float));
    sorted[p] = value;
  } else {
    memmove(sorted + q, sorted + q + 1, static_cast<size_t>(p - 1 - q) * sizeof(float));
    sorted[p - 1] = value;
  }
}

Median_Filter::Median_Filter(uint32_t n)
    : n_buff(n), buff(new float[n]()), queue(new float[n]()), cur_idx(0) {}

Median_Filter::Median_Filter(const Median_Filter& other)
    : n_buff(other.n_buff),
      buff(new float[other.n_buff]),
      queue(new float[other.n_buff]),
      cur_idx(other.cur_idx) {
  memcpy(buff, other.buff, n_buff * sizeof(float));
  memcpy(queue, other.queue, n_buff * sizeof(float));
}

Median_Filter::~Median_Filter() {
  delete[] buff;
  delete[] queue;
}

float Median_Filter::insert(float value) {
  sorted_window_replace(buff, n_buff, queue[cur_idx], value);
  queue[cur_idx] = value;
  cur_idx = (cur_idx + 1) % n_buff;
  return buff[n_buff / 2];
}

void Median_Filter::reset() {
  memset(buff, 0, n_buff * sizeof(float));
  memset(queue, 0, n_buff * sizeof(float));
}

}  // namespace Tovad_toolkit
