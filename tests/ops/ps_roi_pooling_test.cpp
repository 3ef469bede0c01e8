// ps_roi_pooling and ps_roi_pooling_scale against a plain reference, on all
// three summation paths, plus messages, untouched floats and degenerate input.
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
using ol_test::format;
using ol_test::rng;
using ol_test::stdout_capture;

const float kPoison = -12345.5f;
constexpr size_t kGuard = 32;

bool same_bits(float a, float b) { return memcmp(&a, &b, sizeof a) == 0; }

// A case: map, boxes and every argument of the scaled form.
struct ps_case {
  int fmap_w, fmap_h, fmap_pitch, group, out_channels, out_pitch;
  float spatial_scale;
  bool scaled = false;
  float roi_scale = 1, shift = 1, stride = 1;
  std::vector<float> fmap, boxes;
  int roi_num() const { return int(boxes.size() / 4); }
  size_t out_floats() const { return size_t(group) * group * out_pitch * roi_num(); }
};

ps_case random_case(rng& g) {
  ps_case c;
  c.fmap_w = g.range(1, 12), c.fmap_h = g.range(1, 12);
  c.group = g.range(1, 5);
  const int oc[] = {1, 3, 4, 8, 20, 21, 21, 22, 25};
  c.out_channels = oc[g.range(0, 8)];
  c.fmap_pitch = c.out_channels + g.range(0, 3);
  c.out_pitch = c.out_channels + g.range(0, 3);
  const float scales[] = {1.0f, 0.5f, 0.25f, 0.0625f, 0.3f};
  c.spatial_scale = scales[g.range(0, 4)];
  c.fmap.resize(size_t(c.group) * c.group * c.fmap_h * c.fmap_w * c.fmap_pitch);
  for (float& v : c.fmap) v = g.uniform(-100, 100);
  const float iw = c.fmap_w / c.spatial_scale, ih = c.fmap_h / c.spatial_scale;
  for (int b = g.range(1, 4); b > 0; --b) {
    float x1 = g.uniform(-iw / 2, iw), y1 = g.uniform(-ih / 2, ih);
    float x2 = x1 + g.uniform(-iw / 4, iw), y2 = y1 + g.uniform(-ih / 4, ih);
    if (g.range(0, 2) == 0) {  // halves: rounding ties
      x1 = floorf(x1) + 0.5f, y1 = floorf(y1) + 0.5f, x2 = floorf(x2) + 0.5f,
      y2 = floorf(y2) + 0.5f;
    }
    c.boxes.insert(c.boxes.end(), {x1, y1, x2, y2});
  }
  return c;
}

// Variants of the bin arithmetic that differ from the stated one by one
// rounding; used only to prove that the near-integer cases below would catch
// such a slip. (Two stated steps are not among them because they cannot be
// told apart: the centre's fused multiply-add by 0.5, whose product is exact,
// and the double-precision end of the scaled box, which for coordinates
// below 2^24 rounds like the float product.)
enum class arith {
  exact,
  height_fused,
  width_unfused,
  offset_unfused,
  start_unfused,
  end_unfused,
  start_shift_in_fma,
  end_shift_in_fma,  // bin bounds
  count
};

// Bin bounds [hs, he) x [ws, we) of every bin of box r, bin-row major.
struct bin_bounds {
  int hs, he, ws, we;
  bool empty() const { return hs >= he || ws >= we; }
  // Same pooled result: both empty, or the same rows and columns.
  bool operator==(const bin_bounds& o) const {
    if (empty() || o.empty()) return empty() && o.empty();
    return hs == o.hs && he == o.he && ws == o.ws && we == o.we;
  }
};

