// Memory for the large arrays of a map: the cells and position index, the
// look-up table sequences, and whole-file buffers (saves, and loads by
// subclasses). This is the one place that decides how such memory is
// obtained and first touched; MapVector and MapFileBuffer both take it from
// here.
//
// Start-up of a vehicle is one fresh process writing about 1.6 GB of fresh
// memory (cells and index, table) exactly once, and a large part of that
// time is the kernel faulting pages in and zeroing them. (A load decodes
// out of the file a run of records at a time, so it takes no file-sized
// buffer.) The choices below were made by the start-up benchmark's
// distributions (fresh processes, bench/README.md), not by a warmed-up
// loop:
//  - Large blocks are mapped straight from the kernel (already zero, no
//    extra pass) and faulted in at once by the OpenMP team
//    (MADV_POPULATE_WRITE, split over the threads), because every one of
//    them is written whole right after it is taken. The zeroing is then
//    shared instead of landing on the one thread that reads the file or
//    sizes an array.
//  - Ordinary 4 KiB pages, not transparent huge pages. Huge pages make the
//    best load faster but the worst far slower, and a vehicle needs the
//    predictable one. A huge page needs 2 MiB of contiguous free memory.
//    On a virtual machine that hands freed memory back to its host (free
//    page reporting), free blocks of 2 MiB and up are exactly the ones
//    handed back, so every huge page also costs the host's fault, while
//    ordinary pages are served first from the smaller free pieces the
//    guest kept. Loads of the 10 M-cell map, 6 interleaved fresh runs a
//    side (medians): with memory just used by another process, 0.11 s with
//    huge pages against 0.19 s; with memory handed back, 0.77 s against
//    0.17 s. Elsewhere a huge page may first need the kernel to compact
//    memory, a stall that lands on start-up.
//  - Except for the look-up table's bins (HugePagesWhereFree), which come
//    after the matrix: by then the small free pieces are taken and the
//    table's 0.9 GB come from 2 MiB blocks whatever the page size, so huge
//    pages cost no host fault that ordinary ones would avoid, and they
//    save the kernel most of its per-page work. `init` in interleaved
//    fresh runs (medians, bench/README.md): with memory just used, 1.62 s
//    against 1.74 s and 1.69 s against 1.75 s; with memory handed back,
//    2.52 s against 2.59 s and 2.48 s against 2.76 s; 0.1-0.6 s less CPU
//    in every comparison. They are taken only where the machine has twice
//    the block free in blocks of 2 MiB and up, so that the kernel need not
//    compact memory for them.
//  - Released large blocks go straight back to the kernel. A start-up
//    releases nothing before its last allocation, so keeping a released
//    block for reuse would only hold memory resident.
// Small blocks come from the ordinary heap. A vector grown element by
// element holds its whole capacity resident; the map's arrays are sized
// exactly.
#ifndef ZORVANE_LOCALIZATION_MAP_ALLOCATOR_H_
#define ZORVANE_LOCALIZATION_MAP_ALLOCATOR_H_

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace zorvane {
namespace localization {
namespace internal {

// Blocks of at least kLargeBlockBytes bytes are mapped from the kernel and
// faulted in by the team; prefaulting hands out kPrefaultChunkBytes at a
// time.
constexpr std::size_t kLargeBlockBytes = std::size_t{8} << 20;
constexpr std::size_t kPrefaultChunkBytes = std::size_t{2} << 20;

// A zero-filled block of `bytes` bytes (nullptr for 0); a large one is
// already faulted in (prefaultMapBytes). Throws
// std::bad_alloc when the memory cannot be had. `bytes` must be passed
// unchanged to releaseMapBytes, which picks the matching release from it.
void* allocateMapBytes(std::size_t bytes);
void releaseMapBytes(void* p, std::size_t bytes) noexcept;

// While an object of this class lives, large blocks that allocateMapBytes
// hands to this thread get transparent huge pages, where the machine has
// at least twice their size free in blocks of 2 MiB and up (read from
// /proc/buddyinfo when the block is taken); otherwise, or where that file
// cannot be read, ordinary pages as above. Only a hint on how the pages
// are obtained: the bytes are the same. Objects may nest.
class HugePagesWhereFree {
 public:
  HugePagesWhereFree();
  ~HugePagesWhereFree();
  HugePagesWhereFree(const HugePagesWhereFree&) = delete;
  HugePagesWhereFree& operator=(const HugePagesWhereFree&) = delete;

 private:
  bool previous_;
};

// Bytes free in blocks of 2 MiB and up, from the text of /proc/buddyinfo
// (lines "Node N, zone NAME" followed by the count of free blocks of each
// order, order k being page_bytes << k bytes); -1 when the text has no
// such line or a line that does not read so.
std::int64_t freeBytesInHugeBlocks(const std::string& buddyinfo, std::size_t page_bytes);

// Faults in the pages of [p, p + bytes) for writing, the work split over an
// OpenMP team of the default size. Only a hint: where the kernel does not
// offer it, or for a small range, nothing happens and the pages are faulted
// by their first write as usual. Never changes the bytes.
void prefaultMapBytes(void* p, std::size_t bytes);

// Passed to MapAllocator::construct, leaves the element's bytes as they
// are: see growLeftForWriter. (The conversion lets a vector's insert
// compile its assignment branch, which an insert at the end never runs.)
struct LeftForWriter {
  template <class T>
  operator T() const {
    return T();
  }
};

// A counted sequence of LeftForWriter values, for growLeftForWriter.
struct LeftForWriterSequence {
  using iterator_category = std::forward_iterator_tag;
  using value_type = LeftForWriter;
  using difference_type = std::ptrdiff_t;
  using pointer = const LeftForWriter*;
  using reference = LeftForWriter;

  std::size_t at;
  LeftForWriter operator*() const { return {}; }
  LeftForWriterSequence& operator++() {
    ++at;
    return *this;
  }
  LeftForWriterSequence operator++(int) { return {at++}; }
  bool operator==(const LeftForWriterSequence& o) const { return at == o.at; }
  bool operator!=(const LeftForWriterSequence& o) const { return at != o.at; }
};

}  // namespace internal

// std::allocator for the map's arrays, with their memory from
// allocateMapBytes. Elements are initialised by the containers as usual,
// except through growLeftForWriter.
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

  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
  template <class U>
  void construct(U*, internal::LeftForWriter) noexcept {}
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

namespace internal {

// Grows `v` by `n` elements without constructing them: their bytes are
// whatever the storage held. For a caller that writes every new element
// whole before anything reads the array, as the loader does with hundreds
// of megabytes of cells, where constructing them first would write every
// byte twice. T must be trivially copyable and trivially destructible.
// Precondition: v.capacity() - v.size() >= n, so that the storage neither
// moves nor grows and nothing else is constructed, copied or allocated.
//
// The elements are appended by one range insert of LeftForWriter values:
// the vector moves its end once, and the loop of constructions it runs does
// nothing, so the compiler drops it (an emplace_back per element checks the
// capacity and moves the end every time: 0.13 s for 209 million floats).
template <class T>
void growLeftForWriter(MapVector<T>& v, std::size_t n) {
  static_assert(std::is_trivially_copyable<T>::value && std::is_trivially_destructible<T>::value,
                "only bytes may be left for the writer");
  v.insert(v.end(), LeftForWriterSequence{0}, LeftForWriterSequence{n});
}

}  // namespace internal

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_MAP_ALLOCATOR_H_
