#include "demo_story.h"

#include <cstdio>

namespace ostrel_host {
namespace {

std::string degrees(const char* format, double first, double second) {
  char text[96];
  std::snprintf(text, sizeof text, format, first, second);
  return text;
}

}  // namespace

std::string story_line(double time_s, const std::string& kind, const std::string& text) {
  char head[48];
  std::snprintf(head, sizeof head, "%7.2f s  %-6s  ", time_s, kind.c_str());
  return head + text;
}

std::vector<std::string> DemoStory::started(const StartResult& answer) {
  std::vector<std::string> lines;
  tell_events(0.0, &lines);
  tell_word(0.0, {answer.state.status, answer.state.detail}, &lines);
  tell_phase(0.0, answer.state.phase, &lines);
  if (answer.gimbal_target) {
    lines.push_back(story_line(0.0, "camera",
                               degrees("asked to look at pan %.2f, tilt %.2f degrees",
                                       answer.gimbal_target->pan_deg, answer.gimbal_target->tilt_deg)));
  }
  return lines;
}

std::vector<std::string> DemoStory::frame(const DemoFrame& frame) {
  std::vector<std::string> lines;
  tell_events(frame.time_s, &lines);
  for (const StatusWord& word : frame.answer.told.words) tell_word(frame.time_s, word, &lines);
  tell_word(frame.time_s, {frame.answer.state.status, frame.answer.state.detail}, &lines);
  tell_phase(frame.time_s, frame.answer.state.phase, &lines);
  tell_zoom(frame, &lines);
  return lines;
}

void DemoStory::tell_events(double time_s, std::vector<std::string>* lines) {
  for (const ostrel_scene::WorldEvent& event : events_) {
    const bool began = event.start_s <= time_s && event.start_s > told_until_s_;
    if (began) lines->push_back(story_line(time_s, "event", event.what));
  }
  told_until_s_ = time_s;
}

void DemoStory::tell_word(double time_s, const StatusWord& word, std::vector<std::string>* lines) {
  if (word.status == last_word_) return;
  last_word_ = word.status;
  lines->push_back(
      story_line(time_s, "status", word.status + (word.detail.empty() ? "" : " (" + word.detail + ")")));
}

void DemoStory::tell_phase(double time_s, const std::string& phase, std::vector<std::string>* lines) {
  if (phase == last_phase_) return;
  last_phase_ = phase;
  lines->push_back(story_line(time_s, "phase", phase));
}

void DemoStory::tell_zoom(const DemoFrame& frame, std::vector<std::string>* lines) {
  const bool zooming = !frame.answer.told.zoom_factors.empty();
  if (zooming != zooming_) {
    const std::string text =
        zooming ? "the lens zooms, and the tracker is told frame by frame"
                : degrees("the zoom stands: %.1f x %.1f degrees", frame.view.hfov_deg, frame.view.vfov_deg);
    lines->push_back(story_line(frame.time_s, "camera", text));
  }
  zooming_ = zooming;
}

}  // namespace ostrel_host
