#pragma once

#include <optrix/optrix_picture.h>
#include <memory>
#include <vector>

#include "tracking_runtime/tracker/atom/gpu/trt_classify.h"

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The one place that touches names of the picture library which are not certain: enumerators are cast from
/// their numbers (planes red, green, blue; values 0 to 255) and the crop is filled by position.
/// Offsets are in view pixels, scales in view pixels per output pixel.
inline optrix::AffineCrop make_affine_crop(float offset_x, float offset_y, float scale_x, float scale_y) {
  return optrix::AffineCrop{offset_x, offset_y, scale_x, scale_y};
}

inline optrix::TensorBatch cut_affine_batch(const optrix::OptrixPicture& view,
                                            const std::vector<optrix::AffineCrop>& crops, int width,
                                            int height, bool* ok) {
  return view.getAffineBatchFloat32(crops, width, height, static_cast<optrix::ColorOrder>(0),
                                    static_cast<optrix::NormPreset>(1), false, ok);
}

/// The members of the library's batch that the tracker reads; the library's record owns the memory.
inline TrtInputBatch trt_input_batch(const optrix::TensorBatch& batch) {
  return {batch.data,
          batch.count,
          batch.channels,
          batch.height,
          batch.width,
          static_cast<int>(batch.dtype),
          static_cast<int>(batch.layout),
          batch.ready_event};
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
