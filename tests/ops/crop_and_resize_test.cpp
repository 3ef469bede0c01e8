// crop_and_resize_fmap_int16 against the plain reference (values and the
// "extr" lines), the worked cases, bad input and degenerate maps.
#include <limits>
#include <string>
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
constexpr size_t kGuard = 64;

struct crop_result {
  int ret;
  std::vector<short> out;  // crop output followed by kGuard poisoned elements
  std::string text;
};

crop_result crop(bilinear_kernel k, ref::map16& m, float sx, float sy, float extr,
                 std::vector<float>& boxes, unsigned cw, unsigned ch) {
  crop_result r;
  r.out.assign(size_t(cw) * ch * m.c * (boxes.size() / 4) + kGuard, kPoison);
  stdout_capture cap;
  r.ret = ol::crop_and_resize_fmap_int16_with(k, m.data(), sx, sy, extr, boxes.data(),
                                              unsigned(boxes.size() / 4), m.w, m.h, cw, ch, m.c,
                                              r.out.data());
  r.text = cap.end();
  return r;
}

// Reference output (with the poisoned tail) and text for a box list.
crop_result reference(const ref::map16& m, float sx, float sy, float extr,
                      const std::vector<float>& boxes, unsigned cw, unsigned ch) {
  crop_result r{0, {}, {}};
  const size_t per_box = size_t(cw) * ch * m.c;
  r.out.assign(per_box * (boxes.size() / 4) + kGuard, kPoison);
  for (size_t b = 0; b < boxes.size() / 4; ++b)
    ref::crop_box(m, sx, sy, extr, &boxes[4 * b], cw, ch, &r.out[b * per_box], &r.text);
  return r;
}

void expect_same(const crop_result& got, const crop_result& want, const std::string& what) {
  ASSERT_EQ(got.ret, 0) << what;
  ASSERT_EQ(got.out, want.out) << what;
  ASSERT_EQ(got.text, want.text) << what;
}

TEST(CropAndResize, MatchesReferenceOnRandomCases) {
  rng g(17);
  for (int iter = 0; iter < 300; ++iter) {
    ref::map16 m = ref::random_map(g, g.range(1, 10), g.range(1, 10), 16 * g.range(1, 3));
    const float sx = g.range(0, 3) ? 1.0f : g.uniform(0.25f, 2.0f);
    const float sy = g.range(0, 3) ? 1.0f : g.uniform(0.25f, 2.0f);
    const float extr = g.uniform(-40000, 40000);
    const unsigned cw = g.range(1, 6), ch = g.range(1, 6);
    std::vector<float> boxes(4 * g.range(1, 3));
    for (size_t b = 0; b < boxes.size(); b += 4)
      ref::random_box(g, float(m.w), float(m.h), &boxes[b]);
    const crop_result want = reference(m, sx, sy, extr, boxes, cw, ch);
    for (bilinear_kernel k : {bilinear_kernel::vector, bilinear_kernel::scalar})
      expect_same(crop(k, m, sx, sy, extr, boxes, cw, ch), want, "iter " + std::to_string(iter));
  }
}

TEST(CropAndResize, CentreAndIdentity) {
  rng g(2);
  ref::map16 m = ref::random_map(g, 5, 7, 32);
  // 1 x 1 crop of the whole map samples its centre cell (2, 3).
  std::vector<float> box = {0, 0, 5, 7};
  crop_result r = crop(bilinear_kernel::vector, m, 1, 1, 0, box, 1, 1);
  ASSERT_EQ(r.ret, 0);
  for (unsigned c = 0; c < 32; ++c) EXPECT_EQ(r.out[c], m.at(3, 2, c));
  // A W x H crop of the box (0, 0, W, H) reproduces the map, silently.
  r = crop(bilinear_kernel::vector, m, 1, 1, 0, box, 5, 7);
  ASSERT_EQ(r.ret, 0);
  EXPECT_TRUE(std::equal(m.v.begin(), m.v.end(), r.out.begin()));
  EXPECT_EQ(r.text, "");
  for (size_t i = m.v.size(); i < r.out.size(); ++i) ASSERT_EQ(r.out[i], kPoison);
}

TEST(CropAndResize, ExtrapolationLinesAndValues) {
  rng g(4);
  ref::map16 m = ref::random_map(g, 5, 4, 16);
  // Box from (-W, 0) to (W, H), 3 x 2: columns at -4, 0, 4; rows at 0, 3.
  std::vector<float> box = {-5, 0, 5, 4};
  crop_result r = crop(bilinear_kernel::vector, m, 1, 1, -1.7f, box, 3, 2);
  ASSERT_EQ(r.ret, 0);
  std::string want_text;
  for (int row = 0; row < 2; ++row)
    for (int c = 0; c < 16; ++c) want_text += "extr x, -4.000000\n";
  EXPECT_EQ(r.text, want_text);
  for (unsigned i = 0; i < 2; ++i) {
    for (unsigned c = 0; c < 16; ++c) {
      EXPECT_EQ(r.out[(i * 3 + 0) * 16 + c], -1);
      EXPECT_EQ(r.out[(i * 3 + 1) * 16 + c], m.at(i * 3, 0, c));
      EXPECT_EQ(r.out[(i * 3 + 2) * 16 + c], m.at(i * 3, 4, c));
    }
  }
  // A box wholly above the map: every element of every row is E, one
  // "extr y" line each.
  box = {0, -20, 5, -10};
  struct value_case {
    float extr;
    short want;
  } cases[] = {{-1.7f, -1},
               {2.9f, 2},
               {40000.0f, -25536},
               {-40000.0f, 25536},
               {1e10f, short(uint16_t(10000000000ll & 0xFFFF))},
               {std::numeric_limits<float>::quiet_NaN(), 0},
               {std::numeric_limits<float>::infinity(), 0}};
  for (const value_case& v : cases) {
    r = crop(bilinear_kernel::vector, m, 1, 1, v.extr, box, 2, 3);
    ASSERT_EQ(r.ret, 0);
    std::string lines;
    for (int k = 0; k < 2 * 3 * 16; ++k) lines += "extr y\n";
    EXPECT_EQ(r.text, lines);
    for (int k = 0; k < 2 * 3 * 16; ++k) ASSERT_EQ(r.out[k], v.want) << v.extr;
    EXPECT_EQ(ol::extrapolation_bits(v.extr), v.want);
  }
}

