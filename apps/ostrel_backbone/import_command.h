// `ostrel_backbone import`: a user's ResNet-18 becomes the trunk that the tracker wants.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "feature_trunk.h"
#include "neck.h"
#include "trunk_match.h"

namespace ostrel::backbone {

struct ImportCommand {
  std::string source_file;
  std::string target_file;
  SourceInput input;
  int stride = 8;
  Feature feature = Feature::kStage;
  NeckOptions neck;
  std::string pictures;  // a folder; empty: rendered scenes
  int crops = 64;
  FeatureModelOptions model;
};

CLI::App* declare_import(CLI::App* app, ImportCommand* command);

// Writes the file and prints a line about the neck, if there is one, and a note where the tracker would not take what
// was asked for (another size, a fixed batch). Throws ModelError with one line; then nothing is written.
void run_import(const ImportCommand& command);

}  // namespace ostrel::backbone
