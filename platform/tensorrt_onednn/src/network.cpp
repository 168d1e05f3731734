#include "network.h"

namespace ostrel::tensorrt_onednn {
bool processor_has_bfloat16() {
  const dnnl::cpu_isa isa = dnnl::get_effective_cpu_isa();
  return isa == dnnl::cpu_isa::avx512_core_bf16 || isa == dnnl::cpu_isa::avx512_core_amx;
}

void load_network(const void* bytes, std::size_t size, Network* network) {
  load_graph(bytes, size, network);
  network->bfloat16 = network->graph.precision == Precision::kBfloat16 && processor_has_bfloat16();
}

}  // namespace ostrel::tensorrt_onednn
