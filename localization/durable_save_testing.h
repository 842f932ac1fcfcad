// Test seam of saveMapDurably: the system calls through which it writes,
// syncs and renames. Running as root, a test cannot make a write or a rename
// fail through permissions, and a full file system is not always at hand,
// so the tests swap these calls for ones that fail on cue. Nothing else may
// touch them; saveMapDurably reads them on every call.
#ifndef ZORVANE_LOCALIZATION_DURABLE_SAVE_TESTING_H_
#define ZORVANE_LOCALIZATION_DURABLE_SAVE_TESTING_H_

#include <sys/types.h>

#include <cstddef>

namespace zorvane {
namespace localization {
namespace internal {

struct DurableSaveFileOps {
  ssize_t (*write)(int fd, const void* data, std::size_t bytes);
  int (*fsync)(int fd);
  int (*rename)(const char* from, const char* to);
};

// The calls in use; initially ::write, ::fsync and ::rename. A test that
// replaces them restores the defaults with resetDurableSaveFileOps().
DurableSaveFileOps& durableSaveFileOps();
void resetDurableSaveFileOps();

}  // namespace internal
}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_DURABLE_SAVE_TESTING_H_
