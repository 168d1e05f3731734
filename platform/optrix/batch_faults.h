// Where tests make the resampling fail. The host's build asks the CUDA stand-in; the device's build has none.
#pragma once

#include <optrix/optrix_picture.h>

namespace optrix::detail {

// Counts the call; true when this call has to fail.
bool take_batch_failure();

// Overwrites what this call reports, when a test asked for it: count, channels, height, width, data type,
// layout, and whether there is data (0 makes the pointer null), in this order; values not given stay.
void distort_batch(TensorBatch* batch);

}  // namespace optrix::detail
