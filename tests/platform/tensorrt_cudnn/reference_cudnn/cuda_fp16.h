// The 16-bit floats of CUDA's header for a machine without it, by the processor's own conversion.
#pragma once

#include <immintrin.h>

// NOLINTBEGIN(bugprone-reserved-identifier)

struct __half {
  unsigned short bits = 0;
};

inline float __half2float(__half value) {
  return _cvtsh_ss(value.bits);
}

inline __half __float2half(float value) {
  return {static_cast<unsigned short>(_cvtss_sh(value, _MM_FROUND_TO_NEAREST_INT))};
}

// NOLINTEND(bugprone-reserved-identifier)
