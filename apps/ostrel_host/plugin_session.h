// One tracking run: the plug-in's calls in their order, with their times and answers.
#pragma once

#include <IAlgoPlugin.h>

#include <memory>
#include <optional>

#include "frame_source.h"
#include "plugin_state.h"
#include "startup_log.h"

namespace ostrel_host {

// The answer to one `update`.
struct StepResult {
  std::optional<Detection> published;
  PluginState state;
  double update_ms = 0.0;
};

class PluginSession {
 public:
  // With `verbose` the plug-in's debug output is on for the whole run.
  PluginSession(IAlgoPlugin& plugin, bool verbose);

  // Calls `init`; returns its time in milliseconds. Throws BadInput with the plug-in's word where it refuses.
  double start(const Frame& frame, const BBox& region);

  // Calls `update` with the frame, or with no picture where the frame has no image.
  StepResult step(const Frame& frame);

  // Calls `update` without a picture until no start-up runs any more. For the end of a clip.
  StepResult settle();

  // What the plug-in says of itself now.
  PluginState state() const;

  // Whether tracking is armed. Throws BadInput with the cause once the start-up has failed.
  bool armed(const PluginState& state);

 private:
  IAlgoPlugin::Pictures pictures_of(const Frame& frame);

  IAlgoPlugin& plugin_;
  bool verbose_;
  std::unique_ptr<StartupLog> startup_log_;
};

}  // namespace ostrel_host