std::vector<bin_bounds> bounds(const ps_case& c, int r, arith v = arith::exact) {
  const int g = c.group;
  auto clamp = [](float x, int limit) {
    if (isnan(x) || x <= 0) return 0;
    return x >= float(limit) ? limit : int(x);
  };
  const float* b = &c.boxes[4 * r];
  const float s = c.spatial_scale;
  float start_w, start_h, width, height, off_w = 0, off_h = 0;
  if (!c.scaled) {
    start_w = s * roundf(b[0]);
    start_h = s * roundf(b[1]);
    width = v == arith::width_unfused ? s * (roundf(b[2]) + 1) - start_w
                                      : fmaf(s, roundf(b[2]) + 1, -start_w);
    height = v == arith::height_fused ? fmaf(roundf(b[3]) + 1, s, -start_h)
                                      : (roundf(b[3]) + 1) * s - start_h;
  } else {
    const float a = (b[2] - b[0]) * c.roi_scale * 0.5f, bb = (b[3] - b[1]) * c.roi_scale * 0.5f;
    const float X1 = fmaf(b[0] + b[2], 0.5f, -a), X2 = fmaf(b[0] + b[2], 0.5f, a);
    const float Y1 = fmaf(b[1] + b[3], 0.5f, -bb), Y2 = fmaf(b[1] + b[3], 0.5f, bb);
    start_w = s * roundf(X1);
    start_h = s * roundf(Y1);
    width = float((double(roundf(X2)) + 1) * double(s)) - start_w;
    height = float((double(roundf(Y2)) + 1) * double(s)) - start_h;
  }
  const float bin_w = std::max(width, 0.1f) / float(g), bin_h = std::max(height, 0.1f) / float(g);
  if (c.scaled) {
    const bool fused = v != arith::offset_unfused;
    off_w = (fused ? fmaf(c.shift, bin_w, -bin_w) : c.shift * bin_w - bin_w) * 0.5f;
    off_h = (fused ? fmaf(c.shift, bin_h, -bin_h) : c.shift * bin_h - bin_h) * 0.5f;
  }
  // floor (start) or ceil (end) of bin * t + start - off, clamped.
  auto bound = [&](float bin, float t, float start, float off, bool end, int limit) {
    float x;
    if (v == (end ? arith::end_unfused : arith::start_unfused))
      x = bin * t + start - off;
    else if (v == (end ? arith::end_shift_in_fma : arith::start_shift_in_fma))
      x = fmaf(bin, t, start - off);
    else
      x = c.scaled ? fmaf(bin, t, start) - off : fmaf(bin, t, start);
    return clamp(end ? ceilf(x) : floorf(x), limit);
  };
  std::vector<bin_bounds> out;
  for (int ph = 0; ph < g; ++ph) {
    for (int pw = 0; pw < g; ++pw) {
      // Bin position and its end: i and i + 1, or i * stride and i * stride + 1.
      const float th = c.scaled ? float(ph) * c.stride : float(ph);
      const float tw = c.scaled ? float(pw) * c.stride : float(pw);
      const float th1 = c.scaled ? th + 1 : float(ph + 1), tw1 = c.scaled ? tw + 1 : float(pw + 1);
      out.push_back({bound(bin_h, th, start_h, off_h, false, c.fmap_h),
                     bound(bin_h, th1, start_h, off_h, true, c.fmap_h),
                     bound(bin_w, tw, start_w, off_w, false, c.fmap_w),
                     bound(bin_w, tw1, start_w, off_w, true, c.fmap_w)});
    }
  }
  return out;
}

// Reference, one channel at a time. Writes the cells it defines; with
// `keep_tail`, floats out_channels .. out_pitch - 1 of non-empty cells are
// left as they are, otherwise every float of the region is written.
void reference(const ps_case& c, bool keep_tail, float* out) {
  const int g = c.group;
  for (int r = 0; r < c.roi_num(); ++r) {
    const std::vector<bin_bounds> bins = bounds(c, r);
    for (int ph = 0; ph < g; ++ph) {
      for (int pw = 0; pw < g; ++pw) {
        const bin_bounds& k = bins[ph * g + pw];
        float* cell = out + ((size_t(r) * g + ph) * g + pw) * c.out_pitch;
        const bool empty = k.empty();
        for (int i = 0; i < c.out_pitch; ++i)
          if (empty || !keep_tail || i < c.out_channels) cell[i] = 0;
        if (empty) continue;
        const int block = ph * g + pw;
        for (int ch = 0; ch < c.out_channels; ++ch) {
          float sum = 0;
          for (int h = k.hs; h < k.he; ++h)
            for (int w = k.ws; w < k.we; ++w)
              sum += c.fmap[((size_t(block) * c.fmap_h + h) * c.fmap_w + w) * c.fmap_pitch + ch];
          cell[ch] = sum / float((k.he - k.hs) * (k.we - k.ws));
        }
      }
    }
  }
}

