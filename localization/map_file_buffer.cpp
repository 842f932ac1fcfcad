#include "localization/map_file_buffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

#include "localization/map_allocator.h"

namespace zorvane {
namespace localization {
namespace internal {

MapFileBuffer::MapFileBuffer(std::size_t bytes) {
  if (bytes == 0) return;
  if (bytes < kHugePageBytes) {
    data_ = static_cast<char*>(std::calloc(bytes, 1));
    if (data_ == nullptr) throw std::bad_alloc();
    size_ = bytes;
    return;
  }
  // Anonymous memory is zero-filled by the kernel. Map one huge page more
  // than needed and give back the unaligned head and the tail, so that the
  // block starts on a 2 MiB boundary and can be backed by huge pages from
  // its first byte.
  const std::size_t padded = (bytes + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
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
  mapping_ = reinterpret_cast<void*>(aligned);
  mapping_bytes_ = padded;
  data_ = static_cast<char*>(mapping_);
  size_ = bytes;
}

MapFileBuffer::MapFileBuffer(MapFileBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapping_(std::exchange(other.mapping_, nullptr)),
      mapping_bytes_(std::exchange(other.mapping_bytes_, 0)) {}

MapFileBuffer& MapFileBuffer::operator=(MapFileBuffer&& other) noexcept {
  if (this != &other) {
    release();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    mapping_ = std::exchange(other.mapping_, nullptr);
    mapping_bytes_ = std::exchange(other.mapping_bytes_, 0);
  }
  return *this;
}

MapFileBuffer::~MapFileBuffer() { release(); }

void MapFileBuffer::release() noexcept {
  if (mapping_ != nullptr) {
    munmap(mapping_, mapping_bytes_);
  } else {
    std::free(data_);
  }
  data_ = nullptr;
  size_ = 0;
  mapping_ = nullptr;
  mapping_bytes_ = 0;
}

namespace {

// Closes the descriptor on every path.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

FileReadStatus readWholeFile(const std::string& path, std::int64_t max_bytes, MapFileBuffer* out) {
  // O_NONBLOCK: opening a FIFO without a writer must not wait for one. It
  // has no effect on reads of regular files, the only kind accepted.
  FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0) return FileReadStatus::kCannotRead;
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return FileReadStatus::kCannotRead;
  if (st.st_size < 0) return FileReadStatus::kCannotRead;
  if (st.st_size > max_bytes) return FileReadStatus::kTooLarge;

  MapFileBuffer buffer(static_cast<std::size_t>(st.st_size));
  std::size_t done = 0;
  while (done < buffer.size()) {
    const ssize_t got = read(fd.get(), buffer.data() + done, buffer.size() - done);
    if (got < 0) {
      if (errno == EINTR) continue;
      return FileReadStatus::kCannotRead;
    }
    if (got == 0) break;  // the file shrank since fstat
    done += static_cast<std::size_t>(got);
  }
  buffer.truncate(done);
  *out = std::move(buffer);
  return FileReadStatus::kOk;
}

}  // namespace internal
}  // namespace localization
}  // namespace zorvane
