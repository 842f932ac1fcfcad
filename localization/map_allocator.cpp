#include "localization/map_allocator.h"

#include <omp.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "localization/parallel_split.h"

namespace zorvane {
namespace localization {
namespace internal {
namespace {

std::size_t paddedToHugePages(std::size_t bytes) {
  return (bytes + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
}

}  // namespace

void* allocateMapBytes(std::size_t bytes) {
  if (bytes == 0) return nullptr;
  if (bytes < kHugeBlockThreshold) {
    void* p = std::calloc(bytes, 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
  }
  // Map one huge page more than needed and give back the unaligned head and
  // the tail, so that the block starts on a 2 MiB boundary and can be backed
  // by huge pages from its first byte.
  const std::size_t padded = paddedToHugePages(bytes);
  if (padded < bytes || padded + kHugePageBytes < padded) throw std::bad_alloc();
  const std::size_t span = padded + kHugePageBytes;
  void* raw = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) throw std::bad_alloc();
  const auto base = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = (base + kHugePageBytes - 1) & ~(std::uintptr_t{kHugePageBytes} - 1);
  const std::size_t head = aligned - base;
  const std::size_t tail = span - head - padded;
  if (head > 0) munmap(raw, head);
  if (tail > 0) munmap(reinterpret_cast<void*>(aligned + padded), tail);
  // Only a hint: without transparent huge pages the kernel answers EINVAL
  // and the block stays ordinary memory.
  (void)madvise(reinterpret_cast<void*>(aligned), padded, MADV_HUGEPAGE);
  return reinterpret_cast<void*>(aligned);
}

void releaseMapBytes(void* p, std::size_t bytes) noexcept {
  if (p == nullptr) return;
  if (bytes < kHugeBlockThreshold) {
    std::free(p);
  } else {
    munmap(p, paddedToHugePages(bytes));
  }
}

void prefaultMapBytes(void* p, std::size_t bytes) {
#if defined(MADV_POPULATE_WRITE)
  constexpr std::uintptr_t kPage = 4096;
  const auto start = reinterpret_cast<std::uintptr_t>(p);
  const std::uintptr_t begin = (start + kPage - 1) & ~(kPage - 1);
  const std::uintptr_t end = (start + bytes) & ~(kPage - 1);
  // Shares of whole huge pages, so that no huge page is faulted twice.
  const auto chunks = static_cast<std::int64_t>((end - std::min(begin, end) + kHugePageBytes - 1) / kHugePageBytes);
  if (chunks < 4 || omp_get_max_threads() < 2) return;
#pragma omp parallel
  {
    const WorkRange range = staticSplit(chunks, omp_get_num_threads(), omp_get_thread_num());
    const std::uintptr_t from = begin + static_cast<std::uintptr_t>(range.begin) * kHugePageBytes;
    const std::uintptr_t to = std::min(end, begin + static_cast<std::uintptr_t>(range.end) * kHugePageBytes);
    if (to > from) (void)madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE);
  }
#else
  (void)p;
  (void)bytes;
#endif
}

}  // namespace internal
}  // namespace localization
}  // namespace zorvane