struct ps_result {
  int ret;
  std::vector<float> out;
  std::string text;
};

ps_result run(const ps_case& c, ps_path path, int channels_arg = -1, int pooled_h = -1) {
  ps_result r;
  r.out.assign(c.out_floats() + kGuard, kPoison);
  const int channels = channels_arg >= 0 ? channels_arg : c.group * c.group * c.out_channels;
  ol::ps_roi_args a{
      c.fmap.data(),  c.fmap_w,    c.fmap_h,        channels, c.fmap_pitch,
      c.boxes.data(), c.roi_num(), r.out.data(),    c.group,  pooled_h >= 0 ? pooled_h : c.group,
      c.out_channels, c.out_pitch, c.spatial_scale, c.group,  c.scaled,
      c.roi_scale,    c.shift,     c.stride};
  stdout_capture cap;
  r.ret = ol::ps_roi_pooling_run(a, path);
  r.text = cap.end();
  return r;
}

// Exported functions, for the cases that must go through them.
int call_exported(const ps_case& c, float* out) {
  const int channels = c.group * c.group * c.out_channels;
  if (!c.scaled)
    return ps_roi_pooling(c.fmap.data(), c.fmap_w, c.fmap_h, channels, c.fmap_pitch, c.boxes.data(),
                          c.roi_num(), out, c.group, c.group, c.out_channels, c.out_pitch,
                          c.spatial_scale, c.group);
  return ps_roi_pooling_scale(c.fmap.data(), c.fmap_w, c.fmap_h, channels, c.fmap_pitch,
                              c.boxes.data(), c.roi_num(), out, c.group, c.group, c.out_channels,
                              c.out_pitch, c.spatial_scale, c.group, c.roi_scale, c.shift,
                              c.stride);
}

void expect_bits(const std::vector<float>& got, const std::vector<float>& want,
                 const std::string& what) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i)
    ASSERT_TRUE(same_bits(got[i], want[i]))
        << what << " float " << i << ": " << got[i] << " vs " << want[i];
}

void check_case(const ps_case& c, const std::string& what) {
  // The automatic path keeps the tail of non-empty cells for 21 channels.
  std::vector<float> want(c.out_floats() + kGuard, kPoison);
  reference(c, c.out_channels == 21, want.data());
  ps_result r = run(c, ps_path::automatic);
  ASSERT_EQ(r.ret, 0);
  expect_bits(r.out, want, what + " automatic");
  std::vector<float> exported(c.out_floats() + kGuard, kPoison);
  ASSERT_EQ(call_exported(c, exported.data()), 0);
  expect_bits(exported, want, what + " exported");
  // The general and scalar paths zero the whole region.
  std::fill(want.begin(), want.end(), kPoison);
  reference(c, false, want.data());
  expect_bits(run(c, ps_path::general).out, want, what + " general");
  expect_bits(run(c, ps_path::scalar).out, want, what + " scalar");
}

TEST(PsRoiPooling, MatchesReferenceOnRandomCases) {
  rng g(23);
  for (int iter = 0; iter < 300; ++iter) {
    ps_case c = random_case(g);
    if (iter % 2) {
      c.scaled = true;
      c.roi_scale = g.uniform(0.5f, 1.5f);
      c.shift = g.uniform(0.5f, 1.5f);
      c.stride = g.uniform(0.5f, 1.5f);
    }
    check_case(c, "iter " + std::to_string(iter));
  }
}

