#include "packed_weights.h"

namespace ostrel::tensorrt_onednn {

const dnnl::engine& cpu_engine() {
  static const dnnl::engine engine(dnnl::engine::kind::cpu, 0);
  return engine;
}

dnnl::memory PackedWeights::get(int value, const dnnl::memory::desc& plain, const float* reals,
                                const dnnl::memory::desc& wanted) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const Entry& entry : entries_) {
    if (entry.value == value && entry.memory.get_desc() == wanted) return entry.memory;
  }
  // oneDNN takes pointers to mutable memory and only reads the source of a reorder.
  dnnl::memory source(plain, cpu_engine(), const_cast<float*>(reals));
  dnnl::memory packed(wanted, cpu_engine());
  dnnl::stream stream(cpu_engine());
  dnnl::reorder(source, packed).execute(stream, source, packed);
  stream.wait();
  entries_.push_back({value, packed});
  return packed;
}

std::size_t PackedWeights::count() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}

}  // namespace ostrel::tensorrt_onednn
