// ostrel_host demo: a rendered world, a camera on a gimbal, and the plug-in that follows a vehicle in it and steers the
// camera. The whole loop as an integrator would build it, with the truth known.
#pragma once

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace ostrel_host {

struct DemoOptions {
  std::string engine;       // empty: as the environment or the plug-in's configuration says
  std::string config_file;  // empty: none
  std::vector<std::string> settings;
  std::uint32_t seed = 2;
  cv::Size size_px{960, 540};
  double seconds = 0.0;  // at most, 0: all of the world's story
  std::string out = "out";
  std::string plugin;  // empty: beside the program
  bool video = true;
  bool debug = false;
};

// What the demo sets when the user says nothing else: pre-positioning, a dead timeout that waits for a renderer, and
// score thresholds for the backbones that it is run with.
nlohmann::json demo_configuration(const DemoOptions& options);

// Returns the exit code. Throws BadInput.
int run_demo(const DemoOptions& options);

}  // namespace ostrel_host
