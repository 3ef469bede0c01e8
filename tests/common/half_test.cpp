// The library's half conversions against a formulation written from the
// definitions: a half is sign, 5-bit exponent and 10-bit fraction; the
// truncating conversion picks the largest half not above |x| (65536 and up
// overflow), the rounding one the nearest half with ties away from zero
// (65520 and up overflow).
#include <math.h>
#include <stdint.h>

#include "common/test_util.h"

namespace {

using opt_layers_half::from_float_round;
using opt_layers_half::from_float_trunc;
using opt_layers_half::to_float;

// Magnitude of a finite half pattern (sign ignored), from the definition.
double half_magnitude(uint16_t h) {
  const int e = (h >> 10) & 0x1F, m = h & 0x3FF;
  return e == 0 ? ldexp(m, -24) : ldexp(1024 + m, e - 25);
}

bool is_half_nan(uint16_t h) { return (h & 0x7C00) == 0x7C00 && (h & 0x3FF) != 0; }

// The truncating (round false) or rounding conversion from the definition.
uint16_t ref_half(float x, bool round) {
  const uint16_t sign = signbit(x) ? 0x8000 : 0;
  const double a = fabs(static_cast<double>(x));
  if (a >= 65536.0) return sign | 0x7C00;  // also infinity
  // Patterns 0 .. 0x7BFF are the finite magnitudes in increasing order: the
  // largest whose magnitude does not exceed a.
  uint16_t lo = 0;
  for (uint16_t step = 0x4000; step > 0; step >>= 1)
    if (lo + step <= 0x7BFF && half_magnitude(static_cast<uint16_t>(lo + step)) <= a) lo += step;
  // The step above the largest half (65504) leads to 65536, i.e. overflow
  // (0x7BFF + 1 is the infinity). The midpoint itself goes up (away from
  // zero); 2a and lo + hi are exact in double.
  const double hi = lo == 0x7BFF ? 65536.0 : half_magnitude(static_cast<uint16_t>(lo + 1));
  return sign | static_cast<uint16_t>(lo + (round && 2.0 * a >= half_magnitude(lo) + hi));
}

// x and its float neighbours up to `steps` ulps away on both sides.
void expect_around(float x, int steps) {
  float up = x, down = x;
  for (int i = 0; i <= steps; ++i) {
    for (float v : {up, down}) {
      EXPECT_EQ(from_float_trunc(v), ref_half(v, false)) << "trunc " << std::hexfloat << v;
      EXPECT_EQ(from_float_round(v), ref_half(v, true)) << "round " << std::hexfloat << v;
    }
    up = nextafterf(up, INFINITY);
    down = nextafterf(down, -INFINITY);
  }
}

// Every pattern converts to the float it stands for and back. Around every
// finite half and every midpoint between neighbours (for 65504, the overflow
// point of rounding, 65520; 12 significant bits, exact in float), and around
// values far below the smallest subnormal, both conversions follow the
// definition.
TEST(half, every_pattern_and_every_boundary) {
  for (uint32_t p = 0; p <= 0xFFFF; ++p) {
    const uint16_t h = static_cast<uint16_t>(p), bits = h & 0x7FFF;
    const float f = to_float(h);
    ASSERT_EQ(signbit(f), (h & 0x8000) != 0) << std::hex << p;  // -0 stays -0
    if (is_half_nan(h)) {
      ASSERT_TRUE(isnan(f)) << std::hex << p;
      for (uint16_t back : {from_float_trunc(f), from_float_round(f)})
        ASSERT_TRUE(is_half_nan(back) && (back & 0x8000) == (h & 0x8000)) << std::hex << p;
      continue;
    }
    const double mag = bits == 0x7C00 ? INFINITY : half_magnitude(h);
    ASSERT_EQ(static_cast<double>(f), (h & 0x8000) ? -mag : mag) << std::hex << p;
    ASSERT_EQ(from_float_trunc(f), h) << std::hex << p;
    ASSERT_EQ(from_float_round(f), h) << std::hex << p;
    if (bits == 0x7C00) continue;
    expect_around(f, 2);
    const double next = bits == 0x7BFF ? 65536.0 : half_magnitude(static_cast<uint16_t>(bits + 1));
    const float mid = static_cast<float>((mag + next) / 2);
    expect_around((h & 0x8000) ? -mid : mid, 2);
    if (HasFailure()) return;
  }
  for (float x : {ldexpf(1.5f, -25), ldexpf(1, -26), ldexpf(1, -126), ldexpf(1, -149)}) {
    expect_around(x, 3);
    expect_around(-x, 3);
  }
}

// Hand-checked values pin the formulation above: the subnormal tie, the carry
// into the normals, the two overflow points, ties away from zero.
TEST(half, subnormals_overflow_and_specials) {
  const struct {
    float x;
    uint16_t trunc, round;
  } edges[] = {{ldexpf(1, -25), 0, 0x0001},     {nextafterf(ldexpf(1, -25), 0), 0, 0},
               {ldexpf(2047, -25), 0x03FF, 0x0400}, {0.0f, 0, 0},
               {65504.0f, 0x7BFF, 0x7BFF},      {65505.0f, 0x7BFF, 0x7BFF},
               {65519.99f, 0x7BFF, 0x7BFF},     {65520.0f, 0x7BFF, 0x7C00},
               {65535.996f, 0x7BFF, 0x7C00},    {65536.0f, 0x7C00, 0x7C00},
               {1e10f, 0x7C00, 0x7C00},         {3.4028235e38f, 0x7C00, 0x7C00},
               {INFINITY, 0x7C00, 0x7C00},      {2049.0f, 0x6800, 0x6801},
               {2051.0f, 0x6801, 0x6802},       {0.1f, 0x2E66, 0x2E66}};
  for (const auto& e : edges) {
    for (uint16_t sign : {0, 0x8000}) {
      const float x = sign ? -e.x : e.x;
      EXPECT_EQ(from_float_trunc(x), sign | e.trunc) << x;
      EXPECT_EQ(from_float_round(x), sign | e.round) << x;
    }
  }
  // NaNs of any payload and sign stay NaNs of that sign.
  for (uint32_t payload : {1u, 0x1FFFu, 0x2000u, 0x400000u, 0x7FFFFFu, 0x12345u}) {
    for (uint32_t sign : {0u, 0x80000000u}) {
      const float x = opt_layers_half::f32_from_bits(sign | 0x7F800000u | payload);
      for (uint16_t r : {from_float_trunc(x), from_float_round(x)})
        EXPECT_TRUE(is_half_nan(r) && (r & 0x8000u) == sign >> 16) << std::hex << payload;
    }
  }
}

}  // namespace
