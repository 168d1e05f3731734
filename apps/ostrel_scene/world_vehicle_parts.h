// The parts that vehicles are built of.
#pragma once

#include "world_vehicles.h"

namespace ostrel_scene {

// One cross-section of a body: how wide and high it is at a place of the length.
struct Section {
  float x = 0.0F;
  float half_width = 0.0F;
  float bottom = 0.0F, top = 0.0F;
};

// A cabin: its outline at the belt line and at the roof.
struct Cabin {
  float belt_rear = 0.0F, belt_front = 0.0F, belt_z = 0.0F, belt_half_width = 0.0F;
  float roof_rear = 0.0F, roof_front = 0.0F, roof_z = 0.0F, roof_half_width = 0.0F;
  int side_windows = 2;
  bool rear_window = true;
};

class VehicleBuilder {
 public:
  explicit VehicleBuilder(const Colour& paint);

  // Corners in order around the face; the normal points away from `inside`.
  void add_quad(const std::array<Vec3, 4>& corners, const Surface& surface, const Vec3& inside);
  void add_box(const Vec3& low, const Vec3& high, const Surface& surface);
  // A body with rounded shoulders through its sections, closed at both ends.
  void add_body(const std::vector<Section>& sections, const Surface& surface);
  void add_cabin(const Cabin& cabin, const Surface& roof);
  void add_wheels(float front_x, float rear_x, float half_width, float radius_m);
  // Lamps, plates and bumpers at both ends.
  void add_ends(float front_x, float rear_x, float half_width, float lamp_z);
  // The gap of a door: a thin dark line on both sides.
  void add_seam(float x, float half_width, float bottom, float top);
  void add_mirrors(float x, float half_width, float z);

  const Surface& paint() const { return paint_; }
  VehicleModel finish(float length_m, float width_m, float height_m);

 private:
  void add_triangle(const Vec3& a, const Vec3& b, const Vec3& c, const Surface& surface, const Vec3& inside);
  // A window in a wall, between two shares of its length.
  void add_pane(const std::array<Vec3, 4>& wall, float from, float to, const Vec3& inside);
  void add_disc(const Vec3& centre, float radius_m, float side, const Surface& surface);

  Surface paint_;
  VehicleModel model_;
};

Surface glass();
Surface black_plastic();
Surface rubber();

}  // namespace ostrel_scene
