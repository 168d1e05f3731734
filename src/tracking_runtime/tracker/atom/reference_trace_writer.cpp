#include "tracking_runtime/tracker/atom/reference_trace_writer.h"

#include <algorithm>
#include <locale>
#include <utility>

namespace ostrel_tracker::tracking_runtime::tracker::atom {
namespace {

constexpr const char* kHeader =
    "event\tframe\tbackend\tstatus\tx\ty\tw\th\tscore\traw_score\tmax2_score\trel_scale\ttarget_scale\n";

std::string on_one_line(std::string text) {
  const auto breaks = [](char letter) { return letter == '\t' || letter == '\n' || letter == '\r'; };
  std::replace_if(text.begin(), text.end(), breaks, ' ');
  return text;
}

}  // namespace

ReferenceTraceWriter::ReferenceTraceWriter(std::string trace_path) : path(std::move(trace_path)) {}

void ReferenceTraceWriter::open_() {
  open_attempted = true;
  // A locale of the host's would group digits and change the decimal point.
  stream.imbue(std::locale::classic());
  stream.open(path, std::ios::out | std::ios::trunc);
  if (stream) stream << kHeader;
}

void ReferenceTraceWriter::log(const char* event, int frame, const char* backend, const std::string& status,
                               const cv::Rect_<int>& rect, float score, float raw_score, float max2_score,
                               float rel_scale, float target_scale) {
  if (path.empty()) return;
  if (!open_attempted) open_();
  if (!stream) return;
  stream << event << '\t' << frame << '\t' << backend << '\t' << on_one_line(status) << '\t' << rect.x << '\t'
         << rect.y << '\t' << rect.width << '\t' << rect.height << '\t' << score << '\t' << raw_score << '\t'
         << max2_score << '\t' << rel_scale << '\t' << target_scale << '\n';
  stream.flush();
}

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
