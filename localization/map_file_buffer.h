// Whole-file buffers for the map file operations.
//
// A map file is moved between disk and memory in one piece. For a large map
// the buffer runs to hundreds of megabytes that are written exactly once,
// so the cost of the load is dominated by first touch of fresh memory. The
// buffer's memory comes from allocateMapBytes (map_allocator.h), which
// decides for all of a map's large arrays how memory is obtained: it is
// zero without an extra pass and already faulted in by the OpenMP team.
#ifndef ZORVANE_LOCALIZATION_MAP_FILE_BUFFER_H_
#define ZORVANE_LOCALIZATION_MAP_FILE_BUFFER_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace zorvane {
namespace localization {
namespace internal {

// An owned, zero-filled byte block. Move-only.
class MapFileBuffer {
 public:
  MapFileBuffer() = default;
  // `bytes` zero bytes (none for 0). Throws std::bad_alloc when the memory
  // cannot be had.
  explicit MapFileBuffer(std::size_t bytes);
  MapFileBuffer(MapFileBuffer&& other) noexcept;
  MapFileBuffer& operator=(MapFileBuffer&& other) noexcept;
  MapFileBuffer(const MapFileBuffer&) = delete;
  MapFileBuffer& operator=(const MapFileBuffer&) = delete;
  ~MapFileBuffer();

  char* data() { return data_; }
  const char* data() const { return data_; }
  std::size_t size() const { return size_; }

  // Forgets the bytes from `bytes` on (no reallocation). `bytes` <= size().
  void truncate(std::size_t bytes) { size_ = bytes < size_ ? bytes : size_; }

 private:
  void release() noexcept;

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t allocated_ = 0;  // bytes asked of allocateMapBytes
};

enum class FileReadStatus {
  kOk,
  kCannotRead,  // cannot be opened, is not a regular file, or a read failed
  kTooLarge,    // longer than the caller's limit; nothing was read
};

// A regular file opened for reading at offsets, for a caller that reads it
// in parts instead of whole. Not copyable; the descriptor is closed by the
// destructor.
class MapFile {
 public:
  MapFile() = default;
  MapFile(const MapFile&) = delete;
  MapFile& operator=(const MapFile&) = delete;
  ~MapFile();

  // Opens the file at `path` and notes its length. kCannotRead when it
  // cannot be opened or is not a regular file (directories, pipes and
  // devices are refused without blocking); kTooLarge when it is longer
  // than `max_bytes`. Call once.
  FileReadStatus open(const std::string& path, std::int64_t max_bytes);

  // The length at open().
  std::size_t size() const { return size_; }

  // Reads up to `length` bytes at `offset` into `dst`: as many as the file
  // holds there now (fewer when it has shrunk since open), their number in
  // *got. False when a read fails. Safe to call from several threads.
  bool read(std::size_t offset, std::size_t length, char* dst, std::size_t* got) const;

 private:
  int fd_ = -1;
  std::size_t size_ = 0;
};

// Reads the whole regular file at `path` into `*out`; a file of 64 MiB or
// more is read in consecutive parts by the OpenMP team at once (at least
// 32 MiB a thread). Files that are not regular (directories, pipes,
// devices) are refused without blocking. A file that shrinks while it is
// read yields a prefix of the bytes that were there; one that grows yields
// its length at the start. A file longer than `max_bytes` is refused before
// any memory is taken.
FileReadStatus readWholeFile(const std::string& path, std::int64_t max_bytes, MapFileBuffer* out);

}  // namespace internal
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_MAP_FILE_BUFFER_H_
