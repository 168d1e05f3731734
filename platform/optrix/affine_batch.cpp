// OptrixPicture::getAffineBatchFloat32: checks, a pooled batch, one launch, the ready event.
#include <optrix/optrix_picture.h>

#include <algorithm>
#include <limits>

#include "affine_crop.h"
#include "batch_faults.h"
#include "device_pool.h"
#include "picture_pixels.h"

namespace optrix {
namespace {

constexpr std::size_t kPlanes = 3;

bool known(ColorOrder order) {
  return order == ColorOrder::kRgb || order == ColorOrder::kBgr;
}
bool known(NormPreset preset) {
  return preset == NormPreset::kUnit || preset == NormPreset::kByteRange;
}

// Bytes of the batch, or 0 when an index of it would leave 32 bits.
std::size_t batch_bytes(std::size_t count, int width, int height) {
  const double values = static_cast<double>(count) * kPlanes * static_cast<double>(width) * height;
  if (values > static_cast<double>(std::numeric_limits<std::int32_t>::max())) return 0;
  return static_cast<std::size_t>(values) * sizeof(float);
}

TensorBatch describe(std::shared_ptr<detail::PooledBlock> block, std::size_t bytes, std::size_t count,
                     int width, int height) {
  TensorBatch batch;
  batch.data = static_cast<float*>(block->data);
  batch.bytes = bytes;
  batch.count = static_cast<std::int32_t>(count);
  batch.channels = static_cast<std::int32_t>(kPlanes);
  batch.height = height;
  batch.width = width;
  batch.ready_event = block->event;
  batch.memory = std::move(block);
  return batch;
}

cudaError_t queue_crops(const detail::PicturePixels& pixels, const detail::PictureView& view,
                        const std::vector<AffineCrop>& crops, detail::CropTarget target,
                        cudaStream_t stream) {
  const std::size_t crop_values =
      kPlanes * static_cast<std::size_t>(target.out_width) * static_cast<std::size_t>(target.out_height);
  for (std::size_t first = 0; first < crops.size(); first += detail::kMaxCropsPerLaunch) {
    detail::CropTable table{};
    const std::size_t count = std::min<std::size_t>(detail::kMaxCropsPerLaunch, crops.size() - first);
    std::copy_n(crops.begin() + static_cast<std::ptrdiff_t>(first), count, table.crops);
    const cudaError_t status =
        detail::launch_affine_crop(pixels.format, view, table, static_cast<int>(count), target, stream);
    if (status != cudaSuccess) return status;
    target.data += count * crop_values;
  }
  return cudaSuccess;
}

// The caller learns of the failure through `ok`; the runtime's last error must not show up in a later call.
TensorBatch failed_batch() {
  static_cast<void>(cudaGetLastError());
  return {};
}

}  // namespace

TensorBatch OptrixPicture::getAffineBatchFloat32(const std::vector<AffineCrop>& crops, int out_width,
                                                 int out_height, ColorOrder color_order,
                                                 NormPreset norm_preset, bool flag, bool* ok) const {
  if (ok != nullptr) *ok = false;
  if (detail::take_batch_failure() || pixels_ == nullptr) return {};
  if (crops.empty() || out_width < 1 || out_height < 1 || flag) return {};
  if (!known(color_order) || !known(norm_preset)) return {};
  const std::size_t bytes = batch_bytes(crops.size(), out_width, out_height);
  if (bytes == 0) return {};

  cudaError_t status = cudaSuccess;
  const cudaStream_t stream = detail::library_stream(&status);
  if (status != cudaSuccess) return failed_batch();
  auto block = detail::DevicePool::instance().acquire(bytes, &status);
  if (status != cudaSuccess) return failed_batch();

  TensorBatch batch = describe(std::move(block), bytes, crops.size(), out_width, out_height);
  const detail::CropTarget target{batch.data, out_width, out_height, color_order == ColorOrder::kRgb ? 0 : 2,
                                  norm_preset == NormPreset::kUnit ? 1.0F / 255.0F : 1.0F};
  status = queue_crops(*pixels_, {pixels_->luma, pixels_->chroma, width_, height_}, crops, target, stream);
  if (status == cudaSuccess) status = cudaEventRecord(batch.ready_event, stream);
  if (status != cudaSuccess) return failed_batch();

  detail::distort_batch(&batch);
  if (ok != nullptr) *ok = true;
  return batch;
}

}  // namespace optrix
