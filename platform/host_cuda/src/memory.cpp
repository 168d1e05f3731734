#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "allocations.h"
#include "api_call.h"
#include "counter_store.h"
#include "stream_table.h"

namespace ostrel::host_cuda::detail {
namespace {

// Rows of bytes from one place to another.
struct Copy {
  unsigned char* target;
  std::size_t target_pitch;
  const unsigned char* source;
  std::size_t source_pitch;
  std::size_t width;
  std::size_t height;

  void operator()() const {
    for (std::size_t row = 0; row < height; ++row) {
      std::memcpy(target + row * target_pitch, source + row * source_pitch, width);
    }
  }

  bool empty() const { return width == 0 || height == 0; }
  std::size_t target_bytes() const { return (height - 1) * target_pitch + width; }
  std::size_t source_bytes() const { return (height - 1) * source_pitch + width; }
};

Copy plain_copy(void* target, const void* source, std::size_t bytes) {
  return {
      static_cast<unsigned char*>(target), bytes, static_cast<const unsigned char*>(source), bytes, bytes, 1};
}

struct Places {
  Place target;
  Place source;

  bool to_device() const { return target == Place::kDevice; }
  bool from_device() const { return source == Place::kDevice; }
};

bool direction_fits(cudaMemcpyKind kind, const Places& places) {
  switch (kind) {
    case cudaMemcpyHostToHost:
      return !places.from_device() && !places.to_device();
    case cudaMemcpyHostToDevice:
      return !places.from_device() && places.to_device();
    case cudaMemcpyDeviceToHost:
      return places.from_device() && !places.to_device();
    case cudaMemcpyDeviceToDevice:
      return places.from_device() && places.to_device();
    case cudaMemcpyDefault:
      return true;
  }
  return false;
}

// Finds where both ends of a copy that is not empty lie, and refuses what the registry does not hold.
cudaError_t locate(const Copy& copy, cudaMemcpyKind kind, Places* places) {
  if (kind < cudaMemcpyHostToHost || kind > cudaMemcpyDefault) return cudaErrorInvalidMemcpyDirection;
  if (copy.target == nullptr || copy.source == nullptr) return cudaErrorInvalidValue;
  places->target = allocations().place_of(copy.target, copy.target_bytes());
  places->source = allocations().place_of(copy.source, copy.source_bytes());
  if (places->target == Place::kBroken || places->source == Place::kBroken) return cudaErrorInvalidValue;
  return direction_fits(kind, *places) ? cudaSuccess : cudaErrorInvalidValue;
}

// The source is read now, into memory that the work owns: the caller may change it after the call.
void submit_staged(Stream& stream, const Copy& copy) {
  auto staged = std::make_shared<std::vector<unsigned char>>(copy.width * copy.height);
  const Copy in{staged->data(), copy.width, copy.source, copy.source_pitch, copy.width, copy.height};
  in();
  const Copy out{copy.target, copy.target_pitch, staged->data(), copy.width, copy.width, copy.height};
  auto work = [staged = std::move(staged), out] { out(); };
  streams().submit(stream, make_work(work));
}

void submit_and_wait(Stream& stream, Copy copy) {
  streams().submit(stream, make_work(copy));
  stream.wait_for(stream.submitted());
}

void submit_by_place(Stream& stream, Copy copy, const Places& places) {
  if (!places.to_device() && !places.from_device()) {
    submit_and_wait(stream, copy);
  } else if (places.from_device() && places.target == Place::kPageable) {
    count(&Counters::blocking_copies);
    submit_and_wait(stream, copy);
  } else if (places.source == Place::kPageable && stream_mode() == StreamMode::kDeferred) {
    submit_staged(stream, copy);
  } else {
    streams().submit(stream, make_work(copy));
  }
}

cudaError_t copy_async(const Copy& copy, cudaMemcpyKind kind, cudaStream_t handle) {
  const auto stream = streams().find(handle);
  if (stream == nullptr) return cudaErrorInvalidResourceHandle;
  if (copy.empty()) return cudaSuccess;
  Places places{};
  const cudaError_t status = locate(copy, kind, &places);
  if (status != cudaSuccess) return status;
  if (handle == nullptr) count(&Counters::null_stream_work);
  submit_by_place(*stream, copy, places);
  return cudaSuccess;
}

// On the null stream, which waits for blocking streams only. Between two device buffers the host does not
// wait, and pageable memory counts as copied once it is staged: only the null stream knows when it has arrived.
cudaError_t copy_blocking(Copy copy, cudaMemcpyKind kind) {
  if (copy.empty()) return cudaSuccess;
  Places places{};
  const cudaError_t status = locate(copy, kind, &places);
  if (status != cudaSuccess) return status;
  const auto null_stream = streams().find(nullptr);
  if (places.from_device() && places.to_device()) {
    streams().submit(*null_stream, make_work(copy));
    return cudaSuccess;
  }
  count(&Counters::blocking_copies);
  if (places.to_device() && places.source == Place::kPageable && stream_mode() == StreamMode::kDeferred) {
    submit_staged(*null_stream, copy);
  } else {
    submit_and_wait(*null_stream, copy);
  }
  return cudaSuccess;
}

cudaError_t set_async(void* target, int value, std::size_t bytes, cudaStream_t handle) {
  const auto stream = streams().find(handle);
  if (stream == nullptr) return cudaErrorInvalidResourceHandle;
  if (bytes == 0) return cudaSuccess;
  if (!is_device_pointer(target, bytes)) return cudaErrorInvalidValue;
  if (handle == nullptr) count(&Counters::null_stream_work);
  auto work = [=] { std::memset(target, value, bytes); };
  streams().submit(*stream, make_work(work));
  return cudaSuccess;
}

}  // namespace
}  // namespace ostrel::host_cuda::detail

namespace detail = ostrel::host_cuda::detail;

cudaError_t cudaMemcpy(void* target, const void* source, std::size_t bytes, cudaMemcpyKind kind) {
  return detail::api_call(
      "cudaMemcpy", [&] { return detail::copy_blocking(detail::plain_copy(target, source, bytes), kind); });
}

cudaError_t cudaMemcpyAsync(void* target, const void* source, std::size_t bytes, cudaMemcpyKind kind,
                            cudaStream_t stream) {
  return detail::api_call("cudaMemcpyAsync", [&] {
    return detail::copy_async(detail::plain_copy(target, source, bytes), kind, stream);
  });
}

cudaError_t cudaMemcpy2DAsync(void* target, std::size_t target_pitch, const void* source,
                              std::size_t source_pitch, std::size_t width, std::size_t height,
                              cudaMemcpyKind kind, cudaStream_t stream) {
  return detail::api_call("cudaMemcpy2DAsync", [&] {
    if (width > target_pitch || width > source_pitch) return cudaErrorInvalidPitchValue;
    return detail::copy_async({static_cast<unsigned char*>(target), target_pitch,
                               static_cast<const unsigned char*>(source), source_pitch, width, height},
                              kind, stream);
  });
}

cudaError_t cudaMemsetAsync(void* target, int value, std::size_t bytes, cudaStream_t stream) {
  return detail::api_call("cudaMemsetAsync", [&] { return detail::set_async(target, value, bytes, stream); });
}