TEST(PsRoiPooling, NearIntegerBoundsPinTheRounding) {
  // Scales like 1/3 or 0.1 with integer or half boxes put bin bounds on or
  // next to integers, where one rounding more or less moves a bound. Among
  // such candidates, the cases where a variant of the arithmetic moves some
  // bound (a few per variant), and every 40th case, are run; each variant
  // must have been caught.
  rng g(43);
  const float scales[] = {0.1f, 1.0f / 3, 0.2f, 1.0f / 7, 1.0f / 6, 0.3f, 0.7f, 0.9f};
  const float roi_scales[] = {0.5f, 0.75f, 1.0f, 1.25f, 1.5f, 2.0f, 1.1f};
  const float shifts[] = {0.0f, 0.5f, 1.5f, 2.0f, 3.0f, 1.1f, 0.7f};
  const float strides[] = {0.5f, 1.0f, 1.5f, 2.0f, 0.9f};
  int caught[int(arith::count)][2] = {};  // per variant, plain / scaled
  for (int iter = 0; iter < 20000; ++iter) {
    ps_case c;
    c.fmap_w = g.range(4, 14), c.fmap_h = g.range(4, 14), c.group = g.range(1, 4);
    c.out_channels = iter % 3 ? 21 : 2, c.fmap_pitch = c.out_channels, c.out_pitch = 24;
    c.spatial_scale = scales[g.range(0, 7)];
    c.scaled = iter % 2;
    c.roi_scale = c.scaled ? roi_scales[g.range(0, 6)] : 1.0f;
    c.shift = c.scaled ? shifts[g.range(0, 6)] : 1.0f;
    c.stride = c.scaled ? strides[g.range(0, 4)] : 1.0f;
    const int lim = int(14 / c.spatial_scale);
    for (int b = 0; b < 3; ++b) {
      const float x1 = 0.5f * g.range(-4, 2 * lim), y1 = 0.5f * g.range(-4, 2 * lim);
      c.boxes.insert(c.boxes.end(), {x1, y1, x1 + g.range(0, lim), y1 + g.range(0, lim)});
    }
    bool run = iter % 40 == 0;
    for (int v = 1; v < int(arith::count); ++v) {
      bool moves = false;
      for (int r = 0; r < c.roi_num(); ++r)
        moves = moves || !(bounds(c, r, arith(v)) == bounds(c, r));
      if (moves && caught[v][c.scaled] < 4) ++caught[v][c.scaled], run = true;
    }
    if (!run) continue;
    c.fmap.resize(size_t(c.group) * c.group * c.fmap_h * c.fmap_w * c.fmap_pitch);
    for (float& v : c.fmap) v = g.uniform(-1, 1);
    check_case(c, "near-integer " + std::to_string(iter));
  }
  // Each variant is caught on the form it applies to.
  for (arith v :
       {arith::height_fused, arith::width_unfused, arith::start_unfused, arith::end_unfused})
    EXPECT_GT(caught[int(v)][0], 0) << "plain, variant " << int(v);
  for (arith v : {arith::offset_unfused, arith::start_unfused, arith::end_unfused,
                  arith::start_shift_in_fma, arith::end_shift_in_fma})
    EXPECT_GT(caught[int(v)][1], 0) << "scaled, variant " << int(v);
}

TEST(PsRoiPooling, ScaledWithUnitFactorsEqualsPlain) {
  rng g(29);
  for (int iter = 0; iter < 100; ++iter) {
    ps_case c = random_case(g);
    c.spatial_scale = 0.0625f;
    for (float& v : c.boxes) v = float(g.range(-200, 400));
    std::vector<float> plain(c.out_floats() + kGuard, kPoison), scaled = plain;
    ASSERT_EQ(call_exported(c, plain.data()), 0);
    c.scaled = true;
    ASSERT_EQ(call_exported(c, scaled.data()), 0);
    expect_bits(scaled, plain, "iter " + std::to_string(iter));
  }
}

