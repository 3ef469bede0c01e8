// Small helpers shared by every stage that handles boxes.
#ifndef OL_COMMON_BOX_H
#define OL_COMMON_BOX_H

#include <stdint.h>

#include "brennik_opt_layers.h"

namespace ol {

// min(v, limit - 1), then max(., 0). The comparisons are written so that a
// NaN v takes the upper limit (or 0 when limit - 1 is not above 0).
inline float clamp_to_image(float v, float limit) {
  const float hi = limit - 1.0f;
  const float m = v < hi ? v : hi;
  return m > 0.0f ? m : 0.0f;
}

// Boxes are inclusive pixel boxes everywhere in this library: a box from x1
// to x2 covers x2 - x1 + 1 pixels.
inline float inclusive_size(float lo, float hi) { return hi - lo + 1.0f; }

inline const uint16_t* half_bits_ptr(const half_float::half* p) {
  return reinterpret_cast<const uint16_t*>(p);
}
inline uint16_t* half_bits_ptr(half_float::half* p) { return reinterpret_cast<uint16_t*>(p); }

}  // namespace ol

#endif
