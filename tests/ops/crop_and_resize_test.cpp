// crop_and_resize_fmap_int16 against the plain reference (values and the
// "extr" lines), the worked cases, bad input and degenerate maps.
#include <limits>
#include <string>
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
using ol_test::stdout_capture;

constexpr short kPoison = 0x5A5A;
constexpr size_t kGuard = 64;
const float kNan = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

struct crop_result {
  int ret = 0;
  std::vector<short> out;  // crop output followed by kGuard poisoned elements
  std::string text;
};

crop_result crop(bilinear_kernel k, ref::map16& m, float extr, std::vector<float>& boxes,
                 unsigned cw, unsigned ch, float sx = 1, float sy = 1) {
  crop_result r;
  r.out.assign(size_t(cw) * ch * m.c * (boxes.size() / 4) + kGuard, kPoison);
  stdout_capture cap;
  r.ret = ol::crop_and_resize_fmap_int16_with(k, m.data(), sx, sy, extr, boxes.data(),
                                              unsigned(boxes.size() / 4), m.w, m.h, cw, ch, m.c,
                                              r.out.data());
  r.text = cap.end();
  return r;
}

// Both kernels give the reference's values, lines and untouched guard.
void expect_reference(ref::map16& m, float extr, std::vector<float>& boxes, unsigned cw,
                      unsigned ch, float sx = 1, float sy = 1) {
  crop_result want;
  const size_t per_box = size_t(cw) * ch * m.c;
  want.out.assign(per_box * (boxes.size() / 4) + kGuard, kPoison);
  for (size_t b = 0; b < boxes.size() / 4; ++b)
    ref::crop_box(m, sx, sy, extr, &boxes[4 * b], cw, ch, &want.out[b * per_box], &want.text);
  for (bool baseline : {true, false}) {  // the x86-64 baseline kernel as well
    ol::cpu_force_baseline = baseline;
    for (bilinear_kernel k : {bilinear_kernel::vector, bilinear_kernel::scalar}) {
      const crop_result got = crop(k, m, extr, boxes, cw, ch, sx, sy);
      ASSERT_EQ(got.ret, 0);
      ASSERT_EQ(got.out, want.out);
      ASSERT_EQ(got.text, want.text);
    }
  }
}

// Random maps, scales and boxes (inside, across an edge, far outside,
// reversed, empty); then one-column / one-row maps (W - 1 = 0: finite boxes
// sample column 0 or row 0), NaN and infinite boxes, a map without columns
// (never read, every element E with an "extr y" line), zero-sized crops
// (nothing written), and crops wider than one table chunk with columns
// outside on both sides (the lines come out in output order).
TEST(CropAndResize, MatchesReference) {
  rng g(17);
  for (int iter = 0; iter < 300; ++iter) {
    SCOPED_TRACE(iter);
    ref::map16 m = ref::random_map(g, g.range(1, 10), g.range(1, 10), 16 * g.range(1, 3));
    const float sx = g.range(0, 3) ? 1.0f : g.uniform(0.25f, 2.0f);
    const float sy = g.range(0, 3) ? 1.0f : g.uniform(0.25f, 2.0f);
    const float extr = g.uniform(-40000, 40000);
    const unsigned cw = g.range(1, 6), ch = g.range(1, 6);
    std::vector<float> boxes(4 * g.range(1, 3));
    for (size_t b = 0; b < boxes.size(); b += 4)
      ref::random_box(g, float(m.w), float(m.h), &boxes[b]);
    expect_reference(m, extr, boxes, cw, ch, sx, sy);
  }
  std::vector<float> boxes = {kNan, 0, 1, 1, 0,      0, kInf,  1, -kInf, -kInf, kInf, kInf,
                              0,    0, 1, 1, -1e30f, 0, 1e30f, 1, 0.2f,  0.3f,  0.7f, 0.9f};
  for (auto wh : {std::pair<unsigned, unsigned>{1, 1}, {1, 4}, {4, 1}, {3, 3}}) {
    ref::map16 m = ref::random_map(g, wh.first, wh.second, 16);
    for (unsigned n : {1u, 3u}) {
      SCOPED_TRACE(std::to_string(wh.first) + "x" + std::to_string(wh.second));
      expect_reference(m, 9, boxes, n, 2);
    }
  }
  ref::map16 empty = ref::random_map(g, 0, 3, 16);
  empty.v.assign(1, 0);  // a valid pointer
  std::vector<float> one = {0, 0, 1, 1}, wide = {-8, -2, 14, 7};
  expect_reference(empty, 5, one, 2, 2);
  ref::map16 m = ref::random_map(g, 6, 5, 16);
  expect_reference(m, 5, one, 0, 4);
  expect_reference(m, -3, wide, 300, 4);
}

