#include "eval_command.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <opencv2/core/utility.hpp>

#include "bad_input.h"
#include "engine_choice.h"
#include "eval_files.h"
#include "eval_plots.h"
#include "eval_statistics.h"
#include "eval_table.h"
#include "interrupt.h"
#include "loaded_plugin.h"
#include "one_pass.h"
#include "pacer.h"
#include "plugin_configuration.h"
#include "progress.h"
#include "time_left.h"
#include "tracker_log.h"

namespace ostrel_host {
namespace {

using nlohmann::ordered_json;

std::vector<Sequence> open_sequences(const EvalOptions& options) {
  std::vector<Sequence> sequences;
  try {
    for (const auto& folder : sequence_folders(options.folders)) {
      sequences.push_back(open_sequence(folder, options.frames));
    }
  } catch (const std::filesystem::filesystem_error& failure) {  // no right to read, a link to itself, ..
    throw BadInput("'" + failure.path1().string() + "' cannot be read: " + failure.code().message());
  }
  return sequences;
}

// Reads all pictures once; false where that was interrupted.
bool check_all_pictures(const std::vector<Sequence>& sequences) {
  std::size_t total = 0, done = 0;
  for (const Sequence& sequence : sequences) total += sequence.frames();
  TimeLeft left;
  left.add_work("", total);
  Progress progress(total, Progress::Words::kToldElsewhere);
  const Pacer clock(0.0);
  double before_s = 0.0;
  for (const Sequence& sequence : sequences) {
    check_pictures(sequence, [&] {
      const double now_s = clock.elapsed_s();
      left.frame_done("", now_s - before_s);
      before_s = now_s;
      progress.job(++done, left.left_s(), "checking the pictures of " + sequence.name);
      return !interrupted();
    });
  }
  progress.clear();
  return !interrupted();
}

std::string plugin_path(const EvalOptions& options) {
  return options.plugin.empty() ? default_plugin_path() : options.plugin;
}

void check_configurations(const std::vector<EvalTracker>& trackers, const std::string& plugin_file) {
  for (const EvalTracker& tracker : trackers) {
    if (!tracker.is_plugin()) continue;
    LoadedPlugin plugin(plugin_file);
    apply_configuration(*plugin, tracker.configuration);
  }
}

ordered_json tracker_json(const EvalTracker& tracker) {
  if (!tracker.is_plugin()) return {{"name", tracker.name}, {"kind", "opencv"}};
  return {{"name", tracker.name},
          {"kind", "plugin"},
          {"engine", engine_in_use(tracker.configuration)},
          {"configuration", tracker.configuration}};
}

ordered_json sequence_json(const Sequence& sequence) {
  return {{"name", sequence.name},
          {"folder", sequence.folder.string()},
          {"frame_width", sequence.frame_size_px.width},
          {"frame_height", sequence.frame_size_px.height},
          {"pictures", sequence.pictures},
          {"lines", sequence.lines},
          {"frames", sequence.frames()},
          {"roi", {sequence.start.x, sequence.start.y, sequence.start.w, sequence.start.h}}};
}

template <typename Items, typename ToJson>
ordered_json json_list(const Items& items, const ToJson& to_json) {
  ordered_json list = ordered_json::array();
  for (const auto& item : items) list.push_back(to_json(item));
  return list;
}

template <typename Items>
std::vector<std::string> names_of(const Items& items) {
  std::vector<std::string> names;
  names.reserve(items.size());
  for (const auto& item : items) names.push_back(item.name);
  return names;
}

// All passes, from the first to the report.
class Evaluation {
 public:
  Evaluation(const EvalOptions& options, const std::vector<Sequence>& sequences,
             const std::vector<EvalTracker>& trackers)
      : options_(options),
        sequences_(sequences),
        trackers_(trackers),
        files_(options.out),
        tracker_log_((files_.folder() / "tracker.log").string()),
        progress_(frames_expected(), Progress::Words::kTold, tracker_log_.terminal()) {
    for (const EvalTracker& tracker : trackers) left_.add_work(tracker.name, frames_of_each());
  }

  // What ends the evaluation, such as a tracker that cannot start, does so behind the report on the passes before it.
  int run() {
    try {
      run_all();
    } catch (const std::exception&) {
      progress_.clear();
      if (!records_.empty()) report();
      throw;
    }
    progress_.clear();
    report();
    return complete() ? 0 : kExitBrokenOff;
  }

 private:
  // That each of the trackers is given.
  std::size_t frames_of_each() const {
    std::size_t frames = 0;
    for (const Sequence& sequence : sequences_) frames += sequence.frames();
    return frames * static_cast<std::size_t>(options_.runs);
  }

  std::size_t frames_expected() const { return frames_of_each() * trackers_.size(); }

  std::size_t passes_expected() const {
    return static_cast<std::size_t>(options_.runs) * sequences_.size() * trackers_.size();
  }

  bool complete() const { return records_.size() == passes_expected(); }

