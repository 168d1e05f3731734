#include "world_raster.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>

namespace ostrel_scene {
namespace {

float cross(const cv::Point2f& a, const cv::Point2f& b) {
  return a.x * b.y - a.y * b.x;
}

cv::Mat reduced(const cv::Mat& samples, const cv::Size& pixels) {
  cv::Mat result;
  cv::resize(samples, result, pixels, 0, 0, cv::INTER_AREA);
  return result;
}

}  // namespace

SampleBuffer::SampleBuffer(const cv::Rect& area_px, int samples_per_side)
    : area_px_(area_px),
      samples_per_side_(samples_per_side),
      nearness_(area_px.size() * samples_per_side, CV_32FC1, cv::Scalar(0)),
      colour_(area_px.size() * samples_per_side, CV_32FC3, cv::Scalar::all(0)) {}

// Sample coordinates: sample (i, j) lies at i, j.
cv::Point2f SampleBuffer::to_samples(const ScreenPoint& place) const {
  const auto scale = static_cast<float>(samples_per_side_);
  return {(place.x_px - static_cast<float>(area_px_.x)) * scale - 0.5F,
          (place.y_px - static_cast<float>(area_px_.y)) * scale - 0.5F};
}

cv::Rect SampleBuffer::touched(float left, float top, float right, float bottom) const {
  const auto clamp = [](float value, int limit) {
    return static_cast<int>(std::clamp(value, -1.0F, static_cast<float>(limit)));
  };
  const cv::Point first(clamp(std::ceil(left), nearness_.cols), clamp(std::ceil(top), nearness_.rows));
  const cv::Point last(clamp(std::floor(right), nearness_.cols), clamp(std::floor(bottom), nearness_.rows));
  if (last.x < first.x || last.y < first.y) return {};
  return cv::Rect(first, last + cv::Point(1, 1)) & cv::Rect(0, 0, nearness_.cols, nearness_.rows);
}

void SampleBuffer::draw(const Corner& a, const Corner& b, const Corner& c) {
  const cv::Point2f pa = to_samples(a.place), pb = to_samples(b.place), pc = to_samples(c.place);
  const float area = cross(pb - pa, pc - pa);
  if (area == 0.0F) return;
  const cv::Rect box = touched(std::min({pa.x, pb.x, pc.x}), std::min({pa.y, pb.y, pc.y}),
                               std::max({pa.x, pb.x, pc.x}), std::max({pa.y, pb.y, pc.y}));
  for (int y = box.y; y < box.y + box.height; ++y) {
    auto* nearness = nearness_.ptr<float>(y);
    auto* colour = colour_.ptr<Colour>(y);
    for (int x = box.x; x < box.x + box.width; ++x) {
      const cv::Point2f p(static_cast<float>(x), static_cast<float>(y));
      const float wa = cross(pb - p, pc - p) / area;
      const float wb = cross(pc - p, pa - p) / area;
      const float wc = 1.0F - wa - wb;
      if (wa < 0.0F || wb < 0.0F || wc < 0.0F) continue;
      const float near = wa * a.place.nearness + wb * b.place.nearness + wc * c.place.nearness;
      if (near <= nearness[x]) continue;
      nearness[x] = near;
      colour[x] = a.colour * wa + b.colour * wb + c.colour * wc;
    }
  }
}

void SampleBuffer::draw(const Disc& disc) {
  const cv::Point2f centre = to_samples(disc.centre);
  const float radius = disc.radius_px * static_cast<float>(samples_per_side_);
  const cv::Rect box = touched(centre.x - radius, centre.y - radius, centre.x + radius, centre.y + radius);
  for (int y = box.y; y < box.y + box.height; ++y) {
    auto* nearness = nearness_.ptr<float>(y);
    auto* colour = colour_.ptr<Colour>(y);
    const float dy = static_cast<float>(y) - centre.y;
    for (int x = box.x; x < box.x + box.width; ++x) {
      const float dx = static_cast<float>(x) - centre.x;
      if (dx * dx + dy * dy > radius * radius || disc.centre.nearness <= nearness[x]) continue;
      nearness[x] = disc.centre.nearness;
      colour[x] = disc.colour;
    }
  }
}

cv::Mat SampleBuffer::coverage() const {
  const cv::Mat drawn = nearness_ > 0.0F;
  cv::Mat share;
  drawn.convertTo(share, CV_32F, 1.0 / 255.0);
  return reduced(share, area_px_.size());
}

cv::Mat SampleBuffer::colour_and_coverage() const {
  const cv::Mat parts[] = {reduced(colour_, area_px_.size()), coverage()};
  cv::Mat result(area_px_.size(), CV_32FC4);
  const int same[] = {0, 0, 1, 1, 2, 2, 3, 3};
  cv::mixChannels(parts, 2, &result, 1, same, 4);
  return result;
}

cv::Mat SampleBuffer::nearness() const {
  cv::Mat result(area_px_.size(), CV_32FC1, cv::Scalar(0));
  for (int y = 0; y < nearness_.rows; ++y) {
    const auto* samples = nearness_.ptr<float>(y);
    auto* greatest = result.ptr<float>(y / samples_per_side_);
    for (int x = 0; x < nearness_.cols; ++x) {
      float& pixel = greatest[x / samples_per_side_];
      pixel = std::max(pixel, samples[x]);
    }
  }
  return result;
}

}  // namespace ostrel_scene
