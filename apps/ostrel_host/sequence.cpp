#include "sequence.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

#include "accuracy.h"
#include "bad_input.h"
#include "frame_source.h"
#include "region.h"

namespace ostrel_host {
namespace {

namespace fs = std::filesystem;

constexpr char kTruthFile[] = "groundtruth_rect.txt";

std::string quoted(const fs::path& path) {
  return "'" + path.string() + "'";
}

bool is_sequence(const fs::path& folder) {
  return fs::is_directory(folder / "img") || fs::exists(folder / kTruthFile);
}

std::vector<fs::path> sequences_below(const fs::path& parent) {
  std::vector<fs::path> folders;
  for (const fs::directory_entry& entry : fs::directory_iterator(parent)) {
    if (entry.is_directory() && is_sequence(entry.path())) folders.push_back(entry.path());
  }
  std::sort(folders.begin(), folders.end());
  return folders;
}

std::vector<fs::path> sequences_of(const std::string& argument) {
  std::error_code ignored;
  if (!fs::exists(argument, ignored)) throw BadInput("no such folder: '" + argument + "'");
  if (!fs::is_directory(argument, ignored)) throw BadInput("'" + argument + "' is no folder");
  const fs::path folder = fs::canonical(argument);
  if (is_sequence(folder)) return {folder};
  std::vector<fs::path> folders = sequences_below(folder);
  if (!folders.empty()) return folders;
  throw BadInput("'" + argument + "' is no sequence and holds none: img and groundtruth_rect.txt are needed");
}

void require_own_names(const std::vector<fs::path>& folders) {
  std::map<std::string, fs::path> seen;
  for (const fs::path& folder : folders) {
    const auto [other, fresh] = seen.emplace(folder.filename().string(), folder);
    if (fresh) continue;
    if (other->second == folder) throw BadInput("the sequence " + quoted(folder) + " is given twice");
    throw BadInput("two sequences are called '" + other->first + "': " + quoted(other->second) + " and " +
                   quoted(folder));
  }
}

std::string size_text(cv::Size size_px) {
  return std::to_string(size_px.width) + "x" + std::to_string(size_px.height);
}

cv::Mat readable(const std::optional<Frame>& frame, const Sequence& sequence) {
  if (!frame) throw BadInput("the pictures of " + quoted(sequence.folder) + " are gone");
  if (frame->image.empty()) {
    throw BadInput("the picture '" + frame->name + "' of " + quoted(sequence.folder) + " cannot be read");
  }
  return frame->image;
}

BBox start_box(const cv::Rect2d& box, const fs::path& truth_file) {
  const auto whole = [](double value) { return cv::saturate_cast<std::int32_t>(std::round(value)); };
  const BBox start{whole(box.x), whole(box.y), whole(box.width), whole(box.height)};
  if (start.w > 0 && start.h > 0) return start;
  throw BadInput("the first line of " + quoted(truth_file) +
                 " is no box with a size, and nothing can start there");
}

void require_start_inside(const Sequence& sequence) {
  try {
    require_inside(sequence.start, sequence.frame_size_px);
  } catch (const BadInput& failure) {
    throw BadInput("the first line of " + quoted(sequence.folder / kTruthFile) + ": " + failure.what());
  }
}

}  // namespace

std::vector<fs::path> sequence_folders(const std::vector<std::string>& arguments) {
  std::vector<fs::path> folders;
  for (const std::string& argument : arguments) {
    const std::vector<fs::path> more = sequences_of(argument);
    folders.insert(folders.end(), more.begin(), more.end());
  }
  require_own_names(folders);
  return folders;
}

Sequence open_sequence(const fs::path& folder, std::size_t most_frames) {
  Sequence sequence;
  sequence.name = folder.filename().string();
  sequence.folder = folder;
  if (!fs::is_directory(folder / "img"))
    throw BadInput("the sequence " + quoted(folder) + " has no folder img");
  if (!fs::exists(folder / kTruthFile)) {
    throw BadInput("the sequence " + quoted(folder) + " has no groundtruth_rect.txt");
  }
  sequence.truth = read_boxes((folder / kTruthFile).string());
  sequence.lines = sequence.truth.size();
  sequence.start = start_box(sequence.truth.front(), folder / kTruthFile);
  const auto source = open_source(sequence.images());
  sequence.pictures = source->frame_count();
  sequence.frame_size_px = readable(source->next(), sequence).size();
  require_start_inside(sequence);
  sequence.truth.resize(std::min(sequence.lines, sequence.pictures));
  if (most_frames != 0 && most_frames < sequence.truth.size()) sequence.truth.resize(most_frames);
  return sequence;
}

void check_pictures(const Sequence& sequence, const std::function<bool()>& on_picture) {
  const auto source = open_source(sequence.images());
  for (std::size_t i = 0; i < sequence.frames(); ++i) {
    const std::optional<Frame> frame = source->next();
    const cv::Size size_px = readable(frame, sequence).size();
    if (size_px != sequence.frame_size_px) {
      throw BadInput("the picture '" + frame->name + "' of " + quoted(sequence.folder) + " has " +
                     size_text(size_px) + " pixels, the first has " + size_text(sequence.frame_size_px));
    }
    if (!on_picture()) return;
  }
}

}  // namespace ostrel_host