TEST(CropAndResize, CentreAndExtrapolation) {
  rng g(2);
  ref::map16 m = ref::random_map(g, 5, 5, 32);
  // 1 x 1 crop of the whole map samples its centre cell (2, 2).
  std::vector<float> box = {0, 0, 5, 5};
  crop_result r = crop(bilinear_kernel::vector, m, 0, box, 1, 1);
  EXPECT_EQ(r.text, "");
  EXPECT_EQ(std::vector<short>(r.out.begin(), r.out.begin() + 32),
            std::vector<short>(&m.v[(2 * 5 + 2) * 32], &m.v[(2 * 5 + 3) * 32]));
  // Box (-W, -H, W, H), 3 x 2, edge to edge: row -4 is outside (E and an
  // "extr y" line per element), row 4 has columns at -4 (E and "extr x"
  // lines), 0 and 4.
  box = {-5, -5, 5, 5};
  r = crop(bilinear_kernel::vector, m, -1.7f, box, 3, 2);
  std::string want_text;
  for (int k = 0; k < 3 * 32; ++k) want_text += "extr y\n";
  for (int k = 0; k < 32; ++k) want_text += "extr x, -4.000000\n";
  EXPECT_EQ(r.text, want_text);
  std::vector<short> want(4 * 32, -1);
  want.insert(want.end(), &m.v[(4 * 5 + 0) * 32], &m.v[(4 * 5 + 1) * 32]);
  want.insert(want.end(), &m.v[(4 * 5 + 4) * 32], &m.v[(4 * 5 + 5) * 32]);
  EXPECT_EQ(std::vector<short>(r.out.begin(), r.out.begin() + 6 * 32), want);
  // E is the value truncated toward zero, low 16 bits; 0 for NaN and
  // infinities.
  const struct {
    float extr;
    short want;
  } cases[] = {{-1.7f, -1},        {2.9f, 2}, {40000.0f, -25536}, {-40000.0f, 25536},
               {1e10f, short(uint16_t(10000000000ll & 0xFFFF))}, {kNan, 0}, {kInf, 0}, {-kInf, 0}};
  for (const auto& v : cases) EXPECT_EQ(ol::extrapolation_bits(v.extr), v.want) << v.extr;
}

TEST(CropAndResize, BadInputIsRefusedWithNothingWritten) {
  std::vector<short> map(16 * 4, 1), out(16 + kGuard, kPoison);
  std::vector<float> box = {0, 0, 1, 1};
  void* const null = nullptr;
  auto run = [&](short* fm, float* b, unsigned n, unsigned ch, short* o, const std::string& msg) {
    stdout_capture cap;
    const int ret = crop_and_resize_fmap_int16(fm, 1, 1, 0, b, n, 2, 2, 1, 1, ch, o);
    EXPECT_EQ(ret, msg.empty() ? 0 : -1);
    EXPECT_EQ(cap.end(), msg);
  };
  run(nullptr, box.data(), 1, 16, out.data(), format("Invalid FMap pointer: %p\n", null));
  run(map.data(), nullptr, 1, 16, out.data(),
      format("Invalid proposal or roi_result: %p, %p\n", null, static_cast<void*>(out.data())));
  run(map.data(), box.data(), 1, 16, nullptr,
      format("Invalid proposal or roi_result: %p, %p\n", static_cast<void*>(box.data()), null));
  for (unsigned ch : {0u, 8u, 24u})
    run(map.data(), box.data(), 1, ch, out.data(),
        format("Invalid channel: %u, should be multiple 16\n", ch));
  run(map.data(), box.data(), 0, 16, out.data(), "");
  for (short v : out) ASSERT_EQ(v, kPoison);
}

}  // namespace
