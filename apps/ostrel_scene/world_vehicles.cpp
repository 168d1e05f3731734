#include "world_vehicles.h"

#include "world_vehicle_parts.h"

namespace ostrel_scene {
namespace {

VehicleModel make_pick_up(const Colour& paint) {
  VehicleBuilder b(paint);
  constexpr float kHalf = 0.96F;
  b.add_body({{-0.55F, kHalf, 0.36F, 1.10F},
              {1.10F, kHalf, 0.34F, 1.12F},
              {1.35F, kHalf, 0.34F, 1.10F},
              {2.35F, 0.93F, 0.36F, 1.02F},
              {2.66F, 0.84F, 0.42F, 0.84F}},
             b.paint());
  b.add_cabin({-0.62F, 1.38F, 1.10F, 0.90F, -0.42F, 0.72F, 1.80F, 0.72F, 2, true}, b.paint());
  // The bed: a floor between walls, with a load of pale sacks and boxes.
  const Surface liner{screen_colour(60, 58, 56), 0.0F, 0.0F, 0.0F};
  b.add_box({-2.60F, -kHalf, 0.38F}, {-0.60F, kHalf, 0.78F}, b.paint());
  b.add_box({-2.52F, -0.86F, 0.78F}, {-0.62F, 0.86F, 0.80F}, liner);
  b.add_box({-2.62F, -kHalf, 0.70F}, {-0.58F, -0.86F, 1.12F}, b.paint());
  b.add_box({-2.62F, 0.86F, 0.70F}, {-0.58F, kHalf, 1.12F}, b.paint());
  b.add_box({-2.66F, -kHalf, 0.45F}, {-2.54F, kHalf, 1.10F}, b.paint());
  const Surface sacks{screen_colour(206, 196, 172), 0.0F, 0.0F, 0.0F};
  b.add_box({-1.55F, -0.60F, 0.80F}, {-0.80F, 0.70F, 1.14F}, sacks);
  const Surface crate{screen_colour(70, 92, 108), 0.1F, 0.0F, 0.0F};
  b.add_box({-2.35F, -0.55F, 0.80F}, {-1.80F, 0.25F, 1.08F}, crate);
  b.add_seam(0.95F, kHalf, 0.5F, 1.08F);
  b.add_seam(0.05F, kHalf, 0.5F, 1.08F);
  b.add_wheels(1.72F, -1.62F, kHalf, 0.39F);
  b.add_ends(2.66F, -2.66F, kHalf, 0.80F);
  b.add_mirrors(1.02F, kHalf, 1.12F);
  return b.finish(5.5F, 1.92F, 1.80F);
}

VehicleModel make_sedan(const Colour& paint) {
  VehicleBuilder b(paint);
  constexpr float kHalf = 0.91F;
  b.add_body({{-2.30F, 0.78F, 0.40F, 0.82F},
              {-2.12F, 0.87F, 0.30F, 0.96F},
              {-1.35F, kHalf, 0.26F, 0.99F},
              {0.95F, kHalf, 0.26F, 0.95F},
              {1.90F, 0.88F, 0.28F, 0.82F},
              {2.28F, 0.76F, 0.36F, 0.66F}},
             b.paint());
  b.add_cabin({-1.70F, 1.00F, 0.96F, 0.84F, -1.00F, 0.22F, 1.43F, 0.62F, 2, true}, b.paint());
  b.add_seam(0.75F, kHalf, 0.38F, 0.94F);
  b.add_seam(-0.25F, kHalf, 0.38F, 0.94F);
  b.add_wheels(1.38F, -1.36F, kHalf, 0.32F);
  b.add_ends(2.25F, -2.28F, 0.84F, 0.66F);
  b.add_mirrors(0.78F, kHalf, 0.95F);
  return b.finish(4.7F, 1.82F, 1.43F);
}

VehicleModel make_hatchback(const Colour& paint) {
  VehicleBuilder b(paint);
  constexpr float kHalf = 0.88F;
  b.add_body({{-1.95F, 0.80F, 0.36F, 0.92F},
              {-1.80F, 0.86F, 0.30F, 0.99F},
              {-0.9F, kHalf, 0.27F, 1.00F},
              {0.80F, kHalf, 0.27F, 0.98F},
              {1.62F, 0.85F, 0.29F, 0.86F},
              {1.98F, 0.74F, 0.36F, 0.70F}},
             b.paint());
  b.add_cabin({-1.86F, 0.95F, 0.98F, 0.82F, -1.55F, 0.30F, 1.50F, 0.63F, 2, true}, b.paint());
  b.add_seam(0.62F, kHalf, 0.38F, 0.96F);
  b.add_seam(-0.42F, kHalf, 0.38F, 0.96F);
  b.add_wheels(1.20F, -1.22F, kHalf, 0.31F);
  b.add_ends(1.95F, -1.95F, 0.82F, 0.72F);
  b.add_mirrors(0.70F, kHalf, 0.97F);
  return b.finish(4.0F, 1.76F, 1.50F);
}

VehicleModel make_van(const Colour& paint) {
  VehicleBuilder b(paint);
  constexpr float kHalf = 0.98F;
  b.add_body({{-2.55F, 0.96F, 0.36F, 2.20F},
              {-2.40F, kHalf, 0.32F, 2.30F},
              {0.95F, kHalf, 0.32F, 2.30F},
              {1.10F, kHalf, 0.32F, 2.22F}},
             b.paint());
  b.add_body({{1.10F, kHalf, 0.32F, 1.22F}, {2.05F, 0.94F, 0.34F, 1.12F}, {2.55F, 0.84F, 0.40F, 0.82F}},
             b.paint());
  b.add_cabin({0.90F, 2.00F, 1.16F, 0.92F, 0.90F, 1.22F, 2.20F, 0.78F, 1, false}, b.paint());
  b.add_box({-2.58F, -0.72F, 1.35F}, {-2.54F, -0.06F, 1.95F}, glass());
  b.add_box({-2.58F, 0.06F, 1.35F}, {-2.54F, 0.72F, 1.95F}, glass());
  b.add_seam(0.85F, kHalf, 0.45F, 2.0F);
  b.add_seam(-0.55F, kHalf, 0.45F, 2.0F);
  b.add_wheels(1.72F, -1.60F, kHalf, 0.35F);
  b.add_ends(2.52F, -2.56F, 0.92F, 0.82F);
  b.add_mirrors(1.45F, kHalf, 1.25F);
  return b.finish(5.2F, 1.96F, 2.32F);
}

VehicleModel make_truck(const Colour& paint) {
  VehicleBuilder b(paint);
  constexpr float kHalf = 1.12F;
  const Surface box{screen_colour(214, 214, 208), 0.2F, 0.1F, 0.0F};
  b.add_box({-3.80F, -1.20F, 0.95F}, {1.55F, 1.20F, 3.20F}, box);
  const Surface stripe{paint, 0.2F, 0.1F, 0.0F};
  b.add_box({-3.4F, -1.215F, 1.75F}, {1.2F, 1.215F, 2.25F}, stripe);
  b.add_box({-3.70F, -0.9F, 0.55F}, {1.6F, 0.9F, 0.95F}, black_plastic());
  b.add_body({{1.75F, kHalf, 0.45F, 1.55F}, {3.55F, kHalf, 0.45F, 1.55F}, {3.75F, 1.02F, 0.5F, 1.45F}},
             b.paint());
  b.add_cabin({1.75F, 3.70F, 1.50F, 1.10F, 1.80F, 3.40F, 2.55F, 1.00F, 1, false}, b.paint());
  b.add_wheels(2.75F, -2.35F, kHalf, 0.48F);
  b.add_ends(3.74F, -3.80F, 1.08F, 0.80F);
  b.add_mirrors(3.55F, 1.15F, 1.7F);
  return b.finish(7.75F, 2.43F, 3.20F);
}

}  // namespace

VehicleModel make_vehicle(VehicleKind kind, const Colour& paint) {
  switch (kind) {
    case VehicleKind::kPickUp:
      return make_pick_up(paint);
    case VehicleKind::kSedan:
      return make_sedan(paint);
    case VehicleKind::kHatchback:
      return make_hatchback(paint);
    case VehicleKind::kVan:
      return make_van(paint);
    case VehicleKind::kTruck:
      break;
  }
  return make_truck(paint);
}

}  // namespace ostrel_scene
