// ctest-labels: threaded
#include "frcnn/anchors.h"

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "common/test_util.h"

namespace {

const float k_poison = -12345.5f;
constexpr size_t k_guard = 64;

// A map of H x W cells at stride S with A anchors per cell, limited (with
// suppress) to an img_h x img_w image.
struct grid {
  unsigned A, S, H, W;
  bool suppress;
  unsigned img_h, img_w;
};

// Record (y*W + x)*A + a is base anchor a shifted by (x*S, y*S), each sum
// in single precision; with suppression x is limited to [0, img_w] and y to
// [0, img_h], a NaN ending at the upper limit and a negative at +0. A stride
// beyond INT_MAX is a negative int and its shifts do not overflow. Followed
// by k_guard poisoned floats.
std::vector<float> reference(const std::vector<float>& base, const grid& g) {
  std::vector<float> out;
  for (unsigned y = 0; y < g.H; ++y)
    for (unsigned x = 0; x < g.W; ++x)
      for (unsigned a = 0; a < g.A; ++a)
        for (unsigned j = 0; j < 4; ++j) {
          float v = base[4 * a + j] + static_cast<float>(int64_t{j % 2 ? y : x} * static_cast<int32_t>(g.S));
          const float hi = static_cast<float>(j % 2 ? g.img_h : g.img_w);
          if (g.suppress) v = std::isnan(v) || v > hi ? hi : (v > 0.0f ? v : 0.0f);
          out.push_back(v);
        }
  out.resize(out.size() + k_guard, k_poison);
  return out;
}

// Random base anchors around the origin; with `nan`, one coordinate of the
// first anchor is NaN.
std::vector<float> random_base(unsigned A, uint64_t seed, bool nan = false) {
  ol_test::rng r(seed);
  std::vector<float> base;
  for (unsigned a = 0; a < A; ++a) {
    const float cx = r.uniform(-8.0f, 24.0f), cy = r.uniform(-8.0f, 24.0f);
    const float w = r.uniform(1.0f, 300.0f), h = r.uniform(1.0f, 300.0f);
    base.insert(base.end(), {cx - w, cy - h, cx + w, cy + h});
  }
  if (nan) base[seed % 4] = NAN;
  return base;
}

// Generates on a pool of `workers` threads into a poisoned buffer with a
// guard area behind it.
std::vector<float> generate(unsigned workers, const std::vector<float>& base, const grid& g) {
  std::vector<float> buf(size_t{g.A} * g.H * g.W * 4 + k_guard, k_poison);
  ol::thread_pool* pool = ol::thread_pool_create(workers);
  EXPECT_NE(pool, nullptr);
  ol::anchors_generate(pool, base.data(), buf.data(), g.A, g.S, g.H, g.W, g.suppress, g.img_h, g.img_w);
  ol::thread_pool_destroy(pool);
  return buf;
}

TEST(Anchors, MatchReferenceForOneAndEightWorkers) {
  // Ten bands of H / 10 rows, the last one also takes the remainder: H below
  // 10 (band 9 alone), 23 (bands of 2, last of 5), a VGG16 frame; a NaN base
  // coordinate; a hostile stride (found by fuzzing).
  const struct { unsigned A, S, H, W; bool nan; } shapes[] = {
      {3, 16, 7, 5, false}, {9, 16, 23, 11, false}, {9, 16, 38, 63, false}, {1, 1, 1, 1, false},
      {2, 8, 10, 3, true},  {3, 16, 12, 4, true},   {2, 0x80808080u, 5, 5, false}};
  for (const auto& sh : shapes)
    for (bool suppress : {false, true}) {
      const std::vector<float> base = random_base(sh.A, sh.H * 31 + sh.A, sh.nan);
      const grid g{sh.A, sh.S, sh.H, sh.W, suppress, std::min(sh.H * sh.S, 4096u), std::min(sh.W * sh.S, 4096u)};
      const auto want = reference(base, g);
      for (unsigned workers : {1u, 8u})
        EXPECT_EQ(memcmp(want.data(), generate(workers, base, g).data(), want.size() * sizeof(float)), 0)
            << sh.H << " " << suppress << " " << workers;
    }
}

// The reference pinned on one anchor reaching past every border of a 50 x
// 40 image, with a NaN y1, at cells (0, 0) and (y 2, x 3) of a 3 x 4 map:
// negatives become +0, NaN and the upper limits are the image size itself.
TEST(Anchors, SuppressionLimitsToTheImageSizeItself) {
  const std::vector<float> on = generate(2, {-10.0f, NAN, 30.5f, 41.0f}, {1, 16, 3, 4, true, 40, 50});
  EXPECT_EQ(std::vector<float>(on.begin(), on.begin() + 4), (std::vector<float>{0, 40, 30.5f, 40}));
  EXPECT_FALSE(std::signbit(on[0]));
  EXPECT_EQ(std::vector<float>(on.begin() + 44, on.begin() + 48), (std::vector<float>{38, 40, 50, 40}));
}

TEST(Anchors, RefusedBandsStayUntouched) {
  const std::vector<float> base = random_base(1, 1);
  std::vector<float> buf(4 * 12, k_poison);
  ol_test::stdout_capture cap;
  ol::anchors_generate(nullptr, base.data(), buf.data(), 1, 16, 12, 1, false, 0, 0);
  std::string expect;
  for (int k = 0; k < 10; ++k) expect += "error: invalid params\nfatal: add task fail\n";
  EXPECT_EQ(cap.end(), expect);
  EXPECT_EQ(buf, std::vector<float>(4 * 12, k_poison));
}

}  // namespace
