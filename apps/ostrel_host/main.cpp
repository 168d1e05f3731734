// ostrel_host: loads the tracker's plug-in as a host does, and drives it.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "accuracy.h"
#include "bad_input.h"
#include "demo_command.h"
#include "eval_command.h"
#include "region.h"
#include "render_command.h"
#include "schema_command.h"
#include "track_command.h"

namespace {

using namespace ostrel_host;

constexpr int kExitFailure = 1;

struct Commands {
  TrackOptions track;
  DemoOptions demo;
  EvalOptions eval;
  RenderOptions render;
  SchemaOptions schema;
  std::string size;
  std::string boxes;
  std::string truth;
};

std::string rate_problem(const std::string& text) {
  double rate = 0.0;
  const bool number = CLI::detail::lexical_cast(text, rate);
  return number && rate > 0.0 && rate <= 1000.0 ? ""
                                                : "a rate above 0 and up to 1000 frames per second is needed";
}

CLI::App* declare_track(CLI::App* app, TrackOptions* options) {
  CLI::App* track = app->add_subcommand("track", "Follow a target through a clip");
  track->add_option("source", options->source, "A video, a folder of images, or camera:N")->required();
  track->add_option("--roi", options->region, "The target in the first frame: x,y,w,h in pixels")->required();
  track->add_option("--engine", options->engine, "The backbone");
  track->add_option("--config", options->config_file, "A JSON file for the plug-in's setConfig");
  track->add_option("--set", options->settings, "One setting of it: path=value, may be repeated")->take_all();
  track->add_flag("--wait-ready", options->wait_ready, "Repeat the first frame until tracking is armed");
  track->add_option("--fps", options->frame_rate, "Pace the frames as a camera would")->check(rate_problem);
  track->add_option("--out", options->out, "Folder for the results (default out)");
  track->add_option("--frames", options->frames, "Stop after so many frames")->check(CLI::Range(1, 1 << 30));
  track->add_option("--plugin", options->plugin, "The plug-in (default ../lib/libostrel_plugin.so)");
  track->add_option("--groundtruth", options->groundtruth, "A box per frame, to score the result against");
  track->add_flag("!--no-video", options->video, "Leave annotated.mp4 out");
  track->add_flag("--debug", options->debug, "Show the plug-in's own log");
  return track;
}

CLI::App* declare_demo(CLI::App* app, Commands* commands) {
  CLI::App* demo =
      app->add_subcommand("demo", "Follow a vehicle through a rendered world with a camera on a gimbal");
  DemoOptions& options = commands->demo;
  demo->add_option("--engine", options.engine, "The backbone");
  demo->add_option("--config", options.config_file, "A JSON file for the plug-in's setConfig");
  demo->add_option("--set", options.settings, "One setting of it: path=value, may be repeated")->take_all();
  demo->add_option("--seed", options.seed, "Seed of the world and of the camera's noise (default 2)");
  demo->add_option("--size", commands->size, "Size of the pictures as WxH (default 960x540)");
  demo->add_option("--seconds", options.seconds, "End the story after so many seconds")
      ->check(CLI::Range(0.04, 3600.0));
  demo->add_option("--out", options.out, "Folder for the results (default out)");
  demo->add_option("--plugin", options.plugin, "The plug-in (default ../lib/libostrel_plugin.so)");
  demo->add_flag("!--no-video", options.video, "Leave annotated.mp4 out");
  demo->add_flag("--debug", options.debug, "Show the plug-in's own log");
  return demo;
}

// Each takes one value: what stands behind it may be a folder.
CLI::Option* add_list(CLI::App* app, const char* name, std::vector<std::string>* values, const char* what) {
  return app->add_option(name, *values, what)->take_all()->allow_extra_args(false);
}

CLI::App* declare_eval(CLI::App* app, EvalOptions* options) {
  CLI::App* eval = app->add_subcommand("eval", "Judge the tracker on sequences with true boxes");
  eval->add_option("folders", options->folders,
                   "Sequences (img and groundtruth_rect.txt), or folders of them")
      ->required();
  add_list(eval, "--engine", &options->trackers.engines, "A backbone, FILE or NAME=FILE; may be repeated");
  eval->add_option("--config", options->trackers.config_file, "A JSON file for the plug-in's setConfig");
  add_list(eval, "--variant", &options->trackers.variants,
           "NAME=FILE, such a file as a row of its own; NAME= are the defaults; may be repeated");
  add_list(eval, "--set", &options->trackers.settings, "One setting on top: path=value; may be repeated");
  eval->add_option("--peer", options->trackers.peers, "OpenCV's trackers beside it: csrt,kcf,mosse,mil");
  eval->add_option("--runs", options->runs, "Runs of everything (default 1)")->check(CLI::Range(1, 1000));
  eval->add_option("--fps", options->frame_rate, "Pace the plug-in's frames (default 10)")
      ->check(rate_problem);
  eval->add_option("--frames", options->frames, "The first so many frames of each sequence")
      ->check(CLI::Range(1, 1 << 30));
  eval->add_option("--out", options->out, "Folder for the results (default out)");
  eval->add_option("--plugin", options->plugin, "The plug-in (default ../lib/libostrel_plugin.so)");
  return eval;
}

CLI::App* declare_render(CLI::App* app, Commands* commands) {
  CLI::App* render = app->add_subcommand("render", "Write a rendered clip with its ground truth");
  auto& scene = commands->render.scene;
  render->add_option("--out", commands->render.out, "clip.mp4, or a folder for images")->required();
  render->add_option("--frames", scene.frames, "Frames (default 240)")->check(CLI::Range(1, 1000000));
  render->add_option("--seed", scene.seed, "Seed of textures and motion (default 1)");
  render->add_option("--size", commands->size, "Size as WxH (default 640x360)");
  return render;
}

CLI::App* declare_score(CLI::App* app, Commands* commands) {
  CLI::App* score = app->add_subcommand("score", "Score boxes against ground truth");
  score->add_option("boxes", commands->boxes, "boxes.txt of a run")->required();
  score->add_option("groundtruth", commands->truth, "The true boxes, a line x,y,w,h per frame")->required();
  return score;
}

CLI::App* declare_schema(CLI::App* app, SchemaOptions* options) {
  CLI::App* schema = app->add_subcommand("schema", "Print the settings that --config and --set take");
  schema->add_flag("--properties", options->properties, "What the plug-in tells of its state instead");
  schema->add_option("--plugin", options->plugin, "The plug-in (default ../lib/libostrel_plugin.so)");
  return schema;
}

int run_score(const std::string& boxes_file, const std::string& truth_file) {
  const auto boxes = read_boxes(boxes_file);
  const auto truth = read_boxes(truth_file);
  if (boxes.size() != truth.size()) {
    std::fprintf(stderr, "ostrel_host: %zu boxes and %zu true boxes: the rest is left out\n", boxes.size(),
                 truth.size());
  }
  std::printf("%s\n", to_line(score_boxes(boxes, truth)).c_str());
  return 0;
}

void set_size(cv::Size size_px, Commands* commands) {
  commands->demo.size_px = size_px;
  commands->render.scene.width_px = size_px.width;
  commands->render.scene.height_px = size_px.height;
}

int run(CLI::App* app, int argc, char** argv) {
  Commands commands;
  CLI::App* track = declare_track(app, &commands.track);
  CLI::App* demo = declare_demo(app, &commands);
  const CLI::App* eval = declare_eval(app, &commands.eval);
  CLI::App* render = declare_render(app, &commands);
  const CLI::App* schema = declare_schema(app, &commands.schema);
  declare_score(app, &commands);
  app->parse(argc, argv);
  if (track->parsed()) return run_track(commands.track);
  if (eval->parsed()) return run_eval(commands.eval);
  if (schema->parsed()) return run_schema(commands.schema);
  if (!demo->parsed() && !render->parsed()) return run_score(commands.boxes, commands.truth);
  if (!commands.size.empty()) set_size(parse_size(commands.size), &commands);
  return demo->parsed() ? run_demo(commands.demo) : run_render(commands.render);
}

int complain(const std::string& what, int exit_code) {
  std::fprintf(stderr, "ostrel_host: %s\n", what.c_str());
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Follows a target in video with the tracker's plug-in", "ostrel_host"};
  app.require_subcommand(1);
  try {
    return run(&app, argc, argv);
  } catch (const CLI::ParseError& failure) {
    if (failure.get_exit_code() == 0) return app.exit(failure);
    return complain(failure.what(), kExitBadInput);
  } catch (const BadInput& failure) {
    return complain(failure.what(), kExitBadInput);
  } catch (const std::exception& failure) {
    return complain(failure.what(), kExitFailure);
  }
}
