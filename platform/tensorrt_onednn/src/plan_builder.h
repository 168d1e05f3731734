// Turns layers into the steps of a plan.
#pragma once

#include <layer_planner.h>

#include "execution_plan.h"

namespace ostrel::tensorrt_onednn {

class PlanBuilder final : private LayerPlanner {
 public:
  PlanBuilder(std::shared_ptr<Network> network, const std::vector<Sizes>& input_sizes, int threads);
  std::shared_ptr<ExecutionPlan> build();

 private:
  // Where a value lies in one layout. Values of the graph have one placement or more.
  struct Placement {
    dnnl::memory::desc layout;
    int buffer;
  };
  struct Argument {
    int kind;  // DNNL_ARG_...
    dnnl::memory::desc layout;
    int buffer;          // -1: `fixed`
    dnnl::memory fixed;  // packed weights
  };
  struct PlainOperand {
    int buffer = -1;  // -1: `constant`
    const float* constant = nullptr;
  };
  struct Draft {
    dnnl::primitive primitive;
    std::vector<Argument> arguments;
    std::optional<Arithmetic> arithmetic;
    std::optional<Resize> resize;
    PlainOperand first;
    PlainOperand second;
    PlainOperand target;
  };

  void place_input(int value, int buffer) override;
  void add_convolution(const Layer& layer) override;
  void add_max_pool(const Layer& layer) override;
  void add_relu(const Layer& layer) override;
  void add_arithmetic(const Layer& layer) override;
  void add_resize(const Layer& layer) override;
  void write_output(int value, int buffer) override;

  dnnl::convolution_forward::primitive_desc describe_convolution(const Layer& layer) const;
  dnnl::memory::desc weights_layout(const Node& node) const;
  int convolution_target(const Layer& layer, const dnnl::memory::desc& layout);

  std::vector<Placement>& placements(int value) { return placements_[static_cast<std::size_t>(value)]; }
  dnnl::memory::desc plain_layout(int value) const;
  Placement fetch(int value, const dnnl::memory::desc& layout);
  PlainOperand fetch_plain(int index);
  void place(int value, const dnnl::memory::desc& layout, int buffer);
  void add_reorder(const Placement& source, const dnnl::memory::desc& layout, int buffer);
  void add_scratchpad(const dnnl::memory::desc& layout, Draft* draft);
  void add_step(Draft draft);

  void allocate();
  void* address_of(int buffer) const;
  PlanStep finish(const Draft& draft);
  dnnl_exec_arg_t bind(const Argument& argument);
  PlainPointer bind(const PlainOperand& operand) const;

  std::shared_ptr<Network> network_;
  std::shared_ptr<ExecutionPlan> plan_;
  dnnl::memory::data_type type_;  // of convolutions
  std::vector<std::vector<Placement>> placements_;
  std::vector<Draft> drafts_;
};

}  // namespace ostrel::tensorrt_onednn
