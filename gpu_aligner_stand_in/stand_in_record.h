// Inspection interface of our gpu_aligner stand-in.
//
// The closed GPU matcher is not available to this project, so the shared
// library gpu_aligner that we build is a stand-in: it implements the four
// upload operations of gpu_aligner.h by keeping a record of what it received,
// and it checks the data the way a real matcher depends on it. Tests and
// tools read that record through this header; the real library has no such
// interface, so nothing in the map library may include it.
//
// The stand-in is single-threaded like the uploads themselves: the record is
// one process-wide object, written only by the four operations and by
// resetRecord(), and must not be read while an upload runs.
//
// What is kept of an array: a real matcher copies what it receives to the
// device once. The stand-in reads every byte once too, during the call, and
// keeps the pointer, the counts and a digest of those bytes rather than a
// copy: a copy would make the stand-in, not the map library, the largest
// cost of a start-up (fresh memory as large as the map and its table). A
// test that wants to know what arrived compares the digest with the array
// it expected (ReceivedArray::holds), and whether the caller kept its
// arrays unchanged since (ReceivedArray::unchanged).
//
// Bounds: a bare pointer does not say how long its array is, so the stand-in
// trusts the caller exactly as the real matcher does. It reads `count`
// elements behind each table and index pointer and, for the coarse records,
// the grid_size of the last coarse configuration. A caller that promises more
// than its array holds makes the stand-in read past the array's end; that is
// the caller's fault, and the sanitizer build reports it at the caller's
// upload. What the stand-in can see without reading is handled without
// reading: a negative count or a null pointer with a positive count reads
// nothing and is noted in the verdict.
#ifndef ZORVANE_GPU_ALIGNER_STAND_IN_RECORD_H_
#define ZORVANE_GPU_ALIGNER_STAND_IN_RECORD_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "gpu_aligner/gpu_aligner.h"

namespace zorvane {
namespace gpu_stand_in {

using localization::MatrixConfig;
using localization::MCell;
using localization::MCellCoarse;

// One call as it arrived: its operation name ("cudaSetMatrixConfig", ...)
// and the moment it was entered, for timing what happens between uploads.
struct CallEntry {
  std::string name;
  std::chrono::steady_clock::time_point at;
};

// What a real matcher relies on, judged on every call against the
// configurations received last. Each flag starts true and turns false at the
// first violation; `problems` says what was wrong, one line per violation
// kind and call. `warnings` lists what the upload contract allows but a
// matcher may stumble on; they do not make the verdict inconsistent.
struct Verdict {
  // cudaSetMatrixConfig and cudaSetMatrixConfigCoarse: cols and rows are not
  // negative and cols * rows (exact, not wrapped) equals grid_size.
  bool geometry_matches = true;
  // cudaSetMatrixCells: a full-resolution configuration came first, counts
  // are not negative, and the index has exactly that configuration's
  // grid_size entries.
  bool index_count_matches = true;
  // cudaSetMatrixCells: every index entry is -1 or a cell number below the
  // cell count.
  bool index_entries_valid = true;
  // cudaSetMatrixConfigCoarse: a full-resolution configuration came first,
  // and the coarse geometry is the one our table builder gives that matrix
  // for some factor f >= 1 (see coarseGeometryFor): the matcher walks a
  // coarse position's f x f block of full-resolution positions, so a table
  // of another matrix or of another level would have it look up the wrong
  // cells. f is taken from the resolutions (coarse / full, rounded to the
  // nearest whole number); every field, the resolution included, must then
  // equal the builder's single-precision result bit for bit.
  bool coarse_matches_full = true;
  // cudaSetMatrixCellsCoarse: a coarse configuration came first, counts are
  // not negative, and every coarse record's value bins
  // [value_offset, value_offset + value_bins) and height bins lie inside the
  // table passed for that axis.
  bool coarse_bins_inside = true;
  // cudaSetMatrixCellsCoarse: every coarse record's value bins lie on the
  // value scale, bins 0..255: value_bins <= 256, and when bins are stored,
  // value_first >= 0 and value_first + value_bins <= 256.
  bool value_bins_bounded = true;
  std::vector<std::string> problems;
  // Non-finite bins in either table (a block whose mass all underflows may
  // give NaN): one line per table and call.
  std::vector<std::string> warnings;

  bool consistent() const {
    return geometry_matches && index_count_matches && index_entries_valid &&
           coarse_matches_full && coarse_bins_inside && value_bins_bounded;
  }
};

// A 64-bit digest of `size` bytes: equal bytes give equal digests, and a
// change of any single byte always changes it. Not a cryptographic hash.
std::uint64_t digestOf(const void* bytes, std::size_t size);

// digestOf taken a piece at a time, so that a caller can inspect each piece
// while it is still in the caches: adding consecutive pieces gives the
// digest of the whole, provided every piece but the last is a multiple of
// 32 bytes.
class DigestStream {
 public:
  void add(const void* bytes, std::size_t size);
  std::uint64_t result() const;

 private:
  std::uint64_t lanes_[4] = {1, 2, 3, 4};
  std::size_t size_ = 0;
};

// One array as it arrived.
struct ReceivedArray {
  const void* at = nullptr;   // the pointer as passed
  std::int64_t count = 0;     // the element count as passed (coarse records:
                              // the last coarse configuration's grid_size)
  std::int64_t elements = 0;  // elements read: count, or 0 when unusable
  std::size_t bytes = 0;      // bytes read
  std::uint64_t digest = 0;   // digestOf the bytes read, taken during the call

  // True when exactly `n` elements arrived and their bytes were those of
  // `values` (element types without == included).
  template <class T>
  bool holds(const T* values, std::size_t n) const {
    return elements == static_cast<std::int64_t>(n) && bytes == n * sizeof(T) &&
           digestOf(values, bytes) == digest;
  }
  template <class Vector>
  bool holds(const Vector& values) const {
    return holds(values.data(), values.size());
  }
  // True when the bytes behind `at` are still those received.
  bool unchanged() const { return digestOf(at, bytes) == digest; }
};

struct Record {
  std::vector<CallEntry> calls;  // every call, in order

  std::vector<MatrixConfig> configs;         // each cudaSetMatrixConfig argument
  std::vector<MatrixConfig> coarse_configs;  // each cudaSetMatrixConfigCoarse argument

  // The arrays of the last cudaSetMatrixCells.
  ReceivedArray cells;  // MCell
  ReceivedArray index;  // int32

  // The arrays of the last cudaSetMatrixCellsCoarse. coarse_cells are the
  // grid_size records of the last coarse configuration (none read when no
  // coarse configuration had been received).
  ReceivedArray height_table;  // float
  ReceivedArray value_table;   // float
  ReceivedArray coarse_cells;  // MCellCoarse

  Verdict verdict;

  // Operation names in call order.
  std::vector<std::string> callNames() const;
};

// The record of everything received since the process started or since the
// last reset.
const Record& record();

// The geometry of the look-up table that our builder gives a matrix of
// geometry `full` at sub-sampling factor `factor` (>= 1): with F = factor in
// single precision, resolution full.resolution * F, cols and rows
// ceil(full / F), offsets floor(full / F) (every operation in single
// precision, conversions saturated to 32 bits, NaN as 0), grid_size
// cols * rows.
MatrixConfig coarseGeometryFor(const MatrixConfig& full, int factor);

// Forgets everything received: no calls, no configurations, empty arrays,
// a clean verdict.
void resetRecord();

}  // namespace gpu_stand_in
}  // namespace zorvane

#endif  // ZORVANE_GPU_ALIGNER_STAND_IN_RECORD_H_
