// One tracking run: the plug-in's calls in their order, with their times and answers.
#pragma once

#include <IAlgoPlugin.h>

#include <functional>
#include <memory>
#include <optional>

#include "frame_source.h"
#include "plugin_log.h"
#include "plugin_state.h"

namespace ostrel_host {

// The answer to one `update`.
struct StepResult {
  std::optional<Detection> published;
  PluginState state;
  double update_ms = 0.0;
  LogNews told;  // empty where the log is not read
};

// The answer to `init`.
struct StartResult {
  double init_ms = 0.0;
  std::optional<GimbalTarget> gimbal_target;
  PluginState state;
};

// For how long the plug-in's log is read.
enum class LogUse { kStartUp, kWholeRun };

class PluginSession {
 public:
  // With `verbose` the plug-in's debug output is on for the whole run.
  PluginSession(IAlgoPlugin& plugin, bool verbose, LogUse log_use = LogUse::kStartUp);

  // Calls `init`. Throws BadInput with the plug-in's word where it refuses.
  StartResult start(const Frame& frame, const BBox& region);

  // Calls `update` with the frame, or with no picture where the frame has no image.
  StepResult step(const Frame& frame);

  // Calls `update` with the frame until tracking is armed, and returns the answer that arms: the frame's own. `go_on`
  // gets each answer before that one and ends the wait by false; then there is none. Throws as armed() does.
  std::optional<StepResult> step_until_armed(const Frame& frame,
                                             const std::function<bool(const StepResult&)>& go_on);

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
  LogUse log_use_;
  std::unique_ptr<PluginLog> log_;
};

}  // namespace ostrel_host
