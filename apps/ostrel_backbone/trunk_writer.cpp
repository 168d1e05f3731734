#include "trunk_writer.h"

#include <cmath>

#include "onnx_model_builder.h"
#include "trunk_graph.h"
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
  mark_precision(options.precision, model);
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
