#include "tools/reference/synthetic_map.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "localization/lossy_format.h"

namespace zorvane {
namespace reference {
namespace {

using localization::MCell;

// Every random quantity is a hash of (seed, place, purpose), never the next
// number of a sequential generator: the map is then the same whatever the
// order in which rows are filled, and rows can be filled in parallel.
inline std::uint64_t mix(std::uint64_t z) {
  z += 0x9e3779b97f4a7c15ULL;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

inline std::uint64_t hash(std::uint64_t seed, std::int64_t a, std::int64_t b, std::uint64_t purpose) {
  std::uint64_t h = mix(seed ^ (purpose * 0xd1b54a32d192ed03ULL));
  h = mix(h ^ static_cast<std::uint64_t>(a));
  return mix(h ^ static_cast<std::uint64_t>(b));
}

// Uniform in [0, 1).
inline double unit(std::uint64_t h) { return static_cast<double>(h >> 11) * 0x1.0p-53; }

// Streams of independent uniforms for one place.
class Draw {
 public:
  Draw(std::uint64_t seed, std::int64_t a, std::int64_t b, std::uint64_t purpose)
      : state_(hash(seed, a, b, purpose)) {}
  double next() { return unit(mix(state_ += 0x9e3779b97f4a7c15ULL)); }
  double range(double lo, double hi) { return lo + (hi - lo) * next(); }
  // Roughly standard normal (Irwin-Hall of four uniforms, rescaled).
  double normal() { return (next() + next() + next() + next() - 2.0) * 1.7320508075688772; }

 private:
  std::uint64_t state_;
};

// Smooth value noise in [0, 1) with lattice spacing `scale` cells.
double valueNoise(std::uint64_t seed, std::uint64_t purpose, double x, double y, double scale) {
  const double fx = x / scale, fy = y / scale;
  const double x0 = std::floor(fx), y0 = std::floor(fy);
  const auto ix = static_cast<std::int64_t>(x0), iy = static_cast<std::int64_t>(y0);
  double tx = fx - x0, ty = fy - y0;
  tx = tx * tx * (3.0 - 2.0 * tx);
  ty = ty * ty * (3.0 - 2.0 * ty);
  const double v00 = unit(hash(seed, ix, iy, purpose)), v10 = unit(hash(seed, ix + 1, iy, purpose));
  const double v01 = unit(hash(seed, ix, iy + 1, purpose)), v11 = unit(hash(seed, ix + 1, iy + 1, purpose));
  const double a = v00 + (v10 - v00) * tx, b = v01 + (v11 - v01) * tx;
  return a + (b - a) * ty;
}

// Zones across one axis, in order of precedence: where the two axes
// disagree, the smaller zone wins (a road crossing a block is a road).
enum Zone : std::uint8_t { kRoad = 0, kSidewalk, kYard, kFacade, kInterior };

struct AxisSlot {
  std::uint8_t zone = kInterior;
  std::int32_t block = 0;       // running number of the street/block along the axis
  std::int32_t curb = 0;        // road: cells to the nearer curb
  std::int32_t centre = 0;      // road: cells to the centre line
  float height = 0.f;           // facade: building height drawn for the block side
};

// Walks a street pattern along one axis: road, sidewalk, yard, facade,
// building interior, facade, yard, sidewalk, next road, with drawn widths
// (0.15 m cells: roads 7.5-12 m, sidewalks 1.8-3 m, blocks 25-70 m).
std::vector<AxisSlot> layoutAxis(int n, std::uint64_t seed, std::uint64_t axis) {
  std::vector<AxisSlot> slots(static_cast<std::size_t>(n));
  Draw draw(seed, static_cast<std::int64_t>(axis), 0, 1);
  std::int64_t pos = -static_cast<std::int64_t>(draw.range(0, 350));
  auto fill = [&](std::int64_t len, AxisSlot slot, bool road) {
    for (std::int64_t i = 0; i < len; ++i, ++pos) {
      if (pos < 0 || pos >= n) continue;
      AxisSlot s = slot;
      if (road) {
        s.curb = static_cast<std::int32_t>(std::min(i, len - 1 - i));
        s.centre = static_cast<std::int32_t>(std::llabs(2 * i - (len - 1)) / 2);
      }
      slots[static_cast<std::size_t>(pos)] = s;
    }
  };
  for (std::int32_t block = 0; pos < n; ++block) {
    AxisSlot s;
    s.block = block;
    const auto sidewalk = static_cast<std::int64_t>(draw.range(12, 21));
    s.zone = kRoad;
    fill(static_cast<std::int64_t>(draw.range(50, 81)), s, true);
    s.zone = kSidewalk;
    fill(sidewalk, s, false);
    s.zone = kYard;
    fill(static_cast<std::int64_t>(draw.range(4, 40)), s, false);
    s.zone = kFacade;
    s.height = static_cast<float>(draw.range(6, 35));
    fill(3, s, false);
    s.zone = kInterior;
    fill(static_cast<std::int64_t>(draw.range(120, 420)), s, false);
    s.zone = kFacade;
    s.height = static_cast<float>(draw.range(6, 35));
    fill(3, s, false);
    s.zone = kYard;
    fill(static_cast<std::int64_t>(draw.range(4, 40)), s, false);
    s.zone = kSidewalk;
    fill(sidewalk, s, false);
  }
  return slots;
}

enum Kind : std::uint8_t { kEmpty = 0, kAsphalt, kMarking, kPavement, kGrass, kWall, kTree, kCar };

constexpr float kStep = 0.01f;
constexpr float kHeightBase = -4.0f;
constexpr float kAuxBase = 0.0f;

// v rounded onto the file's grid of steps from `origin`, and read back by
// the file's own step rule.
inline float onStep(double v, float origin) {
  double q = std::nearbyint((v - static_cast<double>(origin)) / 0.01);
  q = std::min(65535.0, std::max(0.0, q));
  return localization::lossy::decodeStep(static_cast<std::uint16_t>(q), origin, kStep);
}

inline float onWholeNumber(double v) {
  return static_cast<float>(std::min(200.0, std::max(5.0, std::nearbyint(v))));
}

// A weight byte read back by the file's own weight rule.
inline void onWeights(int b, float* w) {
  localization::lossy::decodeWeight(static_cast<std::uint8_t>(b), &w[0], &w[1]);
}

struct Scene {
  std::uint64_t seed;
  std::vector<AxisSlot> xs, ys;

  double ground(int x, int y) const {
    const double fx = x, fy = y;
    return 2.0 + 1.5 * std::sin(fx / 270.0) + 1.2 * std::sin(fy / 365.0 + 1.0) + 0.0008 * (fx + fy) +
           0.3 * valueNoise(seed, 11, fx, fy, 90.0);
  }

  // Tree canopy around (x, y): one candidate per 48 x 48 patch, centre
  // jittered, radius 8..16 cells. Returns the canopy height or 0.
  double tree(int x, int y) const {
    const int px = x / 48, py = y / 48;
    Draw d(seed, px, py, 21);
    if (d.next() > 0.55) return 0.0;
    const double cx = px * 48 + 24 + d.range(-7, 7), cy = py * 48 + 24 + d.range(-7, 7);
    const double r = d.range(8, 16);
    const double dx = x - cx, dy = y - cy;
    return dx * dx + dy * dy <= r * r ? d.range(4, 12) : 0.0;
  }

  Kind classify(int x, int y) const {
    const AxisSlot& sx = xs[static_cast<std::size_t>(x)];
    const AxisSlot& sy = ys[static_cast<std::size_t>(y)];
    const auto zone = static_cast<Zone>(std::min(sx.zone, sy.zone));
    const double u = unit(hash(seed, x, y, 31));
    // Patches that the survey did not see well (occlusion, range).
    const double seen = valueNoise(seed, 32, x, y, 70.0);
    switch (zone) {
      case kRoad: {
        const bool crossing = sx.zone == kRoad && sy.zone == kRoad;
        const AxisSlot& across = sx.zone == kRoad ? sx : sy;  // the axis the road runs across
        const int along = sx.zone == kRoad ? y : x;
        if (!crossing && across.curb >= 2 && across.curb < 14) {
          // Parking lane: cars 30 cells long in 36-cell slots.
          Draw car(seed, along / 36, across.block * 2 + (sx.zone == kRoad), 41);
          if (car.next() < 0.55 && along % 36 < 30) return u < 0.93 ? kCar : kEmpty;
        }
        if (!crossing && across.centre <= 1 && (along / 20) % 2 == 0) return kMarking;
        return u < 0.35 + 0.7 * seen ? kAsphalt : kEmpty;
      }
      case kSidewalk:
        if (tree(x, y) > 0.0) return u < 0.9 ? kTree : kEmpty;
        return u < 0.3 + 0.7 * seen ? kPavement : kEmpty;
      case kYard:
        if (tree(x, y) > 0.0) return u < 0.9 ? kTree : kEmpty;
        return u < 0.15 + 0.6 * seen ? kGrass : kEmpty;
      case kFacade:
        return u < 0.97 ? kWall : kEmpty;
      default:
        return kEmpty;
    }
  }

  void fillCell(int x, int y, Kind kind, MCell& cell) const {
    Draw d(seed, x, y, 51);
    const AxisSlot& sx = xs[static_cast<std::size_t>(x)];
    const AxisSlot& sy = ys[static_cast<std::size_t>(y)];
    const double g = ground(x, y);

    // Value means by material; the second component is mostly a nearby
    // shade, sometimes another material seen in the same cell.
    double lo = 12, hi = 35;
    double h0 = g, h1 = g, hs0 = 0.03, hs1 = 0.05;
    switch (kind) {
      case kMarking:
        lo = 170, hi = 200;
        h0 = g + d.range(0.0, 0.02), h1 = g + d.range(0.0, 0.05), hs0 = d.range(0.02, 0.05), hs1 = d.range(0.02, 0.1);
        break;
      case kPavement:
        lo = 55, hi = 95;
        h0 = g + 0.15 + d.range(-0.02, 0.02), h1 = g + d.range(0.0, 0.2), hs0 = d.range(0.02, 0.06), hs1 = d.range(0.03, 0.15);
        break;
      case kGrass:
        lo = 25, hi = 60;
        h0 = g + d.range(0.0, 0.15), h1 = g + d.range(0.0, 0.4), hs0 = d.range(0.04, 0.2), hs1 = d.range(0.05, 0.3);
        break;
      case kWall: {
        const AxisSlot& side = sx.zone == kFacade ? sx : sy;
        Draw b(seed, side.block, sx.zone == kFacade ? y / 90 : x / 90, 52);
        const double shade = b.range(40, 140);
        lo = shade - 10, hi = shade + 10;
        const double top = side.height * (0.6 + 0.4 * b.next());
        h0 = g + d.range(0.5, top), h1 = g + top, hs0 = d.range(0.15, 0.5), hs1 = d.range(0.1, 0.35);
        break;
      }
      case kTree: {
        const double crown = tree(x, y);
        lo = 20, hi = 55;
        h0 = g + crown * d.range(0.5, 1.0), h1 = g + crown * d.range(0.0, 0.4), hs0 = d.range(0.25, 0.5), hs1 = d.range(0.2, 0.5);
        break;
      }
      case kCar: {
        const int along = sx.zone == kRoad ? y : x;
        Draw c(seed, along / 36, x / 36 + y / 36, 53);
        const double paint = c.range(5, 200);
        lo = std::max(5.0, paint - 8), hi = std::min(200.0, paint + 8);
        h0 = g + d.range(0.5, 1.8), h1 = g + d.range(0.3, 1.5), hs0 = d.range(0.05, 0.3), hs1 = d.range(0.05, 0.3);
        break;
      }
      default:  // asphalt
        h0 = g + d.range(0.0, 0.03), h1 = g + d.range(0.0, 0.06), hs0 = d.range(0.02, 0.06), hs1 = d.range(0.03, 0.1);
        break;
    }
    const double m0 = d.range(lo, hi);
    const double m1 = d.next() < 0.75 ? m0 + 15.0 * d.normal() : d.range(5, 200);
    cell.value_mean[0] = onWholeNumber(m0);
    cell.value_mean[1] = onWholeNumber(m1);

    // Raw value sigmas: log-normal around 3, a few percent wide (8..20).
    for (float& s : cell.value_sigma) {
      double v = d.next() < 0.04 ? d.range(8, 20) : 3.0 * std::exp(0.35 * d.normal());
      s = onStep(std::min(20.0, std::max(0.5, v)), 0.f);
    }
    const int vb = d.next() < 0.6 ? static_cast<int>(d.range(150, 256)) : static_cast<int>(d.range(0, 256));
    onWeights(vb, cell.value_weight);

    cell.height_mean[0] = onStep(h0, kHeightBase);
    cell.height_mean[1] = onStep(h1, kHeightBase);
    cell.height_sigma[0] = onStep(std::min(0.5, std::max(0.02, hs0)), 0.f);
    cell.height_sigma[1] = onStep(std::min(0.5, std::max(0.02, hs1)), 0.f);
    const int hb = d.next() < 0.6 ? static_cast<int>(d.range(150, 256)) : static_cast<int>(d.range(0, 256));
    onWeights(hb, cell.height_weight);

    cell.aux_value = onStep(d.range(0.0, 100.0), kAuxBase);
  }
};

}  // namespace

SyntheticMap makeSyntheticMap(int cols, int rows, std::uint64_t seed) {
  SyntheticMap out;
  out.height_base = kHeightBase;
  out.aux_value_base = kAuxBase;
  if (cols <= 0 || rows <= 0) {
    out.matrix.manualInit(0.15f, 0, 0, 0, 0);
    return out;
  }
  // Offsets near the centre, never a multiple of 4.
  int offset_x = -(cols / 2) - 1 - static_cast<int>(seed % 3);
  int offset_y = -(rows / 2) - 2 - static_cast<int>((seed / 3) % 3);
  if (offset_x % 4 == 0) --offset_x;
  if (offset_y % 4 == 0) --offset_y;
  localization::GridMatrix& m = out.matrix;
  m.manualInit(0.15f, cols, rows, offset_x, offset_y);

  Scene scene{seed, layoutAxis(cols, seed, 0), layoutAxis(rows, seed, 1)};
  const std::size_t width = static_cast<std::size_t>(cols);
  const std::size_t n = width * static_cast<std::size_t>(rows);
  std::vector<std::uint8_t> kinds(n);
  std::vector<std::int64_t> row_start(static_cast<std::size_t>(rows) + 1, 0);

#pragma omp parallel for schedule(static)
  for (int y = 0; y < rows; ++y) {
    std::int64_t count = 0;
    for (int x = 0; x < cols; ++x) {
      const Kind k = scene.classify(x, y);
      kinds[static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x)] = k;
      count += k != kEmpty;
    }
    row_start[static_cast<std::size_t>(y) + 1] = count;
  }
  for (std::size_t y = 0; y < static_cast<std::size_t>(rows); ++y) row_start[y + 1] += row_start[y];

  m.index_.resize(n);
  m.cells_.resize(static_cast<std::size_t>(row_start.back()));
  std::int32_t* const index = m.index_.data();
  MCell* const cells = m.cells_.data();
#pragma omp parallel for schedule(static)
  for (int y = 0; y < rows; ++y) {
    std::int64_t next = row_start[static_cast<std::size_t>(y)];
    for (int x = 0; x < cols; ++x) {
      const std::size_t p = static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x);
      const auto k = static_cast<Kind>(kinds[p]);
      if (k == kEmpty) {
        index[p] = -1;
        continue;
      }
      index[p] = static_cast<std::int32_t>(next);
      scene.fillCell(x, y, k, cells[next]);
      ++next;
    }
  }
  return out;
}

}  // namespace reference
}  // namespace zorvane
