// Turns layers into the steps of a plan.
#pragma once

#include <layer_planner.h>

#include "convolution_step.h"
#include "execution_plan.h"

namespace ostrel::tensorrt_cudnn {

class PlanBuilder final : private LayerPlanner {
 public:
  PlanBuilder(std::shared_ptr<const Network> network, cudnnHandle_t cudnn,
              const std::vector<Sizes>& input_sizes);
  std::shared_ptr<const ExecutionPlan> build();

 private:
  // Where a value lies in one format. Values of the graph have one placement or two.
  struct Placement {
    Format format;
    int buffer;
  };

  void place_input(int value, int buffer) override;
  void add_convolution(const Layer& layer) override;
  void add_max_pool(const Layer& layer) override;
  void add_relu(const Layer& layer) override;
  void add_arithmetic(const Layer& layer) override;
  void add_resize(const Layer& layer) override;
  void write_output(int value, int buffer) override;

  ConvolutionShape describe(const Layer& layer) const;
  Operand padded_source(const Layer& layer, ConvolutionShape* shape);
  int convolution_target(const Layer& layer, int residual, Format format);

  // Of a value of four dimensions, as it lies in memory.
  MapSizes stored(Format format, int value) const { return stored_sizes(format, map_sizes(sizes_of(value))); }
  std::int64_t elements(Format format, int value) const;
  std::vector<Placement>& placements(int value) { return placements_[static_cast<std::size_t>(value)]; }
  int fetch(int value, Format format);
  Operand fetch_plain(int index);
  int new_buffer_for(int value, Format format);
  void place(int value, Format format, int buffer);
  void add_reorder(const Placement& source, int value, Format format, int buffer);
  void add_step(std::unique_ptr<PlanStep> step);
  static Operand in_buffer(int buffer) { return {nullptr, buffer, -1}; }
  static Operand constant(const void* memory) { return {const_cast<void*>(memory), -1, -1}; }  // is only read

  void allocate();
  void settle(Operand* operand) const;

  std::shared_ptr<const Network> network_;
  cudnnHandle_t cudnn_;
  std::shared_ptr<ExecutionPlan> plan_;
  std::vector<std::vector<Placement>> placements_;
};

}  // namespace ostrel::tensorrt_cudnn
