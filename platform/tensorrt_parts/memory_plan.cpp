#include "memory_plan.h"

#include <algorithm>
#include <numeric>

namespace ostrel::tensorrt_parts {
namespace {

std::size_t aligned(std::size_t bytes, std::size_t alignment) {
  return (bytes + alignment - 1) / alignment * alignment;
}

bool live_together(const Lifetime& a, const Lifetime& b) {
  return a.first_step <= b.last_step && b.first_step <= a.last_step;
}

// The lowest gap between the placed neighbours, which are sorted by offset.
std::size_t lowest_gap(const std::vector<const Lifetime*>& neighbours, std::size_t bytes,
                       std::size_t alignment) {
  std::size_t offset = 0;
  for (const Lifetime* neighbour : neighbours) {
    if (offset + bytes <= neighbour->offset) break;
    offset = std::max(offset, neighbour->offset + aligned(neighbour->bytes, alignment));
  }
  return offset;
}

}  // namespace

std::size_t place_buffers(std::vector<Lifetime>* buffers, std::size_t alignment) {
  std::vector<std::size_t> order(buffers->size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return (*buffers)[a].bytes > (*buffers)[b].bytes; });
  std::vector<const Lifetime*> placed;  // by offset
  std::size_t total = 0;
  for (const std::size_t index : order) {
    Lifetime& buffer = (*buffers)[index];
    std::vector<const Lifetime*> neighbours;
    std::copy_if(placed.begin(), placed.end(), std::back_inserter(neighbours),
                 [&](const Lifetime* other) { return live_together(*other, buffer); });
    buffer.offset = lowest_gap(neighbours, aligned(buffer.bytes, alignment), alignment);
    total = std::max(total, buffer.offset + aligned(buffer.bytes, alignment));
    const auto behind = std::find_if(placed.begin(), placed.end(),
                                     [&](const Lifetime* other) { return other->offset > buffer.offset; });
    placed.insert(behind, &buffer);
  }
  return total;
}

}  // namespace ostrel::tensorrt_parts
