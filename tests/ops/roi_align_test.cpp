// roi_align_fmap_int16 and roi_align_four_fmap_int16 against the plain
// reference, the worked values, bad input and degenerate maps.
#include <math.h>
#include <pthread.h>

#include <limits>
#include <vector>

#include "brennik_opt_layers.h"
#include "common/test_util.h"
#include "ops/bilinear_ref.h"
#include "ops/roi_align_kernels.h"

namespace {

using ol::bilinear_kernel;
using ol_test::format;
using ol_test::rng;
using ol_test::stdout_capture;

constexpr short kPoison = 0x5A5A;
constexpr size_t kGuard = 64;  // poisoned elements after the expected output

// Output buffer with a poisoned tail.
std::vector<short> poisoned(size_t n) { return std::vector<short>(n + kGuard, kPoison); }

void expect_untouched(const std::vector<short>& v, size_t from) {
  for (size_t i = from; i < v.size(); ++i) ASSERT_EQ(v[i], kPoison) << "element " << i;
}

int align(bilinear_kernel k, ref::map16& m, unsigned s, std::vector<float>& boxes, unsigned pw,
          unsigned ph, short* out) {
  return ol::roi_align_fmap_int16_with(k, m.data(), s, boxes.data(), unsigned(boxes.size() / 4),
                                       m.w, m.h, pw, ph, m.c, out);
}

TEST(RoiAlign, MatchesReferenceOnRandomCases) {
  rng g(11);
  for (int iter = 0; iter < 300; ++iter) {
    const unsigned s = 1u << g.range(0, 4);
    ref::map16 m = ref::random_map(g, g.range(1, 12), g.range(1, 12), 16 * g.range(1, 4));
    const unsigned pw = g.range(1, 9), ph = g.range(1, 9);
    std::vector<float> boxes(4 * g.range(1, 4));
    for (size_t b = 0; b < boxes.size(); b += 4)
      ref::random_box(g, float(m.w * s), float(m.h * s), &boxes[b]);
    const size_t per_box = size_t(pw) * ph * m.c, n = per_box * boxes.size() / 4;
    std::vector<short> want(n);
    for (size_t b = 0; b < boxes.size() / 4; ++b)
      ref::roi_align_box(m, s, &boxes[4 * b], pw, ph, &want[b * per_box]);
    for (bilinear_kernel k : {bilinear_kernel::vector, bilinear_kernel::scalar}) {
      std::vector<short> got = poisoned(n);
      ASSERT_EQ(align(k, m, s, boxes, pw, ph, got.data()), 0);
      for (size_t i = 0; i < n; ++i)
        ASSERT_EQ(got[i], want[i]) << "iter " << iter << " element " << i << " kernel " << int(k);
      expect_untouched(got, n);
    }
  }
}

TEST(RoiAlign, WorkedExampleGives125) {
  // Row 0: 100 at column 0, 200 at column 1; row 1 must not contribute.
  ref::map16 m;
  m.w = 2, m.h = 2, m.c = 16;
  m.v.assign(4 * 16, 0);
  for (unsigned c = 0; c < 16; ++c) {
    m.v[0 * 16 + c] = 100, m.v[1 * 16 + c] = 200;
    m.v[2 * 16 + c] = -3000, m.v[3 * 16 + c] = 7000;
  }
  std::vector<float> box = {0, 0, 8, 0};
  std::vector<short> out = poisoned(16);
  ASSERT_EQ(roi_align_fmap_int16(m.data(), 16, box.data(), 1, 2, 2, 1, 1, 16, out.data()), 0);
  for (unsigned c = 0; c < 16; ++c) EXPECT_EQ(out[c], 125);
  expect_untouched(out, 16);

  // The same through the pyramid form: the box has zero area, so level 0.
  std::vector<short> other(16 * 4, 1);
  short* maps[3] = {m.data(), other.data(), other.data()};
  unsigned scales[3] = {16, 32, 64};
  std::vector<short> out4 = poisoned(16);
  ASSERT_EQ(roi_align_four_fmap_int16(maps, scales, box.data(), 1, 32, 32, 1, 1, 16, out4.data()),
            0);
  for (unsigned c = 0; c < 16; ++c) EXPECT_EQ(out4[c], 125);
  expect_untouched(out4, 16);
}

TEST(RoiAlign, SamplesOnCellsCopyTheMapAndEdgesRepeat) {
  rng g(3);
  ref::map16 m = ref::random_map(g, 7, 5, 32);
  // Centres of the grid cells fall on map cells 0..6 and 0..4.
  std::vector<float> box = {-0.5f, -0.5f, 6.5f, 4.5f};
  std::vector<short> out(m.v.size());
  ASSERT_EQ(align(bilinear_kernel::vector, m, 1, box, 7, 5, out.data()), 0);
  EXPECT_EQ(out, m.v);

  // A box reaching beyond the right and bottom edges: the samples beyond
  // them (x = 7, 8 and y = 5) repeat the last column and row. (Much farther
  // out the weights leave 16 bits and saturate; the random cases cover that.)
  box = {3.5f, 1.5f, 8.5f, 5.5f};  // samples at x = 4..8, y = 2..5
  out.assign(4 * 5 * 32, 0);
  ASSERT_EQ(align(bilinear_kernel::vector, m, 1, box, 5, 4, out.data()), 0);
  for (unsigned i = 0; i < 4; ++i)
    for (unsigned j = 0; j < 5; ++j)
      for (unsigned c = 0; c < 32; ++c)
        ASSERT_EQ(out[(i * 5 + j) * 32 + c], m.at(std::min(2 + i, 4u), std::min(4 + j, 6u), c));
}

TEST(RoiAlign, RoundingOfTheSum) {
  // acc = 4096 -> 1, -4096 -> 0, -4097 -> -1, and extreme weights and
  // values, whose sum leaves 32 bits, against the exact sum.
  struct sample {
    short p00, p01;
    int16_t w00, w01;
    short want;
  } cases[] = {
      {1, 0, 4096, 0, 1},
      {-1, 0, 4096, 0, 0},
      {-1, -1, 4096, 1, -1},
      {-32768, -32768, -32768, -32768, ref::round_q13(4 * 1073741824ll)},
      {32767, -32768, 32767, -32768, ref::round_q13(2 * 32767ll * 32767 + 2 * 1073741824ll)}};
  for (const sample& s : cases) {
    std::vector<short> a(16, s.p00), b(16, s.p01);
    ol::bilinear_taps t{a.data(), b.data(), a.data(), b.data(), s.w00, s.w01, 0, 0};
    if (s.p00 == -32768 || s.p00 == 32767) t.w10 = s.w00, t.w11 = s.w01;
    for (auto fn : {ol::bilinear_i16_vector, ol::bilinear_i16_scalar}) {
      std::vector<short> out(16, kPoison);
      fn(t, 16, out.data());
      for (short v : out) EXPECT_EQ(v, s.want) << s.p00 << " " << s.w00;
    }
  }
  EXPECT_EQ(ol::q13_weight(std::numeric_limits<float>::quiet_NaN()), 0);
  EXPECT_EQ(ol::q13_weight(-1e30f), -32768);
  EXPECT_EQ(ol::q13_weight(32767.9f), 32767);
  EXPECT_EQ(ol::q13_weight(-2.9f), -2);
}

TEST(RoiAlign, LevelThresholds) {
  struct level_case {
    float side;
    unsigned level;
  } cases[] = {{223, 0}, {224, 1}, {447, 1}, {448, 2}, {2000, 2}, {0, 0}, {1, 0}};
  for (const level_case& c : cases) {
    EXPECT_EQ(ol::roi_align_level(10, 20, 10 + c.side, 20 + c.side), c.level) << c.side;
  }
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  EXPECT_EQ(ol::roi_align_level(0, 0, 0, 500), 0u);    // zero area
  EXPECT_EQ(ol::roi_align_level(500, 0, 0, 500), 0u);  // negative area
  EXPECT_EQ(ol::roi_align_level(500, 500, 0, 0), 2u);  // both reversed: positive
  EXPECT_EQ(ol::roi_align_level(nan, 0, 10, 10), 0u);
  EXPECT_EQ(ol::roi_align_level(0, 0, inf, 10), 2u);
}

TEST(RoiAlign, FourLevelsMatchTheSelectedMap) {
  rng g(5);
  const unsigned img_w = 800, img_h = 608, c = 16;
  unsigned scales[3] = {8, 16, 32};
  ref::map16 lv[3];
  for (int k = 0; k < 3; ++k) lv[k] = ref::random_map(g, img_w / scales[k], img_h / scales[k], c);
  short* maps[3] = {lv[0].data(), lv[1].data(), lv[2].data()};
  std::vector<float> boxes;
  for (float side : {223.f, 224.f, 448.f, 2000.f, 0.f, 100.f, 300.f, 600.f}) {
    const float x = float(g.range(0, 300)), y = float(g.range(0, 300));
    boxes.insert(boxes.end(), {x, y, x + side, y + side});
  }
  for (int i = 0; i < 40; ++i) {
    boxes.resize(boxes.size() + 4);
    ref::random_box(g, img_w, img_h, &boxes[boxes.size() - 4]);
  }
  const unsigned n = unsigned(boxes.size() / 4), pw = 7, ph = 7;
  const size_t per_box = pw * ph * c;
  std::vector<short> got = poisoned(per_box * n);
  ASSERT_EQ(
      roi_align_four_fmap_int16(maps, scales, boxes.data(), n, img_w, img_h, pw, ph, c, got.data()),
      0);
  expect_untouched(got, per_box * n);
  for (unsigned b = 0; b < n; ++b) {
    const unsigned k = ref::level(&boxes[4 * b]);
    const unsigned square_levels[8] = {0, 1, 2, 2, 0, 0, 1, 2};
    if (b < 8) {
      EXPECT_EQ(k, square_levels[b]) << "box " << b;
    }
    std::vector<short> want(per_box);
    ref::roi_align_box(lv[k], scales[k], &boxes[4 * b], pw, ph, want.data());
    std::vector<short> one(per_box);
    ASSERT_EQ(roi_align_fmap_int16(maps[k], scales[k], &boxes[4 * b], 1, lv[k].w, lv[k].h, pw, ph,
                                   c, one.data()),
              0);
    ASSERT_EQ(one, want) << "box " << b;
    ASSERT_TRUE(std::equal(want.begin(), want.end(), got.begin() + b * per_box)) << "box " << b;
  }
  // The scalar kernel agrees on the whole list.
  std::vector<short> scalar(per_box * n);
  ol::roi_align_four_fmap_int16_with(bilinear_kernel::scalar, maps, scales, boxes.data(), n, img_w,
                                     img_h, pw, ph, c, scalar.data());
  EXPECT_TRUE(std::equal(scalar.begin(), scalar.end(), got.begin()));
}

TEST(RoiAlign, BadInputIsRefusedWithNothingWritten) {
  std::vector<short> map(16 * 4, 1), out = poisoned(16);
  std::vector<float> box = {0, 0, 4, 4};
  short* m = map.data();
  short* o = out.data();
  float* b = box.data();
  struct bad {
    int ret;
    std::string text;
  };
  auto run = [&](auto&& fn) {
    stdout_capture cap;
    const int r = fn();
    return bad{r, cap.end()};
  };
  auto one = [&](short* fm, unsigned s, float* bx, short* ro, unsigned ch) {
    return run([&] { return roi_align_fmap_int16(fm, s, bx, 1, 2, 2, 1, 1, ch, ro); });
  };
  bad r = one(nullptr, 16, b, o, 16);
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(r.text, format("Invalid FMap pointer: %p\n", static_cast<void*>(nullptr)));
  r = one(m, 0, b, o, 16);
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(r.text, "Invalid FMap scale: 0\n");
  r = one(m, 16, nullptr, o, 16);
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(r.text, format("Invalid proposal or roi_result: %p, %p\n", static_cast<void*>(nullptr),
                           static_cast<void*>(o)));
  r = one(m, 16, b, nullptr, 16);
  EXPECT_EQ(r.text, format("Invalid proposal or roi_result: %p, %p\n", static_cast<void*>(b),
                           static_cast<void*>(nullptr)));
  for (unsigned ch : {0u, 8u, 24u}) {
    r = one(m, 16, b, o, ch);
    EXPECT_EQ(r.ret, -1);
    EXPECT_EQ(r.text, format("Invalid channel: %u, should be multiple 16\n", ch));
  }
  // No boxes: success with nothing written, but the checks still run first.
  r = run([&] { return roi_align_fmap_int16(m, 16, b, 0, 2, 2, 1, 1, 16, o); });
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.text, "");
  r = run([&] { return roi_align_fmap_int16(m, 16, b, 0, 2, 2, 1, 1, 16, nullptr); });
  EXPECT_EQ(r.ret, -1);

