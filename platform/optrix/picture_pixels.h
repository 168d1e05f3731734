// A picture's pixels in device memory.
#pragma once

#include <cuda_runtime.h>
#include <optrix/optrix_picture.h>

#include <cstdint>
#include <memory>

#include "device_pool.h"

namespace optrix::detail {

// NV12: `luma` of width x height bytes, `chroma` of 2 * chroma_width x chroma_height bytes, Cb first.
// BGR: `luma` holds three bytes a pixel and there is no chroma. Rows follow each other without gaps.
struct PicturePixels {
  PixelFormat format = PixelFormat::kNone;
  const std::uint8_t* luma = nullptr;
  const std::uint8_t* chroma = nullptr;
  std::shared_ptr<PooledBlock> block;
};

__host__ __device__ inline int chroma_extent(int luma_extent) {
  return luma_extent / 2 + luma_extent % 2;
}

}  // namespace optrix::detail
