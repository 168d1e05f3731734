// ostrel_host render: writes a rendered scene with its ground truth.
#pragma once

#include <ostrel_scene/scene.h>

#include <string>

namespace ostrel_host {

struct RenderOptions {
  std::string out;
  ostrel_scene::SceneOptions scene;
};

// `out` ending in .mp4 or .avi is a video with groundtruth_rect.txt beside it; anything else is a folder that gets
// img/00001.png and on, and groundtruth_rect.txt. Returns the exit code. Throws BadInput.
int run_render(const RenderOptions& options);

}  // namespace ostrel_host