  // A whole run after the other, so that one that is broken off leaves whole ones.
  void run_all() {
    for (int run = 1; run <= options_.runs; ++run) {
      for (const Sequence& sequence : sequences_) {
        for (const EvalTracker& tracker : trackers_) {
          if (interrupted() || !run_one(sequence, tracker, run)) return;
        }
      }
    }
  }

  bool run_one(const Sequence& sequence, const EvalTracker& tracker, int run) {
    const std::string task = sequence.name + ", " + tracker.name +
                             (options_.runs > 1 ? ", run " + std::to_string(run) : std::string());
    progress_.job(left_.done(), left_.left_s(), task);
    before_s_ = clock_.elapsed_s();
    const Pass pass = pass_of(sequence, tracker, run, [&](bool frame_done) {
      if (frame_done) note_frame(tracker.name, task);
      return !interrupted();
    });
    if (!pass.complete) return false;
    records_.push_back(judge_pass(pass, sequence, tracker.name, run));
    files_.write_pass(pass, records_.back());
    return true;
  }

  // Each pass has a plug-in of its own, so that nothing is carried over.
  Pass pass_of(const Sequence& sequence, const EvalTracker& tracker, int run, const GoOn& go_on) const {
    try {
      if (!tracker.is_plugin())
        return pass_of_peer(tracker.peer, sequence, static_cast<unsigned>(run), go_on);
      LoadedPlugin plugin(plugin_path(options_));
      apply_configuration(*plugin, tracker.configuration);
      return pass_of_plugin(*plugin, sequence, options_.frame_rate, wants_debug(false, tracker.configuration),
                            go_on);
    } catch (const BadInput& failure) {
      throw BadInput("'" + tracker.name + "' on '" + sequence.name + "': " + failure.what());
    }
  }

  void note_frame(const std::string& tracker, const std::string& task) {
    const double now_s = clock_.elapsed_s();
    left_.frame_done(tracker, now_s - before_s_);
    before_s_ = now_s;
    progress_.job(left_.done(), left_.left_s(), task);
  }

  void report() {
    const auto rows = eval_rows(records_, names_of(sequences_), names_of(trackers_));
    const auto curves = eval_curves(records_, names_of(sequences_), names_of(trackers_));
    files_.write_report(report_json(rows, curves));
    const std::string no_picture = draw_eval_plots(files_.folder(), curves);
    std::printf("%s", eval_table(rows, sequences_.size()).c_str());
    print_notes();
    if (!no_picture.empty()) std::printf("no plots: %s\n", no_picture.c_str());
    std::printf("results in %s: eval.json eval.csv boxes/ tracker.log%s\n", files_.folder().c_str(),
                no_picture.empty() ? " success.png precision.png" : "");
  }

  void print_notes() const {
    std::printf("AUC, P@20 and IoU > 0.5 judge the boxes that a user gets, own AUC the tracker's own.\n");
    if (options_.runs > 1) std::printf("\u00b1 is the sample standard deviation over the runs.\n");
    if (!trackers_.empty() && !trackers_.back().is_plugin()) {
      std::printf("OpenCV %s with %d threads; the peers' random numbers start from the number of the run.\n",
                  CV_VERSION, cv::getNumThreads());
    }
    if (!complete()) {
      std::printf("broken off: %zu of %zu passes are finished\n", records_.size(), passes_expected());
    }
  }

  ordered_json report_json(const std::vector<EvalRow>& rows, const std::vector<EvalCurves>& curves) const {
    ordered_json report;
    report["complete"] = complete();
    report["runs"] = options_.runs;
    report["most_frames"] = options_.frames == 0 ? ordered_json(nullptr) : ordered_json(options_.frames);
    report["paced_fps"] = options_.frame_rate;
    report["plugin"] = plugin_path(options_);
    report["opencv"] = {{"version", CV_VERSION}, {"threads", cv::getNumThreads()}};
    report["peer_seed"] = "number of the run";
    report["sequences"] = json_list(sequences_, sequence_json);
    report["trackers"] = json_list(trackers_, tracker_json);
    report["rows"] = json_list(rows, row_json);
    report["curves"] = json_list(curves, curves_json);
    report["passes"] = json_list(records_, record_json);
    return report;
  }

  const EvalOptions& options_;
  const std::vector<Sequence>& sequences_;
  const std::vector<EvalTracker>& trackers_;
  EvalFiles files_;
  TrackerLog tracker_log_;
  TimeLeft left_;
  Progress progress_;
  Pacer clock_{0.0};
  double before_s_ = 0.0;
  std::vector<EvalRecord> records_;
};

}  // namespace

int run_eval(const EvalOptions& options) {
  const std::vector<EvalTracker> trackers = eval_trackers(options.trackers);
  const std::vector<Sequence> sequences = open_sequences(options);
  check_configurations(trackers, plugin_path(options));
  stop_on_interrupt();
  if (!check_all_pictures(sequences)) return kExitBrokenOff;
  return Evaluation(options, sequences, trackers).run();
}

}  // namespace ostrel_host
