// Host pixels to NV12, BT.709 limited range.
#pragma once

#include <optrix/optrix_picture.h>

#include <cstdint>

namespace optrix::detail {

// Writes width x height luma bytes and, for each 2 x 2 block (cut at an odd edge), Cb and Cr of its mean
// colour.
void bgr_to_nv12(const HostBgr& source, std::uint8_t* luma, std::uint8_t* chroma);

}  // namespace optrix::detail
