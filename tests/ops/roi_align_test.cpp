// The 16-bit bilinear operators (roi_align_fmap_int16,
// roi_align_four_fmap_int16, crop_and_resize_fmap_int16) against the plain
// reference on both kernels, values pinned independently of it, bad input and
// degenerate maps.
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "brennik_opt_layers.h"
#include "common/cpu.h"
#include "common/test_util.h"
#include "ops/bilinear_ref.h"
#include "ops/roi_align_kernels.h"

namespace {

using ol::bilinear_kernel;
using ol_test::format;
using ol_test::rng;

constexpr short kPoison = 0x5A5A;
constexpr size_t kGuard = 64;  // poisoned elements after the expected output
const float kNan = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// fn(kernel, args..., out) must return 0 on both kernels (and the x86-64
// baseline ones), print want_text and give `want` (which ends in kGuard
// poisoned elements) in a poisoned buffer.
template <class Fn, class... Args>
void expect_kernels(const std::vector<short>& want, const std::string& want_text, Fn fn,
                    Args... args) {
  for (bool baseline : {true, false}) {
    ol::cpu_force_baseline = baseline;
    for (bilinear_kernel k : {bilinear_kernel::vector, bilinear_kernel::scalar}) {
      std::vector<short> got(want.size(), kPoison);
      int ret = -1;
      ASSERT_EQ(ol_test::printed([&] { ret = fn(k, args..., got.data()); }), want_text);
      ASSERT_EQ(ret, 0);
      ASSERT_EQ(got, want) << "kernel " << int(k) << " baseline " << baseline;
    }
  }
}

// The exported function for the vector kernel, the internal entry for the
// scalar one.
int four_levels(bilinear_kernel k, short** maps, unsigned* scales, float* boxes, unsigned n,
                unsigned img_w, unsigned img_h, unsigned pw, unsigned ph, unsigned c, short* out) {
  if (k == bilinear_kernel::vector)
    return roi_align_four_fmap_int16(maps, scales, boxes, n, img_w, img_h, pw, ph, c, out);
  return ol::roi_align_four_fmap_int16_with(k, maps, scales, boxes, n, img_w, img_h, pw, ph, c,
                                            out);
}

// A map, level 0 of a pyramid of strides s, 2s and 4s over an image of
// m.w * s by m.h * s pixels; boxes in image pixels; the ROI align grid; the
// crop grid with its scales (per image pixel) and extrapolation value.
struct bilinear_case {
  ref::map16 m;
  unsigned s;
  std::vector<float> boxes;
  unsigned pw, ph, cw, ch;
  float sx = 1, sy = 1, extr = 0;
};

// The operators against the reference: ROI align on the map and on the
// pyramid (its upper levels drawn from g), unless `align` is false, and crop
// and resize with its lines.
void check(bilinear_case c, rng& g, bool align = true) {
  ref::map16& m = c.m;
  const unsigned n = unsigned(c.boxes.size() / 4), img_w = m.w * c.s, img_h = m.h * c.s;
  unsigned scales[3] = {c.s, 2 * c.s, 4 * c.s};
  ref::map16 lv[3] = {m, ref::random_map(g, img_w / scales[1], img_h / scales[1], m.c),
                      ref::random_map(g, img_w / scales[2], img_h / scales[2], m.c)};
  short* maps[3] = {lv[0].data(), lv[1].data(), lv[2].data()};
  const size_t per_box = size_t(c.pw) * c.ph * m.c, per_crop = size_t(c.cw) * c.ch * m.c;
  std::vector<short> one(per_box * n + kGuard, kPoison), four = one;
  std::vector<short> crop(per_crop * n + kGuard, kPoison);
  std::string text;
  for (unsigned b = 0; b < n; ++b) {
    const float* box = &c.boxes[4 * b];
    const unsigned k = ref::level(box);
    ref::roi_align_box(m, c.s, box, c.pw, c.ph, &one[b * per_box]);
    ref::roi_align_box(lv[k], scales[k], box, c.pw, c.ph, &four[b * per_box]);
    ref::crop_box(m, c.sx, c.sy, c.extr, box, c.cw, c.ch, &crop[b * per_crop], &text);
  }
  if (align) {
    expect_kernels(one, "", ol::roi_align_fmap_int16_with, m.data(), c.s, c.boxes.data(), n, m.w,
                   m.h, c.pw, c.ph, m.c);
    expect_kernels(four, "", four_levels, maps, scales, c.boxes.data(), n, img_w, img_h, c.pw,
                   c.ph, m.c);
  }
  expect_kernels(crop, text, ol::crop_and_resize_fmap_int16_with, m.data(), c.sx, c.sy, c.extr,
                 c.boxes.data(), n, m.w, m.h, c.cw, c.ch, m.c);
}

// The three operators against the reference on random maps, strides, grids
// and boxes (inside, across an edge, far outside, reversed, degenerate, the
// whole image; some large enough for the upper pyramid levels, whose maps
// may have no column: never read, zeros out).
TEST(Bilinear, MatchesReferenceOnRandomAndDegenerateCases) {
  rng g(11);
  for (int iter = 0; iter < 300; ++iter) {
    SCOPED_TRACE(iter);
    const unsigned s = 1u << g.range(0, 5);
    bilinear_case c{ref::random_map(g, g.range(1, 12), g.range(1, 12), 16 * g.range(1, 3)), s,
                    std::vector<float>(4 * g.range(1, 4)), unsigned(g.range(1, 9)),
                    unsigned(g.range(1, 9)), unsigned(g.range(1, 6)), unsigned(g.range(1, 6))};
    for (size_t b = 0; b < c.boxes.size(); b += 4)
      ref::random_box(g, float(c.m.w * s), float(c.m.h * s), &c.boxes[b]);
    const float side = std::vector<float>{223, 224, 447, 448, 2000}[g.range(0, 4)];
    c.boxes.insert(c.boxes.end(), {-20, 0, side - 20, side});
    c.sx = (g.range(0, 3) ? 1.0f : g.uniform(0.25f, 2.0f)) / float(s);
    c.sy = (g.range(0, 3) ? 1.0f : g.uniform(0.25f, 2.0f)) / float(s);
    c.extr = g.uniform(-40000, 40000);
    ASSERT_NO_FATAL_FAILURE(check(c, g));
  }
  // One-row and one-column maps with NaN (all weights 0), infinite and huge
  // boxes, every index inside (ASan flags a stray read); crops of one and
  // three columns (W - 1 = 0: finite boxes sample column 0 or row 0).
  const std::vector<float> boxes = {kNan,   0,     4,    4,      0,     kNan,  4,     4,
                                    kNan,   kNan,  kNan, kNan,   0,     0,     kInf,  4,
                                    -kInf,  -kInf, kInf, kInf,   1e30f, 1e30f, 2e30f, 2e30f,
                                    -1e30f, 0,     0,    1,      0,     0,     1,     1,
                                    0.2f,   0.3f,  0.7f, 0.9f};
  for (auto wh : {std::pair<unsigned, unsigned>{1, 1}, {1, 5}, {5, 1}, {3, 4}}) {
    for (unsigned cw : {1u, 3u}) {
      SCOPED_TRACE(format("map %ux%u crop %u", wh.first, wh.second, cw));
      check({ref::random_map(g, wh.first, wh.second, 16), 1, boxes, 3, 2, cw, 2, 1, 1, 9}, g);
    }
  }
  // Crops of a map without columns (never read: every element E with an
  // "extr y" line), of zero size (nothing written), and wider than one table
  // chunk with columns outside on both sides (the lines in output order).
  check({ref::random_map(g, 0, 3, 16), 1, {0, 0, 1, 1}, 1, 1, 2, 2, 1, 1, 5}, g, false);
  check({ref::random_map(g, 6, 5, 16), 1, {0, 0, 1, 1}, 1, 1, 0, 4, 1, 1, 5}, g);
  check({ref::random_map(g, 6, 5, 16), 1, {-8, -2, 14, 7}, 1, 1, 300, 4, 1, 1, -3}, g);
  // ROI align grids larger than the 128-entry table chunk, on a 128 KiB stack.
  ol_test::on_small_stack([&] {
    check({ref::random_map(g, 9, 6, 16), 2, {-3, 1, 20, 11, 5, -4, 6, 30}, 300, 130, 1, 1}, g);
  });
}

TEST(RoiAlign, PinnedSamples) {
  // A sample a quarter cell right of column 0 of row 0: 100 * 0.75 + 200 *
  // 0.25 (row 1 must not contribute); the same through the pyramid with
  // level 0 at stride 16 (the box has zero area).
  ref::map16 m{2, 2, 16, {}};
  for (short v : {100, 200, -3000, 7000}) m.v.insert(m.v.end(), 16, v);
  std::vector<float> box = {0, 0, 8, 0};
  std::vector<short> want(16 + kGuard, kPoison);
  std::fill(want.begin(), want.begin() + 16, 125);
  expect_kernels(want, "", ol::roi_align_fmap_int16_with, m.data(), 16u, box.data(), 1u, 2u, 2u,
                 1u, 1u, 16u);
  short* maps[3] = {m.data(), m.data(), m.data()};
  unsigned scales[3] = {16, 32, 64};
  expect_kernels(want, "", four_levels, maps, scales, box.data(), 1u, 32u, 32u, 1u, 1u, 16u);

  // Samples on the cell centres x = 0..8, y = 0..5 of a 7 x 5 map copy it,
  // repeating the last column and row beyond the right and bottom edges.
  rng g(3);
  m = ref::random_map(g, 7, 5, 32);
  box = {-0.5f, -0.5f, 8.5f, 5.5f};
  std::vector<short> out(9 * 6 * 32, 0);
  ASSERT_EQ(roi_align_fmap_int16(m.data(), 1, box.data(), 1, 7, 5, 9, 6, 32, out.data()), 0);
  for (unsigned i = 0; i < 6; ++i)
    for (unsigned j = 0; j < 9; ++j)
      for (unsigned c = 0; c < 32; ++c)
        ASSERT_EQ(out[(i * 9 + j) * 32 + c], m.at(std::min(i, 4u), std::min(j, 6u), c));
}

TEST(RoiAlign, RoundingOfTheSum) {
  // acc = 4096 -> 1, -4096 -> 0, -4097 -> -1, and extreme weights and
  // values, whose sum leaves 32 bits, against the exact sum. Taps p00 = p10
  // and p01 = p11.
  const int64_t big = 1073741824;  // 32768 * 32768
  const int cases[][7] = {
      {1, 0, 4096, 0, 0, 0, 1},  // p00, p01, w00, w01, w10, w11, result
      {-1, 0, 4096, 0, 0, 0, 0},
      {-1, -1, 4096, 1, 0, 0, -1},
      {-32768, -32768, -32768, -32768, -32768, -32768, ref::round_q13(4 * big)},
      {32767, -32768, 32767, -32768, 32767, -32768, ref::round_q13(2 * 32767ll * 32767 + 2 * big)}};
  for (const auto& s : cases) {
    std::vector<short> a(16, short(s[0])), b(16, short(s[1]));
    const ol::bilinear_taps t{a.data(),      b.data(),      a.data(),      b.data(),
                              int16_t(s[2]), int16_t(s[3]), int16_t(s[4]), int16_t(s[5])};
    for (bool baseline : {true, false}) {
      ol::cpu_force_baseline = baseline;
      for (auto fn : {ol::bilinear_i16_vector, ol::bilinear_i16_scalar}) {
        std::vector<short> out(16, kPoison);
        fn(t, 16, out.data());
        EXPECT_EQ(out, std::vector<short>(16, short(s[6]))) << s[0] << " " << s[2];
      }
    }
  }
  EXPECT_EQ(ol::q13_weight(kNan), 0);
  EXPECT_EQ(ol::q13_weight(-1e30f), -32768);
  EXPECT_EQ(ol::q13_weight(32767.9f), 32767);
  EXPECT_EQ(ol::q13_weight(-2.9f), -2);
}

TEST(RoiAlign, LevelThresholds) {
  // Squares of side 223, 224, 447, 448, ...; zero, negative, reversed, NaN
  // and infinite areas.
  const float cases[][5] = {{10, 20, 233, 243, 0}, {10, 20, 234, 244, 1},   {10, 20, 457, 467, 1},
                            {10, 20, 458, 468, 2}, {10, 20, 2010, 2020, 2}, {10, 20, 10, 20, 0},
                            {10, 20, 11, 21, 0},   {0, 0, 0, 500, 0},       {500, 0, 0, 500, 0},
                            {500, 500, 0, 0, 2},   {kNan, 0, 10, 10, 0},    {0, 0, kInf, 10, 2}};
  for (const auto& c : cases)
    EXPECT_EQ(ol::roi_align_level(c[0], c[1], c[2], c[3]), unsigned(c[4])) << c[0] << " " << c[2];
}

// Every refusal of the three operators: -1 and the message byte for byte;
// no boxes: 0 and nothing printed, but the checks still run first. Nothing
// is ever written.
TEST(Bilinear, BadInputIsRefusedWithNothingWritten) {
  std::vector<short> map(16 * 4, 1), out(16 + kGuard, kPoison);
  std::vector<float> box = {0, 0, 4, 4};
  short *m = map.data(), *o = out.data(), *maps[3] = {m, m, m}, *no_map[3] = {m, nullptr, m};
  float* b = box.data();
  void *nul = nullptr, *vm = m, *vo = o, *vb = b;
  unsigned scales[3] = {8, 16, 32}, zero_scale[3] = {8, 16, 0};
  auto one = [&](short* fm, unsigned s, float* bx, unsigned n, short* ro, unsigned ch) {
    return roi_align_fmap_int16(fm, s, bx, n, 2, 2, 1, 1, ch, ro);
  };
  auto four = [&](short** fm, unsigned* s, float* bx, unsigned n, short* ro, unsigned ch) {
    return roi_align_four_fmap_int16(fm, s, bx, n, 32, 32, 1, 1, ch, ro);
  };
  auto crop = [&](short* fm, float* bx, unsigned n, short* ro, unsigned ch) {
    return crop_and_resize_fmap_int16(fm, 1, 1, 0, bx, n, 2, 2, 1, 1, ch, ro);
  };
  const std::string bad_ptr = "Invalid proposal or roi_result: %p, %p\n";
  const std::string bad_ch = "Invalid channel: %u, should be multiple 16\n";
  const struct {
    std::function<int()> call;
    std::string want;
  } cases[] = {
      {[&] { return one(nullptr, 16, b, 1, o, 16); }, format("Invalid FMap pointer: %p\n", nul)},
      {[&] { return one(m, 0, b, 1, o, 16); }, "Invalid FMap scale: 0\n"},
      {[&] { return one(m, 16, nullptr, 1, o, 16); }, format(bad_ptr.c_str(), nul, vo)},
      {[&] { return one(m, 16, b, 1, nullptr, 16); }, format(bad_ptr.c_str(), vb, nul)},
      {[&] { return one(m, 16, b, 1, o, 0); }, format(bad_ch.c_str(), 0u)},
      {[&] { return one(m, 16, b, 1, o, 24); }, format(bad_ch.c_str(), 24u)},
      {[&] { return one(m, 16, b, 0, o, 16); }, ""},
      {[&] { return one(m, 16, b, 0, nullptr, 16); }, format(bad_ptr.c_str(), vb, nul)},
      {[&] { return four(no_map, scales, b, 1, o, 16); },
       format("Invalid FMap pointer: %p, %p, %p\n", vm, nul, vm)},
      {[&] { return four(nullptr, scales, b, 1, o, 16); },
       format("Invalid FMap pointer: %p, %p, %p\n", nul, nul, nul)},
      {[&] { return four(maps, zero_scale, b, 1, o, 16); }, "Invalid FMap scale: 8, 16, 0\n"},
      {[&] { return four(maps, nullptr, b, 1, o, 16); }, "Invalid FMap scale: 0, 0, 0\n"},
      {[&] { return four(maps, scales, b, 1, o, 8); }, format(bad_ch.c_str(), 8u)},
      {[&] { return four(maps, scales, nullptr, 1, o, 16); }, format(bad_ptr.c_str(), nul, vo)},
      {[&] { return four(maps, scales, b, 0, o, 16); }, ""},
      {[&] { return crop(nullptr, b, 1, o, 16); }, format("Invalid FMap pointer: %p\n", nul)},
      {[&] { return crop(m, nullptr, 1, o, 16); }, format(bad_ptr.c_str(), nul, vo)},
      {[&] { return crop(m, b, 1, nullptr, 16); }, format(bad_ptr.c_str(), vb, nul)},
      {[&] { return crop(m, b, 1, o, 0); }, format(bad_ch.c_str(), 0u)},
      {[&] { return crop(m, b, 1, o, 8); }, format(bad_ch.c_str(), 8u)},
      {[&] { return crop(m, b, 0, o, 16); }, ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ol_test::printed([&] { EXPECT_EQ(c.call(), c.want.empty() ? 0 : -1) << c.want; }),
              c.want);
  EXPECT_EQ(out, std::vector<short>(16 + kGuard, kPoison));
}

TEST(CropAndResize, CentreAndExtrapolation) {
  rng g(2);
  ref::map16 m = ref::random_map(g, 5, 5, 32);
  auto cell = [&](unsigned y, unsigned x) { return m.v.begin() + (y * 5 + x) * 32; };
  auto expect_crop = [&](std::vector<float> box, float extr, unsigned cw, unsigned ch,
                         std::vector<short> want, const std::string& text) {
    want.resize(want.size() + kGuard, kPoison);
    expect_kernels(want, text, ol::crop_and_resize_fmap_int16_with, m.data(), 1.0f, 1.0f, extr,
                   box.data(), 1u, 5u, 5u, cw, ch, 32u);
  };
  // 1 x 1 crop of the whole map samples its centre cell (2, 2).
  expect_crop({0, 0, 5, 5}, 0, 1, 1, std::vector<short>(cell(2, 2), cell(2, 3)), "");
  // Box (-W, -H, W, H), 3 x 2, edge to edge: row -4 is outside (E and an
  // "extr y" line per element), row 4 has columns at -4 (E and "extr x"
  // lines), 0 and 4.
  std::string text;
  for (int k = 0; k < 3 * 32; ++k) text += "extr y\n";
  for (int k = 0; k < 32; ++k) text += "extr x, -4.000000\n";
  std::vector<short> want(4 * 32, -1);
  want.insert(want.end(), cell(4, 0), cell(4, 1));
  want.insert(want.end(), cell(4, 4), cell(4, 5));
  expect_crop({-5, -5, 5, 5}, -1.7f, 3, 2, want, text);
  // E is the value truncated toward zero, low 16 bits; 0 for NaN and
  // infinities.
  const struct {
    float extr;
    short want;
  } cases[] = {{-1.7f, -1},        {2.9f, 2}, {40000.0f, -25536}, {-40000.0f, 25536},
               {1e10f, short(uint16_t(10000000000ll & 0xFFFF))}, {kNan, 0}, {kInf, 0}, {-kInf, 0}};
  for (const auto& v : cases) EXPECT_EQ(ol::extrapolation_bits(v.extr), v.want) << v.extr;
}

}  // namespace
