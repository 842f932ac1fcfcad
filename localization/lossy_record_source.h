// Where the loader takes a body's cell records from: a whole body already
// in memory, or the map file itself, read a run of records at a time.
//
// Reading the file in runs lets a load decode straight out of a small
// buffer per thread instead of first copying the whole file into fresh
// memory: for the 10 M-cell map that copy was 209 MB of pages to fault in
// and zero, a fifth of the load.
#ifndef ZORVANE_LOCALIZATION_LOSSY_RECORD_SOURCE_H_
#define ZORVANE_LOCALIZATION_LOSSY_RECORD_SOURCE_H_

#include <cstddef>

#include "localization/map_file_buffer.h"
#include "localization/map_load_status.h"

namespace zorvane {
namespace localization {
namespace lossy {

class RecordSource {
 public:
  virtual ~RecordSource() = default;

  // The 22 * n bytes of records [first, first + n): a pointer to them,
  // which is `scratch` (room for 22 * n bytes) when they had to be read
  // into it. nullptr when they cannot all be had, with *failure set to
  // kTruncatedBody (the source ends before them) or kCannotRead (a read
  // failed). Safe to call from several threads with distinct scratch.
  virtual const char* fetch(std::size_t first, std::size_t n, char* scratch,
                            MapLoadStatus* failure) const = 0;
};

// Records that lie in memory from `records` on; the caller guarantees that
// every record asked for is there. Never fails, never copies.
class MemoryRecords final : public RecordSource {
 public:
  explicit MemoryRecords(const char* records) : records_(records) {}
  const char* fetch(std::size_t first, std::size_t n, char* scratch,
                    MapLoadStatus* failure) const override;

 private:
  const char* records_;
};

// Records in `file` from byte `body_offset` on. The file must outlive this
// object. A file that has shrunk since it was opened gives kTruncatedBody
// for the records it no longer holds.
class FileRecords final : public RecordSource {
 public:
  FileRecords(const internal::MapFile& file, std::size_t body_offset)
      : file_(file), body_offset_(body_offset) {}
  const char* fetch(std::size_t first, std::size_t n, char* scratch,
                    MapLoadStatus* failure) const override;

 private:
  const internal::MapFile& file_;
  std::size_t body_offset_;
};

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_LOSSY_RECORD_SOURCE_H_
