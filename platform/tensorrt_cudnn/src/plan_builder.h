// Turns layers into the steps of a plan.
#pragma once

#include <layers.h>
#include <memory_plan.h>

#include "convolution_step.h"
#include "execution_plan.h"

namespace ostrel::tensorrt_cudnn {

class PlanBuilder {
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
  // An intermediate result, or the memory of an input or output.
  struct Buffer {
    int port = -1;
    Lifetime lifetime;
    bool touched = false;
  };

  void place_inputs();
  void count_reads();
  void add_layer(const Layer& layer);
  void add_convolution(const Layer& layer);
  void add_max_pool(const Layer& layer);
  void add_relu(const Layer& layer);
  void add_arithmetic(const Layer& layer);
  void add_resize(const Layer& layer);
  void write_outputs(int value);

  ConvolutionShape describe(const Layer& layer) const;
  Operand padded_source(const Layer& layer, ConvolutionShape* shape);
  int convolution_target(const Layer& layer, int residual);

  const Sizes& sizes_of(int value) const { return plan_->sizes_[static_cast<std::size_t>(value)]; }
  std::vector<Placement>& placements(int value) { return placements_[static_cast<std::size_t>(value)]; }
  int fetch(int value, Format format);
  Operand fetch_plain(int value);
  bool may_overwrite(int value, int buffer) const;
  int new_buffer(Format format, int value);
  int new_buffer(std::size_t bytes);
  int port_buffer(std::size_t port);
  void place(int value, Format format, int buffer);
  void add_reorder(const Placement& source, int value, Format format, int buffer);
  void add_step(std::unique_ptr<PlanStep> step);
  static Operand in_buffer(int buffer) { return {nullptr, buffer, -1}; }
  static Operand constant(const void* memory) { return {const_cast<void*>(memory), -1, -1}; }  // is only read

  void allocate();
  void settle(Operand* operand) const;

  std::shared_ptr<const Network> network_;
  const Graph& graph_;
  cudnnHandle_t cudnn_;
  std::shared_ptr<ExecutionPlan> plan_;
  std::vector<std::vector<Placement>> placements_;
  std::vector<int> reads_left_;
  std::vector<Buffer> buffers_;
  std::vector<Layer> layers_;
};

}  // namespace ostrel::tensorrt_cudnn
