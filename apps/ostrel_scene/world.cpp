#include "world.h"

#include <algorithm>

#include "world_land.h"
#include "world_panorama.h"
#include "world_sensor.h"
#include "world_static.h"
#include "world_story.h"
#include "world_vehicle_layer.h"

namespace ostrel_scene {
namespace {

constexpr double kExposure_s = 1.0 / 60.0;

StaticScene make_static_scene(std::uint32_t seed, const Ground& ground, float pixels_per_radian) {
  StaticScene scene;
  grow_plants(scene, seed, 1.0F / pixels_per_radian);
  build_overpass(scene, ground);
  build_farm(scene, seed);
  set_up_roadside(scene);
  scene.sun_map.finish();
  return scene;
}

// The view a moment later, as its rates say.
CameraView after(const CameraView& view, double seconds) {
  CameraView later = view;
  later.pan_deg += view.pan_rate_deg_s * seconds;
  later.tilt_deg += view.tilt_rate_deg_s * seconds;
  return later;
}

// One that has just come again from the other end of its lane has not driven that way while the shutter was open.
Smear believable(const Smear& smear, cv::Size picture_px) {
  const float longest = 0.25F * static_cast<float>(picture_px.width);
  return smear.dot(smear) > longest * longest ? Smear() : smear;
}

}  // namespace

struct World::Impl {
  explicit Impl(const WorldOptions& wanted)
      : options(wanted),
        ground(wanted.seed),
        scene(make_static_scene(wanted.seed, ground, panorama_density(wanted.width_px))),
        panorama(panorama_density(wanted.width_px), ground, scene),
        story(wanted.seed),
        sensor(size(), wanted.seed) {
    // The panorama holds all that they show.
    scene.triangles = {};
    scene.leaves = {};
  }

  cv::Size size() const { return {options.width_px, options.height_px}; }
  std::vector<VehicleView> vehicles_before(double time_s, const CameraView& view) const;
  Smear standing_smear(const CameraView& view) const;

  WorldOptions options;
  Ground ground;
  StaticScene scene;
  Panorama panorama;
  Story story;
  Sensor sensor;
};

// How far the middle of the picture moves while the shutter is open.
Smear World::Impl::standing_smear(const CameraView& view) const {
  const Pinhole opening(after(view, -0.5 * kExposure_s), size()),
      closing(after(view, 0.5 * kExposure_s), size());
  const cv::Point2f middle(0.5F * static_cast<float>(options.width_px),
                           0.5F * static_cast<float>(options.height_px));
  const Vec3 ahead = camera_position() + Pinhole(view, size()).ray(middle.x, middle.y) * 100.0F;
  ScreenPoint first, last;
  if (!opening.project(ahead, first) || !closing.project(ahead, last)) return {};
  return {last.x_px - first.x_px, last.y_px - first.y_px};
}

// Those before the camera, with their motion over the exposure.
std::vector<VehicleView> World::Impl::vehicles_before(double time_s, const CameraView& view) const {
  const Pinhole camera(view, size());
  const Pinhole opening(after(view, -0.5 * kExposure_s), size()),
      closing(after(view, 0.5 * kExposure_s), size());
  const auto at = [&](double seconds) { return story.vehicles(static_cast<float>(time_s + seconds)); };
  const std::vector<PlacedVehicle> now = at(0.0), before = at(-0.5 * kExposure_s),
                                   later = at(0.5 * kExposure_s);
  std::vector<VehicleView> result;
  for (std::size_t i = 0; i < now.size(); ++i) {
    VehicleView seen;
    ScreenPoint first, last;
    if (!look_at(now[i], camera, seen)) continue;
    if (!opening.project(before[i].pose.position, first) || !closing.project(later[i].pose.position, last))
      continue;
    seen.smear_px = believable({last.x_px - first.x_px, last.y_px - first.y_px}, size());
    result.push_back(seen);
  }
  return result;
}

std::string why_invalid(const WorldOptions& options) {
  constexpr int kSmallest_px = 64, kLargest_px = 1920;
  const int smaller = std::min(options.width_px, options.height_px);
  const int larger = std::max(options.width_px, options.height_px);
  if (smaller >= kSmallest_px && larger <= kLargest_px) return {};
  return "a world's sides are " + std::to_string(kSmallest_px) + " to " + std::to_string(kLargest_px) +
         " pixels";
}

World::World(const WorldOptions& options) : impl_(std::make_unique<Impl>(options)) {}
World::~World() = default;

const WorldOptions& World::options() const {
  return impl_->options;
}
double World::duration_s() const {
  return kDuration_s;
}
const std::vector<WorldEvent>& World::events() const {
  return impl_->story.events();
}

cv::Mat World::render(double time_s, const CameraView& view) const {
  const Pinhole camera(view, impl_->size());
  const Smear smear = impl_->standing_smear(view);
  cv::Mat image = smeared(impl_->panorama.picture(camera, {cv::Point(), impl_->size()}), smear);
  const VehicleLayer layer(camera, impl_->panorama, impl_->scene.sun_map, impl_->size());
  layer.draw(impl_->vehicles_before(time_s, view), smear, image);
  impl_->sensor.expose(time_s, image);
  return image;
}

TargetTruth World::target(double time_s, const CameraView& view) const {
  const Pinhole camera(view, impl_->size());
  TargetTruth truth;
  VehicleView target;
  if (!look_at(impl_->story.target(static_cast<float>(time_s)), camera, target)) return truth;
  truth.box_px = target.box_px;
  const VehicleLayer layer(camera, impl_->panorama, impl_->scene.sun_map, impl_->size());
  truth.visible_share =
      static_cast<double>(layer.visible_share(target, impl_->vehicles_before(time_s, view)));
  return truth;
}

Direction World::direction_to_target(double time_s) const {
  const PlacedVehicle target = impl_->story.target(static_cast<float>(time_s));
  return direction_to(target.pose.to_world({0.0F, 0.0F, 0.5F * target.model->height_m}));
}

}  // namespace ostrel_scene
