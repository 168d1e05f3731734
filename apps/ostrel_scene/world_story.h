// Who drives where and when. The target's part and that of its look-alike are the same in every world; the seed
// decides about the rest of the traffic.
#pragma once

#include <vector>

#include "world_noise.h"
#include "world_vehicles.h"

namespace ostrel_scene {

constexpr double kDuration_s = 41.0;

// A stretch of even acceleration ends at `time_s` with `speed_m_s`.
struct SpeedMark {
  float time_s = 0.0F;
  float speed_m_s = 0.0F;
};

// The way driven up to a time, by the marks' straight lines; the last speed holds on.
float driven_m(const std::vector<SpeedMark>& marks, float time_s);
float speed_m_s(const std::vector<SpeedMark>& marks, float time_s);

struct PlacedVehicle {
  const VehicleModel* model = nullptr;
  Pose pose;
};

class Story {
 public:
  explicit Story(std::uint32_t seed);

  const std::vector<WorldEvent>& events() const { return events_; }
  PlacedVehicle target(float time_s) const;
  // All vehicles; the first is the target, the second its look-alike.
  std::vector<PlacedVehicle> vehicles(float time_s) const;

 private:
  // One that drives evenly along a lane and comes again from the other end of the world.
  struct Traveller {
    std::size_t model = 0;
    bool on_overpass = false;
    float lane_m = 0.0F;
    float start_m = 0.0F;
    float speed_m_s = 0.0F;  // negative to the left, or towards the camera
  };
  struct Parked {
    std::size_t model = 0;
    Pose pose;
  };
  std::size_t add_model(VehicleKind kind, const Colour& paint);
  std::size_t random_model(Dice& dice);
  void fill_lane(Dice& dice, float lane_m, float speed_m_s, float from_m, float to_m);
  void add_overpass_traffic(Dice& dice);
  Pose pose_of(const Traveller& traveller, float time_s) const;

  std::vector<VehicleModel> models_;
  std::vector<Traveller> travellers_;
  std::vector<Parked> parked_;
  std::vector<WorldEvent> events_;
};

}  // namespace ostrel_scene
