#include "graph_walk.h"

#include <algorithm>
#include <cmath>

#include "model_error.h"

namespace ostrel::backbone {
namespace {

[[noreturn]] void refuse(const std::string& where, const std::string& reason) {
  throw ModelError(where + ": " + reason);
}

std::int64_t integer(const SourceNode& node, const std::string& name, std::int64_t fallback) {
  const auto found = node.attributes.integers.find(name);
  return found == node.attributes.integers.end() ? fallback : found->second;
}

std::vector<std::int64_t> list(const SourceNode& node, const std::string& name,
                               const std::vector<std::int64_t>& fallback) {
  const auto found = node.attributes.lists.find(name);
  return found == node.attributes.lists.end() ? fallback : found->second;
}

bool says_its_padding(const SourceNode& node, int kernel) {
  const auto found = node.attributes.texts.find("auto_pad");
  return found == node.attributes.texts.end() || found->second == "NOTSET" || kernel == 1;
}

void require_finite(const SourceConstant& constant, const std::string& name, const std::string& where) {
  const auto finite = [](float value) { return std::isfinite(value); };
  if (!std::all_of(constant.reals.begin(), constant.reals.end(), finite)) {
    refuse(where, "\"" + name + "\" holds values that are no finite numbers");
  }
}

// Folds a line that follows a convolution into it.
void scale_filters(const ChannelLine& line, Convolution* convolution) {
  const std::size_t per_output = convolution->weights_per_output();
  for (std::size_t out = 0; out < line.scale.size(); ++out) {
    for (std::size_t i = 0; i < per_output; ++i) {
      float& weight = convolution->weights[out * per_output + i];
      weight = static_cast<float>(weight * line.scale[out]);
    }
    convolution->bias[out] = static_cast<float>(convolution->bias[out] * line.scale[out] + line.shift[out]);
  }
}

int square_window(const SourceNode& node, const SourceConstant& weights, const std::string& where) {
  if (weights.shape.size() != 4) refuse(where, node_text(node) + " has no weights of four dimensions");
  const std::int64_t kernel = weights.shape[2];
  if (kernel != weights.shape[3] || kernel % 2 == 0 || kernel > 7) {
    refuse(where, node_text(node) + " has weights of shape " + shape_text(weights.shape));
  }
  const std::int64_t padding = (kernel - 1) / 2;
  if (list(node, "kernel_shape", {kernel, kernel}) != Shape{kernel, kernel}) {
    refuse(where, node_text(node) + " has a kernel_shape that differs from its weights");
  }
  if (integer(node, "group", 1) != 1) refuse(where, node_text(node) + " is grouped");
  if (list(node, "dilations", {1, 1}) != Shape{1, 1}) refuse(where, node_text(node) + " is dilated");
  const Shape pads = list(node, "pads", {0, 0, 0, 0});
  if (!says_its_padding(node, static_cast<int>(kernel)) || pads != Shape(4, padding)) {
    refuse(where, node_text(node) + " is not padded by " + std::to_string(padding) + " on every side");
  }
  return static_cast<int>(kernel);
}

int square_stride(const SourceNode& node, const std::string& where) {
  const Shape strides = list(node, "strides", {1, 1});
  if (strides != Shape{1, 1} && strides != Shape{2, 2}) {
    refuse(where, node_text(node) + " has the strides " + shape_text(strides));
  }
  return static_cast<int>(strides[0]);
}

}  // namespace

GraphWalk::GraphWalk(const SourceGraph& graph) : graph_(graph) {
  for (const SourceNode& node : graph.nodes) {
    if (node.operation == "Shape") continue;
    const std::set<std::string> names(node.inputs.begin(), node.inputs.end());
    for (const std::string& name : names) readers_[name].push_back(&node);
  }
}

std::vector<const SourceNode*> GraphWalk::readers(const std::string& value) const {
  const auto found = readers_.find(value);
  return found == readers_.end() ? std::vector<const SourceNode*>() : found->second;
}

const SourceNode& GraphWalk::expect(const std::string& operation, const std::string& value,
                                    const std::string& where) const {
  const auto found = readers(value);
  if (found.empty()) refuse(where, operation + " expected behind \"" + value + "\", where the model ends");
  for (const SourceNode* node : found) {
    if (!known_operation(node->operation)) refuse(where, "unknown operation " + node_text(*node));
  }
  if (found.size() > 1) {
    refuse(where, operation + " expected behind \"" + value + "\", which " + std::to_string(found.size()) +
                      " nodes read");
  }
  if (found.front()->operation != operation) {
    refuse(where, operation + " expected behind \"" + value + "\", found " + node_text(*found.front()));
  }
  return *found.front();
}

const SourceConstant& GraphWalk::weights(const SourceNode& node, std::size_t input,
                                         const std::string& where) const {
  if (node.inputs.size() <= input || node.inputs[input].empty()) {
    refuse(where, node_text(node) + " lacks input " + std::to_string(input));
  }
  const std::string& name = node.inputs[input];
  const auto found = graph_.constants.find(name);
  if (found == graph_.constants.end()) {
    refuse(where, node_text(node) + " reads the weights \"" + name + "\", which the model does not hold");
  }
  if (found->second.elsewhere) {
    refuse(where, "\"" + name + "\" lies in another file; save the model with its weights inside");
  }
  if (!found->second.other_type.empty() || found->second.reals.empty()) {
    const std::string type = found->second.other_type.empty() ? "no floats" : found->second.other_type;
    refuse(where, "\"" + name + "\" holds " + type + "; weights must be 32-bit floats");
  }
  require_finite(found->second, name, where);
  return found->second;
}

// One value for all channels, or one for each: [C], [C, 1, 1] or [1, C, 1, 1].
std::vector<double> GraphWalk::per_channel(const SourceNode& node, std::size_t input, std::size_t channels,
                                           const std::string& where) const {
  const SourceConstant& constant = weights(node, input, where);
  const std::vector<float>& reals = constant.reals;
  if (reals.size() == 1) return std::vector<double>(channels, static_cast<double>(reals.front()));
  const std::size_t rank = constant.shape.size();
  const bool arithmetic = node.operation != "BatchNormalization";
  const bool aligned =
      !arithmetic || (rank >= 3 && constant.shape[rank - 3] == static_cast<std::int64_t>(channels));
  if (reals.size() != channels || !aligned) {
    refuse(where, node_text(node) + " has a parameter of shape " + shape_text(constant.shape) + " for " +
                      std::to_string(channels) + " channels");
  }
  return {reals.begin(), reals.end()};
}

void GraphWalk::apply_normalisation(const SourceNode& node, const std::string& where,
                                    ChannelLine* line) const {
  if (integer(node, "training_mode", 0) != 0) refuse(where, node_text(node) + " is in training mode");
  const std::size_t channels = line->scale.size();
  const auto scale = per_channel(node, 1, channels, where);
  const auto shift = per_channel(node, 2, channels, where);
  const auto mean = per_channel(node, 3, channels, where);
  const auto variance = per_channel(node, 4, channels, where);
  const auto found = node.attributes.reals.find("epsilon");
  const double epsilon = found == node.attributes.reals.end() ? 1e-5 : static_cast<double>(found->second);
  for (std::size_t i = 0; i < channels; ++i) {
    if (!(variance[i] + epsilon > 0.0)) refuse(where, node_text(node) + " has a negative variance");
    const double factor = scale[i] / std::sqrt(variance[i] + epsilon);
    line->scale[i] *= factor;
    line->shift[i] = (line->shift[i] - mean[i]) * factor + shift[i];
  }
}

bool GraphWalk::apply_arithmetic(const SourceNode& node, const std::string& value, const std::string& where,
                                 ChannelLine* line) const {
  static const std::set<std::string> kArithmetic{"Add", "Sub", "Mul", "Div"};
  if (kArithmetic.count(node.operation) == 0 || node.inputs.size() != 2) return false;
  const std::size_t other = node.inputs[0] == value ? 1 : 0;
  if (graph_.constants.count(node.inputs[other]) == 0) return false;
  const std::size_t channels = line->scale.size();
  const auto operand = per_channel(node, other, channels, where);
  for (std::size_t i = 0; i < channels; ++i) {
    double& scale = line->scale[i];
    double& shift = line->shift[i];
    if (node.operation == "Add") {
      shift += operand[i];
    } else if (node.operation == "Mul") {
      scale *= operand[i];
      shift *= operand[i];
    } else if (node.operation == "Sub") {
      const double sign = other == 1 ? 1.0 : -1.0;  // value - constant, or constant - value
      scale *= sign;
      shift = sign * (shift - operand[i]);
    } else if (node.operation == "Div" && other == 1 && operand[i] != 0.0) {
      scale /= operand[i];
      shift /= operand[i];
    } else {
      refuse(where, node_text(node) + " divides by its source or by zero");
    }
  }
  return true;
}

ChannelLine GraphWalk::channel_lines(std::size_t channels, const std::string& where,
                                     std::string* value) const {
  ChannelLine line(channels);
  for (;;) {
    const auto found = readers(*value);
    if (found.size() != 1) return line;
    const SourceNode& node = *found.front();
    if (node.operation == "BatchNormalization") {
      apply_normalisation(node, where, &line);
    } else if (!apply_arithmetic(node, *value, where, &line)) {
      return line;
    }
    *value = node.outputs.front();
  }
}

Convolution GraphWalk::convolution(const SourceNode& node, const std::string& where,
                                   std::string* result) const {
  const SourceConstant& filters = weights(node, 1, where);
  Convolution convolution;
  convolution.kernel = square_window(node, filters, where);
  convolution.stride = square_stride(node, where);
  convolution.out_channels = static_cast<int>(filters.shape[0]);
  convolution.in_channels = static_cast<int>(filters.shape[1]);
  convolution.weights = filters.reals;
  const auto channels = static_cast<std::size_t>(filters.shape[0]);
  convolution.bias.assign(channels, 0.0F);
  if (node.inputs.size() > 2 && !node.inputs[2].empty()) {
    const SourceConstant& bias = weights(node, 2, where);
    if (bias.reals.size() != channels) refuse(where, node_text(node) + " has a bias of a wrong length");
    convolution.bias = bias.reals;
  }
  *result = node.outputs.front();
  scale_filters(channel_lines(channels, where, result), &convolution);
  return convolution;
}

std::string node_text(const SourceNode& node) {
  return node.operation + " (node \"" + node.name + "\")";
}

bool known_operation(const std::string& operation) {
  static const std::set<std::string> kKnown{"Add",
                                            "AveragePool",
                                            "BatchNormalization",
                                            "Concat",
                                            "Conv",
                                            "Div",
                                            "Flatten",
                                            "Gather",
                                            "Gemm",
                                            "GlobalAveragePool",
                                            "MatMul",
                                            "MaxPool",
                                            "Mul",
                                            "ReduceMean",
                                            "Relu",
                                            "Reshape",
                                            "Shape",
                                            "Slice",
                                            "Softmax",
                                            "Squeeze",
                                            "Sub",
                                            "Sum",
                                            "Transpose",
                                            "Unsqueeze",
                                            "Cast"};
  return kKnown.count(operation) != 0;
}

}  // namespace ostrel::backbone
