#include "localization/map_allocator.h"

#include <omp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>

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

constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;

// Set while a HugePagesWhereFree lives on this thread.
thread_local bool huge_pages_where_free = false;

// Whether the machine has at least twice `bytes` free in blocks of 2 MiB
// and up, so that huge pages for them need no compaction.
bool hugeBlocksFreeFor(std::size_t bytes) {
  std::ifstream in("/proc/buddyinfo");
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  const std::int64_t free_bytes = freeBytesInHugeBlocks(text.str(), pageBytes());
  return free_bytes >= 0 && static_cast<std::uint64_t>(free_bytes) / 2 >= bytes;
}

}  // namespace

HugePagesWhereFree::HugePagesWhereFree() : previous_(huge_pages_where_free) { huge_pages_where_free = true; }
HugePagesWhereFree::~HugePagesWhereFree() { huge_pages_where_free = previous_; }

std::int64_t freeBytesInHugeBlocks(const std::string& buddyinfo, std::size_t page_bytes) {
  // Counted in 2 MiB units, saturating (the answer is only compared).
  constexpr std::uint64_t kMostUnits = INT64_MAX / kHugePageBytes;
  constexpr int kMostOrders = 32;
  std::istringstream lines(buddyinfo);
  std::string line;
  std::uint64_t units = 0;
  bool any = false;
  while (std::getline(lines, line)) {
    if (line.find_first_not_of(" \t") == std::string::npos) continue;
    std::istringstream fields(line);
    std::string node, node_number, zone, zone_name;
    if (!(fields >> node >> node_number >> zone >> zone_name) || node != "Node" || zone != "zone") return -1;
    std::int64_t count = 0;
    int order = 0;
    for (; fields >> count; ++order) {
      if (count < 0 || order >= kMostOrders || page_bytes == 0) return -1;
      const std::uint64_t block = static_cast<std::uint64_t>(page_bytes) << order;
      if (block < kHugePageBytes) continue;
      const std::uint64_t per_block = block / kHugePageBytes;
      const auto blocks = static_cast<std::uint64_t>(count);
      units = blocks > (kMostUnits - units) / per_block ? kMostUnits : units + blocks * per_block;
    }
    if (!fields.eof() || order == 0) return -1;
    any = true;
  }
  return any ? static_cast<std::int64_t>(units * kHugePageBytes) : -1;
}

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
  // Ordinary pages even where the system hands out huge pages unasked,
  // huge ones only where asked for and free (see the header); kernels
  // without transparent huge pages answer EINVAL.
  const bool huge = huge_pages_where_free && hugeBlocksFreeFor(padded);
  (void)madvise(p, padded, huge ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
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
