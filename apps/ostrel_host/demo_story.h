// The demo told as it happens: a line per change of phase, status word and event, with the simulated time.
#pragma once

#include <ostrel_scene/world.h>

#include <string>
#include <vector>

#include "demo_frame.h"

namespace ostrel_host {

// "   4.20 s  status  track_fail_hold (detail)"
std::string story_line(double time_s, const std::string& kind, const std::string& text);

class DemoStory {
 public:
  explicit DemoStory(std::vector<ostrel_scene::WorldEvent> events) : events_(std::move(events)) {}

  // What `init` answered.
  std::vector<std::string> started(const StartResult& answer);

  // What this frame brought: events that began, then words in the order in which the plug-in set them, zoom steps, the
  // phase. A word that repeats with another detail is not told again.
  std::vector<std::string> frame(const DemoFrame& frame);

 private:
  void tell_events(double time_s, std::vector<std::string>* lines);
  void tell_word(double time_s, const StatusWord& word, std::vector<std::string>* lines);
  void tell_phase(double time_s, const std::string& phase, std::vector<std::string>* lines);
  void tell_zoom(const DemoFrame& frame, std::vector<std::string>* lines);

  std::vector<ostrel_scene::WorldEvent> events_;
  double told_until_s_ = -1.0;
  std::string last_word_;
  std::string last_phase_;
  bool zooming_ = false;
};

}  // namespace ostrel_host
