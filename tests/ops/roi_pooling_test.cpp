// roi_pooling / roi_pooling_sign against the plain twin in roi_pooling_ref.h
// on random and degenerate input, and the twin itself pinned on worked
// examples of the box-to-cell arithmetic.
#include <gtest/gtest.h>

#include <vector>

#include "common/test_util.h"
#include "ops/roi_pooling_ref.h"

namespace {

using ol_test::h;

constexpr uint16_t k_poison = 0x5A5A;

struct pool_case {
  bool is_signed;
  int fmap_h, fmap_w, fmap_d;
  std::vector<uint16_t> map = {}, boxes = {};  // the map exactly the layout's size (ASan sees overreads)
  int roi_num = 1, pool_w = 1, pool_h = 1, fmap_scale = 16;
};

// Library and twin on the same case, each into a poisoned output with a guard
// zone after the last box; they must agree. Returns the library's output.
std::vector<uint16_t> pool(pool_case c) {
  auto pos = [](int v) { return size_t(std::max(v, 0)); };
  const size_t n = pos(c.roi_num) * pos(c.fmap_d / 16) * pos(c.pool_w) * pos(c.pool_h) * 16 + 64;
  std::vector<uint16_t> want(n, k_poison), got(n, k_poison);
  ol_ref::roi_pooling_ref(c.is_signed, c.boxes.data(), c.map.data(), want.data(), c.roi_num,
                          c.pool_w, c.pool_h, c.fmap_scale, c.fmap_h, c.fmap_w, c.fmap_d);
  EXPECT_EQ(0, (c.is_signed ? roi_pooling_sign : roi_pooling)(
                   ol_test::as_half(c.boxes), c.map.data(), got.data(), c.roi_num, c.pool_w,
                   c.pool_h, -7, c.fmap_scale, -9, c.fmap_h, c.fmap_w, c.fmap_d));
  EXPECT_EQ(want, got) << "signed " << c.is_signed << " map " << c.fmap_h << "x" << c.fmap_w << "x"
                       << c.fmap_d << " pool " << c.pool_h << "x" << c.pool_w << " scale "
                       << c.fmap_scale;
  return got;
}

// Random maps and boxes: inside, partly and wholly outside the map, reversed,
// smaller than the bin grid, 40 and 136 channels (last 8 ignored), runs of
// 8 channel blocks and the remainders (up to 17 blocks), up to 40 boxes. One case in three
// takes arbitrary half patterns as coordinates (NaN, infinities, +-65504,
// huge negative): the result matches and nothing is read outside the map.
TEST(RoiPooling, MatchesTwinOnRandomInputs) {
  ol_test::rng rng(7);
  const int depths[] = {16, 32, 40, 48, 136, 272}, scales[] = {1, 4, 16};
  const uint16_t unusual[] = {0x7C00, 0xFC00, 0x7E00, 0xFE01, 0x7BFF, 0xFBFF,
                              0x7800, 0xF800, 0x77FF, 0x0000, 0x8000, 0x3C00};
  for (int iter = 0; iter < 450; ++iter) {
    const bool odd_bits = iter % 3 == 2;
    const int side = odd_bits ? 6 : 12;
    pool_case c{iter % 2 == 1, rng.range(1, side), rng.range(1, side), depths[rng.range(0, iter % 10 ? 5 : 2)]};
    c.map.resize(size_t(c.fmap_d / 16) * c.fmap_h * c.fmap_w * 16);
    for (auto& e : c.map) e = static_cast<uint16_t>(rng.next());
    c.fmap_scale = odd_bits ? rng.range(1, 20) : scales[rng.range(0, 2)];
    c.roi_num = rng.range(1, iter % 9 == 4 && iter % 10 ? 40 : 4);
    for (int r = 0; r < c.roi_num * 4; ++r) {
      const int extent = (r % 2 == 0 ? c.fmap_w : c.fmap_h) * c.fmap_scale;
      if (odd_bits)
        c.boxes.push_back(rng.next() & 1 ? unusual[rng.range(0, 11)] : uint16_t(rng.next()));
      else
        c.boxes.push_back(h(float(rng.range(-extent / 2 - 40, extent * 3 / 2 + 40)) +
                            rng.uniform(0.0f, 1.0f)));
    }
    // Mostly a few bins; sometimes many more bins than cells, where the
    // rounding of the fixed-point bin ends decides whether a bin is empty.
    const int max_bins = iter % 10 == 0 ? 300 : 12;
    c.pool_w = rng.range(1, max_bins), c.pool_h = rng.range(1, max_bins);
    pool(c);
    ASSERT_FALSE(HasFailure()) << "iter " << iter;
  }
}

// Hand-checked results on a one-row map of 16 channels whose column x holds
// row[x] in every channel, stride 16, one bin row; `want` per bin (a single
// value: every bin). Each case also pins the twin.
TEST(RoiPooling, WorkedExamples) {
  const struct {
    bool is_signed;
    std::vector<uint16_t> row;
    float x1, y1, x2;
    int pool_w;
    std::vector<uint16_t> want;
  } cases[] = {
      // x = 0..111: cells 0..7, roi_w 8, bin_w 1024 / 7 = 146: bins [0,2),
      // [1,3), ..., [6,8) give their last (rising) or first (falling) column.
      {false, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 0, 0, 111, 7, {2, 3, 4, 5, 6, 7, 8}},
      {false, {100, 99, 98, 97, 96, 95, 94, 93}, 0, 0, 111, 7, {100, 99, 98, 97, 96, 95, 94}},
      // Truncation toward zero before + 8: -20 -> cell 0 (roi_w 2, bin_w 85:
      // [0,1) [0,2) [1,2)); -30 -> cell -1 (roi_w 3: [-1,0) is empty);
      // 37.9 -> (37 + 8) / 16 = 2.
      {false, {10, 11, 12, 13}, -20, 0, 8, 3, {10, 11, 11}},
      {false, {10, 11, 12, 13}, -30, 0, 8, 3, {0, 10, 11}},
      {false, {10, 11, 12, 13}, 37.9f, 0, 37.9f, 3, {12}},
      // 0xFFFF is the largest unsigned element and -1 when signed, where it
      // beats only the empty value.
      {false, {0xFFFF, 0}, 0, 0, 23, 2, {0xFFFF, 0}},
      {true, {0xFFFF, 0}, 0, 0, 23, 2, {0xFFFF, 0}},
      {false, {0xFFFF, 0}, 0, 0, 23, 1, {0xFFFF}},
      {true, {0xFFFF, 0}, 0, 0, 23, 1, {0}},
      // Boxes right of or below the map: empty bins, 0 or 0x8000.
      {false, {5, 6}, 48, 0, 80, 2, {0}},
      {true, {5, 6}, 48, 0, 80, 2, {0x8000}},
      {true, {5, 6}, 0, 60, 30, 2, {0x8000}},
      // Up to 128 bins per cell no bin is empty (bin ends round up); with
      // 129 bin_w = 128 / 129 = 0 and every bin is.
      {false, {7, 7, 7}, 0, 0, 20, 256, {7}},
      {false, {7, 7, 7}, 0, 0, 7, 128, {7}},
      {false, {7, 7, 7}, 0, 0, 7, 129, {0}},
  };
  for (const auto& e : cases) {
    pool_case c{e.is_signed, 1, int(e.row.size()), 16, {}, {h(e.x1), h(e.y1), h(e.x2), h(e.y1)},
                1, e.pool_w, 1, 16};
    for (uint16_t v : e.row) c.map.insert(c.map.end(), 16, v);
    const std::vector<uint16_t> out = pool(c);
    for (int b = 0; b < e.pool_w; ++b)
      for (int lane = 0; lane < 16; ++lane)
        ASSERT_EQ(out[b * 16 + lane], e.want[e.want.size() == 1 ? 0 : b]) << e.x1 << " bin " << b;
  }
}

// Degenerate arguments write nothing.
TEST(RoiPooling, DegenerateArgumentsWriteNothing) {
  const int cases[][5] = {  // roi_num, pool_w, pool_h, fmap_scale, fmap_d
      {0, 2, 2, 16, 16}, {-1, 2, 2, 16, 16}, {1, 0, 2, 16, 16}, {1, 2, 0, 16, 16},
      {1, 2, 2, 16, 15}, {1, -3, 2, 16, 16}, {1, 2, 2, 0, 16},  {1, 2, 2, 16, -32}};
  for (bool is_signed : {false, true}) {
    for (const auto& a : cases) {
      const pool_case c{is_signed, 2, 2, a[4], std::vector<uint16_t>(64, 1),
                        {h(0), h(0), h(20), h(20)}, a[0], a[1], a[2], a[3]};
      for (uint16_t e : pool(c)) ASSERT_EQ(k_poison, e);
    }
  }
}

}  // namespace
