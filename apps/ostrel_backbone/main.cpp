// ostrel_backbone: makes backbones (ONNX models that the PC build runs and that an engine is built from).

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <string>

#include "import_command.h"
#include "precision_names.h"
#include "trunk_writer.h"

namespace {

using ostrel::backbone::TrunkOptions;
using ostrel::backbone::TrunkOutputs;

constexpr int kBadInput = 2;

struct RandomCommand {
  TrunkOptions options;
  std::string file;
};

void declare_random(CLI::App* app, RandomCommand* command) {
  static const std::map<std::string, TrunkOutputs> kOutputs{
      {"layer2", TrunkOutputs::kLayer2}, {"layer3", TrunkOutputs::kLayer3}, {"both", TrunkOutputs::kBoth}};
  CLI::App* random = app->add_subcommand("random", "Write the trunk of ResNet-18 with random weights");
  random->add_option("--seed", command->options.seed, "Seed of the weights")->required();
  random->add_option("--out", command->file, "The ONNX file to write")->required();
  random->add_flag("--tiny", command->options.tiny, "Few channels, input 32, strides 2 and 4: for tests");
  random->add_option("--outputs", command->options.outputs, "layer2, layer3 or both (default both)")
      ->transform(CLI::CheckedTransformer(kOutputs));
  random
      ->add_option("--batch", command->options.batch, "A fixed batch (default: settled when the model runs)")
      ->check(CLI::Range(1, 4096));
  random->add_option("--input-size", command->options.input_size, "Height and width (default 192, tiny 32)")
      ->check(CLI::Range(ostrel::backbone::kSmallestInputSize, ostrel::backbone::kLargestInputSize));
  random
      ->add_option("--precision", command->options.precision,
                   "float32, bfloat16 or float16 inside (default float32)")
      ->transform(CLI::CheckedTransformer(ostrel::backbone::precision_names()));
}

int write_random(const RandomCommand& command) {
  std::string error;
  if (ostrel::backbone::write_trunk(command.options, command.file, &error)) return 0;
  std::cerr << "ostrel_backbone: " << error << '\n';
  return kBadInput;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Makes backbones for the tracker", "ostrel_backbone"};
  app.require_subcommand(1);
  RandomCommand command;
  declare_random(&app, &command);
  ostrel::backbone::ImportCommand import_command;
  const CLI::App* import = ostrel::backbone::declare_import(&app, &import_command);
  try {
    app.parse(argc, argv);
    if (!import->parsed()) return write_random(command);
    ostrel::backbone::run_import(import_command);
    return 0;
  } catch (const CLI::ParseError& failure) {
    if (failure.get_exit_code() == 0) return app.exit(failure);
    std::cerr << "ostrel_backbone: " << failure.what() << '\n';
    return kBadInput;
  } catch (const std::exception& failure) {
    std::cerr << "ostrel_backbone: " << failure.what() << '\n';
    return kBadInput;
  }
}
