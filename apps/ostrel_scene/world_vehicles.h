// The vehicles' shapes.
#pragma once

#include <array>
#include <vector>

#include "world_light.h"

namespace ostrel_scene {

// A flat triangle of a vehicle: x forwards, y to the left, z up, the origin on the ground below the middle.
struct Facet {
  std::array<Vec3, 3> corners;
  Vec3 normal;
  Surface surface;
};

enum class VehicleKind { kPickUp, kSedan, kHatchback, kVan, kTruck };
constexpr int kVehicleKinds = 5;

struct VehicleModel {
  std::vector<Facet> facets;
  float length_m = 0.0F, width_m = 0.0F, height_m = 0.0F;
};

VehicleModel make_vehicle(VehicleKind kind, const Colour& paint);

}  // namespace ostrel_scene