  // Pyramid form.
  short* maps[3] = {m, nullptr, m};
  unsigned scales[3] = {8, 16, 32};
  r = run([&] { return roi_align_four_fmap_int16(maps, scales, b, 1, 32, 32, 1, 1, 16, o); });
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(r.text, format("Invalid FMap pointer: %p, %p, %p\n", static_cast<void*>(m),
                           static_cast<void*>(nullptr), static_cast<void*>(m)));
  r = run([&] { return roi_align_four_fmap_int16(nullptr, scales, b, 1, 32, 32, 1, 1, 16, o); });
  EXPECT_EQ(r.text, format("Invalid FMap pointer: %p, %p, %p\n", static_cast<void*>(nullptr),
                           static_cast<void*>(nullptr), static_cast<void*>(nullptr)));
  maps[1] = m;
  scales[2] = 0;
  r = run([&] { return roi_align_four_fmap_int16(maps, scales, b, 1, 32, 32, 1, 1, 16, o); });
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(r.text, "Invalid FMap scale: 8, 16, 0\n");
  r = run([&] { return roi_align_four_fmap_int16(maps, nullptr, b, 1, 32, 32, 1, 1, 16, o); });
  EXPECT_EQ(r.text, "Invalid FMap scale: 0, 0, 0\n");
  scales[2] = 32;
  r = run([&] { return roi_align_four_fmap_int16(maps, scales, b, 1, 32, 32, 1, 1, 8, o); });
  EXPECT_EQ(r.text, "Invalid channel: 8, should be multiple 16\n");
  r = run([&] { return roi_align_four_fmap_int16(maps, scales, nullptr, 1, 32, 32, 1, 1, 16, o); });
  EXPECT_EQ(r.text, format("Invalid proposal or roi_result: %p, %p\n", static_cast<void*>(nullptr),
                           static_cast<void*>(o)));
  r = run([&] { return roi_align_four_fmap_int16(maps, scales, b, 0, 32, 32, 1, 1, 16, o); });
  EXPECT_EQ(r.ret, 0);
  expect_untouched(out, 0);
}

