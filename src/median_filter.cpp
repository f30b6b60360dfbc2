#include "src/median_filter.h"

#include <cstring>

namespace Tovad_toolkit {

namespace {

// Place of the first value in `a[0..n)` greater than `v`.  Written without
// a data-dependent branch: over the energy window of 1000 values the
// mispredictions of a branching search cost more than the move.
int64_t upper_bound_place(const float* a, uint32_t n, float v) {
  if (n == 0) return 0;
  const float* base = a;
  while (n > 1) {
    const uint32_t half = n / 2;
    base += (v < base[half]) ? 0 : half;
    n -= half;
  }
  return (base - a) + ((v < *base) ? 0 : 1);
}

}  // namespace

void sorted_window_replace(float* sorted, uint32_t n, float old_value, float value) {
  // p: first place holding a value greater than `value`.
  const int64_t p = upper_bound_place(sorted, n, value);
  // q: the last place holding `old_value`, just before the first greater one.
  int64_t q = upper_bound_place(sorted, n, old_value) - 1;
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
