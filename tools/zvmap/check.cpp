// zvmap check: what the loader refuses or silently accepts, and what the
// server's table would look like.
#include <cmath>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "localization/grid_map_lossy.h"
#include "tools/zvmap/cell_fields.h"
#include "tools/zvmap/commands.h"
#include "tools/zvmap/console.h"
#include "tools/reference/plain_look_up_table.h"
#include "tools/zvmap/map_loading.h"
#include "tools/zvmap/table_measure.h"

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

using localization::GridMapLossy;
using localization::GridMatrix;
using localization::MCell;

// A height histogram this wide (about 600 m of height at the default step)
// means a spread or a height far beyond anything a street holds.
constexpr std::int64_t kHugeHistogram = 4096;
constexpr double kHugeTableBytes = 1024.0 * 1024.0 * 1024.0;
// The 32-bit offsets of a table address at most this many bins per axis.
constexpr std::int64_t kMaxTableBins = 0xffffffffLL;

enum class Severity { kOk, kWarning, kError };

class Report {
 public:
  void add(Severity severity, const std::string& text) {
    static const char* const kTags[] = {"ok     ", "warning", "error  "};
    std::cout << "  " << kTags[static_cast<int>(severity)] << "  " << text << "\n";
    if (severity == Severity::kWarning) ++warnings_;
    if (severity == Severity::kError) ++errors_;
  }
  int errors() const { return errors_; }
  int warnings() const { return warnings_; }

 private:
  int errors_ = 0;
  int warnings_ = 0;
};