TEST(RoiAlign, DegenerateMapsAndBoxesStayInBounds) {
  rng g(9);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  std::vector<float> boxes = {nan,  0,    4,   4,   0,     nan,   4,     4,     0,      0, inf, 4,
                              -inf, -inf, inf, inf, 1e30f, 1e30f, 2e30f, 2e30f, -1e30f, 0, 0,   1};
  // One-row and one-column maps, and NaN / huge boxes: exact against the
  // reference (every index stays inside; ASan would flag a stray read).
  for (auto wh : {std::pair<unsigned, unsigned>{1, 1}, {1, 5}, {5, 1}, {3, 4}}) {
    ref::map16 m = ref::random_map(g, wh.first, wh.second, 16);
    const unsigned n = unsigned(boxes.size() / 4);
    std::vector<short> want(3 * 2 * 16 * n);
    for (unsigned b = 0; b < n; ++b) ref::roi_align_box(m, 1, &boxes[4 * b], 3, 2, &want[b * 96]);
    for (bilinear_kernel k : {bilinear_kernel::vector, bilinear_kernel::scalar}) {
      std::vector<short> got = poisoned(want.size());
      ASSERT_EQ(align(k, m, 1, boxes, 3, 2, got.data()), 0);
      ASSERT_TRUE(std::equal(want.begin(), want.end(), got.begin()));
      expect_untouched(got, want.size());
    }
  }
  // A NaN box gives zeros: its weights are all 0.
  ref::map16 m = ref::random_map(g, 4, 4, 16);
  std::vector<float> nan_box = {nan, nan, nan, nan};
  std::vector<short> out(16 * 4, kPoison);
  ASSERT_EQ(align(bilinear_kernel::vector, m, 1, nan_box, 2, 2, out.data()), 0);
  for (short v : out) EXPECT_EQ(v, 0);

  // A level whose map has no column (stride above the image width): the
  // boxes that select it get zeros, and its map is never read.
  std::vector<short> l0(5 * 5 * 16, 7), l1(2 * 2 * 16, 7), l2(1, 7);
  short* maps[3] = {l0.data(), l1.data(), l2.data()};
  unsigned scales[3] = {8, 20, 64};
  std::vector<float> big = {0, 0, 40, 40, 0, 0, 1000, 1000};  // levels 0 and 2
  std::vector<short> res = poisoned(2 * 4 * 16);
  ASSERT_EQ(roi_align_four_fmap_int16(maps, scales, big.data(), 2, 40, 40, 2, 2, 16, res.data()),
            0);
  for (size_t i = 0; i < 64; ++i) EXPECT_EQ(res[i], 7);
  for (size_t i = 64; i < 128; ++i) EXPECT_EQ(res[i], 0);
  expect_untouched(res, 128);
}