TEST(PsRoiPooling, TailFloatsOf21ChannelCells) {
  rng g(31);
  for (int oc : {21, 20}) {
    ps_case c;
    c.fmap_w = 10, c.fmap_h = 8, c.group = 3, c.out_channels = oc, c.fmap_pitch = 24;
    c.out_pitch = 24, c.spatial_scale = 1;
    c.fmap.resize(size_t(9) * 8 * 10 * 24);
    for (float& v : c.fmap) v = g.uniform(1, 2);
    // One box inside (every cell non-empty), one half outside (some bin
    // rows and cells empty).
    c.boxes = {1, 1, 8, 6, 7, -20, 30, 5};
    check_case(c, "oc " + std::to_string(oc));
    std::vector<float> out(c.out_floats(), kPoison);
    ASSERT_EQ(call_exported(c, out.data()), 0);
    for (int cell = 0; cell < 9; ++cell) {
      for (int k = 21; k < 24; ++k) {
        if (oc == 21)
          EXPECT_EQ(out[cell * 24 + k], kPoison) << cell;
        else
          EXPECT_EQ(out[cell * 24 + k], 0.0f) << cell;
      }
      EXPECT_GE(out[cell * 24], 1.0f);  // first box: non-empty
    }
    // Second box: its first bin row lies above the map (zeros, tail too).
    for (int k = 0; k < 3 * 24; ++k) EXPECT_EQ(out[9 * 24 + k], 0.0f) << k;
  }
}

TEST(PsRoiPooling, RoundingMinimumWidthAndOutsideBoxes) {
  rng g(37);
  ps_case c;
  c.fmap_w = 12, c.fmap_h = 6, c.group = 2, c.out_channels = 5, c.fmap_pitch = 5;
  c.out_pitch = 5, c.spatial_scale = 1;
  c.fmap.resize(size_t(4) * 6 * 12 * 5);
  for (float& v : c.fmap) v = g.uniform(-1, 1);
  auto pooled = [&](std::vector<float> boxes) {
    c.boxes = boxes;
    std::vector<float> out(c.out_floats(), kPoison);
    EXPECT_EQ(call_exported(c, out.data()), 0);
    return out;
  };
  // 2.5 rounds to 3 and -2.5 to -3 (away from zero).
  EXPECT_EQ(pooled({2.5f, 0, 9, 5}), pooled({3, 0, 9, 5}));
  EXPECT_NE(pooled({2.5f, 0, 9, 5}), pooled({2, 0, 9, 5}));
  EXPECT_EQ(pooled({-2.5f, 0, 9, 5}), pooled({-3, 0, 9, 5}));
  EXPECT_NE(pooled({-2.5f, 0, 9, 5}), pooled({-2, 0, 9, 5}));
  // round(x2) + 1 <= round(x1): width 0.1, bins one column wide or empty.
  c.boxes = {7, 0, 4, 5};
  check_case(c, "reversed");
  std::vector<float> rev = pooled({7, 0, 4, 5});
  for (int ph = 0; ph < 2; ++ph) {
    const float* left = &rev[(ph * 2 + 0) * 5];
    const float* right = &rev[(ph * 2 + 1) * 5];
    // Bin 0 covers [7, 8): column 7 averaged over its rows; bin 1 is [7, 8) too.
    float want = 0;
    const int hs = ph * 3, he = ph * 3 + 3;
    for (int h = hs; h < he; ++h) want += c.fmap[((size_t(ph * 2) * 6 + h) * 12 + 7) * 5];
    EXPECT_EQ(left[0], want / 3.0f);
    EXPECT_NE(right[0], 0.0f);
  }
  // Boxes wholly outside the map, and NaN / infinite boxes: zeros.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  for (std::vector<float> box : std::vector<std::vector<float>>{{100, 100, 200, 200},
                                                                {-50, -50, -20, -20},
                                                                {nan, 0, 5, 5},
                                                                {0, 0, inf, inf},
                                                                {-inf, -inf, inf, inf},
                                                                {1e30f, 1e30f, 2e30f, 2e30f}}) {
    std::vector<float> out = pooled(box);
    c.boxes = box;
    check_case(c, "degenerate");
    if (!std::isinf(box[2])) {
      for (float v : out) EXPECT_EQ(v, 0.0f);
    }
  }
}

