#include "tap_maps.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

namespace ostrel::host_cuda::tuned {

Overlap overlap_of(MapSize map, int row_shift, int column_shift) {
  return {std::max(0, -row_shift), std::min(map.height, map.height - row_shift), std::max(0, -column_shift),
          std::min(map.width, map.width - column_shift)};
}

float* scratch(Scratch slot, int count) {
  static thread_local std::array<std::vector<float>, static_cast<std::size_t>(Scratch::kSlots)> memory;
  std::vector<float>& floats = memory[static_cast<std::size_t>(slot)];
  if (floats.size() < static_cast<std::size_t>(count)) floats.resize(static_cast<std::size_t>(count));
  return floats.data();
}

void add_shifted(MapSize map, int row_shift, int column_shift, const float* source, float* target) {
  const Overlap overlap = overlap_of(map, row_shift, column_shift);
  const int shift = row_shift * map.width + column_shift;
  for (int y = overlap.first_row; y < overlap.rows_end; ++y) {
    float* target_row = target + y * map.width;
    const float* source_row = source + y * map.width + shift;
    for (int x = overlap.first_column; x < overlap.columns_end; ++x) target_row[x] += source_row[x];
  }
}

void spread_over_tap_columns(MapSize map, FilterSize filter, const float* source, float* target, int stride) {
  std::fill_n(target, map.positions() * stride, 0.0F);
  for (int tap = 0; tap < filter.taps(); ++tap) {
    const int row_shift = -filter.row_shift(tap);
    const int column_shift = -filter.column_shift(tap);
    const Overlap overlap = overlap_of(map, row_shift, column_shift);
    const int shift = row_shift * map.width + column_shift;
    for (int y = overlap.first_row; y < overlap.rows_end; ++y) {
      for (int x = overlap.first_column; x < overlap.columns_end; ++x) {
        const int position = y * map.width + x;
        target[position * stride + tap] = source[position + shift];
      }
    }
  }
}

void spread_over_tap_rows(MapSize map, FilterSize filter, const float* source, float* target) {
  std::fill_n(target, map.positions() * filter.taps(), 0.0F);
  for (int tap = 0; tap < filter.taps(); ++tap) {
    add_shifted(map, -filter.row_shift(tap), -filter.column_shift(tap), source,
                target + tap * map.positions());
  }
}

}  // namespace ostrel::host_cuda::tuned
