#include "world_ground.h"

#include <algorithm>

#include "world_land.h"

namespace ostrel_scene {
namespace {

constexpr float kShoulder_m = 0.9F, kVerge_m = 4.5F;
constexpr float kFieldWidth_m = 96.0F, kFieldDepth_m = 78.0F;
constexpr float kFieldTurnSine = 0.22F, kFieldTurnCosine = 0.9755F;
constexpr int kCrops = 5;

// 0 outside an edge, 1 inside, over the footprint.
float inside(float depth_m, float footprint_m) {
  const float half = std::max(0.04F, 0.5F * footprint_m);
  return smooth_step(-half, half, depth_m);
}

float fraction(float value) {
  return value - std::floor(value);
}

}  // namespace

float stripe_cover(float place_m, float middle_m, float half_width_m, float footprint_m) {
  const float half = std::max(0.01F, 0.5F * footprint_m);
  const float low = std::max(place_m - half, middle_m - half_width_m);
  const float high = std::min(place_m + half, middle_m + half_width_m);
  return std::max(0.0F, high - low) / (2.0F * half);
}

Ground::Ground(std::uint32_t seed) : seed_(seed), noise_(seed * 2U + 11U), other_noise_(seed * 2U + 12U) {}

Colour Ground::grass(const GroundPatch& p) const {
  static const Colour lush = screen_colour(84, 106, 52), dry = screen_colour(142, 138, 84);
  static const Colour bare = screen_colour(138, 120, 92);
  const float f = p.size_m();
  const float patches = 0.5F * noise_.band(p.x, p.y, 21.0F, f) + 0.45F * other_noise_.band(p.x, p.y, 6.0F, f);
  const float tufts = noise_.band(p.x, p.y, 1.7F, f) + 0.8F * other_noise_.band(p.x, p.y, 0.6F, f) +
                      0.7F * noise_.band(p.x, p.y, 0.23F, f);
  Colour colour = mix(lush, dry, std::clamp(0.38F + 0.55F * patches + 0.12F * tufts, 0.0F, 1.0F));
  colour = mix(colour, bare, 0.6F * smooth_step(0.62F, 1.0F, other_noise_.band(p.x, p.y, 3.4F, f)));
  return colour * std::max(0.3F, 1.0F + 0.17F * tufts + 0.12F * patches);
}

Colour Ground::asphalt(const GroundPatch& p) const {
  static const Colour old = screen_colour(128, 126, 122);
  const float f = p.size_m();
  const float blotches =
      0.06F * noise_.band(p.x, p.y, 9.0F, f) + 0.06F * other_noise_.band(p.x, p.y, 2.2F, f);
  const float grain = 0.08F * noise_.band(p.x, p.y, 0.5F, f) + 0.09F * other_noise_.band(p.x, p.y, 0.16F, f);
  return old * (1.0F + blotches + grain);
}

Colour Ground::gravel(const GroundPatch& p) const {
  static const Colour stones = screen_colour(168, 158, 140);
  const float f = p.size_m();
  const float grain = 0.11F * noise_.band(p.x, p.y, 3.0F, f) + 0.14F * other_noise_.band(p.x, p.y, 0.7F, f) +
                      0.18F * noise_.band(p.x, p.y, 0.17F, f);
  return stones * (1.0F + grain);
}

Colour Ground::crop(const GroundPatch& p, int kind, float tx, float ty) const {
  static const Colour wheat = screen_colour(194, 170, 108), soil = screen_colour(132, 104, 78);
  static const Colour hay = screen_colour(146, 150, 84), young = screen_colour(96, 124, 62);
  const float f = p.size_m();
  const float rough = 0.10F * noise_.band(tx, ty, 2.6F, f) + 0.12F * other_noise_.band(tx, ty, 0.5F, f);
  const float slow = 0.12F * noise_.band(tx, ty, 34.0F, f) + 0.08F * other_noise_.band(tx, ty, 11.0F, f);
  const float tone = 1.0F + rough + slow;
  // Rows are long and narrow: noise stretched along them, on top of their even spacing.
  const auto rows = [&](float along, float across, float spacing_m) {
    const float visible = std::clamp(1.5F - 2.0F * f / spacing_m, 0.0F, 1.0F);
    const float ragged = noise_.at(along / 7.0F, across / (0.7F * spacing_m));
    const float sway = 0.8F * other_noise_.at(along / 19.0F, across / 11.0F);
    return visible * (0.45F * std::sin(2.0F * kPi_f * across / spacing_m + sway) + 0.8F * ragged);
  };
  if (kind == 1) {
    const float wheel = std::abs(fraction(ty / 18.0F) * 18.0F - 9.0F);
    const float track = stripe_cover(wheel, 0.9F, 0.25F, f);
    return mix(wheat * (tone + 0.06F * rows(tx, ty, 1.1F)), soil, 0.55F * track);
  }
  if (kind == 2) return soil * (tone + 0.17F * rows(ty - 0.2F * tx, tx + 0.2F * ty, 0.75F) + 0.6F * rough);
  if (kind == 3) {
    const float swath = std::sin(2.0F * kPi_f * tx / 8.0F + 0.5F * slow);
    return hay * (tone + 0.08F * smooth_step(-0.2F, 0.2F, swath) + 0.05F * rows(ty, tx, 1.3F));
  }
  if (kind == 4) {
    const float grown = std::clamp(0.72F + 0.22F * rows(tx, ty, 0.8F) + 2.0F * slow, 0.0F, 1.0F);
    return mix(soil, young, grown) * tone;
  }
  return grass(p);
}

Colour Ground::field(const GroundPatch& p) const {
  const float bend = 9.0F * noise_.at(p.x / 260.0F, p.y / 260.0F);
  const float tx = kFieldTurnCosine * p.x + kFieldTurnSine * p.y + bend;
  const float ty = kFieldTurnCosine * p.y - kFieldTurnSine * p.x + bend;
  const int column = static_cast<int>(std::floor(tx / kFieldWidth_m));
  const float shifted = ty + 30.0F * hashed(seed_, column, 77);
  const int row = static_cast<int>(std::floor(shifted / kFieldDepth_m));
  const int kind = static_cast<int>(hashed(seed_, column, row) * kCrops);
  const float in_x = fraction(tx / kFieldWidth_m) * kFieldWidth_m;
  const float in_y = fraction(shifted / kFieldDepth_m) * kFieldDepth_m;
  const float edge = std::min(std::min(in_x, kFieldWidth_m - in_x), std::min(in_y, kFieldDepth_m - in_y)) +
                     0.7F * noise_.at(p.x / 4.0F, p.y / 4.0F);
  const float cropped = kind == 0 ? 0.0F : inside(edge - 1.8F, p.size_m());
  if (cropped == 1.0F) return crop(p, kind, tx, ty);
  return cropped == 0.0F ? grass(p) : mix(grass(p), crop(p, kind, tx, ty), cropped);
}

// Wheels darken two tracks of each lane, and oil the middle.
float Ground::lane_wear(float offset_m) const {
  const float in_lane = fraction(offset_m / kLaneWidth_m) * kLaneWidth_m - 0.5F * kLaneWidth_m;
  const float track = (std::abs(in_lane) - 0.85F) / 0.32F;
  const float oil = in_lane / 0.3F;
  return 0.13F * std::exp(-track * track) + 0.06F * std::exp(-oil * oil);
}

float Ground::main_road_paint(const GroundPatch& p, float offset_m) const {
  float paint = 0.0F;
  const auto line = [&](float middle_m) {
    paint = std::max(paint, stripe_cover(offset_m, middle_m, 0.085F, p.deep_m));
  };
  line(-kRoadHalfWidth_m + 0.25F);
  line(kRoadHalfWidth_m - 0.25F);
  line(-0.16F);
  line(0.16F);
  const float dash = stripe_cover(fraction(p.x / 12.0F) * 12.0F, 2.0F, 2.0F, p.across_m);
  const float lanes = stripe_cover(std::abs(offset_m), kLaneWidth_m, 0.085F, p.deep_m);
  paint = std::max(paint, lanes * dash);
  const float worn = 0.75F + 0.35F * noise_.band(p.x, p.y, 1.3F, p.size_m());
  return paint * std::clamp(worn, 0.25F, 0.95F);
}

Colour Ground::main_road(const GroundPatch& p, float offset_m) const {
  static const Colour white = screen_colour(226, 224, 214);
  Colour colour = asphalt(p) * (1.0F - lane_wear(offset_m));
  // Repairs: darker rectangles in a lane.
  const int lane = static_cast<int>(std::floor(offset_m / kLaneWidth_m));
  const int piece = static_cast<int>(std::floor(p.x / 11.0F));
  if (hashed(seed_ + 5U, piece, lane) < 0.14F) {
    const float in_piece = fraction(p.x / 11.0F) * 11.0F;
    const float length = 3.0F + 6.0F * hashed(seed_ + 6U, piece, lane);
    colour *= 1.0F - 0.24F * stripe_cover(in_piece, 5.5F, 0.5F * length, p.across_m);
  }
  const float crack = std::abs(noise_.at(p.x / 7.0F + 3.0F, p.y / 5.0F));
  colour *= 1.0F - 0.3F * smooth_step(0.03F, 0.0F, crack) * std::clamp(1.4F - 3.0F * p.size_m(), 0.0F, 1.0F);
  return mix(colour, white, main_road_paint(p, offset_m));
}

Colour Ground::overpass_road(const GroundPatch& p, float across_m) const {
  static const Colour white = screen_colour(214, 212, 204);
  const Colour colour = asphalt(p) * (0.97F - lane_wear(across_m + 0.25F));
  const float line = std::max(stripe_cover(std::abs(across_m), 4.6F, 0.07F, p.across_m),
                              stripe_cover(across_m, 0.0F, 0.07F, p.across_m) * 0.8F);
  return mix(colour, white, 0.8F * line);
}

// A farm track of two ruts follows the main road on its far side, then turns off into the fields.
void Ground::lay_tracks(const GroundPatch& p, Colour& colour) const {
  const float middle = main_road_y(p.x) + 62.0F + 14.0F * std::sin(p.x / 70.0F);
  const float off = std::abs(p.y - middle) + 0.25F * noise_.at(p.x / 5.0F, p.y / 5.0F);
  if (off > 2.5F + p.deep_m) return;
  const float rut = stripe_cover(off, 0.8F, 0.42F, p.deep_m);
  const float strip = inside(1.9F - off, p.deep_m);
  colour = mix(colour, grass(p) * 1.08F, strip);
  colour = mix(colour, gravel(p), 0.85F * rut);
}

// Grass along the road, then the fields.
Colour Ground::beside_road(const GroundPatch& p, float from_road_m, float ragged_m) const {
  if (from_road_m < kVerge_m - 1.0F) return grass(p);
  Colour colour = field(p);
  if (from_road_m < kVerge_m + 3.0F)
    return mix(grass(p), colour, smooth_step(0.0F, 2.0F, from_road_m - kVerge_m + ragged_m));
  lay_tracks(p, colour);
  return colour;
}

// The road that the overpass's ramps lead on to.
void Ground::lay_overpass_road(const GroundPatch& p, float ragged_m, Colour& colour) const {
  const cv::Point2f place = overpass_place(p.x, p.y);
  if (std::abs(place.x) < kDeckHalfLength_m + 0.8F * kRampLength_m) return;
  const float off = std::abs(place.y);
  if (off > 9.0F) return;
  colour = mix(colour, gravel(p), inside(6.2F + ragged_m - off, p.across_m));
  colour = mix(colour, overpass_road(p, place.y), inside(5.2F - off, p.across_m));
}

Colour Ground::albedo(const GroundPatch& p) const {
  const float offset = main_road_offset(p.x, p.y);
  const float from_road = std::abs(offset) - kRoadHalfWidth_m;
  const float f = std::max(0.02F, p.deep_m);
  if (from_road < -f) return main_road(p, offset);
  const float ragged = 0.35F * noise_.band(p.x, p.y, 1.9F, f) + 0.2F * other_noise_.band(p.x, p.y, 0.5F, f);
  Colour colour = beside_road(p, from_road, ragged);
  const float in_lay_by = std::min(std::min(p.x - kLayByStart_m, kLayByEnd_m - p.x) * 0.3F,
                                   kLayByHalfWidth_m - std::abs(offset - kLayByOffset_m));
  const float gravelled =
      inside(std::max(kShoulder_m + ragged - from_road, in_lay_by + 1.2F * ragged), f + 0.2F);
  if (gravelled > 0.0F) colour = mix(colour, gravel(p), gravelled);
  lay_overpass_road(p, ragged, colour);
  return from_road < f ? mix(main_road(p, offset), colour, inside(from_road, f)) : colour;
}

}  // namespace ostrel_scene