TEST(CropAndResize, BadInputIsRefusedWithNothingWritten) {
  std::vector<short> map(16 * 4, 1), out(16 + kGuard, kPoison);
  std::vector<float> box = {0, 0, 1, 1};
  auto run = [&](short* fm, float* b, unsigned n, unsigned ch, short* o, std::string* text) {
    stdout_capture cap;
    const int r = crop_and_resize_fmap_int16(fm, 1, 1, 0, b, n, 2, 2, 1, 1, ch, o);
    *text = cap.end();
    return r;
  };
  std::string text;
  EXPECT_EQ(run(nullptr, box.data(), 1, 16, out.data(), &text), -1);
  EXPECT_EQ(text, format("Invalid FMap pointer: %p\n", static_cast<void*>(nullptr)));
  EXPECT_EQ(run(map.data(), nullptr, 1, 16, out.data(), &text), -1);
  EXPECT_EQ(text, format("Invalid proposal or roi_result: %p, %p\n", static_cast<void*>(nullptr),
                         static_cast<void*>(out.data())));
  EXPECT_EQ(run(map.data(), box.data(), 1, 16, nullptr, &text), -1);
  EXPECT_EQ(text, format("Invalid proposal or roi_result: %p, %p\n", static_cast<void*>(box.data()),
                         static_cast<void*>(nullptr)));
  for (unsigned ch : {0u, 8u, 24u}) {
    EXPECT_EQ(run(map.data(), box.data(), 1, ch, out.data(), &text), -1);
    EXPECT_EQ(text, format("Invalid channel: %u, should be multiple 16\n", ch));
  }
  EXPECT_EQ(run(map.data(), box.data(), 0, 16, out.data(), &text), 0);
  EXPECT_EQ(text, "");
  for (short v : out) ASSERT_EQ(v, kPoison);
}

TEST(CropAndResize, DegenerateMapsAndBoxes) {
  rng g(8);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  std::vector<float> boxes = {nan, 0, 1, 1, 0,      0, inf,   1, -inf, -inf, inf,  inf,
                              0,   0, 1, 1, -1e30f, 0, 1e30f, 1, 0.2f, 0.3f, 0.7f, 0.9f};
  // One-column / one-row maps (W - 1 = 0: finite boxes sample column 0 or
  // row 0), NaN and infinite boxes: same values and lines as the reference.
  for (auto wh : {std::pair<unsigned, unsigned>{1, 1}, {1, 4}, {4, 1}, {3, 3}}) {
    ref::map16 m = ref::random_map(g, wh.first, wh.second, 16);
    for (unsigned n : {1u, 3u}) {
      const crop_result want = reference(m, 1, 1, 9, boxes, n, 2);
      for (bilinear_kernel k : {bilinear_kernel::vector, bilinear_kernel::scalar})
        expect_same(crop(k, m, 1, 1, 9, boxes, n, 2), want, std::to_string(wh.first));
    }
  }
  // A map without rows or columns: every element is E with an "extr y"
  // line; the map is never read.
  ref::map16 empty;
  empty.w = 0, empty.h = 3, empty.c = 16;
  empty.v.assign(1, 0);
  std::vector<float> one = {0, 0, 1, 1};
  crop_result r = crop(bilinear_kernel::vector, empty, 1, 1, 5, one, 2, 2);
  ASSERT_EQ(r.ret, 0);
  EXPECT_EQ(r.out, reference(empty, 1, 1, 5, one, 2, 2).out);
  EXPECT_EQ(r.text.size(), 64 * std::string("extr y\n").size());
  // Zero-sized crops write nothing.
  ref::map16 m = ref::random_map(g, 3, 3, 16);
  r = crop(bilinear_kernel::vector, m, 1, 1, 5, one, 0, 4);
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.text, "");
  for (short v : r.out) ASSERT_EQ(v, kPoison);
}

TEST(CropAndResize, WideCropsKeepRowMajorLineOrder) {
  // More columns than one table chunk, some outside on both sides, and rows
  // outside: the lines must come out in output order.
  rng g(13);
  ref::map16 m = ref::random_map(g, 6, 5, 16);
  std::vector<float> boxes = {-8, -2, 14, 7};
  const crop_result want = reference(m, 1, 1, -3, boxes, 300, 4);
  for (bilinear_kernel k : {bilinear_kernel::vector, bilinear_kernel::scalar})
    expect_same(crop(k, m, 1, 1, -3, boxes, 300, 4), want, "wide");
}

}  // namespace
