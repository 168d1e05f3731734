#include "render_command.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include "bad_input.h"

namespace ostrel_host {
namespace {

namespace fs = std::filesystem;

constexpr double kFrameRate = 25.0;

using WriteFrame = std::function<void(int frame, const cv::Mat& image)>;

bool is_video(const fs::path& file) {
  return file.extension() == ".mp4" || file.extension() == ".avi";
}

void make_folder(const fs::path& folder) {
  std::error_code problem;
  if (!folder.empty()) fs::create_directories(folder, problem);
  if (problem) throw BadInput("the folder '" + folder.string() + "' cannot be made");
}

WriteFrame video_writer(const fs::path& file, const ostrel_scene::SceneOptions& scene) {
  if (scene.width_px % 2 != 0 || scene.height_px % 2 != 0) throw BadInput("a video has even sides");
  auto writer = std::make_shared<cv::VideoWriter>();
  const int code = cv::VideoWriter::fourcc('m', 'p', '4', 'v');
  if (!writer->open(file.string(), code, kFrameRate, cv::Size(scene.width_px, scene.height_px))) {
    throw BadInput("'" + file.string() + "' cannot be written");
  }
  return [writer](int, const cv::Mat& image) { writer->write(image); };
}

WriteFrame image_writer(const fs::path& folder) {
  make_folder(folder);
  return [folder](int frame, const cv::Mat& image) {
    char name[32];
    std::snprintf(name, sizeof name, "%05d.png", frame + 1);
    if (!cv::imwrite((folder / name).string(), image)) {
      throw BadInput("'" + (folder / name).string() + "' cannot be written");
    }
  };
}

}  // namespace

int run_render(const RenderOptions& options) {
  const std::string problem = ostrel_scene::why_invalid(options.scene);
  if (!problem.empty()) throw BadInput(problem);
  const fs::path out(options.out);
  const fs::path folder = is_video(out) ? out.parent_path() : out;
  make_folder(folder);
  const WriteFrame write = is_video(out) ? video_writer(out, options.scene) : image_writer(out / "img");
  std::ofstream truth(folder / "groundtruth_rect.txt");
  if (!truth) throw BadInput("'" + (folder / "groundtruth_rect.txt").string() + "' cannot be written");

  const ostrel_scene::Scene scene(options.scene);
  for (int i = 0; i < options.scene.frames; ++i) {
    const ostrel_scene::SceneFrame frame = scene.render(i);
    write(i, frame.image);
    char line[96];
    std::snprintf(line, sizeof line, "%.2f,%.2f,%.2f,%.2f\n", frame.target_px.x, frame.target_px.y,
                  frame.target_px.width, frame.target_px.height);
    truth << line;
  }
  std::printf("rendered %d frames of %dx%d to %s\n", options.scene.frames, options.scene.width_px,
              options.scene.height_px, options.out.c_str());
  return 0;
}

}  // namespace ostrel_host
