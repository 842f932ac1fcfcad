// Memory for the large arrays of a map: the file buffer of a load, the cells
// and position index, and the look-up table sequences. This is the one place
// that decides how such memory is obtained and first touched.
//
// Start-up of a vehicle is one fresh process writing about 2 GB of fresh
// memory (file buffer, cells and index, table) exactly once; most of that
// time is the kernel faulting in and zeroing pages. Measured in fresh
// processes on the 10 M-cell map (bench/README.md):
//  - Transparent huge pages cut the faults by a factor of 512 and make the
//    load about 2.5x faster than with 4 KiB pages (0.28-0.31 s against
//    0.69-0.81 s). Large blocks are therefore mapped straight from the
//    kernel (already zero: no extra pass), aligned to 2 MiB and advised for
//    huge pages. The price is that, where the kernel must first compact
//    memory to find huge pages, a fault can stall; that tail is what the
//    start-up benchmark watches.
//  - Blocks that are written by one pass of the whole team (the table
//    sequences) are faulted in by the team first (prefaultMapBytes), so
//    the zeroing of their pages is shared instead of landing on the thread
//    that sizes them.
// Small blocks come from the ordinary heap.
#ifndef ZORVANE_LOCALIZATION_MAP_ALLOCATOR_H_
#define ZORVANE_LOCALIZATION_MAP_ALLOCATOR_H_

#include <cstddef>
#include <limits>
#include <new>
#include <vector>

namespace zorvane {
namespace localization {
namespace internal {

// Blocks of at least kHugeBlockThreshold bytes are mapped from the kernel,
// aligned to and padded to a multiple of kHugePageBytes, and advised for
// huge pages.
constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;
constexpr std::size_t kHugeBlockThreshold = 4 * kHugePageBytes;

// A zero-filled block of `bytes` bytes (nullptr for 0). Throws
// std::bad_alloc when the memory cannot be had. `bytes` must be passed
// unchanged to releaseMapBytes, which picks the matching release from it.
void* allocateMapBytes(std::size_t bytes);
void releaseMapBytes(void* p, std::size_t bytes) noexcept;

// Faults in the pages of [p, p + bytes) for writing, the work split over an
// OpenMP team of the default size. Only a hint: where the kernel does not
// offer it, or for a small range, nothing happens and the pages are faulted
// by their first write as usual. Never changes the bytes.
void prefaultMapBytes(void* p, std::size_t bytes);

}  // namespace internal

// std::allocator for the map's arrays, with their memory from
// allocateMapBytes. Elements are initialised by the containers as usual.
template <class T>
struct MapAllocator {
  using value_type = T;

  MapAllocator() noexcept = default;
  template <class U>
  MapAllocator(const MapAllocator<U>&) noexcept {}

  T* allocate(std::size_t n) {
    if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_alloc();
    return static_cast<T*>(internal::allocateMapBytes(n * sizeof(T)));
  }
  void deallocate(T* p, std::size_t n) noexcept { internal::releaseMapBytes(p, n * sizeof(T)); }
};

template <class T, class U>
bool operator==(const MapAllocator<T>&, const MapAllocator<U>&) noexcept {
  return true;
}
template <class T, class U>
bool operator!=(const MapAllocator<T>&, const MapAllocator<U>&) noexcept {
  return false;
}

// Contiguous sequence used for every large array of matrices and tables.
template <class T>
using MapVector = std::vector<T, MapAllocator<T>>;

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_MAP_ALLOCATOR_H_
