// What a run of the demo amounts to, judged by the truth that only the demo knows.
#pragma once

#include <ostrel_scene/world.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "accuracy.h"
#include "demo_frame.h"

namespace ostrel_host {

// Boxes are scored where more than this share of the target's pixels can be seen. Otherwise the target counts as out of
// view where no more than this share of its box lies in the picture, and else as hidden.
constexpr double kVisibleShare = 0.5;
// A stretch shorter than this neither hides the target nor brings it back: leaves flicker.
constexpr double kShortestStretch_s = 0.2;
// Where a box covers the target by less than this it stands on something else.
constexpr double kBesideOverlap = 0.1;
// A look-alike may still carry the box away for so long after it has passed.
constexpr double kAfterLookAlike_s = 2.0;

// The target was hidden and came back into sight. The search for it ends where it vanishes again, or with the run. A
// stretch that begins with the target out of view is no hiding: there the camera had lost it.
struct Return {
  std::string where;  // what happened when it vanished, as the world's event says; may be empty
  double hidden_s = 0.0;
  double visible_s = 0.0;
  std::optional<double>
      found_after_s;  // until a box with a score above 0 and an overlap above 0.5; none: not found
};

// How the box fared while a look-alike passed and shortly after. The look-alike's own box is not known, so what is
// measured is whether the box left the target.
struct LookAlikePassage {
  double start_s = 0.0;
  double end_s = 0.0;
  double smallest_overlap = 0.0;  // of boxes with a score above 0, where the target is visible
  std::size_t frames_beside = 0;  // such boxes with an overlap below kBesideOverlap
};

struct DemoReport {
  std::size_t frames = 0;
  std::optional<double> armed_s;  // simulated time of the first frame in phase "ready"
  AccuracyReport accuracy;      // published boxes from then on, where the target is visible; no box scores 0
  double mean_overlap = 0.0;    // over the same frames
  std::size_t out_of_view = 0;  // armed, and the camera looks elsewhere
  double auc_with_out_of_view = 0.0;  // success AUC where these frames count as missed
  std::size_t published = 0;          // frames with a box
  std::size_t held = 0;               // of these, with score 0
  std::size_t beside = 0;             // with a score above 0, but beside the visible target
  std::size_t hidden_frames = 0;      // armed, target hidden
  std::size_t held_while_hidden = 0;  // boxes with score 0 in these
  std::size_t seen_while_hidden = 0;  // boxes with a score above 0 in these
  std::size_t zoom_notices = 0;       // frames whose zoom step the tracker was told
  std::vector<Return> returns;
  std::vector<LookAlikePassage> look_alikes;
};

DemoReport judge(const std::vector<DemoFrame>& frames, const std::vector<ostrel_scene::WorldEvent>& events);

nlohmann::ordered_json to_json_report(const DemoReport& report);

// Lines for people.
std::vector<std::string> to_lines(const DemoReport& report);

// The overlap of the published box with the truth, 0 without a box.
double published_overlap(const DemoFrame& frame);
bool is_visible(const DemoFrame& frame);
bool is_out_of_view(const DemoFrame& frame);

// Stretches of frames, first to last, in which the target is not visible, hidden or out of view, without what is
// shorter than kShortestStretch_s.
struct FrameRange {
  std::size_t first = 0;
  std::size_t last = 0;
};
std::vector<FrameRange> unseen_stretches(const std::vector<DemoFrame>& frames);

// The events that run at a time, joined by ", ".
std::string events_at(const std::vector<ostrel_scene::WorldEvent>& events, double time_s);

}  // namespace ostrel_host
