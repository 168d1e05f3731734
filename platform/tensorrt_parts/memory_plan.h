// Places intermediate results in one block of memory, so that what never lives together may share its place.
#pragma once

#include <cstddef>
#include <vector>

namespace ostrel::tensorrt_parts {

struct Lifetime {
  std::size_t bytes = 0;
  std::size_t first_step = 0;  // the step that writes it first
  std::size_t last_step = 0;   // the last step that touches it
  std::size_t offset = 0;      // set by place_buffers, a multiple of the alignment
};

// Sets every offset, the largest buffers first, each at the lowest place that is free for its whole life. Returns the
// bytes of the block. `alignment` of places and sizes, in bytes.
std::size_t place_buffers(std::vector<Lifetime>* buffers, std::size_t alignment);

}  // namespace ostrel::tensorrt_parts
