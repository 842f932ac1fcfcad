// A PNG file written one row at a time, so that an image of any height
// costs one row of memory. The image is first written to a temporary file
// beside the destination and renamed over it only when complete: a failed
// or interrupted render never leaves a truncated picture under the name.
#ifndef ZORVANE_TOOLS_ZVMAP_PNG_WRITER_H_
#define ZORVANE_TOOLS_ZVMAP_PNG_WRITER_H_

#include <cstdint>
#include <cstdio>
#include <string>

namespace zorvane {
namespace tools {
namespace zvmap {

class PngWriter {
 public:
  // The widest and tallest image written; larger ones are refused.
  static constexpr std::uint32_t kMaxSide = 1000000;

  PngWriter() = default;
  // Removes the temporary file unless finish() succeeded.
  ~PngWriter();
  PngWriter(const PngWriter&) = delete;
  PngWriter& operator=(const PngWriter&) = delete;

  // Starts an 8-bit RGBA image of `width` x `height` pixels (each 1 to
  // kMaxSide) bound for `path`. Returns an empty string, or a short
  // lower-case reason on failure.
  std::string open(const std::string& path, std::uint32_t width, std::uint32_t height);

  // Writes the next row, top to bottom: `width` pixels of four bytes (R, G,
  // B, alpha). False once anything has failed; finish() then says why.
  bool writeRow(const std::uint8_t* rgba);

  // Ends the image after exactly `height` rows, flushes it to disk and
  // renames it to the destination. Returns an empty string or a reason.
  std::string finish();

  // Records the libpng error message; used by the error callback.
  void setError(const char* message) { error_ = message; }

 private:
  bool guardedWriteRow(const std::uint8_t* rgba);
  bool guardedEnd();
  void abandon();

  std::string path_;
  std::string temp_path_;
  std::FILE* file_ = nullptr;
  void* png_ = nullptr;   // png_structp
  void* info_ = nullptr;  // png_infop
  std::uint32_t height_ = 0;
  std::uint32_t rows_written_ = 0;
  std::string error_;
};

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_PNG_WRITER_H_
