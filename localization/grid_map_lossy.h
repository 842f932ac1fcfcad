// GridMapLossy: the grid map stored in the quantised zvmap file.
//
// The file layout and the quantisation rules are in lossy_format.h. The
// format loses precision in fixed ways: sigmas, height means and aux_value
// are stored in steps of 0.01 (the last two from the map's origins), value
// means as whole numbers 0..255, and each pair of mixture weights as the
// share of the first in 255ths.
//
// Console output: every message is one line on standard output, ended and
// flushed; red messages are "\033[31m" + text + "\033[0m" + end of line.
//
// State after a refused load. Whatever a load refuses, the matrix keeps its
// invariant: index_ has exactly grid_size_ entries, each -1 or a cell
// number below cells_.size(). Where the refusal leaves no cells to go with
// the declared grid (a truncated body, dimensions or a position out of
// range), the geometry is reset with the cells: cols_, rows_, grid_size_,
// offset_x_ and offset_y_ become 0 and index_ and cells_ are empty; the
// header values (tag, origins, references, body_size_) stay as read.
#ifndef ZORVANE_LOCALIZATION_GRID_MAP_LOSSY_H_
#define ZORVANE_LOCALIZATION_GRID_MAP_LOSSY_H_

#include <string>

#include "localization/grid_map_base.h"
#include "localization/map_load_status.h"

namespace zorvane {
namespace localization {
namespace lossy {
struct CellScales;
struct Header;
class RecordSource;
}  // namespace lossy

class GridMapLossy : public GridMapBase {
 public:
  // Base members at their initial values, the five steps at their defaults.
  GridMapLossy() = default;
  ~GridMapLossy() override = default;

  // Writes the map to `path` (created or truncated first) as one buffer in
  // one write. Prints "GridMapLossy: buf size: " L, "GridMapLossy saveToFile:
  // header size: " h and "GridMapLossy saveToFile: body size: " b, then
  // returns true once the file is written. Returns false, leaving the file
  // empty:
  //  - red "GridMapLossy saveToFile: Cannot create file " + path when it
  //    cannot be opened (nothing else happens);
  //  - when the header or body length is 0 or less: a map without cells,
  //    or one addBodyBinary refuses (body size -1);
  //  - red "GridMapLossy saveToFile: Map size is not same as raw data!" when
  //    header plus body differs from the buffer length;
  //  - red "GridMapLossy saveToFile: Map too large for the file format",
  //    printed right after the open, for more than 97,612,890 cells (the
  //    lengths are signed 32-bit).
  // Saves the cells as they are: a loaded (prepared) map does not give back
  // the file it came from. Does not change the object.
  bool saveToFile(const std::string& path) override;

  // Replaces the header values and the matrix by the file at `path`, then
  // prepares the cells (runPreCalc). True when the map is ready for use.
  // Never reads outside the file's bytes or writes outside the matrix, and
  // takes at most the file's size plus the final matrix in memory. The
  // table cache is left as it was.
  //
  // The checks, in the order they are made, with the status load() reports
  // and the line ReadFromFile prints (all red; "size" stands for "ReadFromFile
  // : Map size is not same as raw data!"):
  //  - not a readable regular file (missing, a directory, a pipe, a device):
  //    kCannotRead, "ReadFromFile : Cannot read file " + path; object
  //    unchanged.
  //  - first five bytes not "zvmap" (an empty or shorter file included):
  //    kNotAMapFile, no line; object unchanged.
  //  - longer than the largest file the format allows (61 + 22 *
  //    97,612,890 bytes): kFileTooLarge, "size"; object unchanged.
  //  - ends inside the 61-byte header: kTruncatedHeader, "size"; object
  //    unchanged.
  //  - body size field not a multiple of 22: "GridMapLossy loadHeaderBinary :
  //    Map format wrong" (partial_record), then the load goes on with the
  //    whole records.
  //  - whole records declared beyond the end of the file: kTruncatedBody,
  //    "size"; matrix dropped (see the top of this file).
  //  - body size field below 22: kNoCells, no line of its own; header
  //    values and geometry loaded; index_ sized to the grid, all -1; cells_
  //    empty. Unless the geometry is refused (next row).
  //  - negative rows or columns, a grid whose 32-bit size wraps, or a grid
  //    too large for its cells (lossy::isLoadableGeometry): kDimensionsOutOfRange,
  //    "GridMapLossy loadBodyBinary : Map dimensions out of range"; matrix
  //    dropped. Decided from the header, before any memory is taken.
  //  - a record naming a position at or beyond the grid: kPositionOutOfRange,
  //    "GridMapLossy loadBodyBinary : Cell position out of range"; matrix
  //    dropped.
  //  - file length differs from 61 + the whole records: kSizeMismatch,
  //    "size"; header values, geometry, index_ and cells_ loaded from the
  //    file, in raw form.
  // After every refusal precalculated_ is false unless the object is
  // unchanged. Throws std::bad_alloc when memory for the file or the matrix
  // cannot be had.
  bool ReadFromFile(const std::string& path) override;