// Grids larger than the table chunk, run on a thread with a 128 KiB stack.
struct big_grid_job {
  ref::map16* m;
  std::vector<float>* boxes;
  std::vector<short>* out;
  int ret;
};

void* run_big_grid(void* arg) {
  auto* j = static_cast<big_grid_job*>(arg);
  j->ret = align(bilinear_kernel::vector, *j->m, 2, *j->boxes, 300, 130, j->out->data());
  return nullptr;
}

TEST(RoiAlign, LargeGridsOnASmallStack) {
  rng g(21);
  ref::map16 m = ref::random_map(g, 9, 6, 16);
  std::vector<float> boxes = {-3, 1, 20, 11, 5, -4, 6, 30};
  const size_t per_box = 300 * 130 * 16;
  std::vector<short> want(2 * per_box), got = poisoned(2 * per_box);
  for (int b = 0; b < 2; ++b) ref::roi_align_box(m, 2, &boxes[4 * b], 300, 130, &want[b * per_box]);
  big_grid_job job{&m, &boxes, &got, -2};
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 128 * 1024), 0);
  pthread_t th;
  ASSERT_EQ(pthread_create(&th, &attr, run_big_grid, &job), 0);
  pthread_join(th, nullptr);
  pthread_attr_destroy(&attr);
  EXPECT_EQ(job.ret, 0);
  EXPECT_TRUE(std::equal(want.begin(), want.end(), got.begin()));
  expect_untouched(got, want.size());
}

}  // namespace
