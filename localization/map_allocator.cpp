#include "localization/map_allocator.h"

#include <omp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "localization/parallel_split.h"

namespace zorvane {
namespace localization {
namespace internal {
namespace {

std::size_t pageBytes() {
  static const std::size_t page = [] {
    const long p = sysconf(_SC_PAGESIZE);
    return p > 0 ? static_cast<std::size_t>(p) : std::size_t{4096};
  }();
  return page;
}

std::size_t paddedToPages(std::size_t bytes) {
  const std::size_t page = pageBytes();
  return (bytes + page - 1) / page * page;
}

}  // namespace

void* allocateMapBytes(std::size_t bytes) {
  if (bytes == 0) return nullptr;
  if (bytes < kLargeBlockBytes) {
    void* p = std::calloc(bytes, 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
  }
  const std::size_t padded = paddedToPages(bytes);
  if (padded < bytes) throw std::bad_alloc();
  void* p = mmap(nullptr, padded, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) throw std::bad_alloc();
  // Ordinary pages even where the system hands out huge pages unasked (see
  // the header); kernels without transparent huge pages answer EINVAL.
  (void)madvise(p, padded, MADV_NOHUGEPAGE);
  // Every large block of a map is written whole right after it is taken,
  // so its pages are faulted in now, by the whole team.
  prefaultMapBytes(p, bytes);
  return p;
}

void releaseMapBytes(void* p, std::size_t bytes) noexcept {
  if (p == nullptr) return;
  if (bytes < kLargeBlockBytes) {
    std::free(p);
    return;
  }
  munmap(p, paddedToPages(bytes));
}

void prefaultMapBytes(void* p, std::size_t bytes) {
#if defined(MADV_POPULATE_WRITE)
  const std::uintptr_t page = pageBytes();
  const auto start = reinterpret_cast<std::uintptr_t>(p);
  const std::uintptr_t begin = (start + page - 1) & ~(page - 1);
  const std::uintptr_t end = std::max(begin, (start + bytes) & ~(page - 1));
  const auto chunks = static_cast<std::int64_t>((end - begin + kPrefaultChunkBytes - 1) / kPrefaultChunkBytes);
  if (chunks < 2 || omp_get_max_threads() < 2) return;
#pragma omp parallel
  {
    const WorkRange range = staticSplit(chunks, omp_get_num_threads(), omp_get_thread_num());
    const std::uintptr_t from = begin + static_cast<std::uintptr_t>(range.begin) * kPrefaultChunkBytes;
    const std::uintptr_t to = std::min(end, begin + static_cast<std::uintptr_t>(range.end) * kPrefaultChunkBytes);
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
