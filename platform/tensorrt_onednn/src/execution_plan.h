// A network made ready for one set of input shapes: primitives, layouts and memory are settled once.
#pragma once

#include <dnnl.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "network.h"
#include "plain_operators.h"

namespace ostrel::tensorrt_onednn {

// Memory of a plain operator: fixed, or that of an input or output of the network.
struct PlainPointer {
  float* fixed = nullptr;
  int port = -1;
};

// A primitive of oneDNN with its arguments, or a plain operator.
struct PlanStep {
  dnnl::primitive primitive;
  std::vector<dnnl_exec_arg_t> arguments;
  std::optional<Arithmetic> arithmetic;
  std::optional<Resize> resize;
  PlainPointer first;
  PlainPointer second;
  PlainPointer target;
};

// An argument of a primitive whose memory is that of an input or output.
struct PortMemory {
  int port = -1;
  dnnl::memory memory;
};

struct FreeDeleter {
  void operator()(void* block) const noexcept;
};

class ExecutionPlan {
 public:
  // Runs on the calling thread and at most `wished_threads()` cores. `addresses`: inputs then outputs, in the graph's order. False
  // when oneDNN refuses a step. One run at a time: a second one waits.
  bool run(void* const* addresses);

  int wished_threads() const { return wished_threads_; }
  std::size_t intermediate_bytes() const { return intermediate_bytes_; }
  const std::vector<Sizes>& sizes() const { return sizes_; }  // of every value

  // Runs that were put on a stream and are not through.
  std::atomic<int>& pending() { return pending_; }

 private:
  friend class PlanBuilder;

  bool run_step(const PlanStep& step, void* const* addresses);

  std::shared_ptr<const Network> network_;  // plain operators read its constants
  int wished_threads_ = 1;
  int threads_ = 1;
  std::vector<Sizes> sizes_;
  std::vector<PlanStep> steps_;
  std::vector<dnnl::memory> memories_;  // keeps those that the steps' arguments name
  std::vector<PortMemory> port_memories_;
  std::size_t intermediate_bytes_ = 0;
  std::unique_ptr<void, FreeDeleter> block_;
  dnnl::stream stream_;
  std::mutex mutex_;
  std::atomic<int> pending_{0};
};

// Builds a plan for inputs of these sizes (all known, in the order of graph.inputs) that uses at most `threads`
// cores. Throws ModelError for sizes that the network cannot take; std::bad_alloc.
std::shared_ptr<ExecutionPlan> build_plan(std::shared_ptr<Network> network,
                                          const std::vector<Sizes>& input_sizes, int threads);

}  // namespace ostrel::tensorrt_onednn
