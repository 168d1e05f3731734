#include "joint_operators.h"

#include <limits>
#include <stdexcept>

#include "tracking_runtime/tracker/atom/gpu/cuda_joint_optimizer_ops.h"

namespace ostrel_test {
namespace {

constexpr float kUnwritten = std::numeric_limits<float>::quiet_NaN();

void require_launch(bool launched, const std::string& error) {
  if (!launched) throw std::runtime_error(error);
}

}  // namespace

std::vector<float> run_correlation(const Shape& shape, const std::vector<float>& features,
                                   const std::vector<float>& filter) {
  TestStream stream;
  const DeviceArray<float> device_features(features), device_filter(filter),
      out(shape.positions(), kUnwritten);
  std::string error;
  require_launch(
      atom::detail::launch_classify_samples(device_features.get(), device_filter.get(), out.get(),
                                            shape.samples, shape.channels, shape.height, shape.width,
                                            shape.filter_height, shape.filter_width, stream.get(), &error),
      error);
  return out.read(stream);
}

std::pair<std::vector<float>, std::vector<float>> run_pair(const Shape& shape,
                                                           const std::vector<float>& features_a,
                                                           const std::vector<float>& filter_a,
                                                           const std::vector<float>& features_b,
                                                           const std::vector<float>& filter_b) {
  TestStream stream;
  const DeviceArray<float> fa(features_a), wa(filter_a), fb(features_b), wb(filter_b);
  const DeviceArray<float> out_a(shape.positions(), kUnwritten), out_b(shape.positions(), kUnwritten);
  std::string error;
  require_launch(
      atom::detail::launch_classify_sample_pair(
          fa.get(), wa.get(), out_a.get(), fb.get(), wb.get(), out_b.get(), shape.samples, shape.channels,
          shape.height, shape.width, shape.filter_height, shape.filter_width, stream.get(), &error),
      error);
  return {out_a.read(stream), out_b.read(stream)};
}

std::vector<float> run_filter_gradient(const Shape& shape, const std::vector<float>& features,
                                       const std::vector<float>& gradient, float scale,
                                       const std::vector<float>& initial) {
  TestStream stream;
  const DeviceArray<float> device_features(features), device_gradient(gradient), out(initial);
  std::string error;
  require_launch(
      atom::detail::launch_accumulate_filter_gradient(
          device_features.get(), device_gradient.get(), scale, out.get(), shape.samples, shape.channels,
          shape.height, shape.width, shape.filter_height, shape.filter_width, stream.get(), &error),
      error);
  return out.read(stream);
}

std::vector<float> run_backprop(const Shape& shape, const std::vector<float>& gradient,
                                const std::vector<float>& filter) {
  TestStream stream;
  const DeviceArray<float> device_gradient(gradient), device_filter(filter),
      out(shape.features(), kUnwritten);
  std::string error;
  require_launch(
      atom::detail::launch_backprop_to_projected_feature(
          device_gradient.get(), device_filter.get(), out.get(), shape.samples, shape.channels, shape.height,
          shape.width, shape.filter_height, shape.filter_width, stream.get(), &error),
      error);
  return out.read(stream);
}

}  // namespace ostrel_test