  // Loads exactly as ReadFromFile does, with the same checks and the same
  // state afterwards, but prints nothing and reports how the load ended.
  // Without `prepare` a successful load leaves the cells in raw form, as
  // the file holds them (precalculated_ false), for code that inspects
  // them. A subclass that overrides the binary operations is loaded through
  // them, and they may print.
  MapLoadResult load(const std::string& path, bool prepare = true);

  // Writes the 61-byte header at `buf`; the body size field is
  // getBodyBinarySize() now. Returns getHeaderBinarySize() + 16 (61).
  int addHeaderBinary(char* buf) override;

  // Returns -1 and changes nothing unless `buf` starts with "zvmap".
  // Otherwise loads the header values, body_size_ and the geometry (with
  // grid_size_ = cols * rows, 32-bit) from the 61 bytes at `buf`, prints
  // the red "GridMapLossy loadHeaderBinary : Map format wrong" when the body
  // size is not a multiple of 22, and returns 61.
  int loadHeaderBinary(char* buf) override;

  // 45: the header without its 16-byte geometry block.
  int getHeaderBinarySize() override;

  // Writes one 22-byte record per non-negative index_ entry, in increasing
  // position, at `buf`, which holds getBodyBinarySize() bytes. Returns
  // getBodyBinarySize(). A matrix without cells writes nothing. Otherwise
  // the writer refuses, writing nothing and returning -1, a matrix that
  // ReadFromFile would not give back:
  //  - an index that does not name every cell exactly once (an entry beyond
  //    cells_, a cell named twice or by no position), or records that would
  //    not fit the declared size: red "GridMapLossy addBodyBinary : Index
  //    does not name each cell once";
  //  - an index of other than grid_size_ entries, or a geometry the reader
  //    refuses (lossy::isLoadableGeometry): red "GridMapLossy addBodyBinary
  //    : Map dimensions out of range".
  int addBodyBinary(char* buf) override;

  // Rebuilds index_ and cells_ from body_size_ / 22 records at `buf` and
  // clears precalculated_; returns getBodyBinarySize() afterwards (22 times
  // the cells read). `buf` must hold that many bytes. Duplicate positions:
  // the later record wins, the earlier cell stays without a position.
  // Refuses, printing the red line, dropping the matrix (see the top of
  // this file) and returning 0: more than 97,612,890 records or a geometry
  // outside lossy::isLoadableGeometry for the declared records
  // ("GridMapLossy loadBodyBinary : Map dimensions out of range"), before
  // reading the body or sizing the index; a record naming a position at or
  // beyond grid_size_ ("GridMapLossy loadBodyBinary : Cell position out of
  // range").
  int loadBodyBinary(char* buf) override;

  // cells_.size() * 22 in 32-bit arithmetic.
  int getBodyBinarySize() override;

  // Quantisation steps of the file (defaults below). value_mean_step_ is
  // not consulted: value means are always stored as whole numbers.
  float value_sigma_step_ = 0.01f;
  float value_mean_step_ = 1.0f;
  float height_sigma_step_ = 0.01f;
  float height_mean_step_ = 0.01f;
  float aux_value_step_ = 0.01f;

 private:
  lossy::CellScales cellScales() const;
  void applyHeader(const lossy::Header& header);
  // Empties cells_ and index_ and resets the geometry (see the top of this
  // file); precalculated_ false.
  void dropMatrix();
  // The body reader behind loadBodyBinary and load: decodes body_size_ / 22
  // records from `source`, optionally straight into prepared form. Prints
  // nothing; on a refusal the matrix is dropped.
  MapLoadStatus decodeBodyRecords(const lossy::RecordSource& source, bool prepare);
  // ReadFromFile and load; `print` selects the console lines of ReadFromFile.
  MapLoadResult loadFile(const std::string& path, bool prepare, bool print);
  // loadFile for a map of exactly this class: the records are decoded out
  // of the file a run at a time, never held whole. Prints only the
  // partial-record line (with `print`); the caller prints the status.
  MapLoadStatus loadExactly(const std::string& path, bool prepare, bool print, bool* partial_record);
};

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_GRID_MAP_LOSSY_H_
