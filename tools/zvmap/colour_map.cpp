#include "tools/zvmap/colour_map.h"

#include <cmath>

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

// Viridis at t = 0, 0.1, ..., 1.
constexpr std::uint8_t kViridis[11][3] = {
    {0x44, 0x01, 0x54}, {0x48, 0x25, 0x76}, {0x41, 0x44, 0x87}, {0x35, 0x60, 0x8d},
    {0x2a, 0x78, 0x8e}, {0x21, 0x90, 0x8c}, {0x22, 0xa8, 0x84}, {0x43, 0xbf, 0x71},
    {0x7a, 0xd1, 0x51}, {0xbb, 0xdf, 0x27}, {0xfd, 0xe7, 0x25}};

float clampUnit(float t) {
  if (!(t > 0.0f)) return 0.0f;  // NaN included
  return t < 1.0f ? t : 1.0f;
}

std::uint8_t mix(std::uint8_t a, std::uint8_t b, float f) {
  return static_cast<std::uint8_t>(std::lround(a + (static_cast<float>(b) - a) * f));
}

}  // namespace

Rgba viridis(float t) {
  const float x = clampUnit(t) * 10.0f;
  const int i = x >= 10.0f ? 9 : static_cast<int>(x);
  const float f = x - static_cast<float>(i);
  const std::uint8_t* a = kViridis[i];
  const std::uint8_t* b = kViridis[i + 1];
  return {mix(a[0], b[0], f), mix(a[1], b[1], f), mix(a[2], b[2], f), 255};
}

Rgba grey(float t) {
  const auto level = static_cast<std::uint8_t>(std::lround(clampUnit(t) * 255.0f));
  return {level, level, level, 255};
}

float unitPosition(double v, double lo, double hi) {
  if (!(hi > lo)) return 0.5f;
  return static_cast<float>((v - lo) / (hi - lo));
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
