#include "localization/map_file_buffer.h"

#include <fcntl.h>
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
