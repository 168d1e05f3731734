// What stands and never moves: plants, the overpass, buildings. All of it is lit once, when the world is made.
#pragma once

#include <array>
#include <functional>
#include <vector>

#include "world_light.h"
#include "world_noise.h"
#include "world_sun_map.h"

namespace ostrel_scene {

class Ground;

struct StaticTriangle {
  std::array<Vec3, 3> corners;
  std::array<Colour, 3> colours;
};

// A small disc that faces the camera; thousands make a tree.
struct Leaf {
  Vec3 centre;
  float radius_m = 0.0F;
  Colour colour;
};

struct StaticScene {
  std::vector<StaticTriangle> triangles;
  std::vector<Leaf> leaves;
  SunMap sun_map;
};

// Adds a four-cornered face cut into pieces of about `piece_m`, coloured by `albedo` at each corner and lit from
// the side that faces the camera.
using AlbedoAt = std::function<Colour(const Vec3&)>;
struct Quad {
  std::array<Vec3, 4> corners;  // in order around the face
  bool shadows = true;
};
void add_quad(StaticScene& scene, const Quad& quad, float piece_m, const AlbedoAt& albedo);
// An upright box: a middle of the bottom face, half sides along its heading and across, a height.
struct Block {
  Vec3 bottom;
  float heading_rad = 0.0F;
  float half_length_m = 0.0F, half_width_m = 0.0F, height_m = 0.0F;
};
void add_block(StaticScene& scene, const Block& block, float piece_m, const AlbedoAt& albedo);

// Hedges, woods and single trees. `smallest_radian` is what a pixel of the panorama sees: no leaf is smaller.
void grow_plants(StaticScene& scene, std::uint32_t seed, float smallest_radian);
void build_overpass(StaticScene& scene, const Ground& ground);
void build_farm(StaticScene& scene, std::uint32_t seed);
void set_up_roadside(StaticScene& scene);

}  // namespace ostrel_scene
