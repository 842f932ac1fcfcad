#include "tools/zvmap/png_writer.h"

#include <fcntl.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <vector>

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

// libpng reports errors through a callback that must not return; it jumps
// back to the setjmp of the libpng call in progress. Only the calls below
// run under a setjmp, and they hold no objects with destructors.
void onPngError(png_structp png, png_const_charp message) {
  static_cast<PngWriter*>(png_get_error_ptr(png))->setError(message);
  png_longjmp(png, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

png_structp asPng(void* p) { return static_cast<png_structp>(p); }
png_infop asInfo(void* p) { return static_cast<png_infop>(p); }

}  // namespace

PngWriter::~PngWriter() { abandon(); }

void PngWriter::abandon() {
  if (png_ != nullptr) {
    png_structp png = asPng(png_);
    png_infop info = asInfo(info_);
    png_destroy_write_struct(&png, info != nullptr ? &info : nullptr);
    png_ = info_ = nullptr;
  }
  if (file_ != nullptr) {
    std::fclose(file_);
    file_ = nullptr;
  }
  if (!temp_path_.empty()) {
    std::remove(temp_path_.c_str());
    temp_path_.clear();
  }
}

std::string PngWriter::open(const std::string& path, std::uint32_t width, std::uint32_t height) {
  if (width < 1 || height < 1) return "an image needs at least one pixel";
  if (width > kMaxSide || height > kMaxSide) {
    return "the image would be " + std::to_string(width) + " x " + std::to_string(height) +
           " pixels; at most " + std::to_string(kMaxSide) + " per side";
  }
  path_ = path;
  height_ = height;
  std::vector<char> name(path.begin(), path.end());
  const char suffix[] = ".tmp-XXXXXX";
  name.insert(name.end(), suffix, suffix + sizeof suffix);  // with the terminator
  const int fd = mkstemp(name.data());
  if (fd < 0) return std::string("cannot create the image: ") + std::strerror(errno);
  temp_path_ = name.data();
  // mkstemp makes the file private; a picture is as readable as any file
  // the user creates.
  const mode_t mask = umask(0);
  umask(mask);
  (void)fchmod(fd, 0666 & ~mask);
  file_ = fdopen(fd, "wb");
  if (file_ == nullptr) {
    ::close(fd);
    return std::string("cannot create the image: ") + std::strerror(errno);
  }

  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, this, onPngError, onPngWarning);
  if (png == nullptr) return "out of memory";
  png_ = png;
  png_infop info = png_create_info_struct(png);
  if (info == nullptr) return "out of memory";
  info_ = info;
  if (setjmp(png_jmpbuf(png))) return "cannot write the image: " + error_;
  png_init_io(png, file_);
  png_set_user_limits(png, kMaxSide, kMaxSide);
  // Maps are large and mostly flat: the fastest compression loses little
  // size on them and keeps a render of millions of positions within a
  // second or two.
  png_set_compression_level(png, Z_BEST_SPEED);
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
  png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
  png_write_info(png, info);
  return "";
}

bool PngWriter::guardedWriteRow(const std::uint8_t* rgba) {
  png_structp png = asPng(png_);
  if (setjmp(png_jmpbuf(png))) return false;
  png_write_row(png, rgba);
  return true;
}

bool PngWriter::writeRow(const std::uint8_t* rgba) {
  if (png_ == nullptr || !error_.empty() || rows_written_ >= height_) return false;
  if (!guardedWriteRow(rgba)) return false;
  ++rows_written_;
  return true;
}

bool PngWriter::guardedEnd() {
  png_structp png = asPng(png_);
  if (setjmp(png_jmpbuf(png))) return false;
  png_write_end(png, nullptr);
  return true;
}

std::string PngWriter::finish() {
  if (png_ == nullptr) return "the image was not started";
  if (!error_.empty()) return "cannot write the image: " + error_;
  if (rows_written_ != height_) return "the image is incomplete";
  if (!guardedEnd()) return "cannot write the image: " + error_;
  png_structp png = asPng(png_);
  png_infop info = asInfo(info_);
  png_destroy_write_struct(&png, &info);
  png_ = info_ = nullptr;
  const bool flushed = std::fflush(file_) == 0 && fsync(fileno(file_)) == 0;
  const int saved_errno = errno;
  const bool closed = std::fclose(file_) == 0;
  file_ = nullptr;
  if (!flushed || !closed) return std::string("cannot write the image: ") + std::strerror(flushed ? errno : saved_errno);
  if (std::rename(temp_path_.c_str(), path_.c_str()) != 0) {
    return std::string("cannot write the image: ") + std::strerror(errno);
  }
  temp_path_.clear();
  return "";
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