TEST(PsRoiPooling, ChecksAndMessages) {
  rng g(41);
  ps_case c = random_case(g);
  c.group = 7, c.out_channels = 21, c.out_pitch = 21, c.fmap_pitch = 21;
  c.fmap.assign(size_t(49) * c.fmap_h * c.fmap_w * 21, 1.0f);
  ps_result r = run(c, ps_path::automatic, -1, 6);
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(r.text, "group_size mismatch pooled width and height, 7 != 7, 6\n");
  for (size_t i = 0; i < r.out.size(); ++i) ASSERT_EQ(r.out[i], kPoison);
  r = run(c, ps_path::automatic, 1000);
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(r.text, "Channels mismatch: 1000 != 1029\n");
  for (size_t i = 0; i < r.out.size(); ++i) ASSERT_EQ(r.out[i], kPoison);
  // Through the exported functions too.
  std::vector<float> out(c.out_floats(), kPoison);
  stdout_capture cap;
  EXPECT_EQ(ps_roi_pooling(c.fmap.data(), c.fmap_w, c.fmap_h, 1000, 21, c.boxes.data(), c.roi_num(),
                           out.data(), 7, 7, 21, 21, 0.0625f, 7),
            -1);
  EXPECT_EQ(ps_roi_pooling_scale(c.fmap.data(), c.fmap_w, c.fmap_h, 1029, 21, c.boxes.data(),
                                 c.roi_num(), out.data(), 6, 7, 21, 21, 0.0625f, 7, 1, 1, 1),
            -1);
  EXPECT_EQ(cap.end(),
            "Channels mismatch: 1000 != 1029\n"
            "group_size mismatch pooled width and height, 7 != 6, 7\n");
  // No boxes: 0, nothing written, nothing printed.
  c.boxes.clear();
  r = run(c, ps_path::automatic);
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.text, "");
  for (float v : r.out) ASSERT_EQ(v, kPoison);
  // Degenerate pitches and sizes: nothing written (empty output region), or
  // zeros (negative map pitch); nothing read or written out of bounds.
  c.boxes = {0, 0, 50, 50};
  const int n49 = 49 * 21;
  std::vector<float> small(n49 + kGuard, kPoison);
  EXPECT_EQ(ps_roi_pooling(c.fmap.data(), c.fmap_w, c.fmap_h, n49, 21, c.boxes.data(), 1,
                           small.data(), 7, 7, 21, 0, 0.0625f, 7),
            0);
  for (float v : small) ASSERT_EQ(v, kPoison);
  EXPECT_EQ(ps_roi_pooling(c.fmap.data(), c.fmap_w, c.fmap_h, n49, -4, c.boxes.data(), 1,
                           small.data(), 7, 7, 21, 21, 0.0625f, 7),
            0);
  for (int i = 0; i < n49; ++i) ASSERT_EQ(small[i], 0.0f);
  for (size_t i = n49; i < small.size(); ++i) ASSERT_EQ(small[i], kPoison);
  EXPECT_EQ(ps_roi_pooling(c.fmap.data(), c.fmap_w, c.fmap_h, 0, 21, c.boxes.data(), 1,
                           small.data(), 0, 0, 21, 21, 0.0625f, 0),
            0);
  std::vector<float> one = {0, 0, 1, 1};
  EXPECT_EQ(ps_roi_pooling(c.fmap.data(), c.fmap_w, c.fmap_h, 1029, 21, one.data(), -3, out.data(),
                           7, 7, 21, 21, 0.0625f, 7),
            0);
  for (float v : out) ASSERT_EQ(v, kPoison);
}

}  // namespace
