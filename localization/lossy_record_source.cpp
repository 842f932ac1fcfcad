#include "localization/lossy_record_source.h"

#include "localization/lossy_format.h"

namespace zorvane {
namespace localization {
namespace lossy {

const char* MemoryRecords::fetch(std::size_t first, std::size_t, char*, MapLoadStatus*) const {
  return records_ + first * kRecordBytes;
}

const char* FileRecords::fetch(std::size_t first, std::size_t n, char* scratch,
                               MapLoadStatus* failure) const {
  const std::size_t bytes = n * kRecordBytes;
  std::size_t got = 0;
  if (!file_.read(body_offset_ + first * kRecordBytes, bytes, scratch, &got)) {
    *failure = MapLoadStatus::kCannotRead;
    return nullptr;
  }
  if (got < bytes) {
    *failure = MapLoadStatus::kTruncatedBody;
    return nullptr;
  }
  return scratch;
}

}  // namespace lossy
}  // namespace localization
}  // namespace zorvane
