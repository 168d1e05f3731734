// ostrel_host eval: how well the plug-in follows the targets of sequences whose true boxes are known, beside OpenCV's
// trackers.
#pragma once

#include <string>
#include <vector>

#include "eval_trackers.h"

namespace ostrel_host {

constexpr int kExitBrokenOff = 130;  // as a shell has it for a program that an interrupt ended

struct EvalOptions {
  std::vector<std::string> folders;
  TrackerChoice trackers;
  int runs = 1;
  double frame_rate = 10.0;  // frames per second to pace the plug-in at
  std::size_t frames = 0;    // at most of each sequence, 0: all
  std::string out = "out";
  std::string plugin;  // empty: beside the program
};

// Returns the exit code; kExitBrokenOff after an interrupt, with everything written that was finished. Throws BadInput;
// for folders, pictures and settings before the first tracker starts.
int run_eval(const EvalOptions& options);

}  // namespace ostrel_host
