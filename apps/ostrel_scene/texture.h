// Textures from a seed.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>

namespace ostrel_scene {

// Smooth colour noise of several octaves with scattered rectangles: structure at all scales, no repetition.
cv::Mat landscape_texture(cv::Size size_px, std::uint32_t seed);

// A grid of `cells` x `cells` blocks of strongly differing colours.
cv::Mat patchwork_texture(int side_px, int cells, std::uint32_t seed);

}  // namespace ostrel_scene
