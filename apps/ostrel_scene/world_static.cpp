#include "world_static.h"

#include <algorithm>

namespace ostrel_scene {
namespace {

Vec3 facing_camera(const Quad& quad) {
  const Vec3 normal = unit((quad.corners[2] - quad.corners[0]).cross(quad.corners[3] - quad.corners[1]));
  return normal.dot(camera_position() - quad.corners[0]) < 0.0F ? normal * -1.0F : normal;
}

Vec3 inside_quad(const Quad& quad, float u, float v) {
  const Vec3 low = quad.corners[0] + (quad.corners[1] - quad.corners[0]) * u;
  const Vec3 high = quad.corners[3] + (quad.corners[2] - quad.corners[3]) * u;
  return low + (high - low) * v;
}

int pieces(const Vec3& a, const Vec3& b, float piece_m) {
  return std::clamp(static_cast<int>(std::ceil(length(b - a) / piece_m)), 1, 400);
}

}  // namespace

void add_quad(StaticScene& scene, const Quad& quad, float piece_m, const AlbedoAt& albedo) {
  const Vec3 normal = facing_camera(quad);
  const int columns = pieces(quad.corners[0], quad.corners[1], piece_m);
  const int rows = pieces(quad.corners[1], quad.corners[2], piece_m);
  const auto corner = [&](int column, int row) {
    return inside_quad(quad, static_cast<float>(column) / static_cast<float>(columns),
                       static_cast<float>(row) / static_cast<float>(rows));
  };
  const auto add = [&](const Vec3& a, const Vec3& b, const Vec3& c) {
    scene.triangles.push_back(
        {{a, b, c},
         {lit(albedo(a), normal, 1.0F), lit(albedo(b), normal, 1.0F), lit(albedo(c), normal, 1.0F)}});
  };
  for (int row = 0; row < rows; ++row) {
    for (int column = 0; column < columns; ++column) {
      const Vec3 a = corner(column, row), b = corner(column + 1, row);
      const Vec3 c = corner(column + 1, row + 1), d = corner(column, row + 1);
      add(a, b, c);
      add(a, c, d);
    }
  }
  if (!quad.shadows) return;
  scene.sun_map.add_triangle(quad.corners[0], quad.corners[1], quad.corners[2]);
  scene.sun_map.add_triangle(quad.corners[0], quad.corners[2], quad.corners[3]);
}

void add_block(StaticScene& scene, const Block& block, float piece_m, const AlbedoAt& albedo) {
  const Pose pose{block.bottom, block.heading_rad};
  const auto corner = [&](float x, float y, float z) {
    return pose.to_world({x * block.half_length_m, y * block.half_width_m, z * block.height_m});
  };
  const float sides[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
  for (int i = 0; i < 4; ++i) {
    const float* a = sides[i];
    const float* b = sides[(i + 1) % 4];
    const Vec3 middle = corner(0.5F * (a[0] + b[0]), 0.5F * (a[1] + b[1]), 0.5F);
    const Vec3 outwards = middle - corner(0, 0, 0.5F);
    if (outwards.dot(camera_position() - middle) <= 0.0F) continue;
    add_quad(
        scene,
        {{corner(a[0], a[1], 0), corner(b[0], b[1], 0), corner(b[0], b[1], 1), corner(a[0], a[1], 1)}, false},
        piece_m, albedo);
  }
  add_quad(scene, {{corner(-1, -1, 1), corner(1, -1, 1), corner(1, 1, 1), corner(-1, 1, 1)}, true}, piece_m,
           albedo);
  // The outline of a block's shadow is that of its top and bottom and the sides between.
  for (int i = 0; i < 4; ++i) {
    const float* a = sides[i];
    const float* b = sides[(i + 1) % 4];
    scene.sun_map.add_triangle(corner(a[0], a[1], 0), corner(b[0], b[1], 0), corner(b[0], b[1], 1));
    scene.sun_map.add_triangle(corner(a[0], a[1], 0), corner(b[0], b[1], 1), corner(a[0], a[1], 1));
  }
}

}  // namespace ostrel_scene
