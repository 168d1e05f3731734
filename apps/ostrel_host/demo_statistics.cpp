#include "demo_statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "follow_controller.h"

namespace ostrel_host {
namespace {

using nlohmann::ordered_json;
using ostrel_scene::WorldEvent;

constexpr double kFoundOverlap = 0.5;
constexpr char kLookAlike[] = "look-alike";

cv::Rect2d published_box(const DemoFrame& frame) {
  if (!frame.answer.published) return {};
  const BBox& box = frame.answer.published->box;
  return cv::Rect2d(box.x, box.y, box.w, box.h);
}

bool is_found(const DemoFrame& frame) {
  return is_seen(frame.answer.published) && published_overlap(frame) > kFoundOverlap;
}

bool is_beside(const DemoFrame& frame) {
  return is_visible(frame) && is_seen(frame.answer.published) && published_overlap(frame) < kBesideOverlap;
}

std::optional<std::size_t> first_armed(const std::vector<DemoFrame>& frames) {
  const auto found = std::find_if(frames.begin(), frames.end(),
                                  [](const DemoFrame& frame) { return frame.answer.state.phase == "ready"; });
  if (found == frames.end()) return std::nullopt;
  return static_cast<std::size_t>(found - frames.begin());
}

// Turns stretches of `value` that are too short into the other value.
void drop_short(bool value, std::size_t shortest, std::vector<bool>* flags) {
  for (std::size_t i = 0; i < flags->size();) {
    std::size_t end = i;
    while (end < flags->size() && (*flags)[end] == (*flags)[i]) ++end;
    const bool inside = i > 0 && end < flags->size();
    if ((*flags)[i] == value && inside && end - i < shortest) {
      for (; i < end; ++i) (*flags)[i] = !value;
    }
    i = end;
  }
}

void count_frame(const DemoFrame& frame, bool armed, DemoReport* report) {
  ++report->frames;
  report->zoom_notices += frame.answer.told.zoom_factors.size();
  if (!armed) return;
  const bool seen = is_seen(frame.answer.published);
  const bool held = frame.answer.published && !seen;
  if (frame.answer.published) ++report->published;
  if (held) ++report->held;
  if (is_beside(frame)) ++report->beside;
  if (is_visible(frame)) return;
  if (is_out_of_view(frame)) {
    ++report->out_of_view;
    return;
  }
  ++report->hidden_frames;
  if (held) ++report->held_while_hidden;
  if (seen) ++report->seen_while_hidden;
}

void score(const std::vector<DemoFrame>& frames, std::size_t armed, DemoReport* report) {
  std::vector<cv::Rect2d> boxes, truth;
  double overlaps = 0.0;
  for (std::size_t i = armed; i < frames.size(); ++i) {
    if (!is_visible(frames[i])) continue;
    boxes.push_back(published_box(frames[i]));
    truth.push_back(frames[i].truth.box_px);
    overlaps += published_overlap(frames[i]);
  }
  report->accuracy = score_boxes(boxes, truth);
  if (boxes.empty()) return;
  const auto scored = static_cast<double>(boxes.size());
  report->mean_overlap = overlaps / scored;
  report->auc_with_out_of_view =
      report->accuracy.success_auc * scored / (scored + static_cast<double>(report->out_of_view));
}

std::vector<Return> returns_of(const std::vector<DemoFrame>& frames, std::size_t armed,
                               const std::vector<WorldEvent>& events) {
  const std::vector<FrameRange> unseen = unseen_stretches(frames);
  std::vector<Return> returns;
  for (std::size_t k = 0; k < unseen.size(); ++k) {
    const std::size_t back = unseen[k].last + 1;
    if (unseen[k].first < armed || back >= frames.size() || is_out_of_view(frames[unseen[k].first])) continue;
    const std::size_t end = k + 1 < unseen.size() ? unseen[k + 1].first : frames.size();
    Return entry{events_at(events, frames[unseen[k].first].time_s), frames[unseen[k].first].time_s,
                 frames[back].time_s, std::nullopt};
    for (std::size_t i = back; i < end && !entry.found_after_s; ++i) {
      if (is_found(frames[i])) entry.found_after_s = frames[i].time_s - entry.visible_s;
    }
    returns.push_back(std::move(entry));
  }
  return returns;
}

LookAlikePassage passage(const WorldEvent& event, const std::vector<DemoFrame>& frames) {
  LookAlikePassage result{event.start_s, event.end_s, 1.0, 0};
  for (const DemoFrame& frame : frames) {
    if (frame.time_s < event.start_s || frame.time_s > event.end_s + kAfterLookAlike_s) continue;
    if (!is_visible(frame) || !is_seen(frame.answer.published)) continue;
    result.smallest_overlap = std::min(result.smallest_overlap, published_overlap(frame));
    if (is_beside(frame)) ++result.frames_beside;
  }
  return result;
}

ordered_json or_null(const std::optional<double>& value) {
  return value ? ordered_json(*value) : ordered_json(nullptr);
}

template <typename... Values>
std::string line(const char* format, Values... values) {
  char text[240];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

std::string return_line(const Return& entry) {
  const std::string head = line("hidden from %.1f s to %.1f s%s%s: ", entry.hidden_s, entry.visible_s,
                                entry.where.empty() ? "" : ", ", entry.where.c_str());
  return head + (entry.found_after_s ? line("found again after %.2f s", *entry.found_after_s)
                                     : std::string("not found again"));
}

std::string passage_line(const LookAlikePassage& entry) {
  return line(
      "look-alike from %.1f s to %.1f s: %zu frames with the box beside the target, smallest overlap %.2f",
      entry.start_s, entry.end_s, entry.frames_beside, entry.smallest_overlap);
}

}  // namespace

double published_overlap(const DemoFrame& frame) {
  return overlap(published_box(frame), frame.truth.box_px);
}

bool is_visible(const DemoFrame& frame) {
  return frame.truth.visible_share > kVisibleShare;
}

bool is_out_of_view(const DemoFrame& frame) {
  return !is_visible(frame) && frame.in_view_share <= kVisibleShare;
}

std::vector<FrameRange> unseen_stretches(const std::vector<DemoFrame>& frames) {
  const auto shortest = static_cast<std::size_t>(std::lround(kShortestStretch_s * kDemoFrameRate));
  std::vector<bool> hidden;
  hidden.reserve(frames.size());
  for (const DemoFrame& frame : frames) hidden.push_back(!is_visible(frame));
  drop_short(false, shortest, &hidden);
  drop_short(true, shortest, &hidden);
  std::vector<FrameRange> stretches;
  for (std::size_t i = 0; i < hidden.size(); ++i) {
    if (!hidden[i]) continue;
    if (i > 0 && hidden[i - 1]) {
      stretches.back().last = i;
    } else {
      stretches.push_back({i, i});
    }
  }
  return stretches;
}

std::string events_at(const std::vector<WorldEvent>& events, double time_s) {
  std::string names;
  for (const WorldEvent& event : events) {
    if (time_s < event.start_s || time_s >= event.end_s) continue;
    names += (names.empty() ? "" : ", ") + event.what;
  }
  return names;
}

DemoReport judge(const std::vector<DemoFrame>& frames, const std::vector<WorldEvent>& events) {
  DemoReport report;
  const std::optional<std::size_t> armed = first_armed(frames);
  for (std::size_t i = 0; i < frames.size(); ++i) count_frame(frames[i], armed && i >= *armed, &report);
  if (!armed) return report;
  report.armed_s = frames[*armed].time_s;
  score(frames, *armed, &report);
  report.returns = returns_of(frames, *armed, events);
  for (const WorldEvent& event : events) {
    const bool seen = !frames.empty() && event.start_s <= frames.back().time_s;
    if (seen && event.what.find(kLookAlike) != std::string::npos) {
      report.look_alikes.push_back(passage(event, frames));
    }
  }
  return report;
}

ordered_json to_json_report(const DemoReport& report) {
  ordered_json object;
  object["frames"] = report.frames;
  object["armed_s"] = or_null(report.armed_s);
  object["scored_where_visible_share_above"] = kVisibleShare;
  object["accuracy"] = to_json_report(report.accuracy);
  object["mean_overlap"] = report.mean_overlap;
  object["out_of_view"] = report.out_of_view;
  object["auc_with_out_of_view"] = report.auc_with_out_of_view;
  object["published"] = report.published;
  object["held"] = report.held;
  object["beside_target"] = report.beside;
  object["hidden_frames"] = report.hidden_frames;
  object["held_while_hidden"] = report.held_while_hidden;
  object["seen_while_hidden"] = report.seen_while_hidden;
  object["zoom_notices"] = report.zoom_notices;
  object["returns"] = ordered_json::array();
  for (const Return& entry : report.returns) {
    object["returns"].push_back({{"where", entry.where},
                                 {"hidden_s", entry.hidden_s},
                                 {"visible_s", entry.visible_s},
                                 {"found_after_s", or_null(entry.found_after_s)}});
  }
  object["look_alikes"] = ordered_json::array();
  for (const LookAlikePassage& entry : report.look_alikes) {
    object["look_alikes"].push_back({{"start_s", entry.start_s},
                                     {"end_s", entry.end_s},
                                     {"frames_beside_target", entry.frames_beside},
                                     {"smallest_overlap", entry.smallest_overlap}});
  }
  return object;
}

std::vector<std::string> to_lines(const DemoReport& report) {
  if (!report.armed_s) return {"tracking was not armed before the demo ended"};
  std::vector<std::string> lines;
  lines.push_back(line("armed %.2f s after init, on the simulated clock", *report.armed_s));
  lines.push_back("published boxes, where more than half of the target can be seen: " +
                  to_line(report.accuracy) + line(", mean overlap %.3f", report.mean_overlap));
  lines.push_back(
      line("%zu frames with the target out of the view; with these as misses the success AUC is %.3f",
           report.out_of_view, report.auc_with_out_of_view));
  lines.push_back(line("%zu frames with a box: %zu held with score 0, %zu with a score but beside the target",
                       report.published, report.held, report.beside));
  lines.push_back(
      line("%zu frames with the target hidden: %zu with a held box, %zu with a box that has a score",
           report.hidden_frames, report.held_while_hidden, report.seen_while_hidden));
  lines.push_back(line("%zu zoom steps were told to the tracker", report.zoom_notices));
  for (const Return& entry : report.returns) lines.push_back(return_line(entry));
  for (const LookAlikePassage& entry : report.look_alikes) lines.push_back(passage_line(entry));
  return lines;
}

}  // namespace ostrel_host
