// The commands of zvmap_tool, for map producers. Each prints its report on
// standard output and returns the process exit status: 0 on success
// (verify: the map is sound), 1 when the file is unreadable or broken
// (verify: any problem found), 2 on bad arguments.
//
//   infoCommand(FILE)                      header, geometry, cells, raw value ranges
//   generateCommand(COLS, ROWS, SEED, OUT) a synthetic street map, saved with saveToFile
//   verifyCommand(FILE)                    load as the map server does, then check
#ifndef ZORVANE_TOOLS_ZVMAP_COMMANDS_H_
#define ZORVANE_TOOLS_ZVMAP_COMMANDS_H_

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "localization/grid_map_lossy.h"
#include "localization/little_endian.h"
#include "localization/lossy_body.h"
#include "localization/lossy_format.h"
#include "tests/support/synthetic_map.h"

namespace zorvane {
namespace tools {
namespace zvmap {

using localization::GridMapLossy;
using localization::GridMatrix;
using localization::MCell;
namespace lossy = localization::lossy;

// Running minimum and maximum of one quantity, NaN counted apart.
struct Range {
  double lo = std::numeric_limits<double>::infinity();
  double hi = -std::numeric_limits<double>::infinity();
  std::int64_t nan = 0;
  void add(float v) {
    if (std::isnan(v)) {
      ++nan;
      return;
    }
    lo = std::min(lo, static_cast<double>(v));
    hi = std::max(hi, static_cast<double>(v));
  }
};

inline void printRange(const char* name, const Range& r) {
  std::printf("  %-16s", name);
  if (r.lo > r.hi) {
    std::printf("(none)");
  } else {
    std::printf("%.6g .. %.6g", r.lo, r.hi);
  }
  if (r.nan > 0) std::printf("  (%lld NaN)", static_cast<long long>(r.nan));
  std::printf("\n");
}

inline bool readBytes(const std::string& path, std::vector<char>* bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

// info: decodes the file without preparing the cells, so the ranges are
// the raw numbers the file stores.
inline int infoCommand(const std::string& path) {
  std::vector<char> file;
  if (!readBytes(path, &file)) {
    std::cerr << "cannot read " << path << "\n";
    return 1;
  }
  std::printf("file          %s (%zu bytes)\n", path.c_str(), file.size());
  if (file.size() < static_cast<std::size_t>(lossy::kHeaderBytes)) {
    std::printf("not a zvmap file: shorter than the 61-byte header\n");
    return 1;
  }
  GridMapLossy map;
  if (map.loadHeaderBinary(file.data()) < 0) {
    std::printf("not a zvmap file: no \"zvmap\" magic\n");
    return 1;
  }
  const GridMatrix& m = map.matrix();
  const std::uint32_t records = map.body_size_ / lossy::kRecordBytes;
  std::printf("tag           0x%08x\n", map.header_tag_);
  std::printf("height origin %.9g\n", map.height_base_);
  std::printf("aux origin    %.9g\n", map.aux_value_base_);
  std::printf("reference     %.17g %.17g %.17g\n", map.reference_[0], map.reference_[1],
              map.reference_[2]);
  std::printf("body size     %u bytes (%u records%s)\n", map.body_size_, records,
              map.body_size_ % lossy::kRecordBytes != 0 ? ", not a multiple of 22" : "");
  std::printf("geometry      %d cols x %d rows = %u positions, offset x %d, offset y %d\n", m.cols_,
              m.rows_, m.grid_size_, m.offset_x_, m.offset_y_);
  const std::int64_t expected = lossy::kHeaderBytes + std::int64_t{lossy::kRecordBytes} * records;
  if (static_cast<std::int64_t>(file.size()) != expected) {
    std::printf("length        %zu bytes, header and body say %lld\n", file.size(),
                static_cast<long long>(expected));
    if (static_cast<std::int64_t>(file.size()) < expected) return 1;
  }
  if (map.loadBodyBinary(file.data() + lossy::kHeaderBytes) <= 0 && records > 0) return 1;

  const double occupancy = m.grid_size_ > 0 ? 100.0 * m.cells_.size() / m.grid_size_ : 0.0;
  std::printf("cells         %zu (%.1f%% of the positions)\n", m.cells_.size(), occupancy);
  Range value_mean, value_sigma, value_weight, height_mean, height_sigma, height_weight, aux;
  for (const MCell& c : m.cells_) {
    for (int k = 0; k < 2; ++k) {
      value_mean.add(c.value_mean[k]);
      value_sigma.add(c.value_sigma[k]);
      height_mean.add(c.height_mean[k]);
      height_sigma.add(c.height_sigma[k]);
    }
    value_weight.add(c.value_weight[0]);
    height_weight.add(c.height_weight[0]);
    aux.add(c.aux_value);
  }
  std::printf("ranges (raw)\n");
  printRange("value mean", value_mean);
  printRange("value sigma", value_sigma);
  printRange("value weight 1", value_weight);
  printRange("height mean", height_mean);
  printRange("height sigma", height_sigma);
  printRange("height weight 1", height_weight);
  printRange("aux value", aux);
  return 0;
}

inline bool parseInt(const char* text, long long lo, long long hi, long long* out) {
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

inline int generateCommand(const char* cols_text, const char* rows_text, const char* seed_text, const std::string& out) {
  long long cols = 0, rows = 0, seed = 0;
  if (!parseInt(cols_text, 1, 1 << 20, &cols) || !parseInt(rows_text, 1, 1 << 20, &rows) ||
      !parseInt(seed_text, 0, std::numeric_limits<long long>::max(), &seed)) {
    std::cerr << "COLS and ROWS must be whole numbers from 1 to 1048576, SEED a whole number >= 0\n";
    return 2;
  }
  if (static_cast<unsigned long long>(cols * rows) > lossy::kMaxGridPositions) {
    std::cerr << "COLS x ROWS exceeds the largest grid a map file may declare (2^30 positions)\n";
    return 2;
  }
  testing::SyntheticMap synthetic =
      testing::makeSyntheticMap(static_cast<int>(cols), static_cast<int>(rows),
                                       static_cast<std::uint64_t>(seed));
  GridMapLossy map;
  map.height_base_ = synthetic.height_base;
  map.aux_value_base_ = synthetic.aux_value_base;
  map.mutable_matrix() = std::move(synthetic.matrix);
  if (!map.saveToFile(out)) return 1;
  std::printf("wrote %s: %zu cells on %lld x %lld positions\n", out.c_str(),
              map.matrix().cells_.size(), cols, rows);
  return 0;
}

// Strictly increasing positions in the file's own record order.
inline std::int64_t recordsOutOfOrder(const std::vector<char>& file, std::uint32_t records) {
  std::int64_t bad = 0;
  std::int64_t previous = -1;
  for (std::uint32_t i = 0; i < records; ++i) {
    const std::int64_t p = lossy::decodeRecordPosition(file.data() + lossy::kHeaderBytes +
                                                 static_cast<std::size_t>(i) * lossy::kRecordBytes);
    if (p <= previous) ++bad;
    previous = p;
  }
  return bad;
}

// verify: the server's load, then the invariants of a sound map.
inline int verifyCommand(const std::string& path) {
  GridMapLossy map;
  if (!map.ReadFromFile(path)) {
    std::printf("FAIL %s: the map does not load\n", path.c_str());
    return 1;
  }
  const GridMatrix& m = map.matrix();
  std::vector<char> file;
  readBytes(path, &file);
  const auto records = static_cast<std::uint32_t>(m.cells_.size());
  std::vector<std::string> problems;
  if (map.body_size_ % lossy::kRecordBytes != 0) problems.push_back("body size is not a multiple of 22");
  if (file.size() >= static_cast<std::size_t>(lossy::kHeaderBytes) + lossy::kRecordBytes * std::size_t{records}) {
    const std::int64_t bad = recordsOutOfOrder(file, records);
    if (bad > 0) problems.push_back(std::to_string(bad) + " records not in increasing position order");
  }
  if (lossy::countBodyRecords(m) < 0) problems.push_back("some cells are not named by exactly one position");

  // Spreads are prepared now (2 s^2): a raw spread of 0 or one whose square
  // is not finite makes the matching numbers NaN.
  std::int64_t zero_spread = 0, non_finite = 0;
  for (const MCell& c : m.cells_) {
    const float spreads[4] = {c.value_sigma[0], c.value_sigma[1], c.height_sigma[0], c.height_sigma[1]};
    bool zero = false, finite = true;
    for (float s : spreads) {
      zero = zero || s == 0.0f;
      finite = finite && std::isfinite(s);
    }
    zero_spread += zero;
    non_finite += !finite;
  }
  if (zero_spread > 0) problems.push_back(std::to_string(zero_spread) + " cells with a zero sigma");
  if (non_finite > 0) problems.push_back(std::to_string(non_finite) + " cells with a non-finite sigma");
  if (!std::isfinite(map.height_base_) || !std::isfinite(map.aux_value_base_)) {
    problems.push_back("a non-finite height or aux_value origin");
  }

  std::printf("%s %s: %zu cells on %d x %d positions\n", problems.empty() ? "OK" : "FAIL", path.c_str(),
              m.cells_.size(), m.cols_, m.rows_);
  for (const std::string& p : problems) std::printf("  %s\n", p.c_str());
  return problems.empty() ? 0 : 1;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

#endif  // ZORVANE_TOOLS_ZVMAP_COMMANDS_H_
