// Weights of an engine in the layouts that its convolutions ask for, shared by all contexts.
#pragma once

#include <dnnl.hpp>

#include <deque>
#include <mutex>

namespace ostrel::tensorrt_onednn {

class PackedWeights {
 public:
  // The constant `value` of the graph, given as row-major floats of `plain`, in the layout and type of `wanted`.
  // Packed at the first call; later ones return the same memory. May be called from several threads.
  dnnl::memory get(int value, const dnnl::memory::desc& plain, const float* reals,
                   const dnnl::memory::desc& wanted);

  // How many packed forms there are.
  std::size_t count() const;

 private:
  struct Entry {
    int value;
    dnnl::memory memory;
  };
  mutable std::mutex mutex_;
  std::deque<Entry> entries_;
};

// The one CPU engine of oneDNN in this process.
const dnnl::engine& cpu_engine();

}  // namespace ostrel::tensorrt_onednn