std::string plural(std::int64_t n, const std::string& one, const std::string& many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

void checkRecords(const GridMatrix& m, Report* report) {
  std::int64_t named = 0, out_of_order = 0;
  std::int64_t previous = -1;
  for (const std::int32_t entry : m.index_) {
    if (entry < 0) continue;
    ++named;
    // Cells are numbered in record order: along increasing positions the
    // numbers increase exactly when the records did.
    if (entry < previous) ++out_of_order;
    previous = entry;
  }
  const auto cells = static_cast<std::int64_t>(m.cells_.size());
  const std::int64_t shadowed = cells - named;
  if (shadowed > 0) {
    report->add(Severity::kWarning,
                plural(shadowed, "record names", "records name") +
                    " a position named by a later record; the later record wins, the earlier cells are loaded "
                    "and uploaded but no position reaches them, and the map cannot be saved again as loaded");
  }
  if (out_of_order > 0) {
    report->add(Severity::kWarning, "records are not in increasing position order (" +
                                        plural(out_of_order, "position", "positions") +
                                        " follow a later record); the loader accepts any order, the "
                                        "library always writes increasing order");
  }
  if (shadowed == 0 && out_of_order == 0) {
    report->add(Severity::kOk, "records in increasing position order, each position named once");
  }
}

void checkSpreads(const GridMatrix& m, Report* report) {
  static const char* const kSpreadNames[4] = {"value_sigma[0]", "value_sigma[1]", "height_sigma[0]",
                                               "height_sigma[1]"};
  std::int64_t non_finite = 0, small = 0;
  std::int64_t zero[4] = {0, 0, 0, 0};
  for (const MCell& stored : m.cells_) {
    MCell copy = stored;  // runPreCheckSmall raises spreads: the checks work on copies
    non_finite += GridMatrix::runPreCheck(copy);
    copy = stored;
    small += GridMatrix::runPreCheckSmall(copy);
    const float spreads[4] = {stored.value_sigma[0], stored.value_sigma[1], stored.height_sigma[0],
                              stored.height_sigma[1]};
    for (int k = 0; k < 4; ++k) zero[k] += spreads[k] == 0.0f;
  }
  if (non_finite > 0) {
    report->add(Severity::kError, plural(non_finite, "cell has", "cells have") +
                                      " a spread whose square is not finite (runPreCheck): its table bins are NaN");
  }
  if (small > 0) {
    std::string which;
    for (int k = 0; k < 4; ++k) {
      if (zero[k] > 0) which += std::string(which.empty() ? "" : ", ") + kSpreadNames[k] + " " + std::to_string(zero[k]);
    }
    report->add(Severity::kError,
                plural(small, "cell has", "cells have") +
                    " a spread below 0.005 (runPreCheckSmall would raise it)" +
                    (which.empty() ? std::string() : "; zero spreads: " + which) +
                    ". A zero spread makes the prepared weight infinite and the cell's table bins NaN");
  }
  if (non_finite == 0 && small == 0) {
    report->add(Severity::kOk, "spreads finite (runPreCheck) and at least 0.005 (runPreCheckSmall)");
  }
}

void checkOrigins(const GridMapLossy& map, Report* report) {
  if (!std::isfinite(map.height_base_)) {
    report->add(Severity::kError, "height origin is " + formatFloat(map.height_base_) +
                                      ": every height mean loads as non-finite");
  }
  if (!std::isfinite(map.aux_value_base_)) {
    report->add(Severity::kWarning, "aux_value origin is " + formatFloat(map.aux_value_base_) +
                                        ": every aux_value loads as non-finite (matching does not use it)");
  }
  if (std::isfinite(map.height_base_) && std::isfinite(map.aux_value_base_)) {
    report->add(Severity::kOk, "origins finite (height " + formatFloat(map.height_base_) + ", aux_value " +
                                   formatFloat(map.aux_value_base_) + ")");
  }
}

void progressColumns(void* context, std::int64_t done) { static_cast<Progress*>(context)->update(done); }

void checkTable(const GridMapLossy& map, int level, Report* report) {
  const GridMatrix& m = map.matrix();
  TableSize size;
  {
    Progress progress("check: sizing the level-" + std::to_string(level) + " table",
                      reference::plainCoarseGeometry(m, level).cols_);
    size = measureTable(m, level, map.height_step_, map.value_step_, progressColumns, &progress);
  }
  const auto& c = size.coarse;
  const std::string name = "level-" + std::to_string(level) + " table";
  std::string text = name + ": " + std::to_string(c.cols_) + " x " + std::to_string(c.rows_) +
                     " coarse positions, " + std::to_string(size.value_bins) + " value bins (largest " +
                     std::to_string(size.largest_value) + "), " + std::to_string(size.height_bins) +
                     " height bins (largest " + std::to_string(size.largest_height) + "), " +
                     formatBytes(static_cast<double>(size.bytes()));
  const std::int64_t x0 =
      (static_cast<std::int64_t>(size.largest_height_i) - c.offset_x_) * level + m.offset_x_;
  const std::int64_t y0 =
      (static_cast<std::int64_t>(size.largest_height_j) - c.offset_y_) * level + m.offset_y_;
  const std::string where = "coarse position (" + std::to_string(size.largest_height_i) + ", " +
                            std::to_string(size.largest_height_j) + "), grid columns " + std::to_string(x0) +
                            ".." + std::to_string(x0 + level - 1) + ", rows " + std::to_string(y0) + ".." +
                            std::to_string(y0 + level - 1);
  if (size.clipped_blocks > 0) {
    report->add(Severity::kError,
                text + "; " + plural(size.clipped_blocks, "block needs", "blocks need") + " more than " +
                    std::to_string(kMaxHeightBins) + " height bins and would be clipped (widest " +
                    std::to_string(size.largest_height_wanted) + " bins at " + where + ")");
  } else if (size.value_bins > kMaxTableBins || size.height_bins > kMaxTableBins) {
    report->add(Severity::kError, text + "; more bins than the table's 32-bit offsets address: the server "
                                         "cannot build it");
  } else if (size.largest_height > kHugeHistogram || static_cast<double>(size.bytes()) > kHugeTableBytes) {
    report->add(Severity::kWarning, text + "; the widest height histogram (" +
                                        std::to_string(size.largest_height) + " bins at " + where +
                                        ") is far wider than a street needs");
  } else {
    report->add(Severity::kOk, text);
  }
}

}  // namespace

int runCheck(const CheckOptions& options) {
  GridMapLossy map;
  const MapLoadResult result = loadMap(options.map, /*prepare=*/false, &map);
  std::cout << "check " << options.map << "\n";
  Report report;
  if (!result.ok()) {
    const std::string reason = explainLoadFailure(options.map, result, map);
    report.add(Severity::kError, "does not load: " + reason);
    std::cout << "result: the map would not load\n";
    return fail(options.map, reason);
  }
  const GridMatrix& m = map.matrix();
  report.add(Severity::kOk, "loads: " + std::to_string(m.cells_.size()) + " cells on " + std::to_string(m.cols_) +
                                " x " + std::to_string(m.rows_) + " positions (offset x " +
                                std::to_string(m.offset_x_) + ", y " + std::to_string(m.offset_y_) + ")");
  if (result.partial_record) {
    report.add(Severity::kWarning, "body size field " + std::to_string(map.body_size_) +
                                       " is not a multiple of 22: the loader warns on every load and ignores "
                                       "the partial record");
  }
  checkRecords(m, &report);
  checkSpreads(m, &report);
  checkOrigins(map, &report);
  checkTable(map, options.level, &report);
  std::cout << "result: " << plural(report.errors(), "error", "errors") << ", "
            << plural(report.warnings(), "warning", "warnings") << "\n";
  if (report.errors() > 0) {
    return fail(options.map, plural(report.errors(), "problem", "problems") + " found (see the report)");
  }
  return kExitOk;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
