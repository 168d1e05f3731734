#include "frame_source.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>
#include <set>
#include <utility>
#include <vector>

#include "bad_input.h"

namespace ostrel_host {
namespace {

namespace fs = std::filesystem;

constexpr char kCameraPrefix[] = "camera:";
constexpr double kAssumedFrameRate = 25.0;

std::uint64_t timestamp_ns(std::size_t frame, double frame_rate) {
  const double rate = frame_rate > 0.0 ? frame_rate : kAssumedFrameRate;
  return static_cast<std::uint64_t>(static_cast<double>(frame) * 1e9 / rate);
}

class VideoSource : public FrameSource {
 public:
  VideoSource(const cv::VideoCapture& capture, bool live) : capture_(capture), live_(live) {}

  std::optional<Frame> next() override {
    Frame frame;
    if (!capture_.read(frame.image) || frame.image.empty()) return std::nullopt;
    frame.timestamp_ns = live_ ? steady_ns() : timestamp_ns(index_, frame_rate());
    ++index_;
    return frame;
  }

  std::size_t frame_count() const override {
    const double count = live_ ? 0.0 : capture_.get(cv::CAP_PROP_FRAME_COUNT);
    return count > 0.0 && count < 1e9 ? static_cast<std::size_t>(count) : 0;
  }

  double frame_rate() const override {
    const double rate = capture_.get(cv::CAP_PROP_FPS);
    return rate > 0.0 && rate < 1e4 ? rate : 0.0;
  }

 private:
  static std::uint64_t steady_ns() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
  }

  cv::VideoCapture capture_;
  bool live_;
  std::size_t index_ = 0;
};

class FolderSource : public FrameSource {
 public:
  explicit FolderSource(std::vector<fs::path> files) : files_(std::move(files)) {}

  std::optional<Frame> next() override {
    if (index_ == files_.size()) return std::nullopt;
    Frame frame;
    frame.name = files_[index_].filename().string();
    try {
      frame.image = cv::imread(files_[index_].string(), cv::IMREAD_COLOR);
    } catch (const cv::Exception&) {
      // A damaged image is an unreadable frame, as a missing one is.
    }
    frame.timestamp_ns = timestamp_ns(index_++, 0.0);
    return frame;
  }

  std::size_t frame_count() const override { return files_.size(); }
  double frame_rate() const override { return 0.0; }

 private:
  std::vector<fs::path> files_;
  std::size_t index_ = 0;
};

bool is_image(const fs::path& file) {
  static const std::set<std::string> kExtensions{".jpg",  ".jpeg", ".png", ".bmp", ".tif",
                                                 ".tiff", ".webp", ".ppm", ".pgm"};
  std::string extension = file.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return kExtensions.count(extension) != 0;
}

std::vector<fs::path> images_in(const fs::path& folder) {
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (entry.is_regular_file() && is_image(entry.path())) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::unique_ptr<FrameSource> open_folder(const std::string& source) {
  std::vector<fs::path> files = images_in(source);
  const fs::path nested = fs::path(source) / "img";
  if (files.empty() && fs::is_directory(nested)) files = images_in(nested);
  if (files.empty()) throw BadInput("the folder '" + source + "' holds no images");
  return std::make_unique<FolderSource>(std::move(files));
}

// What goes wrong is told in one line of our own.
void quieten_decoders() {
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);
}

std::unique_ptr<FrameSource> open_video(const std::string& source) {
  quieten_decoders();
  cv::VideoCapture capture;
  if (!capture.open(source, cv::CAP_FFMPEG)) throw BadInput("'" + source + "' cannot be read as a video");
  return std::make_unique<VideoSource>(capture, false);
}

std::unique_ptr<FrameSource> open_camera(const std::string& source) {
  const char* first = source.data() + sizeof kCameraPrefix - 1;
  const char* last = source.data() + source.size();
  int number = -1;
  const auto [end, problem] = std::from_chars(first, last, number);
  if (problem != std::errc() || end != last || number < 0) {
    throw BadInput("'" + source + "' is no camera: camera:N with a number is needed");
  }
  quieten_decoders();
  cv::VideoCapture capture;
  if (!capture.open(number)) throw BadInput("camera " + std::to_string(number) + " cannot be opened");
  return std::make_unique<VideoSource>(capture, true);
}

}  // namespace

std::unique_ptr<FrameSource> open_source(const std::string& source) {
  if (source.rfind(kCameraPrefix, 0) == 0) return open_camera(source);
  std::error_code ignored;
  if (fs::is_directory(source, ignored)) return open_folder(source);
  if (!fs::exists(source, ignored)) throw BadInput("no such file or folder: '" + source + "'");
  return open_video(source);
}

}  // namespace ostrel_host
