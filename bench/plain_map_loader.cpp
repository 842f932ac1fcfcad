#include "bench/plain_map_loader.h"

#include <fstream>

#include "localization/grid_map_lossy.h"
#include "localization/lossy_format.h"

namespace zorvane {
namespace bench {

void plainPrepare(std::vector<localization::MCell>& cells) {
  const auto n = static_cast<std::int64_t>(cells.size());
#pragma omp parallel for schedule(static)
  for (std::int64_t i = 0; i < n; ++i) {
    localization::MCell& c = cells[static_cast<std::size_t>(i)];
    float* sigma[4] = {&c.value_sigma[0], &c.value_sigma[1], &c.height_sigma[0], &c.height_sigma[1]};
    float* weight[4] = {&c.value_weight[0], &c.value_weight[1], &c.height_weight[0], &c.height_weight[1]};
    for (int k = 0; k < 4; ++k) {
      const float s = *sigma[k];
      *weight[k] = *weight[k] / s;
      *sigma[k] = s * (s + s);
    }
  }
}

bool plainLoad(const std::string& path, bool prepare, PlainMap* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  in.seekg(0, std::ios::end);
  const auto length = static_cast<std::size_t>(in.tellg());
  in.seekg(0, std::ios::beg);
  std::vector<char> buf(length);
  if (!in.read(buf.data(), static_cast<std::streamsize>(length))) return false;
  localization::GridMapLossy header;
  header.loadHeaderBinary(buf.data());
  const localization::lossy::CellScales scales{0.01f, 0.01f, 0.01f, 0.01f, header.height_base_,
                                              header.aux_value_base_};
  const std::uint32_t records = header.body_size_ / 22;
  if (61 + 22 * static_cast<std::size_t>(records) > length) return false;
  out->matrix.manualInit(header.matrix().resolution_, header.matrix().cols_, header.matrix().rows_,
                         header.matrix().offset_x_, header.matrix().offset_y_);
  out->index.assign(header.matrix().grid_size_, -1);
  out->cells.resize(records);
  for (std::uint32_t i = 0; i < records; ++i) {
    const char* record = buf.data() + 61 + 22 * static_cast<std::size_t>(i);
    const std::uint32_t position = localization::lossy::decodeRecordPosition(record);
    if (position >= out->index.size()) return false;
    out->index[position] = static_cast<std::int32_t>(i);
    localization::lossy::decodeCellRecord(record, scales, &out->cells[i]);
  }
  if (prepare) plainPrepare(out->cells);
  return true;
}

}  // namespace bench
}  // namespace zorvane
