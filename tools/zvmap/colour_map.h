// Colour maps of rendered layers.
#ifndef ZORVANE_TOOLS_ZVMAP_COLOUR_MAP_H_
#define ZORVANE_TOOLS_ZVMAP_COLOUR_MAP_H_

#include <cstdint>

namespace zorvane {
namespace tools {
namespace zvmap {

struct Rgba {
  std::uint8_t r, g, b, a;
};

// Viridis, the perceptually uniform map from dark blue (0) through green to
// yellow (1), interpolated linearly between eleven evenly spaced control
// colours. `t` is clamped to 0..1; NaN gives the colour of 0. Opaque.
Rgba viridis(float t);

// Black (0) to white (1), `t` clamped as above. Opaque.
Rgba grey(float t);

// Where `v` lies between `lo` and `hi` (0..1, unclamped); 0.5 when the
// range is empty.
float unitPosition(double v, double lo, double hi);

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_COLOUR_MAP_H_
