#include "orvik_blas_64/src/orvik_blas/orvik_blas_memory.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int kNumBuffers = 4;

struct alignas(8) MemorySlot {
  std::atomic<uint64_t> lock;  // 0 is free
  void* addr;                  // null until first use
  std::atomic<int32_t> used;   // 1 while lent out
  char pad[52];                // a slot takes 72 bytes
};
static_assert(sizeof(MemorySlot) == 72, "slot layout");

struct release_t {
  void* address;
  void (*func)(release_t*);
};

MemorySlot memory[kNumBuffers];
std::atomic<uint64_t> alloc_lock{0};
std::atomic<int32_t> initialized{0};
char* base_address = nullptr;
std::atomic<int32_t> release_pos{0};

// Spins on a plain read first so that waiters do not hammer the cache line
// with read-for-ownership requests, then claims the word.
void blas_lock(std::atomic<uint64_t>* word) {
  for (;;) {
    while (word->load(std::memory_order_relaxed) != 0) {
    }
    uint64_t expected = 0;
    if (word->compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                    std::memory_order_relaxed)) {
      return;
    }
  }
}

void blas_unlock(std::atomic<uint64_t>* word) {
  std::atomic_thread_fence(std::memory_order_seq_cst);
  word->store(0, std::memory_order_relaxed);
}

void* alloc_mmap(void* address) {
  void* map;
  if (address == nullptr) {
    map = mmap(nullptr, kOrvikBlasBufferSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
               -1, 0);
  } else {
    map = mmap(address, kOrvikBlasBufferSize, PROT_READ | PROT_WRITE,
               MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  }
  if (map == MAP_FAILED) return reinterpret_cast<void*>(-1);
  release_pos.fetch_add(1, std::memory_order_relaxed);
  return map;
}

void* alloc_malloc(void* /*address*/) {
  void* map = malloc(kOrvikBlasMallocSize);
  if (map == nullptr) return reinterpret_cast<void*>(-1);
  release_pos.fetch_add(1, std::memory_order_relaxed);
  return map;
}

// Kept for completeness: blocks live as long as the process, so nothing
// releases them.
[[maybe_unused]] void alloc_mmap_free(release_t* release) {
  if (munmap(release->address, kOrvikBlasBufferSize)) {
    printf("BLAS : munmap failed\n");
  }
}

[[maybe_unused]] void alloc_malloc_free(release_t* release) { free(release->address); }

void* (*const memoryalloc[])(void*) = {alloc_mmap, alloc_malloc, nullptr};

}  // namespace

extern "C" void* orvik_blas_memory_alloc(int /*procpos*/) {
  if (initialized.load(std::memory_order_relaxed) == 0) {
    blas_lock(&alloc_lock);
    initialized.store(1, std::memory_order_relaxed);
    blas_unlock(&alloc_lock);
  }

  int position = 0;
  for (; position < kNumBuffers; ++position) {
    MemorySlot& slot = memory[position];
    if (slot.used.load(std::memory_order_relaxed) != 0) continue;
    blas_lock(&slot.lock);
    if (slot.used.load(std::memory_order_relaxed) == 0) break;
    blas_unlock(&slot.lock);
  }
  if (position == kNumBuffers) {
    printf("BLAS : Program is Terminated.");
    printf(" Because you tried to allocate too many memory regions.\n");
    return nullptr;
  }

  MemorySlot& slot = memory[position];
  slot.used.store(1, std::memory_order_relaxed);
  blas_unlock(&slot.lock);

  if (slot.addr != nullptr) return slot.addr;

  void* map = reinterpret_cast<void*>(-1);
  for (auto* const* func = memoryalloc; *func != nullptr; ++func) {
    map = (*func)(base_address);
    if (map != reinterpret_cast<void*>(-1)) break;
  }
  if (base_address != nullptr) base_address += kOrvikBlasMallocSize;
  slot.addr = map;
  return map;
}

extern "C" void orvik_blas_memory_free(void* buffer) {
  int position = 0;
  while (position < kNumBuffers - 1 && memory[position].addr != buffer) ++position;
  if (memory[position].addr != buffer) {
    printf("BLAS : Bad memory unallocation! : %4d  %p\n", position, buffer);
    return;
  }
  // Everything done on the block happens before it is seen as free.
  std::atomic_thread_fence(std::memory_order_release);
  memory[position].used.store(0, std::memory_order_relaxed);
}
