#pragma once

#include <fstream>
#include <opencv2/core.hpp>
#include <string>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// One tab-separated line per tracker decision, so that a run can be compared with a reference run. Off while
/// the path is empty. The file comes into being with the first line, replacing what stood there, and is
/// flushed after every line. A file that cannot be written ends the trace for good and in silence: the trace
/// must never influence tracking. No lock: the calls of one tracker do not overlap.
class ReferenceTraceWriter {
 public:
  /// Stores the path and opens nothing.
  explicit ReferenceTraceWriter(std::string trace_path);

  /// Tabs, line feeds and carriage returns in `status` become blanks. The rectangle is in frame pixels.
  void log(const char* event, int frame, const char* backend, const std::string& status,
           const cv::Rect_<int>& rect, float score, float raw_score, float max2_score, float rel_scale,
           float target_scale);

 private:
  void open_();

  std::string path;
  bool open_attempted = false;
  std::ofstream stream;
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
