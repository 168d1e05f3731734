// The picture library: frames in device memory, their metadata, and affine resampling into network input.
//
// All work of the library runs on one non-blocking stream of its own; what it hands out says through an event
// when it is written. Device memory is pooled: a steady stream of frames of one size allocates nothing.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

namespace optrix {

// Order of the planes of a tensor batch.
enum class ColorOrder : int { kRgb = 0, kBgr = 1 };

// Range of the values of a tensor batch: 0 to 1, or 0 to 255.
enum class NormPreset : int { kUnit = 0, kByteRange = 1 };

enum class TensorDtype : std::uint8_t { kFloat32 = 0 };
enum class TensorLayout : std::uint8_t { kNchw = 0 };

// How a picture's pixels lie in device memory. kNv12: a luma plane and an interleaved Cb, Cr plane of half
// the size (rounded up), BT.709 limited range, a chroma sample standing at the centre of its 2 x 2 luma
// block. kBgr: 8 bits, three channels. kNone: a size and metadata without any pixels.
enum class PixelFormat : int { kNone = 0, kNv12 = 1, kBgr = 2 };

// One axis-aligned crop: output pixel (i, j) reads the picture at offset + scale * index, per axis, where
// whole numbers are the centres of picture pixels.
struct AffineCrop {
  float offset_x;
  float offset_y;
  float scale_x;
  float scale_y;
};

// A batch of float tensors on the device, N, C, H, W without gaps. `data` is written by the library's stream;
// it may be read once `ready_event` has completed (cudaStreamWaitEvent, cudaEventSynchronize). `memory` owns
// data and event: whoever holds a copy of the record keeps both, and must hold one until its reads are
// through.
struct TensorBatch {
  float* data = nullptr;
  std::size_t bytes = 0;
  std::int32_t count = 0;
  std::int32_t channels = 0;
  std::int32_t height = 0;
  std::int32_t width = 0;
  TensorDtype dtype = TensorDtype::kFloat32;
  TensorLayout layout = TensorLayout::kNchw;
  cudaEvent_t ready_event = nullptr;
  std::shared_ptr<void> memory;
};

// Host pixels that a picture is made from; they are copied before the factory returns. Strides are in bytes.
struct HostBgr {
  const std::uint8_t* pixels = nullptr;
  int width = 0;
  int height = 0;
  std::size_t stride_bytes = 0;
};
struct HostNv12 {
  const std::uint8_t* luma = nullptr;
  const std::uint8_t* chroma = nullptr;
  int width = 0;
  int height = 0;
  std::size_t luma_stride_bytes = 0;
  std::size_t chroma_stride_bytes = 0;
};

namespace detail {
struct PicturePixels;
}

class OptrixPicture {
 public:
  using MetadataValue = std::variant<std::monostate, std::int32_t, std::int64_t, double, std::string>;

  // The metadata of a frame by key.
  struct BaseMetadata : std::unordered_map<std::string, MetadataValue> {
    using std::unordered_map<std::string, MetadataValue>::unordered_map;

    struct Keys {
      static constexpr const char* kPanDeg = "pan_deg";
      static constexpr const char* kTiltDeg = "tilt_deg";
      static constexpr const char* kHfovDeg = "hfov_deg";
      static constexpr const char* kVfovDeg = "vfov_deg";
      static constexpr const char* kFollowMeEnabledCommand = "lumenar.follow_me_enabled_command";
    };
  };

  // Factories. They block until the pixels are in device memory. Null when the size is not positive, the
  // pixels are null, a stride is shorter than a row, or a device call fails (then `error`, if given, reads
  // "optrix <call>: <device text>"; otherwise it names the argument).
  //
  // fromBgr keeps `format`: kNv12 converts on the host (2 x 2 chroma means), kBgr copies.
  static std::shared_ptr<OptrixPicture> fromBgr(const HostBgr& source,
                                                PixelFormat format = PixelFormat::kNv12,
                                                std::string* error = nullptr);
  static std::shared_ptr<OptrixPicture> fromNv12(const HostNv12& source, std::string* error = nullptr);
  // A picture without pixels, of any size, also an invalid one: resampling it fails.
  static std::shared_ptr<OptrixPicture> withoutPixels(int width, int height);

  int width() const { return width_; }
  int height() const { return height_; }
  PixelFormat format() const;

  std::uint64_t getTimestamp() const { return timestamp_; }
  BaseMetadata baseMetadata() const { return metadata_; }

  // To be set before the picture is handed to anyone: a picture in use is read from several threads.
  void setTimestamp(std::uint64_t timestamp) { timestamp_ = timestamp; }
  void setBaseMetadata(BaseMetadata metadata) { metadata_ = std::move(metadata); }

  // Resamples every crop to `out_width` x `out_height`: bilinear, coordinates clamped to the picture's edge
  // (a NaN reads the first pixel), three planes in `color_order`, values in the range of `norm_preset`.
  // Queues one kernel on the library's stream and does not wait for it; see TensorBatch for when the data may
  // be read. `flag` is reserved and has to be false. On failure `*ok` is false and the batch is empty: no
  // crop, a size that is not positive, an unknown order or preset, `flag` set, a picture without pixels, a
  // failed device call. Safe to call from several threads.
  TensorBatch getAffineBatchFloat32(const std::vector<AffineCrop>& crops, int out_width, int out_height,
                                    ColorOrder color_order, NormPreset norm_preset, bool flag,
                                    bool* ok) const;

 private:
  OptrixPicture(int width, int height, std::shared_ptr<const detail::PicturePixels> pixels);

  int width_ = 0;
  int height_ = 0;
  std::uint64_t timestamp_ = 0;
  BaseMetadata metadata_;
  std::shared_ptr<const detail::PicturePixels> pixels_;
};

}  // namespace optrix
