// Declarations of the resampling kernels, for their launcher and for the tuned host form.
#pragma once

#include "affine_crop.h"

namespace optrix::detail {

__global__ void affine_crop_nv12_kernel(const std::uint8_t* luma, const std::uint8_t* chroma, int width,
                                        int height, CropTable table, int count, float* data, int out_width,
                                        int out_height, int red_plane, float scale);

__global__ void affine_crop_bgr_kernel(const std::uint8_t* pixels, int width, int height, CropTable table,
                                       int count, float* data, int out_width, int out_height, int red_plane,
                                       float scale);

}  // namespace optrix::detail
