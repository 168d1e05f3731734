#pragma once

// A correlation as a dense product: taps shift maps against each other, and everything else is
// multiplication.

namespace ostrel::host_cuda::tuned {

struct MapSize {
  int height;
  int width;
  int positions() const { return height * width; }
};

// Tap (i, j) meets the feature at row y + i - height / 2, column x + j - width / 2.
struct FilterSize {
  int height;
  int width;
  int taps() const { return height * width; }
  int row_shift(int tap) const { return tap / width - height / 2; }
  int column_shift(int tap) const { return tap % width - width / 2; }
};

// The part of a map whose shifted position lies inside the map too.
struct Overlap {
  int first_row, rows_end;
  int first_column, columns_end;
};
Overlap overlap_of(MapSize map, int row_shift, int column_shift);

// Scratch memory of the calling thread, which keeps its capacity: at least `count` floats, contents
// undefined. Slots are independent of each other.
enum class Scratch : int { kFilter, kTapMaps, kSums, kSlots };
float* scratch(Scratch slot, int count);

// target += source shifted: target(y, x) += source(y + row_shift, x + column_shift) where that lies inside.
void add_shifted(MapSize map, int row_shift, int column_shift, const float* source, float* target);

// Columns of taps: target(position, tap), `stride` floats per position, is the map's value at the position
// shifted by minus the tap's shift, 0 outside and in the columns beyond the taps. That is the gradient that
// the feature at `position` meets through each tap.
void spread_over_tap_columns(MapSize map, FilterSize filter, const float* source, float* target, int stride);

// Rows of taps: target(tap, position), map.positions() floats per tap, of the same values.
void spread_over_tap_rows(MapSize map, FilterSize filter, const float* source, float* target);

}  // namespace ostrel::host_cuda::tuned
