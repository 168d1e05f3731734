#include <host_cuda/control.h>

#include <cstdint>
#include <vector>

#include "batch_faults.h"

namespace optrix::detail {
namespace {

constexpr const char* kCall = "getAffineBatchFloat32";

}  // namespace

bool take_batch_failure() {
  return ostrel::host_cuda::take_fault(kCall) != 0;
}

void distort_batch(TensorBatch* batch) {
  std::vector<std::int64_t> values;
  if (!ostrel::host_cuda::take_answer(kCall, &values)) return;
  const auto given = [&](std::size_t index) { return index < values.size(); };
  if (given(0)) batch->count = static_cast<std::int32_t>(values[0]);
  if (given(1)) batch->channels = static_cast<std::int32_t>(values[1]);
  if (given(2)) batch->height = static_cast<std::int32_t>(values[2]);
  if (given(3)) batch->width = static_cast<std::int32_t>(values[3]);
  if (given(4)) batch->dtype = static_cast<TensorDtype>(values[4]);
  if (given(5)) batch->layout = static_cast<TensorLayout>(values[5]);
  if (given(6) && values[6] == 0) batch->data = nullptr;
}

}  // namespace optrix::detail
