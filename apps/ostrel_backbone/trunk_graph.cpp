#include "trunk_graph.h"

namespace ostrel::backbone {
namespace {

std::map<std::string, std::vector<std::int64_t>> window(int kernel, int stride, int padding) {
  return {{"kernel_shape", {kernel, kernel}},
          {"strides", {stride, stride}},
          {"pads", {padding, padding, padding, padding}}};
}

}  // namespace

void mark_precision(Precision precision, OnnxModelBuilder* model) {
  if (precision == Precision::kBfloat16) model->metadata("precision", "bfloat16");
  if (precision == Precision::kFloat16) model->metadata("precision", "float16");
}

std::string TrunkGraph::normalisation(const TrunkNetwork& network, const std::string& source) {
  std::vector<float> mean;
  std::vector<float> scale;
  for (std::size_t i = 0; i < 3; ++i) {
    mean.push_back(static_cast<float>(network.mean[i]));
    scale.push_back(static_cast<float>(1.0 / network.deviation[i]));
  }
  model_.constant("input_mean", {1, 3, 1, 1}, mean).constant("input_scale", {1, 3, 1, 1}, scale);
  model_.node("Sub", {source, "input_mean"}, {"input_centred"});
  model_.node("Mul", {"input_centred", "input_scale"}, {"input_normalised"});
  return "input_normalised";
}

std::string TrunkGraph::stem(const TrunkNetwork& network, const std::string& source) {
  const std::string rectified = relu(convolution("stem", network.stem, source), "stem_relu");
  NodeAttributes attributes;
  attributes.lists = window(kPoolKernel, kPoolStride, (kPoolKernel - 1) / 2);
  model_.node("MaxPool", {rectified}, {"stem_pool"}, attributes);
  return "stem_pool";
}

std::string TrunkGraph::stage(const Stage& stage, std::string source) {
  for (std::size_t i = 0; i < stage.blocks.size(); ++i) {
    const bool last = i + 1 == stage.blocks.size();
    const std::string name = stage.name + "_" + std::to_string(i);
    const std::string target = last ? stage.name : name + "_relu";
    source = block(stage.blocks[i], name, target, source);
  }
  return source;
}

std::string TrunkGraph::convolution(const std::string& name, const Convolution& layer,
                                    const std::string& source) {
  model_.constant(name + "_weights", {layer.out_channels, layer.in_channels, layer.kernel, layer.kernel},
                  layer.weights);
  std::vector<std::string> inputs{source, name + "_weights"};
  if (!layer.bias.empty()) {
    model_.constant(name + "_bias", {layer.out_channels}, layer.bias);
    inputs.push_back(name + "_bias");
  }
  NodeAttributes attributes;
  attributes.lists = window(layer.kernel, layer.stride, layer.padding());
  if (layer.dilation != 1) attributes.lists["dilations"] = {layer.dilation, layer.dilation};
  model_.node("Conv", inputs, {name}, attributes);
  return name;
}

std::string TrunkGraph::doubled(const std::string& name, const std::string& source) {
  model_.constant(name + "_scales", {4}, std::vector<float>{1.0F, 1.0F, 2.0F, 2.0F});
  NodeAttributes attributes;
  attributes.texts = {{"mode", "linear"}, {"coordinate_transformation_mode", "asymmetric"}};
  model_.node("Resize", {source, "", name + "_scales"}, {name}, attributes);
  return name;
}

std::string TrunkGraph::sum(const std::string& name, const std::string& first, const std::string& second) {
  model_.node("Add", {first, second}, {name});
  return name;
}

std::string TrunkGraph::relu(const std::string& source, const std::string& name) {
  model_.node("Relu", {source}, {name});
  return name;
}

std::string TrunkGraph::block(const ResidualBlock& block, const std::string& name, const std::string& output,
                              const std::string& source) {
  const std::string inner = relu(convolution(name + "_first", block.first, source), name + "_inner");
  const std::string second = convolution(name + "_second", block.second, inner);
  const std::string shortcut =
      block.has_shortcut ? convolution(name + "_shortcut", block.shortcut, source) : source;
  return relu(sum(name + "_sum", second, shortcut), output);
}

}  // namespace ostrel::backbone
