// Randomness that depends on its arguments only.
#pragma once

#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace ostrel_scene {

// A well-mixed number for whole-number arguments, 0 to 1.
float hashed(std::uint32_t seed, int a, int b = 0);

// A raw generator whose sequence is the same everywhere.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ULL + 0xD1B54A32D192ED03ULL) {}

  std::uint64_t next();
  float between(float low, float high);
  int whole(int low, int high);  // both included

 private:
  std::uint64_t state_;
};

// Smooth noise of one wavelength over the plane, about -1 to 1; it repeats after 64 wavelengths.
class NoisePlane {
 public:
  explicit NoisePlane(std::uint32_t seed);

  // `x` and `y` in wavelengths.
  float at(float x, float y) const;

  // Noise of a wavelength in metres, faded out where the footprint of a pixel would blur it away. Inline, so that a
  // wavelength that is known when compiled costs no sine.
  float band(float x_m, float y_m, float wavelength_m, float footprint_m) const {
    const float visible = 1.5F - 1.5F * footprint_m / wavelength_m;
    if (visible <= 0.0F) return 0.0F;
    // Each wavelength looks at another part of the plane, turned by another angle.
    const float shift = 17.3F * wavelength_m, scale = 1.0F / wavelength_m;
    const float c = std::cos(3.0F * wavelength_m) * scale, s = std::sin(3.0F * wavelength_m) * scale;
    return (visible < 1.0F ? visible : 1.0F) * at(c * x_m - s * y_m + shift, s * x_m + c * y_m - shift);
  }

 private:
  std::vector<float> grid_;
};

}  // namespace ostrel_scene
