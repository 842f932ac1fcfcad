// Saving a map so that a failure can never cost the map already on disk.
//
// GridMapLossy::saveToFile truncates its target before it writes and does
// not check the write, so a full disk or a crash half-way through leaves a
// short or empty file behind while the call reports success. Producers of
// maps save through saveMapDurably instead: the new map is written to a
// temporary file beside the target, every write is checked, the file is
// flushed to the device, and only then is it renamed over the target. At
// every moment the target path names either the complete old map or the
// complete new one.
#ifndef ZORVANE_LOCALIZATION_DURABLE_SAVE_H_
#define ZORVANE_LOCALIZATION_DURABLE_SAVE_H_

#include <string>

#include "localization/grid_map_base.h"

namespace zorvane {
namespace localization {

struct MapSaveResult {
  bool ok = false;
  // One line naming the path and the reason (strerror text where a system
  // call failed); empty when ok.
  std::string error;
};

// Encodes `map` exactly as saveToFile would (through its virtual header and
// body operations and size queries, so the bytes are identical), prints
// nothing of its own, and replaces `path` atomically:
//  1. Refuses, before anything is written, a map saveToFile would not write:
//     no cells, more cells than the signed 32-bit file lengths allow
//     (97,612,890), an encoder refusal (addHeaderBinary or addBodyBinary
//     returning 0 or less; the codec prints its own red line then), or
//     header plus body differing from the buffer length.
//  2. Refuses a target that exists and is not a regular file (a directory,
//     FIFO, socket or device node is never replaced), and one whose status
//     cannot be read. A symbolic link is followed: the file it names is
//     replaced and the link stays (a dangling link is refused).
//  3. Creates ".<name>.tmp.XXXXXX" in the target's directory, writes the
//     whole encoding (retrying interrupted and short writes), gives it the
//     target's permission bits (a new file gets 0644 less the umask),
//     fsyncs it, renames it over the target and fsyncs the directory.
// On any failure in 1 to 3 the target is left exactly as it was, the
// temporary file is removed, and the result says why. The one exception is
// a failed fsync of the directory after the rename: the target then already
// holds the new map, but the rename may not survive a crash, and the result
// is a failure that says so. The owner of a replaced file becomes the
// saving process's user. Does not change `map` (beyond what the codec's
// operations do, which is nothing for GridMapLossy).
//
// Not safe against concurrent saves to the same path from other processes
// beyond what rename gives: the last rename wins, and each leaves a
// complete map.
MapSaveResult saveMapDurably(GridMapBase& map, const std::string& path);

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_DURABLE_SAVE_H_
