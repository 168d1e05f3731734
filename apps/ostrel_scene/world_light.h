// Sun, sky, haze and the camera's tone curve. Colours are linear light, blue, green, red; 1 is a white sheet in the sun.
#pragma once

#include "world_geometry.h"

namespace ostrel_scene {

using Colour = cv::Vec3f;

// A colour as one would pick it on a screen, 0 to 255.
Colour screen_colour(int red, int green, int blue);
inline Colour mix(const Colour& a, const Colour& b, float share) {
  return a + (b - a) * share;
}

// Unit vector towards the sun.
const Vec3& to_sun();
// Where the sun's ray through a point meets the level `height_m`.
Vec3 shadow_of(const Vec3& point, float height_m);

struct Surface {
  Colour albedo;
  float gloss = 0.0F;   // strength of the sun's glint
  float mirror = 0.0F;  // strength of the sky's reflection at grazing angles
  float glow = 0.0F;    // light of its own, as a share of the albedo
};

// A matt surface; `sun_share` is 1 in the sun and 0 in full shadow.
Colour lit(const Colour& albedo, const Vec3& normal, float sun_share);
Colour shaded(const Surface& surface, const Vec3& normal, const Vec3& point, float sun_share);

Colour sky_colour(float elevation_sine);
Colour hazed(const Colour& colour, float distance_m);

cv::Vec3b to_display(const Colour& colour);
// The same, still 0 to 255 and unrounded.
Colour to_display_float(const Colour& colour);

}  // namespace ostrel_scene
