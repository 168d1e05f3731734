#include "timeline_plot.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <limits>
#include <sstream>

#include "demo_statistics.h"

namespace ostrel_host {
namespace {

constexpr double kFrame_s = 1.0 / kDemoFrameRate;
constexpr double kGap = std::numeric_limits<double>::quiet_NaN();
constexpr Colour kEventColour{120, 120, 170};
constexpr int kWidth_px = 1600;
constexpr int kCurvesHeight_px = 520;
constexpr int kLaneHeight_px = 30;

using Words = std::vector<std::string>;
using WordsOfFrame = std::function<Words(const DemoFrame&)>;

// The log's words come first, the one that stands at the end of the call last.
Words words_of(const DemoFrame& frame) {
  Words words;
  for (const StatusWord& word : frame.answer.told.words) words.push_back(word.status);
  words.push_back(frame.answer.state.status);
  return words;
}

TimelineLane& lane_named(const std::string& name, std::vector<TimelineLane>* lanes) {
  const auto found =
      std::find_if(lanes->begin(), lanes->end(), [&](const TimelineLane& lane) { return lane.name == name; });
  if (found != lanes->end()) return *found;
  lanes->push_back({name, {}});
  return lanes->back();
}

void extend(TimelineLane* lane, double time_s, const Colour& colour) {
  const double end_s = time_s + kFrame_s;
  if (!lane->spans.empty() && time_s - lane->spans.back().end_s < 0.5 * kFrame_s) {
    lane->spans.back().end_s = end_s;
  } else {
    lane->spans.push_back({time_s, end_s, colour});
  }
}

std::vector<TimelineLane> lanes_of(const std::vector<DemoFrame>& frames, const WordsOfFrame& words,
                                   Colour (*colour)(const std::string&)) {
  std::vector<TimelineLane> lanes;
  for (const DemoFrame& frame : frames) {
    for (const std::string& word : words(frame)) {
      if (!word.empty()) extend(&lane_named(word, &lanes), frame.time_s, colour(word));
    }
  }
  return lanes;
}

template <typename... Values>
std::string line(const char* format, Values... values) {
  char text[320];
  std::snprintf(text, sizeof text, format, values...);
  return std::string(text) + "\n";
}

std::string band(double start_s, double end_s, const char* colour) {
  return line(
      "set object rectangle from %.3f, graph 0 to %.3f, graph 1 behind fillcolor rgb '%s' "
      "fillstyle solid noborder",
      start_s, end_s, colour);
}

std::string unseen_bands(const std::vector<DemoFrame>& frames) {
  std::string text;
  for (const FrameRange& range : unseen_stretches(frames)) {
    const bool lost = is_out_of_view(frames[range.first]);
    text +=
        band(frames[range.first].time_s, frames[range.last].time_s + kFrame_s, lost ? "#f3dcd8" : "#d9d9de");
  }
  return text;
}

std::string zoom_bands(const std::vector<DemoFrame>& frames) {
  std::string text;
  for (const DemoFrame& frame : frames) {
    if (!frame.answer.told.zoom_factors.empty()) {
      text += band(frame.time_s, frame.time_s + kFrame_s, "#c6dcf2");
    }
  }
  return text;
}

std::string lane_objects(const std::vector<TimelineLane>& lanes, std::size_t first_row) {
  std::string text;
  for (std::size_t i = 0; i < lanes.size(); ++i) {
    const double middle = static_cast<double>(first_row + i);
    for (const TimelineSpan& span : lanes[i].spans) {
      text += line(
          "set object rectangle from %.3f, %.2f to %.3f, %.2f front fillcolor rgb '%s' "
          "fillstyle solid noborder",
          span.start_s, middle - 0.36, span.end_s, middle + 0.36, to_hex(span.colour).c_str());
    }
  }
  return text;
}

std::string lane_names(const std::vector<TimelineLane>& lanes, std::size_t first_row) {
  std::string text;
  for (std::size_t i = 0; i < lanes.size(); ++i) {
    text += "set ytics add (" + plot_literal(lanes[i].name) + line(" %zu)", first_row + i);
  }
  return text;
}

std::string separator(std::size_t row) {
  return line("set arrow from graph 0, first %.2f to graph 1, first %.2f nohead linecolor rgb '#808080'",
              static_cast<double>(row) - 0.5, static_cast<double>(row) - 0.5);
}

std::string preamble(int height_px, double end_s) {
  return line("set terminal pngcairo size %d,%d font 'DejaVu Sans,11' noenhanced background rgb 'white'",
              kWidth_px, height_px) +
         "set output 'timeline.png'\n"
         "set datafile separator tab\n"
         "set multiplot\n"
         "set lmargin at screen 0.165\nset rmargin at screen 0.965\n" +
         line("set xrange [0:%.3f]", end_s) +
         "set grid xtics linecolor rgb '#e4e4e4' linetype 1\n"
         "set tics nomirror out\nset border 3 linecolor rgb '#606060'\n";
}

// Fractions of the picture's height, from the top.
std::string panel(int from_px, int to_px, int height_px) {
  return line("set tmargin at screen %.4f\nset bmargin at screen %.4f", 1.0 - double(from_px) / height_px,
              1.0 - double(to_px) / height_px);
}

// The legend of a panel, over its right end.
std::string legend(int top_px, int height_px) {
  return line("set key at screen 0.965, screen %.4f top right horizontal samplen 2 spacing 1",
              1.0 - static_cast<double>(top_px) / height_px);
}

std::string heading(const char* text, int top_px, int height_px) {
  return line("set label 1 '%s' at screen 0.165, screen %.4f left font ',12'", text,
              1.0 - static_cast<double>(top_px) / height_px);
}

std::string score_panel(const std::vector<DemoFrame>& frames, int height_px) {
  return panel(56, 320, height_px) + unseen_bands(frames) + zoom_bands(frames) +
         heading(
             "What was published, and how well it fits (grey: target hidden, red: out of view, blue: zoom "
             "told)",
             24, height_px) +
         legend(14, height_px) +
         "set format x ''\nset ylabel 'score, overlap'\nset yrange [0:1.02]\nset ytics 0.2\n"
         "plot 'timeline.tsv' using 1:4 with filledcurves y1=0 linecolor rgb '#60b0d8b8' title 'overlap with "
         "the "
         "truth', \\\n"
         "     '' using 1:4 with lines linewidth 1 linecolor rgb '#2ea05a' notitle, \\\n"
         "     '' using 1:2 with lines linewidth 2 linecolor rgb '#1f3f7a' title 'published score'\n"
         "unset object\nunset label 1\n";
}

std::string view_panel(const std::vector<DemoFrame>& frames, int height_px) {
  return panel(364, kCurvesHeight_px - 20, height_px) + unseen_bands(frames) + legend(334, height_px) +
         "set ylabel 'field of view, deg'\nset yrange [0:*]\nset offsets 0, 0, 4, 0\nset ytics 10\n"
         "set y2label 'visible share'\nset y2range [0:1.1]\nset y2tics 0.5\nset border 11\n"
         "plot 'timeline.tsv' using 1:5 axes x1y2 with lines linewidth 1.5 linecolor rgb '#909090' title "
         "'visible "
         "share of the target', \\\n"
         "     '' using 1:6 with lines linewidth 2 linecolor rgb '#7a4fa3' title 'horizontal field of view'\n"
         "unset object\nunset y2tics\nunset y2label\nunset offsets\nunset key\nset border 3\n";
}

std::string lane_panel(const std::vector<std::vector<TimelineLane>>& groups, std::size_t rows,
                       int height_px) {
  std::string text = panel(kCurvesHeight_px + 10, height_px - 60, height_px) +
                     "set format x '%g'\nset xlabel 'seconds'\nunset ylabel\nunset ytics\n" +
                     line("set yrange [%.1f:-0.5]", static_cast<double>(rows) - 0.5) +
                     "set ytics scale 0 ()\nset grid noytics\n";
  std::size_t row = 0;
  for (const auto& lanes : groups) {
    if (row > 0 && row < rows) text += separator(row);
    text += lane_names(lanes, row) + lane_objects(lanes, row);
    row += lanes.size();
  }
  return text + "plot NaN notitle\nunset multiplot\n";
}

}  // namespace

PlotTable timeline_table(const std::vector<DemoFrame>& frames) {
  PlotTable table{{"time_s", "score", "tracker_score", "overlap", "visible_share", "hfov_deg"}, {}};
  for (const DemoFrame& frame : frames) {
    const auto& published = frame.answer.published;
    table.rows.push_back({frame.time_s, published ? published->score : kGap, frame.answer.state.tracker_score,
                          is_visible(frame) ? published_overlap(frame) : kGap, frame.truth.visible_share,
                          frame.view.hfov_deg});
  }
  return table;
}

std::vector<TimelineLane> event_lanes(const std::vector<ostrel_scene::WorldEvent>& events, double end_s) {
  std::vector<TimelineLane> lanes;
  for (const ostrel_scene::WorldEvent& event : events) {
    if (event.start_s >= end_s) continue;
    lane_named(event.what, &lanes)
        .spans.push_back({event.start_s, std::min(event.end_s, end_s), kEventColour});
  }
  return lanes;
}

std::vector<TimelineLane> phase_lanes(const std::vector<DemoFrame>& frames) {
  return lanes_of(
      frames, [](const DemoFrame& frame) { return Words{frame.answer.state.phase}; }, colour_of_phase);
}

std::vector<TimelineLane> word_lanes(const std::vector<DemoFrame>& frames) {
  return lanes_of(frames, words_of, colour_of_word);
}

std::string timeline_script(const std::vector<DemoFrame>& frames,
                            const std::vector<ostrel_scene::WorldEvent>& events) {
  const double end_s = frames.empty() ? kFrame_s : frames.back().time_s + kFrame_s;
  const std::vector<std::vector<TimelineLane>> groups{event_lanes(events, end_s), phase_lanes(frames),
                                                      word_lanes(frames)};
  std::size_t rows = 0;
  for (const auto& lanes : groups) rows += lanes.size();
  const int height_px = kCurvesHeight_px + 70 + kLaneHeight_px * static_cast<int>(rows);
  return preamble(height_px, end_s) + score_panel(frames, height_px) + view_panel(frames, height_px) +
         lane_panel(groups, rows, height_px);
}

std::string draw_timeline(const std::filesystem::path& folder, const std::vector<DemoFrame>& frames,
                          const std::vector<ostrel_scene::WorldEvent>& events) {
  if (frames.empty()) return "no frames";
  write_table(folder / "timeline.tsv", timeline_table(frames));
  write_script(folder / "timeline.gp", timeline_script(frames, events));
  return draw_plot(folder, "timeline.gp");
}

}  // namespace ostrel_host
