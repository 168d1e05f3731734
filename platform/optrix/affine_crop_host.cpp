// The resampling kernels as loops over rows: the two source rows are blended first, as far as the crop
// reaches, then the columns are gathered from the blended row. Both loops vectorise.
#include <cuda_launch.h>

#include <algorithm>
#include <vector>

#include "affine_crop.h"
#include "affine_crop_kernels.h"

namespace optrix::detail {
namespace {

using ostrel::host_cuda::TunedLaunch;

constexpr int kRowsPerPiece = 32;

// The taps of every output column, relative to the first source column that any of them reads.
struct ColumnTaps {
  std::vector<int> first;
  std::vector<int> second;
  std::vector<float> weight;
  int begin = 0;
  int width = 0;

  template <typename Coordinate>
  void prepare(int out_width, int extent, Coordinate coordinate) {
    const std::size_t size = static_cast<std::size_t>(out_width);
    first.resize(size);
    second.resize(size);
    weight.resize(size);
    begin = extent;
    int end = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const Taps taps = taps_at(coordinate(static_cast<int>(i)), extent);
      first[i] = taps.first;
      second[i] = taps.second;
      weight[i] = taps.weight;
      begin = std::min(begin, taps.first);
      end = std::max(end, taps.second + 1);
    }
    width = end - begin;
    for (std::size_t i = 0; i < size; ++i) {
      first[i] -= begin;
      second[i] -= begin;
    }
  }
};

// One channel of an interleaved plane: rows y.first and y.second blended over the columns of `taps`.
void blend_rows(const std::uint8_t* plane, std::ptrdiff_t row_bytes, int pixel_bytes, int channel,
                const ColumnTaps& taps, Taps y, std::vector<float>& row) {
  row.resize(static_cast<std::size_t>(taps.width));
  const std::uint8_t* first = plane + y.first * row_bytes + taps.begin * pixel_bytes + channel;
  const std::uint8_t* second = plane + y.second * row_bytes + taps.begin * pixel_bytes + channel;
  float* target = row.data();
  for (int x = 0; x < taps.width; ++x) {
    const float top = first[x * pixel_bytes];
    target[x] = top + y.weight * (static_cast<float>(second[x * pixel_bytes]) - top);
  }
}

inline float gathered(const float* row, const ColumnTaps& taps, std::size_t i) {
  const float left = row[taps.first[i]];
  return left + taps.weight[i] * (row[taps.second[i]] - left);
}

// Buffers of one thread; they keep their size from frame to frame.
struct Scratch {
  ColumnTaps luma_taps;
  ColumnTaps chroma_taps;
  std::vector<float> rows[3];
};

Scratch& scratch_of_thread() {
  thread_local Scratch scratch;
  return scratch;
}

struct PlaneRows {
  float* red;
  float* green;
  float* blue;
};

PlaneRows plane_rows(const CropTarget& target, int crop_index, int j) {
  const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(target.out_width) * target.out_height;
  float* row = target.data + crop_index * 3 * plane + static_cast<std::ptrdiff_t>(j) * target.out_width;
  return {row + target.red_plane * plane, row + plane, row + (2 - target.red_plane) * plane};
}

void write_nv12_row(const Scratch& scratch, const CropTarget& target, PlaneRows out) {
  const float* luma = scratch.rows[0].data();
  const float* cb_row = scratch.rows[1].data();
  const float* cr_row = scratch.rows[2].data();
  const std::size_t width = static_cast<std::size_t>(target.out_width);
#pragma GCC ivdep  // NOLINT(clang-diagnostic-unknown-pragmas)
  for (std::size_t i = 0; i < width; ++i) {
    const float grey = kLumaGain * (gathered(luma, scratch.luma_taps, i) - 16.0F);
    const float cb = gathered(cb_row, scratch.chroma_taps, i) - 128.0F;
    const float cr = gathered(cr_row, scratch.chroma_taps, i) - 128.0F;
    out.red[i] = target.scale * limited_to_byte(grey + kRedFromCr * cr);
    out.green[i] = target.scale * limited_to_byte(grey + kGreenFromCb * cb + kGreenFromCr * cr);
    out.blue[i] = target.scale * limited_to_byte(grey + kBlueFromCb * cb);
  }
}

void write_bgr_row(const Scratch& scratch, const CropTarget& target, PlaneRows out) {
  const std::size_t width = static_cast<std::size_t>(target.out_width);
#pragma GCC ivdep  // NOLINT(clang-diagnostic-unknown-pragmas)
  for (std::size_t i = 0; i < width; ++i) {
    out.blue[i] = target.scale * gathered(scratch.rows[0].data(), scratch.luma_taps, i);
    out.green[i] = target.scale * gathered(scratch.rows[1].data(), scratch.luma_taps, i);
    out.red[i] = target.scale * gathered(scratch.rows[2].data(), scratch.luma_taps, i);
  }
}

void nv12_rows(const PictureView& picture, const AffineCrop& crop, int crop_index, int first_row, int end_row,
               const CropTarget& target) {
  Scratch& scratch = scratch_of_thread();
  const int chroma_width = chroma_extent(picture.width);
  const auto column = [&](int i) { return crop.offset_x + crop.scale_x * static_cast<float>(i); };
  scratch.luma_taps.prepare(target.out_width, picture.width, column);
  scratch.chroma_taps.prepare(target.out_width, chroma_width,
                              [&](int i) { return chroma_coordinate(column(i), picture.width); });
  for (int j = first_row; j < end_row; ++j) {
    const float y = crop.offset_y + crop.scale_y * static_cast<float>(j);
    const Taps chroma_y = taps_at(chroma_coordinate(y, picture.height), chroma_extent(picture.height));
    blend_rows(picture.luma, picture.width, 1, 0, scratch.luma_taps, taps_at(y, picture.height),
               scratch.rows[0]);
    for (int channel = 0; channel < 2; ++channel) {
      blend_rows(picture.chroma, std::ptrdiff_t{2} * chroma_width, 2, channel, scratch.chroma_taps, chroma_y,
                 scratch.rows[1 + channel]);
    }
    write_nv12_row(scratch, target, plane_rows(target, crop_index, j));
  }
}

void bgr_rows(const PictureView& picture, const AffineCrop& crop, int crop_index, int first_row, int end_row,
              const CropTarget& target) {
  Scratch& scratch = scratch_of_thread();
  scratch.luma_taps.prepare(target.out_width, picture.width,
                            [&](int i) { return crop.offset_x + crop.scale_x * static_cast<float>(i); });
  for (int j = first_row; j < end_row; ++j) {
    const float y = crop.offset_y + crop.scale_y * static_cast<float>(j);
    for (int channel = 0; channel < 3; ++channel) {
      blend_rows(picture.luma, std::ptrdiff_t{3} * picture.width, 3, channel, scratch.luma_taps,
                 taps_at(y, picture.height), scratch.rows[channel]);
    }
    write_bgr_row(scratch, target, plane_rows(target, crop_index, j));
  }
}

// Bands of rows of all crops over the cores.
template <typename Rows>
void over_bands(const TunedLaunch& launch, const PictureView& picture, const CropTable& table, int count,
                const CropTarget& target, Rows rows) {
  const int bands = (target.out_height + kRowsPerPiece - 1) / kRowsPerPiece;
  ostrel::host_cuda::parallel_for(count * bands, launch.threads_allowed, [&](int piece) {
    const int crop_index = piece / bands;
    const int first_row = piece % bands * kRowsPerPiece;
    rows(picture, table.crops[crop_index], crop_index, first_row,
         std::min(first_row + kRowsPerPiece, target.out_height), target);
  });
}

void affine_crop_nv12_tuned(const TunedLaunch& launch, const std::uint8_t* luma, const std::uint8_t* chroma,
                            int width, int height, CropTable table, int count, float* data, int out_width,
                            int out_height, int red_plane, float scale) {
  over_bands(launch, {luma, chroma, width, height}, table, count,
             {data, out_width, out_height, red_plane, scale}, nv12_rows);
}

void affine_crop_bgr_tuned(const TunedLaunch& launch, const std::uint8_t* pixels, int width, int height,
                           CropTable table, int count, float* data, int out_width, int out_height,
                           int red_plane, float scale) {
  over_bands(launch, {pixels, nullptr, width, height}, table, count,
             {data, out_width, out_height, red_plane, scale}, bgr_rows);
}

const bool kNv12Registered = ostrel::host_cuda::register_tuned_kernel<decltype(affine_crop_nv12_kernel)>(
    "affine_crop_nv12_kernel", affine_crop_nv12_tuned);
const bool kBgrRegistered = ostrel::host_cuda::register_tuned_kernel<decltype(affine_crop_bgr_kernel)>(
    "affine_crop_bgr_kernel", affine_crop_bgr_tuned);

}  // namespace
}  // namespace optrix::detail
