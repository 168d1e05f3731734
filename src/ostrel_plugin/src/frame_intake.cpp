#include "ostrel_plugin/src/frame_intake.h"

#include <cuda_runtime.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <variant>
#include <vector>

#include "tracking_runtime/tracker/atom/optrix_adapter.h"
#include "tracking_runtime/tracker/atom/rounding.h"

namespace ostrel_algo_internal {
namespace {

namespace atom = ostrel_tracker::tracking_runtime::tracker::atom;
using Metadata = optrix::OptrixPicture::BaseMetadata;

// The alternatives of a metadata value that are read, by their index.
constexpr std::size_t kInt32 = 1;
constexpr std::size_t kInt64 = 2;
constexpr std::size_t kDouble = 3;

constexpr int kChannels = 3;

int evenSide(int side) {
  return std::max(side & ~1, 2);
}

// The crop that lays the whole picture over the output, pixel centres on pixel centres.
optrix::AffineCrop wholePicture(const optrix::OptrixPicture& picture, int out_width, int out_height) {
  const float scale_x = static_cast<float>(picture.width()) / static_cast<float>(out_width);
  const float scale_y = static_cast<float>(picture.height()) / static_cast<float>(out_height);
  return atom::make_affine_crop(scale_x * 0.5F - 0.5F, scale_y * 0.5F - 0.5F, scale_x, scale_y);
}

// A failure that ends here must not show up as the last error of a later launch.
bool succeeded(cudaError_t status) {
  if (status == cudaSuccess) return true;
  static_cast<void>(cudaGetLastError());
  return false;
}

bool isReadable(const atom::TrtInputBatch& batch, bool cut, int width, int height) {
  const bool as_asked = batch.data != nullptr && cut && batch.count == 1 && batch.channels == kChannels &&
                        batch.width == width && batch.height == height;
  if (!as_asked) return false;
  return batch.ready_event == nullptr || succeeded(cudaEventSynchronize(batch.ready_event));
}

std::uint8_t toByte(float value) {
  return static_cast<std::uint8_t>(std::clamp(atom::round_to_int(value), 0, 255));
}

// Planes red, green, blue into pixels blue, green, red.
cv::Mat interleaveBgr(const std::vector<float>& planes, int width, int height) {
  cv::Mat image(height, width, CV_8UC3);
  const std::size_t plane = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  std::size_t pixel = 0;
  for (int row = 0; row < height; ++row) {
    std::uint8_t* out = image.ptr<std::uint8_t>(row);
    for (int column = 0; column < width; ++column, ++pixel, out += kChannels) {
      out[0] = toByte(planes[2 * plane + pixel]);
      out[1] = toByte(planes[plane + pixel]);
      out[2] = toByte(planes[pixel]);
    }
  }
  return image;
}

}  // namespace

bool readFiniteMetadataDouble(const Metadata& metadata, const std::string& key, double& out) {
  const auto entry = metadata.find(key);
  if (entry == metadata.end()) return false;
  const double* value = std::get_if<kDouble>(&entry->second);
  if (value == nullptr || !std::isfinite(*value)) return false;
  out = *value;
  return true;
}

bool readMetadataFlag(const Metadata& metadata, const std::string& key, bool& out) {
  const auto entry = metadata.find(key);
  if (entry == metadata.end()) return false;
  if (const auto* small = std::get_if<kInt32>(&entry->second)) {
    out = *small != 0;
    return true;
  }
  if (const auto* large = std::get_if<kInt64>(&entry->second)) {
    out = *large != 0;
    return true;
  }
  double number = 0.0;
  if (!readFiniteMetadataDouble(metadata, key, number)) return false;
  out = number != 0.0;
  return true;
}

cv::Mat buildBgrFromOptrixTensor(const std::shared_ptr<optrix::OptrixPicture>& picture, int width,
                                 int height) {
  if (!picture || width <= 0 || height <= 0) return {};
  const int out_width = evenSide(width);
  const int out_height = evenSide(height);

  bool cut = false;
  const optrix::TensorBatch owner = atom::cut_affine_batch(
      *picture, {wholePicture(*picture, out_width, out_height)}, out_width, out_height, &cut);
  const atom::TrtInputBatch batch = atom::trt_input_batch(owner);
  if (!isReadable(batch, cut, out_width, out_height)) return {};

  std::vector<float> planes(static_cast<std::size_t>(kChannels) * static_cast<std::size_t>(out_height) *
                            static_cast<std::size_t>(out_width));
  const std::size_t bytes = planes.size() * sizeof(float);
  if (!succeeded(cudaMemcpy(planes.data(), batch.data, bytes, cudaMemcpyDeviceToHost))) return {};
  return interleaveBgr(planes, out_width, out_height);
}

}  // namespace ostrel_algo_internal
