// The abstract grid map: one full-resolution matrix, the map-level values
// that the map file carries, and a cache of look-up tables keyed by level.
#ifndef ZORVANE_LOCALIZATION_GRID_MAP_BASE_H_
#define ZORVANE_LOCALIZATION_GRID_MAP_BASE_H_

#include <cstdint>
#include <map>
#include <string>

#include "localization/grid_matrix.h"

namespace zorvane {
namespace localization {

class GridMapBase {
 public:
  GridMapBase();
  virtual ~GridMapBase();

  // Whole-file persistence. The base versions do nothing and report false;
  // GridMapLossy implements them.
  virtual bool saveToFile(const std::string& path);
  virtual bool ReadFromFile(const std::string& path);

  // The full-resolution matrix; references stay valid for the map's life.
  virtual const GridMatrix& matrix() const;
  virtual GridMatrix& mutable_matrix();

  // The cached table of `level`. A missing level is not recoverable: writes
  // "map::at" and a newline to standard error and ends the process with
  // exit status 255. Never returns in that case.
  virtual const GridMatrixTable& matrixTable(const unsigned& level) const;

  // Insert-or-get: the cached table of `level`, inserting a default
  // (empty) table first when the level is missing.
  virtual GridMatrixTable& mutable_matrixable(const unsigned& level);

  // Makes sure the cache holds `level`. A present level is kept as it is
  // (never regenerated); otherwise the table is built with
  // matrix_.getLookUpTable(level, height_step_, value_step_) and moved into
  // the cache. Entries are never removed or replaced.
  virtual void generateMatrixTalbe(const unsigned& level);

  // Binary codec slots, filled by the concrete map type.
  virtual int addHeaderBinary(char* buf) = 0;
  virtual int loadHeaderBinary(char* buf) = 0;
  virtual int getHeaderBinarySize() = 0;
  virtual int addBodyBinary(char* buf) = 0;
  virtual int loadBodyBinary(char* buf) = 0;
  virtual int getBodyBinarySize() = 0;

  float value_step_;           // value bin width of generated tables (1.0)
  float height_step_;          // height bin width of generated tables (0.15)
  std::uint32_t header_tag_;   // carried to and from the file header
  std::uint32_t body_size_;    // body bytes declared by the header read last
  float height_base_;          // file origin of height means (+inf)
  float aux_value_base_;       // file origin of aux_value (+inf)
  double reference_[3];        // carried to and from the file header (+inf)
  GridMatrix matrix_;
  std::map<unsigned, GridMatrixTable> matrix_tables_;
};

}  // namespace localization
}  // namespace zorvane

#endif  // ZORVANE_LOCALIZATION_GRID_MAP_BASE_H_
