#include "import_command.h"

#include <iomanip>
#include <iostream>

#include "crops.h"
#include "model_error.h"
#include "model_file.h"
#include "model_report.h"
#include "precision_names.h"
#include "source_graph.h"
#include "trunk_writer.h"

namespace ostrel::backbone {
namespace {

void declare_source(CLI::App* subcommand, ImportCommand* command) {
  static const std::map<std::string, bool> kOrders{{"rgb", false}, {"bgr", true}};
  subcommand
      ->add_option("--onnx", command->source_file, "The ResNet-18 to read, ONNX of operator sets 9 to 17")
      ->required();
  subcommand
      ->add_option("--mean", command->input.mean,
                   "Of red, green, blue (default: ImageNet's 0.485,0.456,0.406)")
      ->delimiter(',');
  subcommand
      ->add_option("--deviation", command->input.deviation,
                   "Of red, green, blue (default: ImageNet's 0.229,0.224,0.225)")
      ->delimiter(',')
      ->check(CLI::PositiveNumber);
  subcommand
      ->add_option(
          "--input-range", command->input.range,
          "1 or 255: the values of a picture that mean and deviation are for (default 1; 255 where the "
          "model itself normalises)")
      ->check(CLI::IsMember({1.0, 255.0}));
  subcommand
      ->add_option("--input-order", command->input.blue_first, "Planes of the source network: rgb or bgr")
      ->transform(CLI::CheckedTransformer(kOrders));
}

void declare_feature(CLI::App* subcommand, ImportCommand* command) {
  static const std::map<std::string, Feature> kFeatures{
      {"stage", Feature::kStage}, {"dilated", Feature::kDilated}, {"joined", Feature::kJoined}};
  subcommand
      ->add_option("--stride", command->stride, "8 (cut behind layer2) or 16 (behind layer3); default 8")
      ->check(CLI::IsMember({8, 16}));
  subcommand
      ->add_option(
          "--feature", command->feature,
          "stage: the stage of that stride; dilated: layer3 kept at stride 8; joined: layer2 with layer3 "
          "brought to its size (needs --neck)")
      ->transform(CLI::CheckedTransformer(kFeatures));
}

void declare_neck(CLI::App* subcommand, ImportCommand* command) {
  CLI::Option* neck = subcommand->add_option("--neck", command->neck.channels,
                                             "Channels of a 1 x 1 neck that decorrelates and scales");
  neck->check(CLI::Range(1, 512));
  subcommand
      ->add_option("--pictures", command->pictures,
                   "Folder that the neck is measured on (default: made scenes)")
      ->needs(neck);
  subcommand->add_option("--crops", command->crops, "Crops that the neck is measured on (default 64)")
      ->check(CLI::Range(kSmallestCropCount, kLargestCropCount))
      ->needs(neck);
  subcommand
      ->add_option("--whitening", command->neck.whitening,
                   "0: directions keep their spread; 1: alike (default 1)")
      ->check(CLI::Range(0.0, 1.0))
      ->needs(neck);
  subcommand
      ->add_option("--shrink", command->neck.shrink,
                   "Share of the mean variance added to each before the division (default 0.1)")
      ->check(CLI::Range(0.0, 10.0))
      ->needs(neck);
}

void declare_model(CLI::App* subcommand, ImportCommand* command) {
  subcommand->add_option("--out", command->target_file, "The ONNX file to write")->required();
  subcommand
      ->add_option("--batch", command->model.batch, "A fixed batch (default: settled when the model runs)")
      ->check(CLI::Range(1, 4096));
  subcommand->add_option("--input-size", command->model.input_size, "Height and width (default 192)")
      ->check(CLI::Range(kSmallestInputSize, kLargestInputSize));
  subcommand
      ->add_option("--precision", command->model.precision,
                   "float32, bfloat16 or float16 inside (default float32)")
      ->transform(CLI::CheckedTransformer(precision_names()));
}

void add_neck(const ImportCommand& command, FeatureTrunk* trunk) {
  const int side = command.model.input_size;
  const std::vector<cv::Mat> crops = command.pictures.empty()
                                         ? crops_of_scenes(command.crops, side)
                                         : crops_of_folder(command.pictures, command.crops, side);
  const NeckReport report = make_neck(command.neck, crops, trunk);
  std::cout << "neck: " << command.neck.channels << " of " << feature_channels(*trunk) << " directions, "
            << std::fixed << std::setprecision(1) << 100.0 * report.kept_variance
            << " % of the variance, from " << report.cells << " cells\n";
}

}  // namespace

CLI::App* declare_import(CLI::App* app, ImportCommand* command) {
  CLI::App* subcommand = app->add_subcommand("import", "Make the tracker's trunk from a ResNet-18 (ONNX)");
  declare_source(subcommand, command);
  declare_feature(subcommand, command);
  declare_neck(subcommand, command);
  declare_model(subcommand, command);
  subcommand->parse_complete_callback([subcommand, command] {
    command->input.normalisation_given = subcommand->count("--mean") + subcommand->count("--deviation") > 0;
  });
  return subcommand;
}

void run_import(const ImportCommand& command) {
  const std::string bytes = read_model_file(command.source_file);
  FeatureTrunk trunk;
  try {
    trunk = lay_out(match_trunk(read_source_graph(bytes), command.input), command.stride, command.feature);
  } catch (const ModelError& failure) {
    throw ModelError(command.source_file + ": " + failure.what());
  }
  FeatureTrunk probe = trunk;
  probe.has_neck = command.neck.channels > 0;
  check_feature_model(probe, command.model);  // before the neck, which takes long
  if (command.neck.channels > 0) add_neck(command, &trunk);
  OnnxModelBuilder model("ostrel_trunk");
  write_feature_model(trunk, command.model, &model);
  const ModelReport report = report_model(model.bytes());
  if (!report.taken) std::cerr << "note: " << report.verdict << '\n';
  std::string error;
  if (!model.save(command.target_file, &error)) throw ModelError(error);
}

}  // namespace ostrel::backbone
