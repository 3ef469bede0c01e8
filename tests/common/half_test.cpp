// The library's half conversions against a formulation written from the
// definitions: a half is sign, 5-bit exponent and 10-bit fraction; the
// truncating conversion picks the largest half not above |x| (65536 and up
// overflow), the rounding one the nearest half with ties away from zero
// (65520 and up overflow).
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "common/test_util.h"

namespace {

using opt_layers_half::from_float_round;
using opt_layers_half::from_float_trunc;
using opt_layers_half::to_float;

// Magnitude of a finite half pattern (sign ignored), from the definition.
double half_magnitude(uint16_t h) {
  const int e = (h >> 10) & 0x1F;
  const int m = h & 0x3FF;
  if (e == 0) return ldexp(m, -24);
  return ldexp(1024 + m, e - 25);
}

bool is_half_nan(uint16_t h) { return (h & 0x7C00) == 0x7C00 && (h & 0x3FF) != 0; }

// Patterns 0 .. 0x7BFF are the finite magnitudes in increasing order.
// Returns the largest pattern whose magnitude does not exceed a.
uint16_t floor_pattern(double a) {
  uint32_t lo = 0, hi = 0x7BFF;
  while (lo < hi) {
    const uint32_t mid = (lo + hi + 1) / 2;
    if (half_magnitude(static_cast<uint16_t>(mid)) <= a) lo = mid; else hi = mid - 1;
  }
  return static_cast<uint16_t>(lo);
}

uint16_t ref_trunc(float x) {
  const uint16_t sign = signbit(x) ? 0x8000 : 0;
  const double a = fabs(static_cast<double>(x));
  if (a >= 65536.0) return sign | 0x7C00;  // also infinity
  return sign | floor_pattern(a);
}

uint16_t ref_round(float x) {
  const uint16_t sign = signbit(x) ? 0x8000 : 0;
  const double a = fabs(static_cast<double>(x));
  if (a >= 65536.0) return sign | 0x7C00;
  const uint16_t lo = floor_pattern(a);
  // The step above the largest half (65504) leads to 65536, i.e. overflow.
  const double lo_v = half_magnitude(lo);
  const double hi_v = lo == 0x7BFF ? 65536.0 : half_magnitude(static_cast<uint16_t>(lo + 1));
  // Nearer to lo when a is below the midpoint; the midpoint itself goes up
  // (away from zero). 2a and lo + hi are exact in double.
  if (2.0 * a < lo_v + hi_v) return sign | lo;
  return sign | static_cast<uint16_t>(lo + 1);  // 0x7BFF + 1 is the infinity
}

uint32_t bits_of(float f) {
  uint32_t u;
  memcpy(&u, &f, sizeof u);
  return u;
}

float float_of(uint32_t u) {
  float f;
  memcpy(&f, &u, sizeof f);
  return f;
}

TEST(half, every_pattern_to_float_and_back) {
  for (uint32_t p = 0; p <= 0xFFFF; ++p) {
    const uint16_t h = static_cast<uint16_t>(p);
    const float f = to_float(h);
    if (is_half_nan(h)) {
      ASSERT_TRUE(isnan(f)) << std::hex << p;
      ASSERT_EQ(signbit(f), (h & 0x8000) != 0) << std::hex << p;
      for (uint16_t back : {from_float_trunc(f), from_float_round(f)}) {
        ASSERT_TRUE(is_half_nan(back)) << std::hex << p;
        ASSERT_EQ(back & 0x8000, h & 0x8000) << std::hex << p;
      }
      continue;
    }
    const double mag = (h & 0x7C00) == 0x7C00 ? INFINITY : half_magnitude(h);
    ASSERT_EQ(static_cast<double>(f), (h & 0x8000) ? -mag : mag) << std::hex << p;
    ASSERT_EQ(signbit(f), (h & 0x8000) != 0) << std::hex << p;  // -0 stays -0
    ASSERT_EQ(from_float_trunc(f), h) << std::hex << p;
    ASSERT_EQ(from_float_round(f), h) << std::hex << p;
  }
}

void expect_both(float x) {
  EXPECT_EQ(from_float_trunc(x), ref_trunc(x)) << "trunc " << x << " bits " << std::hex << bits_of(x);
  EXPECT_EQ(from_float_round(x), ref_round(x)) << "round " << x << " bits " << std::hex << bits_of(x);
}

// x and its float neighbours up to `steps` ulps away on both sides.
void expect_around(float x, int steps) {
  expect_both(x);
  float up = x, down = x;
  for (int i = 0; i < steps; ++i) {
    up = nextafterf(up, INFINITY);
    down = nextafterf(down, -INFINITY);
    expect_both(up);
    expect_both(down);
  }
}

TEST(half, float_to_half_at_every_boundary) {
  for (uint16_t p = 0; p < 0x7C00; ++p) {
    for (uint16_t sign : {0, 0x8000}) {
      const float v = to_float(static_cast<uint16_t>(sign | p));
      expect_around(v, 2);
      // The midpoint to the next half up (for 65504, the overflow point of
      // rounding, 65520); 12 significant bits, exact in float.
      const double next = p == 0x7BFF ? 65536.0 : half_magnitude(static_cast<uint16_t>(p + 1));
      const float mid = static_cast<float>((half_magnitude(p) + next) / 2);
      expect_around(sign ? -mid : mid, 2);
    }
    if (HasFailure()) return;
  }
}

TEST(half, subnormals_overflow_and_specials) {
  // Below the smallest subnormal (2^-24): half of it is the rounding tie.
  for (float x : {ldexpf(1, -24), ldexpf(1, -25), ldexpf(1.5f, -25), ldexpf(1, -26),
                  ldexpf(1, -126), ldexpf(1, -149), ldexpf(1, -14), ldexpf(1023, -24),
                  ldexpf(2047, -25)}) {
    expect_around(x, 3);
    expect_around(-x, 3);
  }
  EXPECT_EQ(from_float_round(ldexpf(1, -25)), 0x0001);       // tie away from zero
  EXPECT_EQ(from_float_round(-ldexpf(1, -25)), 0x8001);
  EXPECT_EQ(from_float_trunc(ldexpf(1, -25)), 0x0000);
  EXPECT_EQ(from_float_round(nextafterf(ldexpf(1, -25), 0)), 0x0000);
  EXPECT_EQ(from_float_round(ldexpf(2047, -25)), 0x0400);     // carry into the normals
  EXPECT_EQ(from_float_trunc(-0.0f), 0x8000);
  EXPECT_EQ(from_float_round(-0.0f), 0x8000);

  struct edge {
    float x;
    uint16_t trunc, round;
  };
  const edge edges[] = {
      {65504.0f, 0x7BFF, 0x7BFF},     {65519.99f, 0x7BFF, 0x7BFF},
      {65520.0f, 0x7BFF, 0x7C00},     {65535.996f, 0x7BFF, 0x7C00},
      {65536.0f, 0x7C00, 0x7C00},     {1e10f, 0x7C00, 0x7C00},
      {3.4028235e38f, 0x7C00, 0x7C00}, {INFINITY, 0x7C00, 0x7C00},
      {65505.0f, 0x7BFF, 0x7BFF},     {2049.0f, 0x6800, 0x6801},  // tie at 2049: away
      {2051.0f, 0x6801, 0x6802},      {0.1f, 0x2E66, 0x2E66},
  };
  for (const edge& e : edges) {
    for (uint16_t sign : {0, 0x8000}) {
      const float x = sign ? -e.x : e.x;
      EXPECT_EQ(from_float_trunc(x), sign | e.trunc) << x;
      EXPECT_EQ(from_float_round(x), sign | e.round) << x;
      expect_around(x, 2);
    }
  }
  // NaNs of any payload and sign stay NaNs of that sign.
  for (uint32_t payload : {1u, 0x1FFFu, 0x2000u, 0x400000u, 0x7FFFFFu, 0x12345u}) {
    for (uint32_t sign : {0u, 0x80000000u}) {
      const float x = float_of(sign | 0x7F800000u | payload);
      for (uint16_t r : {from_float_trunc(x), from_float_round(x)}) {
        EXPECT_TRUE(is_half_nan(r)) << std::hex << payload;
        EXPECT_EQ(r & 0x8000u, sign >> 16);
      }
    }
  }
}

TEST(half, random_floats) {
  ol_test::rng r(7);
  for (int i = 0; i < 200000; ++i) {
    // Biased to the exponents a half can hold (2^-26 .. 2^17).
    uint32_t u = r.next();
    if (i % 4 != 0) u = (u & 0x807FFFFFu) | ((101u + r.next() % 44u) << 23);
    const float x = float_of(u);
    if (isnan(x)) continue;
    expect_both(x);
    if (HasFailure()) return;
  }
}

}  // namespace
