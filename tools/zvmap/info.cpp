// zvmap info: what a map file holds, as stored.
#include <cstdio>
#include <iostream>
#include <string>

#include "localization/grid_map_lossy.h"
#include "tools/zvmap/cell_fields.h"
#include "tools/zvmap/commands.h"
#include "tools/zvmap/console.h"
#include "tools/zvmap/json_writer.h"
#include "tools/zvmap/map_loading.h"

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

using localization::GridMapLossy;
using localization::GridMatrix;

struct Occupancy {
  std::int64_t occupied = 0;  // positions naming a cell
  double share = 0.0;         // of all positions
};

Occupancy occupancy(const GridMatrix& m) {
  Occupancy o;
  for (const std::int32_t entry : m.index_) o.occupied += entry >= 0;
  if (m.grid_size_ > 0) o.share = static_cast<double>(o.occupied) / m.grid_size_;
  return o;
}

void printText(const std::string& path, std::int64_t bytes, const GridMapLossy& map,
               const MapLoadResult& result) {
  const GridMatrix& m = map.matrix();
  const Occupancy occ = occupancy(m);
  char tag[16];
  std::snprintf(tag, sizeof tag, "0x%08x", map.header_tag_);
  std::cout << "file            " << path << "\n"
            << "file size       " << bytes << " bytes (" << formatBytes(static_cast<double>(bytes)) << ")\n"
            << "tag             " << map.header_tag_ << " (" << tag << ")\n"
            << "height origin   " << formatFloat(map.height_base_) << "\n"
            << "aux origin      " << formatFloat(map.aux_value_base_) << "\n"
            << "reference       " << formatDouble(map.reference_[0]) << " " << formatDouble(map.reference_[1])
            << " " << formatDouble(map.reference_[2]) << "\n"
            << "geometry        " << m.cols_ << " cols x " << m.rows_ << " rows = " << m.grid_size_
            << " positions, offset x " << m.offset_x_ << " y " << m.offset_y_ << "\n"
            << "cells           " << m.cells_.size() << " (body " << map.body_size_ << " bytes"
            << (result.partial_record ? ", not a multiple of 22: the partial record is ignored" : "") << ")\n"
            << "occupancy       " << occ.occupied << " positions, " << formatFixed(100.0 * occ.share, 1)
            << "% of the grid\n"
            << "fields (raw, as stored)\n"
            << "  field             min             max             mean\n";
  const auto stats = cellFieldStats(m);
  for (int f = 0; f < kCellFields; ++f) {
    const FieldStats& s = stats[f];
    char line[160];
    if (s.finite == 0) {
      std::snprintf(line, sizeof line, "  %-17s (no finite values)", kCellFieldNames[f]);
    } else {
      std::snprintf(line, sizeof line, "  %-17s %-15s %-15s %s", kCellFieldNames[f],
                    formatFloat(static_cast<float>(s.min)).c_str(), formatFloat(static_cast<float>(s.max)).c_str(),
                    formatFixed(s.mean(), 6).c_str());
    }
    std::cout << line;
    if (s.non_finite > 0) std::cout << "  (" << s.non_finite << " non-finite)";
    std::cout << "\n";
  }
}

void printJson(const std::string& path, std::int64_t bytes, const GridMapLossy& map,
               const MapLoadResult& result) {
  const GridMatrix& m = map.matrix();
  const Occupancy occ = occupancy(m);
  JsonWriter j;
  j.beginObject();
  j.key("file").value(path).key("file_bytes").value(bytes);
  j.key("tag").value(map.header_tag_);
  j.key("height_base").value(map.height_base_).key("aux_value_base").value(map.aux_value_base_);
  j.key("reference").beginArray();
  for (const double r : map.reference_) j.value(r);
  j.endArray();
  j.key("geometry").beginObject();
  j.key("cols").value(m.cols_).key("rows").value(m.rows_).key("positions").value(m.grid_size_);
  j.key("offset_x").value(m.offset_x_).key("offset_y").value(m.offset_y_);
  j.endObject();
  j.key("body_bytes").value(map.body_size_).key("partial_record").value(result.partial_record);
  j.key("cells").value(static_cast<std::int64_t>(m.cells_.size()));
  j.key("occupied_positions").value(occ.occupied).key("occupancy").value(occ.share);
  j.key("fields").beginObject();
  const auto stats = cellFieldStats(m);
  for (int f = 0; f < kCellFields; ++f) {
    const FieldStats& s = stats[f];
    j.key(kCellFieldNames[f]).beginObject();
    if (s.finite > 0) {
      j.key("min").value(static_cast<float>(s.min)).key("max").value(static_cast<float>(s.max));
      j.key("mean").value(s.mean());
    } else {
      j.key("min").null().key("max").null().key("mean").null();
    }
    j.key("non_finite").value(s.non_finite);
    j.endObject();
  }
  j.endObject();
  j.endObject();
  std::cout << j.text() << "\n";
}

}  // namespace

int runInfo(const InfoOptions& options) {
  GridMapLossy map;
  MapLoadResult result;
  if (!loadOrFail(options.map, /*prepare=*/false, &map, &result)) return kExitFailed;
  const std::int64_t bytes = fileBytes(options.map);
  if (options.json) {
    printJson(options.map, bytes, map, result);
  } else {
    printText(options.map, bytes, map, result);
  }
  return kExitOk;
}

}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane
