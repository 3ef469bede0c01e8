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

// Record (y*W + x)*A + a is base anchor a shifted by (x*S, y*S), each sum
// in single precision; with suppression x in [0, img_w], y in [0, img_h].
std::vector<float> reference(const std::vector<float>& base, unsigned A, unsigned S, unsigned H,
                             unsigned W, bool suppress, unsigned img_h, unsigned img_w) {
  std::vector<float> out;
  for (unsigned y = 0; y < H; ++y)
    for (unsigned x = 0; x < W; ++x)
      for (unsigned a = 0; a < A; ++a)
        for (unsigned j = 0; j < 4; ++j) {
          const float shift = static_cast<float>(j % 2 ? y * S : x * S);
          float v = base[4 * a + j] + shift;
          if (suppress) {
            const float lim = static_cast<float>(j % 2 ? img_h : img_w);
            v = std::min(v, lim);
            v = std::max(v, 0.0f);
          }
          out.push_back(v);
        }
  return out;
}

std::vector<float> random_base(unsigned A, uint64_t seed) {
  ol_test::rng r(seed);
  std::vector<float> base;
  for (unsigned a = 0; a < A; ++a) {
    const float cx = r.uniform(-8.0f, 24.0f), cy = r.uniform(-8.0f, 24.0f);
    const float w = r.uniform(1.0f, 300.0f), h = r.uniform(1.0f, 300.0f);
    base.insert(base.end(), {cx - w, cy - h, cx + w, cy + h});
  }
  return base;
}

// Generates on a pool of `workers` threads into a poisoned buffer with a
// guard area behind it, checks the guard, returns the anchors.
std::vector<float> generate(unsigned workers, const std::vector<float>& base, unsigned A,
                            unsigned S, unsigned H, unsigned W, bool suppress, unsigned img_h,
                            unsigned img_w) {
  const size_t n = size_t{A} * H * W * 4;
  std::vector<float> buf(n + 64, k_poison);
  ol::thread_pool* pool = ol::thread_pool_create(workers);
  EXPECT_NE(pool, nullptr);
  ol::anchors_generate(pool, base.data(), buf.data(), A, S, H, W, suppress, img_h, img_w);
  ol::thread_pool_destroy(pool);
  for (size_t i = n; i < buf.size(); ++i) EXPECT_EQ(buf[i], k_poison) << i;
  buf.resize(n);
  return buf;
}

TEST(Anchors, BandSplit) {
  unsigned first, rows;
  for (unsigned k = 0; k < 9; ++k) {
    ol::anchor_band_rows(k, 7, &first, &rows);
    EXPECT_EQ(rows, 0u);
  }
  ol::anchor_band_rows(9, 7, &first, &rows);
  EXPECT_EQ(first, 0u);
  EXPECT_EQ(rows, 7u);
  for (unsigned k = 0; k < 9; ++k) {
    ol::anchor_band_rows(k, 23, &first, &rows);
    EXPECT_EQ(first, 2 * k);
    EXPECT_EQ(rows, 2u);
  }
  ol::anchor_band_rows(9, 23, &first, &rows);
  EXPECT_EQ(first, 18u);
  EXPECT_EQ(rows, 5u);
}

TEST(Anchors, MatchReferenceForOneAndEightWorkers) {
  struct shape {
    unsigned A, S, H, W;
  };
  // H below 10 (band 9 alone), 23 (bands of 2, last of 5), a VGG16 frame.
  for (const shape& sh : {shape{3, 16, 7, 5}, shape{9, 16, 23, 11}, shape{9, 16, 38, 63},
                          shape{1, 1, 1, 1}, shape{2, 8, 10, 3}}) {
    for (bool suppress : {false, true}) {
      const std::vector<float> base = random_base(sh.A, sh.H * 31 + sh.A);
      const unsigned img_h = sh.H * sh.S, img_w = sh.W * sh.S;
      const std::vector<float> ref =
          reference(base, sh.A, sh.S, sh.H, sh.W, suppress, img_h, img_w);
      const std::vector<float> one =
          generate(1, base, sh.A, sh.S, sh.H, sh.W, suppress, img_h, img_w);
      const std::vector<float> eight =
          generate(8, base, sh.A, sh.S, sh.H, sh.W, suppress, img_h, img_w);
      ASSERT_EQ(one.size(), ref.size());
      EXPECT_EQ(memcmp(one.data(), ref.data(), ref.size() * 4), 0) << sh.H << " " << suppress;
      EXPECT_EQ(memcmp(eight.data(), ref.data(), ref.size() * 4), 0) << sh.H << " " << suppress;
    }
  }
}

TEST(Anchors, SuppressionLimitsToTheImageSizeItself) {
  // One anchor reaching past every border of a 50 x 40 image.
  const std::vector<float> base = {-10.0f, -20.0f, 30.5f, 41.0f};
  const unsigned A = 1, S = 16, H = 3, W = 4, img_h = 40, img_w = 50;
  const std::vector<float> on = generate(2, base, A, S, H, W, true, img_h, img_w);
  // Cell (0, 0): negatives become 0, y2 = 41 becomes img_h exactly.
  EXPECT_EQ(on[0], 0.0f);
  EXPECT_FALSE(std::signbit(on[0]));
  EXPECT_EQ(on[1], 0.0f);
  EXPECT_EQ(on[2], 30.5f);
  EXPECT_EQ(on[3], 40.0f);
  // Cell (y 2, x 3): x2 = 30.5 + 48 becomes img_w exactly, x1 = 38 stays.
  const float* r = &on[(2 * W + 3) * 4];
  EXPECT_EQ(r[0], 38.0f);
  EXPECT_EQ(r[1], 12.0f);
  EXPECT_EQ(r[2], 50.0f);
  EXPECT_EQ(r[3], 40.0f);

  const std::vector<float> off = generate(2, base, A, S, H, W, false, img_h, img_w);
  EXPECT_EQ(off[0], -10.0f);
  EXPECT_EQ(off[1], -20.0f);
  r = &off[(2 * W + 3) * 4];
  EXPECT_EQ(r[2], 78.5f);
  EXPECT_EQ(r[3], 73.0f);
}

TEST(Anchors, SingleBandWorker) {
  // A band writes exactly its rows from `out` on and nothing for empty input.
  const std::vector<float> base = random_base(2, 5);
  std::vector<float> buf(2 * 3 * 2 * 4 + 8, k_poison);
  ol::anchors_generate_rows(base.data(), buf.data(), 2, 4, 3, 8, 2, false, 0, 0);
  const std::vector<float> ref = reference(base, 2, 8, 6, 3, false, 0, 0);
  EXPECT_EQ(memcmp(buf.data(), ref.data() + 4 * 3 * 2 * 4, 2 * 3 * 2 * 4 * 4), 0);
  for (size_t i = 48; i < buf.size(); ++i) EXPECT_EQ(buf[i], k_poison);
  std::vector<float> untouched(16, k_poison);
  ol::anchors_generate_rows(base.data(), untouched.data(), 0, 0, 3, 8, 2, false, 0, 0);
  ol::anchors_generate_rows(base.data(), untouched.data(), 1, 0, 0, 8, 2, false, 0, 0);
  ol::anchors_generate_rows(base.data(), untouched.data(), 1, 0, 3, 8, 0, false, 0, 0);
  EXPECT_EQ(untouched, std::vector<float>(16, k_poison));
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
