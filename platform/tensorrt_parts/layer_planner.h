// The walk over a network's layers that makes a plan, alike for every runtime: which layer comes when, who reads what
// after it, where outputs are written, and how long buffers live.
#pragma once

#include "layers.h"
#include "memory_plan.h"

namespace ostrel::tensorrt_parts {

class LayerPlanner {
 public:
  LayerPlanner(const LayerPlanner&) = delete;
  LayerPlanner& operator=(const LayerPlanner&) = delete;

 protected:
  // For inputs of these sizes, all known, in the order of graph.inputs; `graph` must outlive this. Throws ModelError
  // for sizes that the network cannot take.
  LayerPlanner(const Graph& graph, const std::vector<Sizes>& input_sizes);
  ~LayerPlanner() = default;

  // Calls the functions below for inputs, layers and outputs in the order in which they are run.
  void plan_layers();

  virtual void place_input(int value, int buffer) = 0;
  virtual void add_convolution(const Layer& layer) = 0;
  virtual void add_max_pool(const Layer& layer) = 0;
  virtual void add_relu(const Layer& layer) = 0;
  virtual void add_resize(const Layer& layer) = 0;
  virtual void add_arithmetic(const Layer& layer) = 0;
  // Comes at once, while the value is sure to be there.
  virtual void write_output(int value, int buffer) = 0;

  const Graph& graph() const { return graph_; }
  const Value& value(int index) const { return graph_.values[static_cast<std::size_t>(index)]; }
  const std::vector<Sizes>& sizes() const { return sizes_; }  // of every value
  const Sizes& sizes_of(int value) const { return sizes_[static_cast<std::size_t>(value)]; }

  // Whether the layer under way may write its result over the value in this buffer.
  bool may_overwrite(int value, int buffer) const;

  // Of an intermediate result.
  int new_buffer(std::size_t bytes);
  // Notes that a step touches the buffer; nothing to do for -1. Steps come in order.
  void touch(int buffer, std::size_t step);
  // Places all intermediate results that a step touches in one block; returns its bytes.
  std::size_t place_touched_buffers(std::size_t alignment);
  // The input or output whose memory a buffer is, inputs first; -1 for an intermediate result, which lies at offset_of.
  int port_of(int buffer) const { return buffer_at(buffer).port; }
  std::size_t offset_of(int buffer) const { return buffer_at(buffer).lifetime.offset; }

 private:
  struct Buffer {
    int port = -1;
    Lifetime lifetime;
    bool touched = false;
  };

  const Buffer& buffer_at(int buffer) const { return buffers_[static_cast<std::size_t>(buffer)]; }
  int port_buffer(std::size_t port);
  void count_reads(const std::vector<Layer>& layers);
  void add_layer(const Layer& layer);
  void write_outputs(int value);

  const Graph& graph_;
  std::vector<Sizes> sizes_;
  std::vector<int> reads_left_;  // of every value, by the layers that are still to come
  std::vector<Buffer> buffers_;
};

}  // namespace ostrel::tensorrt_parts
