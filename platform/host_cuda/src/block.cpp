#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "host_cuda/control.h"
#include "host_cuda/launch.h"
#include "host_cuda/parallel.h"

namespace ostrel::host_cuda::detail {
namespace {

constexpr int kFreshFill = 0xFF;

thread_local BlockState t_block{};

// Dynamic shared memory of the block that runs on this thread: one piece for each size in use, exactly as
// large as asked for, so that the address sanitizer sees an access past the end.
void* fresh_shared_memory(std::size_t bytes) {
  thread_local std::map<std::size_t, std::unique_ptr<unsigned char[]>> pieces;
  if (bytes == 0) return nullptr;
  std::unique_ptr<unsigned char[]>& piece = pieces[bytes];
  if (piece == nullptr) piece.reset(new unsigned char[bytes]);
  std::memset(piece.get(), kFreshFill, bytes);
  return piece.get();
}

std::minstd_rand& shuffler() {
  thread_local std::minstd_rand generator(20250101);
  return generator;
}

std::vector<int> fresh_order(int count, ThreadOrder order) {
  std::vector<int> places(static_cast<std::size_t>(count));
  std::iota(places.begin(), places.end(), 0);
  if (order == ThreadOrder::kReverse) std::reverse(places.begin(), places.end());
  if (order == ThreadOrder::kShuffled) std::shuffle(places.begin(), places.end(), shuffler());
  return places;
}

}  // namespace

const BlockState& current_block() {
  return t_block;
}

const int* thread_permutation(int threads) {
  thread_local std::vector<int> order;
  order = fresh_order(threads, thread_order());
  return order.data();
}

void run_blocks(const KernelShape& shape, void* object, void (*call)(void* object)) {
  const int grid = static_cast<int>(shape.grid);
  const bool permuted = thread_order() != ThreadOrder::kForward;
  const std::vector<int> order = permuted ? fresh_order(grid, thread_order()) : std::vector<int>();
  parallel_for(grid, threads_allowed(), [&](int place) {
    const int index = permuted ? order[static_cast<std::size_t>(place)] : place;
    t_block = {index, static_cast<int>(shape.block), grid, fresh_shared_memory(shape.shared_bytes), permuted};
    call(object);
  });
}

}  // namespace ostrel::host_cuda::detail
