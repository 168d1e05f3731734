#pragma once

#include <cstdint>
#include <vector>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// The learned weights with their versions. A copy taken under the backend's state mutex is a consistent
/// snapshot: a reader sees the whole old filter or the whole new one, with the version that belongs to it.
struct ClassifierState {
  std::vector<float>
      projection_matrix;  ///< row-major, `proj_out_channels` x `proj_in_channels`; empty when off
  int proj_in_channels = 0;
  int proj_out_channels = 0;
  std::uint64_t projection_version = 0;  ///< rises by one each time the matrix is replaced

  std::vector<float> filter_weights;  ///< `filter_channels` x `filter_height` x `filter_width`
  int filter_channels = 0;
  int filter_height = 0;
  int filter_width = 0;
  std::uint64_t filter_version = 0;  ///< rises by one each time the filter is replaced
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
