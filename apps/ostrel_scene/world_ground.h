// What the ground is made of: fields, grass, asphalt with its markings, gravel.
#pragma once

#include "world_light.h"
#include "world_noise.h"

namespace ostrel_scene {

// A place of the ground and how much of it one pixel sees, across the view and away from it.
struct GroundPatch {
  float x = 0.0F, y = 0.0F;
  float across_m = 0.0F, deep_m = 0.0F;

  float size_m() const { return std::sqrt(across_m * deep_m); }
};

class Ground {
 public:
  explicit Ground(std::uint32_t seed);

  Colour albedo(const GroundPatch& patch) const;
  // For ramps and slopes too.
  Colour grass(const GroundPatch& patch) const;
  Colour asphalt(const GroundPatch& patch) const;
  Colour gravel(const GroundPatch& patch) const;

 private:
  Colour field(const GroundPatch& patch) const;
  Colour crop(const GroundPatch& patch, int kind, float turned_x, float turned_y) const;
  Colour main_road(const GroundPatch& patch, float offset_m) const;
  float lane_wear(float offset_m) const;
  float main_road_paint(const GroundPatch& patch, float offset_m) const;
  Colour overpass_road(const GroundPatch& patch, float across_m) const;
  Colour beside_road(const GroundPatch& patch, float from_road_m, float ragged_m) const;
  void lay_overpass_road(const GroundPatch& patch, float ragged_m, Colour& colour) const;
  void lay_tracks(const GroundPatch& patch, Colour& colour) const;

  std::uint32_t seed_;
  NoisePlane noise_, other_noise_;
};

// The share of a pixel's footprint that a stripe covers.
float stripe_cover(float place_m, float middle_m, float half_width_m, float footprint_m);

}  // namespace ostrel_scene
