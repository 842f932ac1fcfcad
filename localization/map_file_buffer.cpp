#include "localization/map_file_buffer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "localization/map_allocator.h"

namespace zorvane {
namespace localization {
namespace internal {

MapFileBuffer::MapFileBuffer(std::size_t bytes)
    : data_(static_cast<char*>(allocateMapBytes(bytes))), size_(bytes), allocated_(bytes) {}

MapFileBuffer::MapFileBuffer(MapFileBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      allocated_(std::exchange(other.allocated_, 0)) {}

MapFileBuffer& MapFileBuffer::operator=(MapFileBuffer&& other) noexcept {
  if (this != &other) {
    release();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    allocated_ = std::exchange(other.allocated_, 0);
  }
  return *this;
}

MapFileBuffer::~MapFileBuffer() { release(); }

void MapFileBuffer::release() noexcept {
  releaseMapBytes(data_, allocated_);
  data_ = nullptr;
  size_ = 0;
  allocated_ = 0;
}

MapFile::~MapFile() {
  if (fd_ >= 0) close(fd_);
}

FileReadStatus MapFile::open(const std::string& path, std::int64_t max_bytes) {
  // O_NONBLOCK: opening a FIFO without a writer must not wait for one. It
  // has no effect on reads of regular files, the only kind accepted.
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd_ < 0) return FileReadStatus::kCannotRead;
  struct stat st;
  if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) return FileReadStatus::kCannotRead;
  if (st.st_size < 0) return FileReadStatus::kCannotRead;
  if (st.st_size > max_bytes) return FileReadStatus::kTooLarge;
  size_ = static_cast<std::size_t>(st.st_size);
  return FileReadStatus::kOk;
}

bool MapFile::read(std::size_t offset, std::size_t length, char* dst, std::size_t* got) const {
  std::size_t done = 0;
  while (done < length) {
    const ssize_t n = pread(fd_, dst + done, length - done, static_cast<off_t>(offset + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) break;  // the file shrank since open()
    done += static_cast<std::size_t>(n);
  }
  *got = done;
  return true;
}

namespace {

// A large file is read in this many bytes or more per thread.
constexpr std::size_t kBytesPerReader = std::size_t{32} << 20;

}  // namespace

FileReadStatus readWholeFile(const std::string& path, std::int64_t max_bytes, MapFileBuffer* out) {
  MapFile file;
  const FileReadStatus opened = file.open(path, max_bytes);
  if (opened != FileReadStatus::kOk) return opened;

  MapFileBuffer buffer(file.size());
  // Copying out of the page cache is the kernel's work on the reading
  // thread, so a large file is read as consecutive parts by the team at
  // once. The result is the parts up to the first short one: a file that
  // shrinks while it is read yields a prefix of what was there.
  const std::size_t size = buffer.size();
  const int readers = static_cast<int>(
      std::max<std::size_t>(1, std::min<std::size_t>(size / kBytesPerReader, omp_get_max_threads())));
  const std::size_t part = (size + static_cast<std::size_t>(readers) - 1) / static_cast<std::size_t>(readers);
  std::vector<std::size_t> got(static_cast<std::size_t>(readers), 0);
  std::atomic<bool> failed{false};
#pragma omp parallel for num_threads(readers) schedule(static, 1) if (readers > 1)
  for (int r = 0; r < readers; ++r) {
    const std::size_t begin = std::min(size, part * static_cast<std::size_t>(r));
    const std::size_t length = std::min(size - begin, part);
    if (!file.read(begin, length, buffer.data() + begin, &got[static_cast<std::size_t>(r)]))
      failed.store(true, std::memory_order_relaxed);
  }
  if (failed.load()) return FileReadStatus::kCannotRead;
  std::size_t done = 0;
  for (int r = 0; r < readers; ++r) {
    done += got[static_cast<std::size_t>(r)];
    if (got[static_cast<std::size_t>(r)] < part) break;
  }
  buffer.truncate(done);
  *out = std::move(buffer);
  return FileReadStatus::kOk;
}

}  // namespace internal
}  // namespace localization
}  // namespace zorvane
