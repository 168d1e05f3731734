#include <optrix/optrix_picture.h>

#include <cstring>
#include <utility>

#include "bgr_to_nv12.h"
#include "device_pool.h"
#include "picture_pixels.h"

namespace optrix {
namespace {

using detail::PicturePixels;

void set_error(std::string* error, std::string text) {
  if (error != nullptr) *error = std::move(text);
}

bool device_ok(cudaError_t status, const char* call, std::string* error) {
  if (status == cudaSuccess) return true;
  static_cast<void>(cudaGetLastError());  // reported here; it must not show up in a later call
  set_error(error, std::string("optrix ") + call + ": " + cudaGetErrorString(status));
  return false;
}

std::size_t luma_bytes(int width, int height) {
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

std::size_t nv12_bytes(int width, int height) {
  return luma_bytes(width, height) +
         2 * luma_bytes(detail::chroma_extent(width), detail::chroma_extent(height));
}

// One block on the device with the bytes of `packed`; blocks until they are there.
std::shared_ptr<detail::PooledBlock> uploaded(const std::vector<std::uint8_t>& packed, std::string* error) {
  cudaError_t status = cudaSuccess;
  const cudaStream_t stream = detail::library_stream(&status);
  if (!device_ok(status, "stream", error)) return nullptr;
  auto block = detail::DevicePool::instance().acquire(packed.size(), &status);
  if (!device_ok(status, "allocation", error)) return nullptr;
  status = cudaMemcpyAsync(block->data, packed.data(), packed.size(), cudaMemcpyHostToDevice, stream);
  if (!device_ok(status, "upload", error)) return nullptr;
  if (!device_ok(cudaStreamSynchronize(stream), "upload", error)) return nullptr;
  return block;
}

std::shared_ptr<const PicturePixels> make_pixels(PixelFormat format, std::size_t chroma_offset,
                                                 std::shared_ptr<detail::PooledBlock> block) {
  auto pixels = std::make_shared<PicturePixels>();
  pixels->format = format;
  pixels->luma = static_cast<const std::uint8_t*>(block->data);
  if (format == PixelFormat::kNv12) pixels->chroma = pixels->luma + chroma_offset;
  pixels->block = std::move(block);
  return pixels;
}

void pack_rows(const std::uint8_t* source, std::size_t stride_bytes, std::size_t row_bytes, int rows,
               std::uint8_t* target) {
  for (int y = 0; y < rows; ++y, source += stride_bytes, target += row_bytes) {
    std::memcpy(target, source, row_bytes);
  }
}

const char* why_unusable(const HostBgr& source) {
  if (source.width < 1 || source.height < 1) return "picture size is not positive";
  if (source.pixels == nullptr) return "picture has no pixels";
  if (source.stride_bytes < 3 * static_cast<std::size_t>(source.width)) return "stride is shorter than a row";
  return nullptr;
}

const char* why_unusable(const HostNv12& source) {
  if (source.width < 1 || source.height < 1) return "picture size is not positive";
  if (source.luma == nullptr || source.chroma == nullptr) return "picture has no pixels";
  const std::size_t chroma_row = 2 * static_cast<std::size_t>(detail::chroma_extent(source.width));
  if (source.luma_stride_bytes < static_cast<std::size_t>(source.width) ||
      source.chroma_stride_bytes < chroma_row) {
    return "stride is shorter than a row";
  }
  return nullptr;
}

std::vector<std::uint8_t> packed_bgr(const HostBgr& source, PixelFormat format) {
  if (format == PixelFormat::kNv12) {
    std::vector<std::uint8_t> packed(nv12_bytes(source.width, source.height));
    detail::bgr_to_nv12(source, packed.data(), packed.data() + luma_bytes(source.width, source.height));
    return packed;
  }
  const std::size_t row_bytes = 3 * static_cast<std::size_t>(source.width);
  std::vector<std::uint8_t> packed(row_bytes * static_cast<std::size_t>(source.height));
  pack_rows(source.pixels, source.stride_bytes, row_bytes, source.height, packed.data());
  return packed;
}

std::vector<std::uint8_t> packed_nv12(const HostNv12& source) {
  std::vector<std::uint8_t> packed(nv12_bytes(source.width, source.height));
  pack_rows(source.luma, source.luma_stride_bytes, static_cast<std::size_t>(source.width), source.height,
            packed.data());
  pack_rows(source.chroma, source.chroma_stride_bytes,
            2 * static_cast<std::size_t>(detail::chroma_extent(source.width)),
            detail::chroma_extent(source.height), packed.data() + luma_bytes(source.width, source.height));
  return packed;
}

}  // namespace

OptrixPicture::OptrixPicture(int width, int height, std::shared_ptr<const detail::PicturePixels> pixels)
    : width_(width), height_(height), pixels_(std::move(pixels)) {}

std::shared_ptr<OptrixPicture> OptrixPicture::fromBgr(const HostBgr& source, PixelFormat format,
                                                      std::string* error) {
  const char* problem = why_unusable(source);
  if (format == PixelFormat::kNone) problem = "picture format has no pixels";
  if (problem != nullptr) {
    set_error(error, problem);
    return nullptr;
  }
  auto block = uploaded(packed_bgr(source, format), error);
  if (block == nullptr) return nullptr;
  auto pixels = make_pixels(format, luma_bytes(source.width, source.height), std::move(block));
  return std::shared_ptr<OptrixPicture>(new OptrixPicture(source.width, source.height, std::move(pixels)));
}

std::shared_ptr<OptrixPicture> OptrixPicture::fromNv12(const HostNv12& source, std::string* error) {
  if (const char* problem = why_unusable(source)) {
    set_error(error, problem);
    return nullptr;
  }
  auto block = uploaded(packed_nv12(source), error);
  if (block == nullptr) return nullptr;
  auto pixels = make_pixels(PixelFormat::kNv12, luma_bytes(source.width, source.height), std::move(block));
  return std::shared_ptr<OptrixPicture>(new OptrixPicture(source.width, source.height, std::move(pixels)));
}

std::shared_ptr<OptrixPicture> OptrixPicture::withoutPixels(int width, int height) {
  return std::shared_ptr<OptrixPicture>(new OptrixPicture(width, height, nullptr));
}

PixelFormat OptrixPicture::format() const {
  return pixels_ == nullptr ? PixelFormat::kNone : pixels_->format;
}

}  // namespace optrix
