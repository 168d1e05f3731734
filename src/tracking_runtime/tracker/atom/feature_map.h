#pragma once

#include <cstddef>
#include <vector>

namespace ostrel_tracker::tracking_runtime::tracker::atom {

/// Feature tensor on the host: `samples` x `channels` x `height` x `width` floats, contiguous, samples first.
struct FeatureMap {
  int samples = 0;
  int channels = 0;
  int height = 0;
  int width = 0;
  std::vector<float> data;

  /// All sizes above zero and `data` holds exactly that many values.
  bool defined() const {
    return samples > 0 && channels > 0 && height > 0 && width > 0 &&
           static_cast<std::size_t>(samples) * sample_stride() == data.size();
  }
  /// Values of one sample.
  std::size_t sample_stride() const {
    return static_cast<std::size_t>(channels) * static_cast<std::size_t>(height) *
           static_cast<std::size_t>(width);
  }
};

/// Desired responses on the host: `samples` x `height` x `width` floats, contiguous, samples first.
struct LabelMap {
  int samples = 0;
  int height = 0;
  int width = 0;
  std::vector<float> data;

  /// All sizes above zero and `data` holds exactly that many values.
  bool defined() const {
    return samples > 0 && height > 0 && width > 0 &&
           static_cast<std::size_t>(samples) * stride() == data.size();
  }
  /// Values of one label.
  std::size_t stride() const { return static_cast<std::size_t>(height) * static_cast<std::size_t>(width); }
};

}  // namespace ostrel_tracker::tracking_runtime::tracker::atom
