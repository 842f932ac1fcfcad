// Allocator for the large arrays of a map: cells, position index and the
// look-up table sequences.
//
// It behaves like std::allocator (elements are value-initialised by the
// containers as usual) but asks the kernel for transparent huge pages on
// big blocks. A map's arrays run to hundreds of megabytes and are written
// once right after allocation; with 4 KiB pages most of that first write is
// page-fault handling. Where huge pages are not offered the hint is ignored
// and the memory behaves as ordinary heap memory.
#ifndef ZORVANE_LOCALIZATION_MAP_ALLOCATOR_H_
#define ZORVANE_LOCALIZATION_MAP_ALLOCATOR_H_

#include <cstddef>
#include <limits>
#include <new>
#include <vector>

namespace zorvane {
namespace localization {
namespace internal {

// Blocks of at least this many bytes are aligned to, and padded to a
// multiple of, the huge page size and advised for huge pages.
constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;
constexpr std::size_t kHugeBlockThreshold = 4 * kHugePageBytes;

// Throws std::bad_alloc on failure. `bytes` must be passed unchanged to
// releaseMapBytes, which picks the matching release path from it.
void* allocateMapBytes(std::size_t bytes);
void releaseMapBytes(void* p, std::size_t bytes) noexcept;

}  // namespace internal

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
  void deallocate(T* p, std::size_t n) noexcept {
    internal::releaseMapBytes(p, n * sizeof(T));
  }
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
