// One tracker over one sequence, once from its first frame to its last: started on the first true box and never helped
// again.
#pragma once

#include <IAlgoPlugin.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "sequence.h"

namespace ostrel_host {

struct PassFrame {
  cv::Rect2d box;                   // what a user gets; without size: none
  bool held = false;                // a box with score 0: the last one, not seen now
  std::optional<double> update_ms;  // the tracker's call; none where there was no call, or it was the start's
};

struct Pass {
  double start_up_ms = 0.0;
  std::vector<PassFrame> frames;
  std::vector<cv::Rect2d> own_boxes;            // of the plug-in: the tracker's own boxes, published or not
  std::vector<nlohmann::ordered_json> records;  // of the plug-in: a line of boxes.jsonl per frame
  bool complete = false;                        // false where it was broken off
};

// Called after each frame and now and then while a tracker starts; false breaks the pass off.
using GoOn = std::function<bool(bool frame_done)>;

// The plug-in has its configuration. Frames are paced; the first waits until tracking is armed, and its box is the
// answer that arms. Throws BadInput where the plug-in does not start.
Pass pass_of_plugin(IAlgoPlugin& plugin, const Sequence& sequence, double frame_rate, bool verbose,
                    const GoOn& go_on);

// The start box, cut at the picture's edge, is the peer's box in the first frame. A frame in which the peer reports a
// loss, or fails, is one without a box.
Pass pass_of_peer(const std::string& peer, const Sequence& sequence, unsigned seed, const GoOn& go_on);

}  // namespace ostrel_host
