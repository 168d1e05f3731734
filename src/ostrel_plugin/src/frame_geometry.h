#pragma once

#include <IAlgoPlugin.h>

#include <cstdint>

/// The two coordinate frames and the boxes in them. The full frame is the incoming picture; the processing
/// frame is the one that the tracker works in, even-sized, fixed at the start of a run. Boxes given by a host
/// can hold any value: sums are formed in 64 bits, and what does not fit into 32 bits is narrowed by wrapping.
namespace ostrel_algo_internal {

/// Processing-frame size and the factors between the frames.
struct ProcessingFrame {
  std::int32_t width = 0;
  std::int32_t height = 0;
  float scale_x = 1.0F;  ///< full to processing
  float scale_y = 1.0F;
  float inverse_scale_x = 1.0F;  ///< processing to full
  float inverse_scale_y = 1.0F;
};

/// The processing frame of a source of at least 1 x 1 pixels: each side scaled, rounded, held to 2 pixels and
/// to the source, and made even.
ProcessingFrame makeProcessingFrame(std::int32_t source_width, std::int32_t source_height,
                                    float resize_scale);

/// A full-frame box in the processing frame, moved inside it.
BBox scaleToProcessing(const BBox& full, float scale_x, float scale_y, std::int32_t processing_width,
                       std::int32_t processing_height);

/// Moves a box into the frame instead of cutting it; only what is larger than the frame shrinks. The result is
/// never empty and lies wholly inside. Frame sizes below 1 count as 1.
BBox fitRectInsidePreserveSize(const BBox& rect, std::int32_t frame_width, std::int32_t frame_height);

/// The part of a box that lies in the frame, or the box unchanged when no part does.
BBox clipToFrame(const BBox& rect, std::int32_t frame_width, std::int32_t frame_height);

/// Whether width times height, as a 32-bit product, is positive.
bool hasPositiveArea(const BBox& box);

bool sameBox(const BBox& a, const BBox& b);
BBox withSizeAtLeastOne(BBox box);

/// Limits a size to between `min_ratio` (at least 0.01) and `max_ratio` times a reference size. A lower ratio
/// above the upper one decides alone. Without a usable reference or value: the value, at least 1.
double clampSizeFromReference(double reference, double value, double min_ratio, double max_ratio);

/// Degrees, wrapped into -180 (included) to 180 (not included); what is not finite stays.
double normalizeAngle180(double angle_deg);

/// The way from one direction to another by the shorter side, in degrees; what is not finite stays.
double shortestAngleDeltaDeg(double from_deg, double to_deg);

}  // namespace ostrel_algo_internal
