#include "region.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "bad_input.h"

namespace ostrel_host {
namespace {

bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

bool is_separator(char c) {
  return c == ',' || c == ';' || is_blank(c);
}

// Blanks, among them one comma or semicolon at most; false where there is neither.
bool skip_separator(const char** cursor) {
  const char* const start = *cursor;
  while (is_blank(**cursor)) ++*cursor;
  if (**cursor == ',' || **cursor == ';') ++*cursor;
  return *cursor != start;
}

// Reads one finite number and moves behind it; false where there is none.
bool read_number(const char** cursor, double* value) {
  char* end = nullptr;
  *value = std::strtod(*cursor, &end);
  const bool found = end != *cursor && std::isfinite(*value);
  *cursor = end;
  return found;
}

bool read_four(const char* cursor, double (&values)[4]) {
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && !skip_separator(&cursor)) return false;
    if (!read_number(&cursor, &values[i])) return false;
  }
  while (is_separator(*cursor) || *cursor == '\r') ++cursor;
  return *cursor == '\0';
}

std::int32_t rounded(double value, const std::string& text) {
  const double nearest = std::round(value);
  if (nearest < std::numeric_limits<std::int32_t>::min() ||
      nearest > std::numeric_limits<std::int32_t>::max()) {
    throw BadInput("'" + text + "' is no region: numbers beyond 32 bits");
  }
  return static_cast<std::int32_t>(nearest);
}

}  // namespace

cv::Rect2d parse_numbers(const std::string& text) {
  double values[4] = {};
  if (!read_four(text.c_str(), values)) {
    throw BadInput("'" + text + "' is no region: four numbers x,y,w,h are needed");
  }
  return {values[0], values[1], values[2], values[3]};
}

BBox parse_region(const std::string& text) {
  const cv::Rect2d numbers = parse_numbers(text);
  return {rounded(numbers.x, text), rounded(numbers.y, text), rounded(numbers.width, text),
          rounded(numbers.height, text)};
}

void require_inside(const BBox& region, cv::Size frame_px) {
  if (region.w < 1 || region.h < 1) return;
  const std::int64_t right = std::int64_t{region.x} + region.w;
  const std::int64_t bottom = std::int64_t{region.y} + region.h;
  if (region.x < frame_px.width && region.y < frame_px.height && right > 0 && bottom > 0) return;
  throw BadInput("the region " + to_text(region) + " lies outside the frame of " +
                 std::to_string(frame_px.width) + "x" + std::to_string(frame_px.height));
}

cv::Size parse_size(const std::string& text) {
  cv::Size size_px;
  const char* end = text.data() + text.size();
  const auto width = std::from_chars(text.data(), end, size_px.width);
  const bool has_width = width.ec == std::errc() && width.ptr != end && *width.ptr == 'x';
  const auto height = std::from_chars(has_width ? width.ptr + 1 : end, end, size_px.height);
  if (!has_width || height.ec != std::errc() || height.ptr != end) {
    throw BadInput("'" + text + "' is no size: WxH is needed, such as 640x360");
  }
  return size_px;
}

std::string to_text(const BBox& box) {
  return std::to_string(box.x) + "," + std::to_string(box.y) + "," + std::to_string(box.w) + "," +
         std::to_string(box.h);
}

}  // namespace ostrel_host
