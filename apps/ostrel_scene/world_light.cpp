#include "world_light.h"

#include <algorithm>
#include <array>

namespace ostrel_scene {
namespace {

constexpr float kGamma = 2.2F;
constexpr float kHaze_m = 2300.0F;  // after which 63 % of a thing's light is haze
constexpr float kGlintPower = 60.0F;

const Colour kSunLight(1.12F, 1.32F, 1.42F);
const Colour kSkyLight(0.36F, 0.28F, 0.22F);
const Colour kBouncedLight(0.09F, 0.15F, 0.14F);

// Display levels over linear light in steps of 1 / kStepsPerUnit: gamma with a shoulder towards white.
constexpr int kStepsPerUnit = 2048;
constexpr float kWhitest = 2.0F;
using ToneCurve = std::array<float, static_cast<std::size_t>(kWhitest) * kStepsPerUnit + 2>;

const ToneCurve& tone_curve() {
  static const ToneCurve curve = [] {
    ToneCurve levels{};
    for (std::size_t i = 0; i < levels.size(); ++i) {
      const float light = static_cast<float>(i) / kStepsPerUnit;
      const float shoulder = light < 0.6F ? light : 0.6F + 0.4F * (1.0F - std::exp(-(light - 0.6F) / 0.4F));
      levels[i] = 255.0F * std::pow(shoulder, 1.0F / kGamma);
    }
    return levels;
  }();
  return curve;
}

float display_level(float light) {
  const float steps = std::clamp(light, 0.0F, kWhitest) * kStepsPerUnit;
  const auto below = static_cast<std::size_t>(steps);
  const ToneCurve& curve = tone_curve();
  return mix(curve[below], curve[below + 1], steps - static_cast<float>(below));
}

Colour reflected_sky(const Vec3& direction) {
  if (direction.z > 0.0F) return sky_colour(direction.z);
  return screen_colour(86, 92, 66);
}

}  // namespace

Colour screen_colour(int red, int green, int blue) {
  const auto light = [](int level) { return std::pow(static_cast<float>(level) / 255.0F, kGamma); };
  return {light(blue), light(green), light(red)};
}

const Vec3& to_sun() {
  static const Vec3 direction = unit({-0.72F, -0.20F, 0.64F});
  return direction;
}

Vec3 shadow_of(const Vec3& point, float height_m) {
  return point - to_sun() * ((point.z - height_m) / to_sun().z);
}

Colour lit(const Colour& albedo, const Vec3& normal, float sun_share) {
  const float towards_sun = std::max(0.0F, normal.dot(to_sun())) * sun_share;
  const float upwards = 0.5F + 0.5F * normal.z;
  const Colour light = kSunLight * towards_sun + kSkyLight * upwards + kBouncedLight * (1.0F - upwards);
  return albedo.mul(light);
}

Colour shaded(const Surface& surface, const Vec3& normal, const Vec3& point, float sun_share) {
  Colour colour = lit(surface.albedo, normal, sun_share) + surface.albedo * surface.glow;
  if (surface.gloss == 0.0F && surface.mirror == 0.0F) return colour;
  const Vec3 view = unit(point - camera_position());
  const float facing = -view.dot(normal);
  const Vec3 reflected = view + normal * (2.0F * facing);
  const float grazing = 1.0F - std::clamp(facing, 0.0F, 1.0F);
  const float fresnel = 0.14F + 0.86F * grazing * grazing * grazing;
  colour += reflected_sky(reflected) * (surface.mirror * fresnel);
  const float glint = std::pow(std::max(0.0F, reflected.dot(to_sun())), kGlintPower);
  return colour + kSunLight * (surface.gloss * glint * sun_share);
}

Colour sky_colour(float elevation_sine) {
  static const Colour horizon = screen_colour(206, 214, 220), high = screen_colour(120, 158, 206);
  return mix(horizon, high, std::clamp(2.2F * elevation_sine, 0.0F, 1.0F));
}

Colour hazed(const Colour& colour, float distance_m) {
  static const Colour haze = screen_colour(186, 198, 208);
  return mix(haze, colour, std::exp(-distance_m / kHaze_m));
}

Colour to_display_float(const Colour& colour) {
  return {display_level(colour[0]), display_level(colour[1]), display_level(colour[2])};
}

cv::Vec3b to_display(const Colour& colour) {
  return cv::Vec3b(to_display_float(colour) + Colour::all(0.5F));
}

}  // namespace ostrel_scene
