// Follows the values of a source graph from node to node.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "plain_forward.h"
#include "source_graph.h"

namespace ostrel::backbone {

// y = scale * x + shift, per channel.
struct ChannelLine {
  std::vector<double> scale;
  std::vector<double> shift;

  explicit ChannelLine(std::size_t channels) : scale(channels, 1.0), shift(channels, 0.0) {}
};

// Every call throws ModelError with one line that begins with `where`, such as "layer2, block 0".
class GraphWalk {
 public:
  explicit GraphWalk(const SourceGraph& graph);

  // The nodes that read the value, in the graph's order; those that only ask for its shape are left out.
  std::vector<const SourceNode*> readers(const std::string& value) const;

  // The only reader of the value, which must have that operation. Answers with the result's name.
  const SourceNode& expect(const std::string& operation, const std::string& value,
                           const std::string& where) const;

  // Batch normalisations, and sums, differences, products and quotients with constants per channel, that follow
  // each other behind `value` as its only readers. `value` becomes the last one's result.
  ChannelLine channel_lines(std::size_t channels, const std::string& where, std::string* value) const;

  // The convolution of a node, with the channel lines that follow it folded in; `result` is the name behind those.
  // It must be square, ungrouped, not dilated, and padded by (kernel - 1) / 2.
  Convolution convolution(const SourceNode& node, const std::string& where, std::string* result) const;

 private:
  const SourceConstant& weights(const SourceNode& node, std::size_t input, const std::string& where) const;
  std::vector<double> per_channel(const SourceNode& node, std::size_t input, std::size_t channels,
                                  const std::string& where) const;
  void apply_normalisation(const SourceNode& node, const std::string& where, ChannelLine* line) const;
  bool apply_arithmetic(const SourceNode& node, const std::string& value, const std::string& where,
                        ChannelLine* line) const;

  const SourceGraph& graph_;
  std::map<std::string, std::vector<const SourceNode*>> readers_;
};

// "Conv (node "conv1")"
std::string node_text(const SourceNode& node);

// The operations that the walk knows how to read; all others are unknown to it.
bool known_operation(const std::string& operation);

}  // namespace ostrel::backbone
