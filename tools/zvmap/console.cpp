#include "tools/zvmap/console.h"

#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <utility>

namespace zorvane {
namespace tools {
namespace zvmap {

int fail(const std::string& subject, const std::string& reason) {
  std::cout.flush();
  std::fprintf(stderr, "zvmap: %s: %s\n", subject.c_str(), reason.c_str());
  std::fflush(stderr);
  return kExitFailed;
}

namespace {

template <typename T>
std::string shortest(T v) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  char text[64];
  const auto result = std::to_chars(text, text + sizeof text, v);
  return std::string(text, result.ptr);
}

}  // namespace

std::string formatFloat(float v) { return shortest(v); }
std::string formatDouble(double v) { return shortest(v); }

std::string formatFixed(double v, int decimals) {
  if (!std::isfinite(v)) return formatDouble(v);
  char text[400];
  std::snprintf(text, sizeof text, "%.*f", decimals, v);
  return text;
}

std::string formatBytes(double bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024.0 && unit < 4) {
    bytes /= 1024.0;
    ++unit;
  }
  if (unit == 0) return formatFixed(bytes, 0) + " B";
  return formatFixed(bytes, bytes < 10.0 ? 2 : 1) + " " + kUnits[unit];
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Progress::Progress(std::string label, std::int64_t total)
    : label_(std::move(label)),
      total_(total),
      active_(isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()),
      last_draw_(start_) {
  if (active_) draw(0);  // a step without updates still says what it is doing
}

Progress::~Progress() { finish(); }

void Progress::update(std::int64_t done) {
  if (!active_) return;
  const auto now = std::chrono::steady_clock::now();
  if (now - last_draw_ < std::chrono::milliseconds(100)) return;
  last_draw_ = now;
  draw(done);
}

void Progress::draw(std::int64_t done) {
  std::string line = "zvmap: " + label_;
  if (total_ > 0) line += " " + formatFixed(100.0 * static_cast<double>(done) / total_, 0) + "%";
  line += " (" + formatFixed(secondsSince(start_), 1) + " s)";
  std::fprintf(stderr, "\r%s\033[K", line.c_str());
  std::fflush(stderr);
  drawn_ = true;
}

void Progress::finish() {
  if (!active_) return;
  if (drawn_) {
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
  }
  active_ = false;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
