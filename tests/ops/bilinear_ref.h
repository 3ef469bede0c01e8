// Plain references for the 16-bit bilinear operators (ROI align and crop and
// resize): one element at a time, in the most direct form, with exact 64-bit
// sums. The fast operators must match them bit for bit.
#ifndef OL_TESTS_OPS_BILINEAR_REF_H
#define OL_TESTS_OPS_BILINEAR_REF_H

#include <math.h>
#include <stdint.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/test_util.h"

namespace ref {

// A 16-bit map, element (y, x, c) at (y * w + x) * c_n + c.
struct map16 {
  unsigned w = 0, h = 0, c = 0;
  std::vector<short> v;
  short at(unsigned y, unsigned x, unsigned ch) const { return v[(size_t(y) * w + x) * c + ch]; }
  short* data() { return v.data(); }
};

// Exactly w * h * c random elements; one (a valid pointer) for an empty map.
inline map16 random_map(ol_test::rng& g, unsigned w, unsigned h, unsigned c) {
  map16 m{w, h, c, std::vector<short>(std::max<size_t>(size_t(w) * h * c, 1))};
  for (auto& e : m.v) e = static_cast<short>(g.next());
  return m;
}

// Float product of a column and a row weight -> Q13 weight: truncation
// toward zero, saturated to 16 bits, NaN -> 0.
inline int16_t weight(float p) {
  if (isnan(p)) return 0;
  return static_cast<int16_t>(std::min(std::max(trunc(double(p)), -32768.0), 32767.0));
}

// The two source cells of a position on an axis of n cells, and the fraction.
struct tap {
  unsigned i0, i1;
  float frac;
};

inline tap taps(float pos, unsigned n) {
  // Truncated toward zero as an unsigned integer; negative (and NaN) -> 0.
  unsigned c0 = 0;
  if (pos > 0) c0 = pos >= 4294967296.0f ? 0xFFFFFFFFu : static_cast<unsigned>(pos);
  if (c0 >= n - 1) return {n - 1, n - 1, pos - static_cast<float>(n - 1)};
  return {c0, c0 + 1, pos - static_cast<float>(c0)};
}

// Low 16 bits of floor((acc + 4096) / 8192), acc exact.
inline short round_q13(int64_t acc) {
  const int64_t q = (acc + 4096) >> 13;  // arithmetic shift = floor division
  return static_cast<short>(static_cast<uint16_t>(q & 0xFFFF));
}

// All channels of the sample at (xpos, ypos) of map m, into out.
inline void sample(const map16& m, float xpos, float ypos, short* out) {
  const tap tx = taps(xpos, m.w);
  const tap ty = taps(ypos, m.h);
  const float cw0 = 1.0f - tx.frac, cw1 = tx.frac;
  const float rw0 = (1.0f - ty.frac) * 8192.0f, rw1 = ty.frac * 8192.0f;
  const int64_t w00 = weight(cw0 * rw0), w01 = weight(cw1 * rw0);
  const int64_t w10 = weight(cw0 * rw1), w11 = weight(cw1 * rw1);
  for (unsigned c = 0; c < m.c; ++c) {
    const int64_t acc = m.at(ty.i0, tx.i0, c) * w00 + m.at(ty.i0, tx.i1, c) * w01 +
                        m.at(ty.i1, tx.i0, c) * w10 + m.at(ty.i1, tx.i1, c) * w11;
    out[c] = round_q13(acc);
  }
}

// ROI align positions along one axis: the centres of `count` bins from lo / s
// to hi / s, each after the first one bin further.
inline std::vector<float> align_positions(float lo, float hi, unsigned s, unsigned count) {
  const float a = lo / float(s), bin = (hi / float(s) - a) / float(count);
  std::vector<float> p(count);
  for (unsigned k = 0; k < count; ++k)
    p[k] = k == 0 ? float(double(a) + 0.5 * double(bin)) : p[k - 1] + bin;
  return p;
}

// ROI align of one box on a map of stride s into out (pool_h x pool_w x c); a
// map without rows or columns gives zeros.
inline void roi_align_box(const map16& m, unsigned s, const float* box, unsigned pool_w,
                          unsigned pool_h, short* out) {
  if (m.w == 0 || m.h == 0) {
    std::fill_n(out, size_t(pool_w) * pool_h * m.c, short(0));
    return;
  }
  const std::vector<float> xs = align_positions(box[0], box[2], s, pool_w);
  const std::vector<float> ys = align_positions(box[1], box[3], s, pool_h);
  for (unsigned i = 0; i < pool_h; ++i)
    for (unsigned j = 0; j < pool_w; ++j)
      sample(m, xs[j], ys[i], out + (size_t(i) * pool_w + j) * m.c);
}

// Pyramid level from the box size.
inline unsigned level(const float* b) {
  const float area = (b[2] - b[0]) * (b[3] - b[1]);
  const double k = floor(log2(double(sqrtf(area) / 224.0f) + 1e-6) + 1.0);
  if (isnan(k)) return 0;
  return k > 2 ? 2 : k < 0 ? 0 : unsigned(k);
}

// Crop-and-resize positions along one axis.
inline std::vector<float> crop_positions(float lo, float hi, float scale, unsigned n,
                                         unsigned count) {
  const float a = scale * lo / float(n), b = scale * hi / float(n);
  std::vector<float> p(count);
  if (count == 1) {
    p[0] = float(0.5 * double(a + b) * double(n - 1));
    return p;
  }
  const float step = (b - a) * float(n - 1) / float(count - 1);
  for (unsigned k = 0; k < count; ++k) p[k] = k == 0 ? a * float(n - 1) : p[k - 1] + step;
  return p;
}

// Low 16 bits of the extrapolation value truncated toward zero (0 for NaN
// and infinities).
inline short extrapolation(float v) {
  if (!isfinite(v)) return 0;
  const double r = fmod(trunc(double(v)), 65536.0);
  return static_cast<short>(static_cast<uint16_t>(static_cast<int64_t>(r) & 0xFFFF));
}

// Crop and resize of one box into out (crop_h x crop_w x c); appends the
// lines it prints to *text. A map without rows or columns is never read:
// every element is E with an "extr y" line.
inline void crop_box(const map16& m, float sx, float sy, float extr, const float* box,
                     unsigned crop_w, unsigned crop_h, short* out, std::string* text) {
  const short e = extrapolation(extr);
  const bool empty = m.w == 0 || m.h == 0;
  const std::vector<float> xs = crop_positions(box[0], box[2], sx, m.w, empty ? 0 : crop_w);
  const std::vector<float> ys = crop_positions(box[1], box[3], sy, m.h, empty ? 0 : crop_h);
  for (unsigned i = 0; i < crop_h && crop_w > 0; ++i) {
    for (unsigned j = 0; j < crop_w; ++j) {
      short* o = out + (size_t(i) * crop_w + j) * m.c;
      if (empty || ys[i] < 0 || ys[i] > float(m.h - 1)) {
        for (unsigned c = 0; c < m.c; ++c) o[c] = e, *text += "extr y\n";
      } else if (xs[j] < 0 || xs[j] > float(m.w - 1)) {
        for (unsigned c = 0; c < m.c; ++c)
          o[c] = e, *text += ol_test::format("extr x, %f\n", xs[j]);
      } else {
        sample(m, xs[j], ys[i], o);
      }
    }
  }
}

// A random box: inside the map, across an edge, far outside, reversed,
// degenerate or the whole image; x first, then y.
inline void random_box(ol_test::rng& g, float img_w, float img_h, float* b) {
  const int kind = g.range(0, 5);
  for (int a = 0; a < 2; ++a) {
    const float n = a ? img_h : img_w;
    float &lo = b[a], &hi = b[a + 2];
    if (kind == 0) lo = g.uniform(0, n), hi = g.uniform(lo, n);
    if (kind == 1) lo = g.uniform(-n / 2, n), hi = lo + g.uniform(0, n);
    if (kind == 2) lo = g.uniform(-3 * n, 3 * n), hi = lo + g.uniform(0, 2 * n);
    if (kind == 3) lo = g.uniform(0, n), hi = lo - g.uniform(0, n / 2);
    if (kind == 4) lo = hi = float(g.range(0, int(n)));  // zero size, integer corners
    if (kind == 5) lo = 0, hi = n;
  }
}

}  // namespace ref

#endif
