#include "world_panorama_tiles.h"

#include <algorithm>
#include <opencv2/core/utility.hpp>

namespace ostrel_scene {
namespace {

constexpr float kLeftmost_rad = -1.4F, kRightmost_rad = 1.4F;
constexpr float kTop = 0.12F, kBottom = -0.76F;  // height over distance
constexpr float kHorizon = -0.004F;
constexpr int kTile_px = 192;
constexpr int kSamples = 2;  // per side of a pixel

}  // namespace

cv::Point2f panorama_place(const Vec3& ray, float pixels_per_radian) {
  const float pan = std::atan2(ray.x, ray.y);
  const float height = ray.z / std::max(1e-6F, std::sqrt(ray.x * ray.x + ray.y * ray.y));
  return {(pan - kLeftmost_rad) * pixels_per_radian, (kTop - height) * pixels_per_radian};
}

PanoramaTiles::PanoramaTiles(float pixels_per_radian, const Ground& ground, const StaticScene& scene)
    : pixels_per_radian_(pixels_per_radian),
      size_px_(cvCeil((kRightmost_rad - kLeftmost_rad) * pixels_per_radian),
               cvCeil((kTop - kBottom) * pixels_per_radian)),
      tiles_((size_px_.width + kTile_px - 1) / kTile_px, (size_px_.height + kTile_px - 1) / kTile_px),
      ground_(ground),
      sun_map_(scene.sun_map),
      contents_(static_cast<std::size_t>(tiles_.area())) {
  project(scene);
}

Corner PanoramaTiles::corner(const Vec3& place, const Colour& colour) const {
  const cv::Point2f at = panorama_place(place - camera_position(), pixels_per_radian_);
  const float distance = distance_to_camera(place);
  return {{at.x, at.y, 1.0F / distance}, to_display_float(hazed(colour, distance))};
}

void PanoramaTiles::assign(float left, float top, float right, float bottom, std::uint32_t index,
                           std::vector<std::uint32_t> Tile::*list) {
  const auto tile = [](float place, int count) {
    return std::clamp(static_cast<int>(std::floor(place / kTile_px)), 0, count - 1);
  };
  const auto index_of = [this](int row, int column) {
    const int tile_index = row * tiles_.width + column;
    return static_cast<std::size_t>(tile_index);
  };
  for (int row = tile(top - 1, tiles_.height); row <= tile(bottom + 1, tiles_.height); ++row) {
    for (int column = tile(left - 1, tiles_.width); column <= tile(right + 1, tiles_.width); ++column)
      (contents_[index_of(row, column)].*list).push_back(index);
  }
}

void PanoramaTiles::project(const StaticScene& scene) {
  for (const StaticTriangle& solid : scene.triangles) {
    const Triangle flat{corner(solid.corners[0], solid.colours[0]),
                        corner(solid.corners[1], solid.colours[1]),
                        corner(solid.corners[2], solid.colours[2])};
    const ScreenPoint &a = flat.a.place, &b = flat.b.place, &c = flat.c.place;
    assign(std::min({a.x_px, b.x_px, c.x_px}), std::min({a.y_px, b.y_px, c.y_px}),
           std::max({a.x_px, b.x_px, c.x_px}), std::max({a.y_px, b.y_px, c.y_px}),
           static_cast<std::uint32_t>(triangles_.size()), &Tile::triangles);
    triangles_.push_back(flat);
  }
  for (const Leaf& leaf : scene.leaves) {
    const Corner centre = corner(leaf.centre, leaf.colour);
    const Disc disc{centre.place, leaf.radius_m * pixels_per_radian_ * centre.place.nearness, centre.colour};
    assign(disc.centre.x_px - disc.radius_px, disc.centre.y_px - disc.radius_px,
           disc.centre.x_px + disc.radius_px, disc.centre.y_px + disc.radius_px,
           static_cast<std::uint32_t>(discs_.size()), &Tile::discs);
    discs_.push_back(disc);
  }
}

Colour PanoramaTiles::ground_colour(float x_px, float y_px) const {
  const float pan = kLeftmost_rad + x_px / pixels_per_radian_;
  const float height = kTop - y_px / pixels_per_radian_;
  if (height > kHorizon) return sky_colour(height);
  const float away = kMastHeight_m / -height;
  const float distance = std::sqrt(away * away + kMastHeight_m * kMastHeight_m);
  GroundPatch patch;
  patch.x = away * std::sin(pan);
  patch.y = away * std::cos(pan);
  patch.across_m = away / pixels_per_radian_;
  patch.deep_m = patch.across_m / -height;
  const float sun = sun_map_.share_at(patch.x, patch.y);
  return hazed(lit(ground_.albedo(patch), {0.0F, 0.0F, 1.0F}, sun), distance);
}

void PanoramaTiles::draw_ground(const cv::Rect& area, cv::Mat& picture) const {
  for (int y = area.y; y < area.y + area.height; ++y) {
    auto* row = picture.ptr<cv::Vec3b>(y);
    for (int x = area.x; x < area.x + area.width; ++x)
      row[x] = to_display(ground_colour(static_cast<float>(x) + 0.5F, static_cast<float>(y) + 0.5F));
  }
}

void PanoramaTiles::draw_standing(const Tile& tile, const cv::Rect& area, cv::Mat& picture, cv::Mat& standing,
                                  cv::Mat& distance) const {
  if (tile.triangles.empty() && tile.discs.empty()) return;
  SampleBuffer samples(area, kSamples);
  for (const std::uint32_t i : tile.triangles)
    samples.draw(triangles_[i].a, triangles_[i].b, triangles_[i].c);
  for (const std::uint32_t i : tile.discs) samples.draw(discs_[i]);
  const cv::Mat drawn = samples.colour_and_coverage(), nearness = samples.nearness();
  for (int y = 0; y < area.height; ++y) {
    auto* out = picture.ptr<cv::Vec3b>(area.y + y) + area.x;
    auto* alone = standing.ptr<cv::Vec4b>(area.y + y) + area.x;
    auto* steps = distance.ptr<std::uint16_t>(area.y + y) + area.x;
    for (int x = 0; x < area.width; ++x) {
      const auto& over = drawn.at<cv::Vec4f>(y, x);
      for (int c = 0; c < 3; ++c)
        out[x][c] = cv::saturate_cast<uchar>(over[c] + (1.0F - over[3]) * static_cast<float>(out[x][c]));
      for (int c = 0; c < 3; ++c) alone[x][c] = cv::saturate_cast<uchar>(over[c]);
      alone[x][3] = cv::saturate_cast<uchar>(255.0F * over[3]);
      const float near = nearness.at<float>(y, x);
      if (near > 0.0F) steps[x] = cv::saturate_cast<std::uint16_t>(1.0 / (near * kDistanceStep_m));
    }
  }
}

void PanoramaTiles::draw(cv::Mat& picture, cv::Mat& standing, cv::Mat& distance) const {
  picture.create(size_px_, CV_8UC3);
  standing = cv::Mat(size_px_, CV_8UC4, cv::Scalar::all(0));
  distance = cv::Mat(size_px_, CV_16UC1, cv::Scalar(65535));
  cv::parallel_for_(
      cv::Range(0, tiles_.area()),
      [&](const cv::Range& range) {
        for (int i = range.start; i < range.end; ++i) {
          const cv::Point corner(i % tiles_.width * kTile_px, i / tiles_.width * kTile_px);
          const cv::Rect area =
              cv::Rect(corner, cv::Size(kTile_px, kTile_px)) & cv::Rect(cv::Point(), size_px_);
          draw_ground(area, picture);
          draw_standing(contents_[static_cast<std::size_t>(i)], area, picture, standing, distance);
        }
      },
      tiles_.area());
}

}  // namespace ostrel_scene
