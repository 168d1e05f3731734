// timeline.png: a run of the demo over time, drawn from timeline.tsv by timeline.gp.
#pragma once

#include <ostrel_scene/world.h>

#include <filesystem>
#include <string>
#include <vector>

#include "demo_frame.h"
#include "plot.h"
#include "word_colours.h"

namespace ostrel_host {

// A coloured stretch in a lane.
struct TimelineSpan {
  double start_s = 0.0;
  double end_s = 0.0;
  Colour colour;
};

// One word, phase or event, with every stretch in which it held.
struct TimelineLane {
  std::string name;
  std::vector<TimelineSpan> spans;
};

// time_s, score (gap without a published box), tracker_score, overlap (gap where the target cannot be seen), visible share,
// hfov_deg.
PlotTable timeline_table(const std::vector<DemoFrame>& frames);

// Events in their order, then phases and status words in the order in which they first came.
std::vector<TimelineLane> event_lanes(const std::vector<ostrel_scene::WorldEvent>& events, double end_s);
std::vector<TimelineLane> phase_lanes(const std::vector<DemoFrame>& frames);
std::vector<TimelineLane> word_lanes(const std::vector<DemoFrame>& frames);

std::string timeline_script(const std::vector<DemoFrame>& frames,
                            const std::vector<ostrel_scene::WorldEvent>& events);

// Writes the three files into `folder`. Empty on success, else why there is no picture (table and script are there
// all the same). Does nothing for a run without frames.
std::string draw_timeline(const std::filesystem::path& folder, const std::vector<DemoFrame>& frames,
                          const std::vector<ostrel_scene::WorldEvent>& events);

}  // namespace ostrel_host
