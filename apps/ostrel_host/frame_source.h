// Where frames come from: a video file, a folder of images, or a camera.
#pragma once

#include <cstdint>
#include <memory>
#include <opencv2/core.hpp>
#include <optional>
#include <string>

namespace ostrel_host {

// What a camera on a gimbal says about itself in the metadata of its frames.
struct ViewMetadata {
  double pan_deg = 0.0;
  double tilt_deg = 0.0;
  double hfov_deg = 0.0;
  double vfov_deg = 0.0;
  bool follow_me = false;
};

struct Frame {
  cv::Mat image;  // 8 bits, blue, green, red; empty where an image of a folder cannot be read
  std::uint64_t timestamp_ns = 0;
  std::string name;  // the file of an image, empty otherwise
  std::optional<ViewMetadata> view = std::nullopt;
};

class FrameSource {
 public:
  virtual ~FrameSource() = default;

  // The next frame, or nothing at the end.
  virtual std::optional<Frame> next() = 0;

  // Frames in all, 0 where that is not known.
  virtual std::size_t frame_count() const = 0;

  // Frames per second of the footage, 0 where that is not known.
  virtual double frame_rate() const = 0;
};

// `source` is a video file, a folder of images (taken in the order of their names; a folder without images but
// with a folder `img` stands for that one), or "camera:N". Throws BadInput where it cannot be opened.
std::unique_ptr<FrameSource> open_source(const std::string& source);

}  // namespace ostrel_host
