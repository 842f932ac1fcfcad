#include "localization/map_allocator.h"

#include <sys/mman.h>

#include <cstdlib>

namespace zorvane {
namespace localization {
namespace internal {
namespace {

std::size_t paddedToHugePages(std::size_t bytes) {
  return (bytes + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
}

}  // namespace

void* allocateMapBytes(std::size_t bytes) {
  if (bytes < kHugeBlockThreshold) return ::operator new(bytes);
  const std::size_t padded = paddedToHugePages(bytes);
  if (padded < bytes) throw std::bad_alloc();
  void* p = std::aligned_alloc(kHugePageBytes, padded);
  if (p == nullptr) throw std::bad_alloc();
  // Only a hint: kernels without transparent huge pages answer EINVAL and
  // the block stays ordinary memory.
  (void)madvise(p, padded, MADV_HUGEPAGE);
  return p;
}

void releaseMapBytes(void* p, std::size_t bytes) noexcept {
  if (p == nullptr) return;
  if (bytes < kHugeBlockThreshold) {
    ::operator delete(p);
  } else {
    std::free(p);
  }
}

}  // namespace internal
}  // namespace localization
}  // namespace zorvane
