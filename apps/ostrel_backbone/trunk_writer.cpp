#include "trunk_writer.h"

#include <cmath>

#include "onnx_model_builder.h"
#include "trunk_network.h"

namespace ostrel::backbone {
namespace {

int input_size_of(const TrunkOptions& options) {
  if (options.input_size != 0) return options.input_size;
  return options.tiny ? kTinyInputSize : kFullInputSize;
}

bool wanted(const TrunkOptions& options, const std::string& stage) {
  if (stage == "layer2") return options.outputs != TrunkOutputs::kLayer3;
  return stage == "layer3" && options.outputs != TrunkOutputs::kLayer2;
}

// Halvings of the input on the way to an output.
int stride_of(const TrunkOptions& options, const std::string& stage) {
  const int deepest = options.tiny ? 4 : 16;
  return stage == "layer3" ? deepest : deepest / 2;
}

bool fail(std::string* error, const std::string& text) {
  if (error != nullptr) *error = text;
  return false;
}

// Every window of the trunk keeps ceil(size / stride).
bool check_map_sides(const TrunkOptions& options, std::string* error) {
  for (const std::string stage : {"layer2", "layer3"}) {
    if (!wanted(options, stage)) continue;
    const int stride = stride_of(options, stage);
    const int side = (input_size_of(options) + stride - 1) / stride;
    if (side % 2 != 0) {
      return fail(error, "odd map sides: input " + std::to_string(input_size_of(options)) + " gives " +
                             stage + " maps of " + std::to_string(side) + " x " + std::to_string(side));
    }
  }
  return true;
}

// Adds the trunk to a model, node by node.
class TrunkGraph {
 public:
  explicit TrunkGraph(OnnxModelBuilder* model) : model_(*model) {}

  std::string normalisation(const TrunkNetwork& network, const std::string& source) {
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

  std::string stem(const TrunkNetwork& network, const std::string& source) {
    const std::string rectified = relu(convolution("stem", network.stem, source), "stem_relu");
    NodeAttributes attributes;
    attributes.lists = window(kPoolKernel, kPoolStride);
    model_.node("MaxPool", {rectified}, {"stem_pool"}, attributes);
    return "stem_pool";
  }

  // The last block's output carries the stage's name.
  std::string stage(const Stage& stage, std::string source) {
    for (std::size_t i = 0; i < stage.blocks.size(); ++i) {
      const bool last = i + 1 == stage.blocks.size();
      const std::string name = stage.name + "_" + std::to_string(i);
      source = block(stage.blocks[i], name, last ? stage.name : name + "_relu", source);
    }
    return source;
  }

 private:
  static std::map<std::string, std::vector<std::int64_t>> window(int kernel, int stride) {
    const std::int64_t padding = (kernel - 1) / 2;
    return {{"kernel_shape", {kernel, kernel}},
            {"strides", {stride, stride}},
            {"pads", {padding, padding, padding, padding}}};
  }

  std::string convolution(const std::string& name, const Convolution& layer, const std::string& source) {
    model_.constant(name + "_weights", {layer.out_channels, layer.in_channels, layer.kernel, layer.kernel},
                    layer.weights);
    model_.constant(name + "_bias", {layer.out_channels}, layer.bias);
    NodeAttributes attributes;
    attributes.lists = window(layer.kernel, layer.stride);
    model_.node("Conv", {source, name + "_weights", name + "_bias"}, {name}, attributes);
    return name;
  }

  std::string relu(const std::string& source, const std::string& name) {
    model_.node("Relu", {source}, {name});
    return name;
  }

  std::string block(const ResidualBlock& block, const std::string& name, const std::string& output,
                    const std::string& source) {
    const std::string inner = relu(convolution(name + "_first", block.first, source), name + "_inner");
    const std::string second = convolution(name + "_second", block.second, inner);
    const std::string shortcut =
        block.has_shortcut ? convolution(name + "_shortcut", block.shortcut, source) : source;
    model_.node("Add", {second, shortcut}, {name + "_sum"});
    return relu(name + "_sum", output);
  }

  OnnxModelBuilder& model_;
};

void add_outputs(const TrunkOptions& options, const TrunkNetwork& network, std::int64_t batch,
                 OnnxModelBuilder* model) {
  for (std::size_t i = 0; i < network.stages.size(); ++i) {
    const Stage& stage = network.stages[i];
    if (!wanted(options, stage.name)) continue;
    const std::int64_t side = options.dynamic_spatial ? -1 : map_side(network, i, input_size_of(options));
    model->output(stage.name, {batch, stage.blocks.back().second.out_channels, side, side});
  }
}

void build(const TrunkOptions& options, OnnxModelBuilder* model) {
  const TrunkNetwork network = make_random_trunk(options.tiny, options.seed);
  const std::int64_t batch = options.batch == 0 ? -1 : options.batch;
  const std::int64_t side = options.dynamic_spatial ? -1 : input_size_of(options);
  model->input("input", {batch, 3, side, side});
  TrunkGraph graph(model);
  std::string source = graph.stem(network, graph.normalisation(network, "input"));
  for (const Stage& stage : network.stages) {
    if (stage.name == "layer3" && !wanted(options, "layer3")) break;
    source = graph.stage(stage, source);
  }
  add_outputs(options, network, batch, model);
  if (options.precision == Precision::kBfloat16) model->metadata("precision", "bfloat16");
}

}  // namespace

bool check_trunk_options(const TrunkOptions& options, std::string* error) {
  const int size = input_size_of(options);
  if (size < kSmallestInputSize || size > kLargestInputSize) {
    return fail(error, "input size " + std::to_string(size) + " is outside " +
                           std::to_string(kSmallestInputSize) + " to " + std::to_string(kLargestInputSize));
  }
  if (options.batch < 0) return fail(error, "batch " + std::to_string(options.batch) + " is negative");
  return check_map_sides(options, error);
}

std::string trunk_bytes(const TrunkOptions& options, std::string* error) {
  if (!check_trunk_options(options, error)) return {};
  OnnxModelBuilder model("ostrel_trunk");
  build(options, &model);
  return model.bytes();
}

bool write_trunk(const TrunkOptions& options, const std::string& path, std::string* error) {
  if (!check_trunk_options(options, error)) return false;
  OnnxModelBuilder model("ostrel_trunk");
  build(options, &model);
  return model.save(path, error);
}

}  // namespace ostrel::backbone
