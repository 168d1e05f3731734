// A sequence to be judged on: a folder with the pictures in `img`, and the true boxes in `groundtruth_rect.txt`, a line
// x,y,w,h per picture, of which the first starts the tracker.
#pragma once

#include <IAlgoPlugin.h>

#include <filesystem>
#include <functional>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace ostrel_host {

struct Sequence {
  std::string name;  // of its folder
  std::filesystem::path folder;
  std::size_t pictures = 0;  // in `img`
  std::size_t lines = 0;     // in groundtruth_rect.txt
  cv::Size frame_size_px;
  BBox start;                     // the first true box in whole pixels
  std::vector<cv::Rect2d> truth;  // per frame of the evaluation; without size: the frame does not count
  std::size_t frames() const { return truth.size(); }
  std::string images() const { return (folder / "img").string(); }
};

// The folders of sequences that arguments stand for. A folder that holds `img` or `groundtruth_rect.txt` is a sequence;
// any other stands for those of its folders that are, in the order of their names. Throws BadInput for an argument that
// is no folder or leads to no sequence, and for two sequences of one name.
std::vector<std::filesystem::path> sequence_folders(const std::vector<std::string>& arguments);

// Reads the true boxes and the first picture. The evaluation takes as many frames as there are both pictures and lines,
// and no more than `most_frames` where that is not 0. Throws BadInput for a folder without pictures or true boxes, and
// for a first box that cannot start a tracker.
Sequence open_sequence(const std::filesystem::path& folder, std::size_t most_frames);

// Reads every picture that the evaluation will take, so that a bad one is known before hours are spent. `on_picture` is
// called after each and ends the check by false. Throws BadInput for a picture that cannot be read or has another size
// than the first.
void check_pictures(const Sequence& sequence, const std::function<bool()>& on_picture);

}  // namespace ostrel_host
