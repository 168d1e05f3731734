// ostrel_backbone: makes backbones (ONNX models that the PC build runs and that an engine is built from).

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <string>

#include "import_command.h"
#include "model_error.h"
#include "model_file.h"
#include "model_report.h"
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

CLI::App* declare_random(CLI::App* app, RandomCommand* command) {
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
  return random;
}

void write_random(const RandomCommand& command) {
  std::string error;
  if (!ostrel::backbone::write_trunk(command.options, command.file, &error)) {
    throw ostrel::backbone::ModelError(error);
  }
}

void inspect(const std::string& file) {
  const std::string bytes = ostrel::backbone::read_model_file(file);
  try {
    std::cout << report_text(ostrel::backbone::report_model(bytes));
  } catch (const ostrel::backbone::ModelError& failure) {
    throw ostrel::backbone::ModelError(file + ": " + failure.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Makes backbones for the tracker", "ostrel_backbone"};
  app.require_subcommand(1);
  RandomCommand random;
  ostrel::backbone::ImportCommand import;
  std::string inspected;
  declare_random(&app, &random)->final_callback([&random] { write_random(random); });
  declare_import(&app, &import)->final_callback([&import] { run_import(import); });
  CLI::App* inspection =
      app.add_subcommand("inspect", "Tell what a model is and whether the tracker takes it");
  inspection->add_option("file", inspected, "An ONNX file")->required();
  inspection->final_callback([&inspected] { inspect(inspected); });
  try {
    app.parse(argc, argv);
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
