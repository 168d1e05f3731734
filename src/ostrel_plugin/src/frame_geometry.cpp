#include "ostrel_plugin/src/frame_geometry.h"

#include <algorithm>
#include <cmath>

namespace ostrel_algo_internal {
namespace {

std::int32_t narrow(std::int64_t value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

std::int32_t scaleCoordinate(std::int32_t value, float scale) {
  return narrow(static_cast<std::int64_t>(std::llround(static_cast<float>(value) * scale)));
}

std::int32_t processingSide(std::int32_t source, float resize_scale) {
  const std::int64_t scaled = std::llround(static_cast<float>(source) * resize_scale);
  const std::int64_t upper = std::max(source, 2);
  const std::int64_t side = std::min(std::max<std::int64_t>(scaled, 2), upper);
  return narrow(side & ~std::int64_t{1});
}

float inverseOf(float scale) {
  return scale > 1e-6F ? 1.0F / scale : 1e6F;
}

}  // namespace

ProcessingFrame makeProcessingFrame(std::int32_t source_width, std::int32_t source_height,
                                    float resize_scale) {
  ProcessingFrame frame;
  frame.width = processingSide(source_width, resize_scale);
  frame.height = processingSide(source_height, resize_scale);
  frame.scale_x = static_cast<float>(frame.width) / static_cast<float>(source_width);
  frame.scale_y = static_cast<float>(frame.height) / static_cast<float>(source_height);
  frame.inverse_scale_x = inverseOf(frame.scale_x);
  frame.inverse_scale_y = inverseOf(frame.scale_y);
  return frame;
}

BBox scaleToProcessing(const BBox& full, float scale_x, float scale_y, std::int32_t processing_width,
                       std::int32_t processing_height) {
  BBox scaled;
  scaled.x = scaleCoordinate(full.x, scale_x);
  scaled.y = scaleCoordinate(full.y, scale_y);
  scaled.w = scaleCoordinate(full.w, scale_x);
  scaled.h = scaleCoordinate(full.h, scale_y);
  return fitRectInsidePreserveSize(withSizeAtLeastOne(scaled), processing_width, processing_height);
}

BBox fitRectInsidePreserveSize(const BBox& rect, std::int32_t frame_width, std::int32_t frame_height) {
  const std::int64_t limit_x = std::max(frame_width, 1);
  const std::int64_t limit_y = std::max(frame_height, 1);
  const std::int64_t width = std::min<std::int64_t>(limit_x, std::max(rect.w, 1));
  const std::int64_t height = std::min<std::int64_t>(limit_y, std::max(rect.h, 1));
  std::int64_t x = std::max(rect.x, 0);
  std::int64_t y = std::max(rect.y, 0);
  if (x + width > limit_x) x = limit_x - width;
  if (y + height > limit_y) y = limit_y - height;
  return {narrow(x), narrow(y), narrow(width), narrow(height)};
}

BBox clipToFrame(const BBox& rect, std::int32_t frame_width, std::int32_t frame_height) {
  const std::int64_t left = std::max(rect.x, 0);
  const std::int64_t top = std::max(rect.y, 0);
  const std::int64_t right = std::min<std::int64_t>(std::int64_t{rect.x} + rect.w, frame_width);
  const std::int64_t bottom = std::min<std::int64_t>(std::int64_t{rect.y} + rect.h, frame_height);
  if (right <= left || bottom <= top) return rect;
  return {narrow(left), narrow(top), narrow(right - left), narrow(bottom - top)};
}

bool hasPositiveArea(const BBox& box) {
  const std::uint32_t product = static_cast<std::uint32_t>(box.w) * static_cast<std::uint32_t>(box.h);
  return static_cast<std::int32_t>(product) > 0;
}

bool sameBox(const BBox& a, const BBox& b) {
  return a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h;
}

BBox withSizeAtLeastOne(BBox box) {
  box.w = std::max(box.w, 1);
  box.h = std::max(box.h, 1);
  return box;
}

double clampSizeFromReference(double reference, double value, double min_ratio, double max_ratio) {
  const bool usable = std::isfinite(reference) && std::isfinite(value) && reference > 1e-6 && value > 1e-6;
  if (!usable) return std::max(1.0, value);  // in this order a NaN gives 1
  const double lower_ratio = std::max(min_ratio, 0.01);
  const double low = lower_ratio * reference;
  const double high = reference * std::max(lower_ratio, max_ratio);
  return std::min(high, std::max(low, value));
}

double normalizeAngle180(double angle_deg) {
  if (!std::isfinite(angle_deg)) return angle_deg;
  double turned = std::fmod(angle_deg + 180.0, 360.0);
  if (turned < 0.0) turned += 360.0;
  if (turned >= 360.0) turned = 0.0;  // a hair below zero rounds up to the full turn
  return turned - 180.0;
}

double shortestAngleDeltaDeg(double from_deg, double to_deg) {
  return normalizeAngle180(to_deg - from_deg);
}

}  // namespace ostrel_algo_internal
