// ostrel_host track: follows a target through a clip and writes what happened.
#pragma once

#include <string>
#include <vector>

namespace ostrel_host {

struct TrackOptions {
  std::string source;
  std::string region;
  std::string engine;       // empty: as the environment or the plug-in's configuration says
  std::string config_file;  // empty: none
  std::vector<std::string> settings;
  bool wait_ready = false;
  double frame_rate = 0.0;  // frames per second to pace at, 0: as fast as they are read
  std::string out = "out";
  std::size_t frames = 0;  // at most, 0: all
  std::string plugin;      // empty: beside the program
  std::string groundtruth;
  bool video = true;
  bool debug = false;
};

// Returns the exit code. Throws BadInput.
int run_track(const TrackOptions& options);

}  // namespace ostrel_host
