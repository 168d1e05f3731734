#include "world_story.h"

#include <algorithm>

#include "world_land.h"

namespace ostrel_scene {
namespace {

constexpr float kParkedAt_m = -122.0F;
constexpr float kPullOut_m = 26.0F;  // the way on which the target moves from the lay-by into its lane

const std::vector<SpeedMark>& target_speed() {
  static const std::vector<SpeedMark> marks = {{5.0F, 0.0F},  {10.0F, 8.5F}, {26.5F, 8.5F}, {29.0F, 4.5F},
                                               {30.7F, 1.4F}, {31.2F, 1.4F}, {33.1F, 4.4F}, {36.6F, 8.0F}};
  return marks;
}

// The look-alike comes from behind in the inner lane and is beside the target at kPassing_s.
constexpr float kPassing_s = 12.0F;
constexpr float kPassingSpeed_m_s = 12.0F;
// Lanes repeat after this length, beyond both ends of what can be seen.
constexpr float kLaneLength_m = 560.0F;

float target_x(float time_s) {
  return kParkedAt_m + driven_m(target_speed(), time_s);
}

float target_offset(float way_m) {
  return mix(kLayByOffset_m + 0.3F, kNearOuterLane_m, smooth_step(0.0F, kPullOut_m, way_m));
}

Vec3 target_place(float time_s) {
  return main_road_point(target_x(time_s), target_offset(driven_m(target_speed(), time_s)));
}

Pose target_pose(float time_s) {
  const float way = driven_m(target_speed(), time_s);
  constexpr float kStep_m = 0.3F;
  // The heading is that of the path, so it holds while the target stands.
  const auto on_path = [&](float along) {
    return main_road_point(kParkedAt_m + along, target_offset(along));
  };
  const Vec3 ahead = on_path(way + kStep_m) - on_path(way - kStep_m);
  return {target_place(time_s), std::atan2(ahead.y, ahead.x)};
}

float wrapped(float value, float length) {
  return value - length * std::floor(value / length + 0.5F);
}

Colour random_paint(Dice& dice) {
  static const Colour paints[] = {
      screen_colour(226, 228, 228), screen_colour(60, 62, 66),    screen_colour(150, 154, 158),
      screen_colour(36, 56, 96),    screen_colour(112, 30, 30),   screen_colour(198, 196, 186),
      screen_colour(88, 104, 112),  screen_colour(174, 160, 132), screen_colour(44, 74, 60)};
  return paints[dice.whole(0, 8)];
}

std::vector<WorldEvent> make_events() {
  return {{0.0, 5.0, "parked"},
          {5.0, 10.0, "drives off"},
          {10.0, 14.0, "look-alike overtakes"},
          {14.3, 17.0, "behind trees in part"},
          {17.0, 21.1, "open stretch"},
          {21.1, 24.1, "under the bridge"},
          {24.1, 27.6, "open road"},
          {27.6, 34.7, "behind the wood"},
          {34.7, kDuration_s, "open again"}};
}

}  // namespace

float speed_m_s(const std::vector<SpeedMark>& marks, float time_s) {
  if (time_s <= marks.front().time_s) return marks.front().speed_m_s;
  for (std::size_t i = 1; i < marks.size(); ++i) {
    const SpeedMark &from = marks[i - 1], &to = marks[i];
    if (time_s < to.time_s)
      return mix(from.speed_m_s, to.speed_m_s, (time_s - from.time_s) / (to.time_s - from.time_s));
  }
  return marks.back().speed_m_s;
}

float driven_m(const std::vector<SpeedMark>& marks, float time_s) {
  float way = std::min(time_s, marks.front().time_s) * marks.front().speed_m_s;
  for (std::size_t i = 1; i <= marks.size(); ++i) {
    const float from = marks[i - 1].time_s;
    const float to = i < marks.size() ? std::min(time_s, marks[i].time_s) : time_s;
    if (to <= from) break;
    way += 0.5F * (speed_m_s(marks, from) + speed_m_s(marks, to)) * (to - from);
  }
  return way;
}

Story::Story(std::uint32_t seed) : events_(make_events()) {
  const Colour red_brown = screen_colour(142, 62, 42);
  const std::size_t target = add_model(VehicleKind::kPickUp, red_brown);
  Dice dice(seed + 500U);
  const float passing_x = target_x(kPassing_s);
  travellers_.push_back(
      {target, false, kNearInnerLane_m, passing_x - kPassingSpeed_m_s * kPassing_s, kPassingSpeed_m_s});
  fill_lane(dice, kNearInnerLane_m, kPassingSpeed_m_s, 45.0F, kLaneLength_m - 45.0F);
  fill_lane(dice, kFarInnerLane_m, -13.0F, 0.0F, kLaneLength_m - 20.0F);
  fill_lane(dice, kFarOuterLane_m, -10.5F, 0.0F, kLaneLength_m - 20.0F);
  add_overpass_traffic(dice);
  // Ahead of the target in its lane, far enough to stay so.
  for (const float ahead : {48.0F, 101.0F})
    travellers_.push_back(
        {random_model(dice), false, kNearOuterLane_m, target_x(10.0F) + ahead - 85.0F, 8.5F});
  // Both stand behind the target, so that it stays in sight when it pulls out.
  const std::size_t first = add_model(VehicleKind::kHatchback, random_paint(dice));
  const std::size_t second = add_model(VehicleKind::kSedan, random_paint(dice));
  parked_.push_back({first, {main_road_point(-141.5F, kLayByOffset_m - 0.5F), 0.25F}});
  parked_.push_back({second, {main_road_point(-131.5F, kLayByOffset_m - 0.4F), 0.24F}});
}

std::size_t Story::add_model(VehicleKind kind, const Colour& paint) {
  models_.push_back(make_vehicle(kind, paint));
  return models_.size() - 1;
}

std::size_t Story::random_model(Dice& dice) {
  static const VehicleKind kinds[] = {VehicleKind::kSedan, VehicleKind::kHatchback, VehicleKind::kSedan,
                                      VehicleKind::kVan,   VehicleKind::kHatchback, VehicleKind::kTruck,
                                      VehicleKind::kPickUp};
  const VehicleKind kind = kinds[dice.whole(0, 6)];
  return add_model(kind, random_paint(dice));
}

void Story::fill_lane(Dice& dice, float lane_m, float speed, float from_m, float to_m) {
  const float origin = travellers_.empty() ? 0.0F : travellers_.front().start_m;
  for (float at = from_m + dice.between(0.0F, 20.0F); at < to_m; at += dice.between(32.0F, 75.0F))
    travellers_.push_back({random_model(dice), false, lane_m, origin + at, speed});
}

void Story::add_overpass_traffic(Dice& dice) {
  for (const float side : {-1.0F, 1.0F}) {
    for (float at = dice.between(0.0F, 60.0F); at < 300.0F; at += dice.between(55.0F, 110.0F))
      travellers_.push_back({random_model(dice), true, -side * kOverpassLane_m, at, side * -9.0F});
  }
}

Pose Story::pose_of(const Traveller& traveller, float time_s) const {
  const float along = wrapped(traveller.start_m + traveller.speed_m_s * time_s, kLaneLength_m);
  if (traveller.on_overpass) {
    const float heading = overpass_heading() + (traveller.speed_m_s < 0.0F ? kPi_f : 0.0F);
    return {overpass_point(along, traveller.lane_m), heading};
  }
  const float slope = std::atan(main_road_slope(along));
  return {main_road_point(along, traveller.lane_m), traveller.speed_m_s < 0.0F ? slope + kPi_f : slope};
}

PlacedVehicle Story::target(float time_s) const {
  return {&models_.front(), target_pose(time_s)};
}

std::vector<PlacedVehicle> Story::vehicles(float time_s) const {
  std::vector<PlacedVehicle> all = {target(time_s)};
  for (const Traveller& traveller : travellers_)
    all.push_back({&models_[traveller.model], pose_of(traveller, time_s)});
  for (const Parked& parked : parked_) all.push_back({&models_[parked.model], parked.pose});
  return all;
}

}  // namespace ostrel_scene
