// ps_roi_pooling(_scale) against a plain reference on the three summation
// paths, plus messages, untouched floats and degenerate input.
#include <math.h>
#include <string.h>

#include <limits>
#include <string>
#include <vector>

#include "brennik_opt_layers.h"
#include "common/test_util.h"
#include "ops/ps_roi_pooling_kernels.h"

namespace {

using ol::ps_path;
using ol_test::rng;

const float kPoison = -12345.5f;
constexpr size_t kGuard = 32;

struct ps_case {
  int fmap_w, fmap_h, fmap_pitch, group, out_channels, out_pitch;
  float spatial_scale;
  bool scaled = false;
  float roi_scale = 1, shift = 1, stride = 1;
  std::vector<float> fmap = {}, boxes = {};
  int roi_num() const { return int(boxes.size() / 4); }
  size_t out_floats() const { return size_t(group) * group * out_pitch * roi_num(); }
  void fill(rng& g, float lo, float hi) {
    fmap.resize(size_t(group) * group * fmap_h * fmap_w * fmap_pitch);
    for (float& v : fmap) v = g.uniform(lo, hi);
  }
};

// Reference, one channel at a time. With `keep_tail`, floats out_channels ..
// out_pitch - 1 of non-empty cells are left as they are; every other float
// of the region is written.
void reference(const ps_case& c, bool keep_tail, float* out) {
  for (int r = 0; r < c.roi_num(); ++r) {
    const float* b = &c.boxes[4 * r];
    const float s = c.spatial_scale;
    float start_w, start_h, width, height, off_w = 0, off_h = 0;
    if (!c.scaled) {
      start_w = s * roundf(b[0]), start_h = s * roundf(b[1]);
      width = fmaf(s, roundf(b[2]) + 1, -start_w);
      height = (roundf(b[3]) + 1) * s - start_h;
    } else {
      const float a = (b[2] - b[0]) * c.roi_scale * 0.5f, bb = (b[3] - b[1]) * c.roi_scale * 0.5f;
      const float X1 = fmaf(b[0] + b[2], 0.5f, -a), X2 = fmaf(b[0] + b[2], 0.5f, a);
      const float Y1 = fmaf(b[1] + b[3], 0.5f, -bb), Y2 = fmaf(b[1] + b[3], 0.5f, bb);
      start_w = s * roundf(X1), start_h = s * roundf(Y1);
      width = float((double(roundf(X2)) + 1) * double(s)) - start_w;
      height = float((double(roundf(Y2)) + 1) * double(s)) - start_h;
    }
    const float bin_w = std::max(width, 0.1f) / float(c.group);
    const float bin_h = std::max(height, 0.1f) / float(c.group);
    if (c.scaled) {
      off_w = fmaf(c.shift, bin_w, -bin_w) * 0.5f;
      off_h = fmaf(c.shift, bin_h, -bin_h) * 0.5f;
    }
    // floor (lo) or ceil (hi) of bin * t + start - off, clamped; bin i spans
    // t = i * stride .. i * stride + 1 (plain cases keep stride 1, off 0).
    auto bound = [&](float bin, int i, bool hi, float start, float off, int limit) {
      const float x = fmaf(bin, float(i) * c.stride + (hi ? 1.0f : 0.0f), start) - off;
      const float v = hi ? ceilf(x) : floorf(x);
      return !(v > 0) ? 0 : v >= float(limit) ? limit : int(v);
    };
    for (int k = 0; k < c.group * c.group; ++k) {  // k = ph * group + pw
      const int hs = bound(bin_h, k / c.group, false, start_h, off_h, c.fmap_h);
      const int he = bound(bin_h, k / c.group, true, start_h, off_h, c.fmap_h);
      const int ws = bound(bin_w, k % c.group, false, start_w, off_w, c.fmap_w);
      const int we = bound(bin_w, k % c.group, true, start_w, off_w, c.fmap_w);
      const bool empty = hs >= he || ws >= we;
      float* cell = out + (size_t(r) * c.group * c.group + k) * c.out_pitch;
      for (int i = 0; i < c.out_pitch; ++i)
        if (empty || !keep_tail || i < c.out_channels) cell[i] = 0;
      for (int ch = 0; ch < c.out_channels && !empty; ++ch) {
        float sum = 0;
        for (int h = hs; h < he; ++h)
          for (int w = ws; w < we; ++w)
            sum += c.fmap[((size_t(k) * c.fmap_h + h) * c.fmap_w + w) * c.fmap_pitch + ch];
        cell[ch] = sum / float((he - hs) * (we - ws));
      }
    }
  }
}

struct ps_result {
  int ret;
  std::vector<float> out;
  std::string text;
};

// Runs a case into a poisoned buffer: ps_path::automatic through the
// exported functions, the other paths through the kernel entry. Negative
// overrides take the values that fit the case.
ps_result run(const ps_case& c, ps_path path, int channels = -1, int pooled_w = -1,
              int pooled_h = -1, int rois = -1) {
  ps_result r;
  r.out.assign(c.out_floats() + kGuard, kPoison);
  const int ch = channels >= 0 ? channels : c.group * c.group * c.out_channels;
  const int pw = pooled_w >= 0 ? pooled_w : c.group, ph = pooled_h >= 0 ? pooled_h : c.group;
  auto call = [&](auto fn, auto... tail) {
    return fn(c.fmap.data(), c.fmap_w, c.fmap_h, ch, c.fmap_pitch, c.boxes.data(),
              rois != -1 ? rois : c.roi_num(), r.out.data(), pw, ph, c.out_channels, c.out_pitch,
              c.spatial_scale, c.group, tail...);
  };
  ol_test::stdout_capture cap;
  if (path != ps_path::automatic)
    r.ret = call([&](auto... a) {
      return ol::ps_roi_pooling_run({a..., c.scaled, c.roi_scale, c.shift, c.stride}, path);
    });
  else
    r.ret = c.scaled ? call(ps_roi_pooling_scale, c.roi_scale, c.shift, c.stride)
                     : call(ps_roi_pooling);
  r.text = cap.end();
  return r;
}

void check_case(const ps_case& c, const std::string& what) {
  for (ps_path p : {ps_path::automatic, ps_path::general, ps_path::scalar}) {
    // Only the automatic path on 21 channels keeps the tail of non-empty cells.
    std::vector<float> want(c.out_floats() + kGuard, kPoison);
    reference(c, p == ps_path::automatic && c.out_channels == 21, want.data());
    const ps_result r = run(c, p);
    ASSERT_EQ(r.ret, 0) << what;
    ASSERT_EQ(r.text, "") << what;
    for (size_t i = 0; i < want.size(); ++i)  // bit for bit
      ASSERT_EQ(memcmp(&r.out[i], &want[i], sizeof(float)), 0)
          << what << " path " << int(p) << " float " << i << ": " << r.out[i] << " != " << want[i];
  }
}

TEST(PsRoiPooling, MatchesReference) {
  rng g(23);
  for (int iter = 0; iter < 300; ++iter) {
    ps_case c;
    const int oc[] = {1, 3, 4, 8, 20, 21, 21, 22, 25};
    const float scales[] = {1.0f, 0.5f, 0.25f, 0.0625f, 0.3f};
    c.fmap_w = g.range(1, 12), c.fmap_h = g.range(1, 12), c.group = g.range(1, 5), c.out_channels = oc[g.range(0, 8)];
    c.fmap_pitch = c.out_channels + g.range(0, 3), c.out_pitch = c.out_channels + g.range(0, 3);
    c.spatial_scale = scales[g.range(0, 4)];
    c.fill(g, -100, 100);
    const float iw = c.fmap_w / c.spatial_scale, ih = c.fmap_h / c.spatial_scale;
    for (int b = g.range(1, 4); b > 0; --b) {
      float x1 = g.uniform(-iw / 2, iw), y1 = g.uniform(-ih / 2, ih);
      float x2 = x1 + g.uniform(-iw / 4, iw), y2 = y1 + g.uniform(-ih / 4, ih);
      const bool ties = g.range(0, 2) == 0;  // halves: rounding ties
      for (float v : {x1, y1, x2, y2}) c.boxes.push_back(ties ? floorf(v) + 0.5f : v);
    }
    c.scaled = iter % 2;
    if (c.scaled)
      c.roi_scale = g.uniform(0.5f, 1.5f), c.shift = g.uniform(0.5f, 1.5f),
      c.stride = g.uniform(0.5f, 1.5f);
    check_case(c, "iter " + std::to_string(iter));
  }
  // Scales like 1/3 or 0.1 with integer or half boxes put bin bounds on or
  // next to integers, where one rounding more or less (an fma split or
  // fused, the shift inside or outside it) moves a bound.
  g = rng(43);
  const float scales[] = {0.1f, 1.0f / 3, 0.2f, 1.0f / 7, 1.0f / 6, 0.3f, 0.7f, 0.9f};
  const float roi_scales[] = {0.5f, 0.75f, 1.0f, 1.25f, 1.5f, 2.0f, 1.1f};
  const float shifts[] = {0.0f, 0.5f, 1.5f, 2.0f, 3.0f, 1.1f, 0.7f};
  const float strides[] = {0.5f, 1.0f, 1.5f, 2.0f, 0.9f};
  for (int iter = 0; iter < 3000; ++iter) {
    ps_case c;
    c.fmap_w = g.range(4, 14), c.fmap_h = g.range(4, 14), c.group = g.range(1, 4);
    c.out_channels = iter % 3 ? 21 : 2, c.fmap_pitch = c.out_channels, c.out_pitch = 24;
    c.spatial_scale = scales[g.range(0, 7)];
    c.scaled = iter % 2;
    if (c.scaled)
      c.roi_scale = roi_scales[g.range(0, 6)], c.shift = shifts[g.range(0, 6)],
      c.stride = strides[g.range(0, 4)];
    const int lim = int(14 / c.spatial_scale);
    for (int b = 0; b < 3; ++b) {
      const float x1 = 0.5f * g.range(-4, 2 * lim), y1 = 0.5f * g.range(-4, 2 * lim);
      c.boxes.insert(c.boxes.end(), {x1, y1, x1 + g.range(0, lim), y1 + g.range(0, lim)});
    }
    c.fill(g, -1, 1);
    check_case(c, "near-integer " + std::to_string(iter));
  }
}

TEST(PsRoiPooling, PinnedBoxes) {
  rng g(31);
  ps_case c{10, 8, 24, 3, 21, 24, 1};
  c.fill(g, 1, 2);
  // One box inside (every cell non-empty), one half outside (its first bin
  // row and some cells empty): the 21-channel fast path leaves the tail of
  // non-empty cells alone and zeroes empty cells whole.
  c.boxes = {1, 1, 8, 6, 7, -20, 30, 5};
  for (int oc : {21, 20}) {
    c.out_channels = oc;
    check_case(c, "oc " + std::to_string(oc));
    const std::vector<float> out = run(c, ps_path::automatic).out;
    for (int cell = 0; cell < 9; ++cell)
      EXPECT_EQ(out[cell * 24 + 23], oc == 21 ? kPoison : 0.0f) << cell;
    for (int k = 0; k < 3 * 24; ++k) EXPECT_EQ(out[9 * 24 + k], 0.0f) << k;
  }

  c.fmap_w = 12, c.fmap_h = 6, c.group = 2, c.out_channels = c.fmap_pitch = c.out_pitch = 5;
  c.fill(g, -1, 1);
  auto pooled = [&](std::vector<float> box) {
    c.boxes = box;
    check_case(c, "box " + std::to_string(box[0]) + " " + std::to_string(box[2]));
    return run(c, ps_path::automatic).out;
  };
  // 2.5 rounds to 3 and -2.5 to -3 (away from zero).
  for (float x : {2.5f, -2.5f}) {
    EXPECT_EQ(pooled({x, 0, 9, 5}), pooled({x + copysignf(0.5f, x), 0, 9, 5})) << x;
    EXPECT_NE(pooled({x, 0, 9, 5}), pooled({x - copysignf(0.5f, x), 0, 9, 5})) << x;
  }
  // round(x2) + 1 <= round(x1): width 0.1, so no bin is empty (all column 7).
  const std::vector<float> rev = pooled({7, 0, 4, 5});
  for (int cell = 0; cell < 4; ++cell) EXPECT_NE(rev[cell * 5], 0.0f) << cell;
  // Boxes wholly outside the map, and huge boxes.
  const std::vector<float> out = pooled({100, 100, 200, 200, -50, -50, -20, -20, 1e30f, 1e30f, 2e30f, 2e30f});
  for (size_t i = 0; i < 3 * 4 * 5; ++i) EXPECT_EQ(out[i], 0.0f) << i;
}

TEST(PsRoiPooling, ChecksMessagesAndDegenerateSizes) {
  ps_case c{5, 4, 21, 7, 21, 21, 0.0625f};
  c.boxes = {0, 0, 50, 50};
  c.fmap.assign(size_t(49) * 4 * 5 * 21, 1.0f);
  // The first `zeros` floats 0, all others untouched.
  auto expect = [](const ps_result& r, int ret, const char* text, size_t zeros) {
    EXPECT_EQ(r.ret, ret);
    EXPECT_EQ(r.text, text);
    for (size_t i = 0; i < r.out.size(); ++i) ASSERT_EQ(r.out[i], i < zeros ? 0.0f : kPoison) << i;
  };
  const char* group_msg = "group_size mismatch pooled width and height, 7 != %d, %d\n";
  for (bool scaled : {false, true}) {
    c.scaled = scaled;
    expect(run(c, ps_path::automatic, -1, 7, 6), -1, ol_test::format(group_msg, 7, 6).c_str(), 0);
    expect(run(c, ps_path::automatic, -1, 6, 7), -1, ol_test::format(group_msg, 6, 7).c_str(), 0);
    expect(run(c, ps_path::automatic, 1000), -1, "Channels mismatch: 1000 != 1029\n", 0);
  }
  // No boxes, a negative box count, a zero output pitch, a zero group:
  // nothing written; a negative map pitch: zeros. Nothing read or written out
  // of bounds.
  c.scaled = false;
  expect(run(c, ps_path::automatic, -1, -1, -1, -3), 0, "", 0);
  ps_case d = c;
  d.boxes.clear();
  expect(run(d, ps_path::automatic), 0, "", 0);
  d = c, d.out_pitch = 0;
  expect(run(d, ps_path::automatic), 0, "", 0);
  d = c, d.group = 0;
  expect(run(d, ps_path::automatic), 0, "", 0);
  d = c, d.fmap_pitch = -4;
  expect(run(d, ps_path::automatic), 0, "", 49 * 21);
}

}  // namespace
