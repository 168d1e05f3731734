#include "bgr_to_nv12.h"

#include <algorithm>

#include "picture_pixels.h"

namespace optrix::detail {
namespace {

// ITU-R BT.709: Y = 0.2126 R + 0.7152 G + 0.0722 B, scaled to 16..235; Cb and Cr scaled to 16..240. The
// weights are in units of 2^-16 and sum to 219/255 and to zero; rounding is to nearest.
constexpr int kFractionBits = 16;
constexpr int kHalf = 1 << (kFractionBits - 1);
constexpr int kLumaR = 11966, kLumaG = 40254, kLumaB = 4064;
constexpr int kCbR = -6596, kCbG = -22189, kCbB = 28785;
constexpr int kCrR = 28785, kCrG = -26145, kCrB = -2640;

std::uint8_t luma_of(int b, int g, int r) {
  return static_cast<std::uint8_t>(16 + ((kLumaR * r + kLumaG * g + kLumaB * b + kHalf) >> kFractionBits));
}

// `weighted` holds the weighted sum over `4` pixels.
std::uint8_t chroma_of(int weighted) {
  constexpr int kOffset = (128 << (kFractionBits + 2)) + (kHalf << 2);
  return static_cast<std::uint8_t>((weighted + kOffset) >> (kFractionBits + 2));
}

void luma_row(const std::uint8_t* row, int width, std::uint8_t* luma) {
  for (int x = 0; x < width; ++x) luma[x] = luma_of(row[3 * x], row[3 * x + 1], row[3 * x + 2]);
}

// An odd last column or row counts twice, which leaves the mean of the pixels that exist.
void chroma_row(const std::uint8_t* top, const std::uint8_t* bottom, int width, std::uint8_t* chroma) {
  for (int x = 0; x < width; x += 2) {
    const int left = 3 * x;
    const int right = 3 * std::min(x + 1, width - 1);
    const int b = top[left] + top[right] + bottom[left] + bottom[right];
    const int g = top[left + 1] + top[right + 1] + bottom[left + 1] + bottom[right + 1];
    const int r = top[left + 2] + top[right + 2] + bottom[left + 2] + bottom[right + 2];
    chroma[x] = chroma_of(kCbR * r + kCbG * g + kCbB * b);
    chroma[x + 1] = chroma_of(kCrR * r + kCrG * g + kCrB * b);
  }
}

}  // namespace

void bgr_to_nv12(const HostBgr& source, std::uint8_t* luma, std::uint8_t* chroma) {
  const std::size_t width = static_cast<std::size_t>(source.width);
  const std::size_t chroma_row_bytes = 2 * static_cast<std::size_t>(chroma_extent(source.width));
  const auto row = [&](int y) { return source.pixels + static_cast<std::size_t>(y) * source.stride_bytes; };
  for (int y = 0; y < source.height; ++y) {
    luma_row(row(y), source.width, luma + static_cast<std::size_t>(y) * width);
  }
  for (int y = 0; y < source.height; y += 2) {
    chroma_row(row(y), row(std::min(y + 1, source.height - 1)), source.width,
               chroma + static_cast<std::size_t>(y / 2) * chroma_row_bytes);
  }
}

}  // namespace optrix::detail
