#include "feature_trunk.h"

#include "calibration.h"
#include "model_error.h"
#include "trunk_writer.h"

namespace ostrel::backbone {
namespace {

constexpr std::size_t kStagesToStride8 = 2;
constexpr std::size_t kStagesToStride16 = 3;

// Every other cell is left out no more; what follows reaches over the new cells between those it read before.
// At even rows and columns the result is the strided stage's own, the border included.
void dilate(Stage* stage) {
  for (std::size_t i = 0; i < stage->blocks.size(); ++i) {
    ResidualBlock& block = stage->blocks[i];
    block.first.stride = 1;
    block.first.dilation = i == 0 ? 1 : 2;
    block.second.dilation = 2;
    block.shortcut.stride = 1;
  }
}

// Value between cells `lower` and the next one, the last one repeated.
double between(const double* line, int lower, int step, int count, double share) {
  const int upper = lower + 1 < count ? lower + 1 : lower;
  const double first = line[static_cast<std::ptrdiff_t>(lower) * step];
  return first + (line[static_cast<std::ptrdiff_t>(upper) * step] - first) * share;
}

// Cell i of the source lies on cell 2 i of the target.
FeaturePlanes doubled_planes(const FeaturePlanes& source) {
  FeaturePlanes target(source.channels, source.height * 2, source.width * 2);
  for (int channel = 0; channel < source.channels; ++channel) {
    double* value = target.plane(channel);
    for (int y = 0; y < target.height; ++y) {
      const int next = y / 2 + 1 < source.height ? y / 2 + 1 : y / 2;
      const double* upper = source.plane(channel) + static_cast<std::ptrdiff_t>(y / 2) * source.width;
      const double* lower = source.plane(channel) + static_cast<std::ptrdiff_t>(next) * source.width;
      for (int x = 0; x < target.width; ++x) {
        const double share = x % 2 == 0 ? 0.0 : 0.5;
        const double a = between(upper, x / 2, 1, source.width, share);
        const double b = between(lower, x / 2, 1, source.width, share);
        *value++ = y % 2 == 0 ? a : a + (b - a) * 0.5;
      }
    }
  }
  return target;
}

FeaturePlanes stacked(const FeaturePlanes& first, const FeaturePlanes& second) {
  FeaturePlanes target = first;
  target.channels += second.channels;
  target.values.insert(target.values.end(), second.values.begin(), second.values.end());
  return target;
}

int channels_of(const Stage& stage) {
  return stage.blocks.back().second.out_channels;
}

}  // namespace

FeatureTrunk lay_out(const TrunkNetwork& trunk, int stride, Feature feature) {
  if (stride != 8 && stride != 16)
    throw ModelError("stride " + std::to_string(stride) + " is neither 8 nor 16");
  if (stride == 16 && feature != Feature::kStage) {
    throw ModelError("dilated and joined features have stride 8, not 16");
  }
  const bool shallow = stride == 8 && feature == Feature::kStage;
  const std::size_t wanted = shallow ? kStagesToStride8 : kStagesToStride16;
  if (trunk.stages.size() < wanted) {
    throw ModelError("the model ends behind " + trunk.stages.back().name + "; layer" +
                     std::to_string(wanted) + " is wanted");
  }
  FeatureTrunk result{trunk, feature, false, {}, {}};
  result.network.stages.resize(wanted);
  if (feature == Feature::kDilated) dilate(&result.network.stages.back());
  return result;
}

FeaturePlanes plain_features(const FeatureTrunk& trunk, const FeaturePlanes& picture) {
  const std::vector<FeaturePlanes> stages = run_trunk(trunk.network, picture);
  if (trunk.feature != Feature::kJoined) return stages.back();
  return stacked(stages[stages.size() - 2], doubled_planes(stages.back()));
}

FeaturePlanes plain_output(const FeatureTrunk& trunk, const FeaturePlanes& picture) {
  const std::vector<FeaturePlanes> stages = run_trunk(trunk.network, picture);
  if (!trunk.has_neck) return stages.back();
  FeaturePlanes deep = convolve(stages.back(), trunk.neck);
  if (trunk.feature != Feature::kJoined) return deep;
  FeaturePlanes output = convolve(stages[stages.size() - 2], trunk.shallow_neck);
  add(&output, doubled_planes(deep));
  return output;
}

int feature_channels(const FeatureTrunk& trunk) {
  const auto& stages = trunk.network.stages;
  const int deep = channels_of(stages.back());
  return trunk.feature == Feature::kJoined ? channels_of(stages[stages.size() - 2]) + deep : deep;
}

int output_channels(const FeatureTrunk& trunk) {
  return trunk.has_neck ? trunk.neck.out_channels : feature_channels(trunk);
}

int output_side(const FeatureTrunk& trunk, int input_size) {
  const std::size_t last = trunk.network.stages.size() - 1;
  return map_side(trunk.network, trunk.feature == Feature::kJoined ? last - 1 : last, input_size);
}

void check_feature_model(const FeatureTrunk& trunk, const FeatureModelOptions& options) {
  const std::string size = std::to_string(options.input_size);
  if (options.input_size < kSmallestInputSize || options.input_size > kLargestInputSize) {
    throw ModelError("input size " + size + " is outside " + std::to_string(kSmallestInputSize) + " to " +
                     std::to_string(kLargestInputSize));
  }
  if (options.batch < 0) throw ModelError("batch " + std::to_string(options.batch) + " is negative");
  if (trunk.feature == Feature::kJoined && !trunk.has_neck) throw ModelError("joined features need a neck");
  const std::string side = std::to_string(output_side(trunk, options.input_size));
  if (output_side(trunk, options.input_size) % 2 != 0) {
    throw ModelError("odd map sides: input " + size + " gives maps of " + side + " x " + side);
  }
}

void write_feature_model(const FeatureTrunk& trunk, const FeatureModelOptions& options,
                         OnnxModelBuilder* model) {
  const std::int64_t batch = options.batch == 0 ? -1 : options.batch;
  model->input("input", {batch, 3, options.input_size, options.input_size});
  TrunkGraph graph(model);
  std::string value = graph.stem(trunk.network, graph.normalisation(trunk.network, "input"));
  std::string before = value;
  for (const Stage& stage : trunk.network.stages) {
    before = value;
    value = graph.stage(stage, value);
  }
  if (trunk.feature == Feature::kJoined) {
    const std::string deep = graph.doubled("deep_doubled", graph.convolution("deep_neck", trunk.neck, value));
    value = graph.sum("features", graph.convolution("shallow_neck", trunk.shallow_neck, before), deep);
  } else if (trunk.has_neck) {
    value = graph.convolution("features", trunk.neck, value);
  }
  const std::int64_t side = output_side(trunk, options.input_size);
  model->output(value, {batch, output_channels(trunk), side, side});
  mark_precision(options.precision, model);
}

}  // namespace ostrel::backbone
