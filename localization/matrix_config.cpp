#include "localization/matrix_config.h"

namespace zorvane {
namespace localization {

MatrixConfig matrixConfigOf(const GridMatrixBase& m) {
  MatrixConfig config;
  config.resolution = m.resolution_;
  config.grid_size = m.grid_size_;
  config.cols = m.cols_;
  config.rows = m.rows_;
  config.offset_x = m.offset_x_;
  config.offset_y = m.offset_y_;
  return config;
}

}  // namespace localization
}  // namespace zorvane
