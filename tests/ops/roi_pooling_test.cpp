// roi_pooling / roi_pooling_sign against the plain twin in roi_pooling_ref.h,
// plus the box-to-cell arithmetic on hand-checked cases.
#include <gtest/gtest.h>

#include <vector>

#include "common/test_util.h"
#include "ops/roi_pooling_ref.h"

namespace {

using ol_test::as_half;
using ol_test::h;

constexpr uint16_t k_poison = 0x5A5A;

struct map16 {
  int fmap_h, fmap_w, fmap_d;
  std::vector<uint16_t> data;  // exactly the layout's size (ASan sees overreads)
  map16(int hh, int ww, int dd, uint16_t fill = 0)
      : fmap_h(hh), fmap_w(ww), fmap_d(dd), data(size_t((dd + 15) / 16) * hh * ww * 16, fill) {}
  uint16_t& at(int c, int y, int x) {
    return data[((size_t(c / 16) * fmap_h + y) * fmap_w + x) * 16 + c % 16];
  }
};

// The library on a poisoned output of n elements (pitches are ignored); it
// always returns 0.
std::vector<uint16_t> pool(bool is_signed, std::vector<uint16_t> boxes, map16& m, int roi_num,
                           int pool_w, int pool_h, int fmap_scale, size_t n) {
  std::vector<uint16_t> out(n, k_poison);
  EXPECT_EQ(0, (is_signed ? roi_pooling_sign : roi_pooling)(
                   as_half(boxes), m.data.data(), out.data(), roi_num, pool_w, pool_h, -7,
                   fmap_scale, -9, m.fmap_h, m.fmap_w, m.fmap_d));
  return out;
}

// Library and twin on the same inputs; outputs include a poisoned guard zone
// after the last box.
void expect_same(bool is_signed, std::vector<uint16_t> boxes, map16& m, int roi_num, int pool_w,
                 int pool_h, int fmap_scale) {
  const size_t n = size_t(roi_num) * (m.fmap_d / 16) * pool_w * pool_h * 16 + 64;
  std::vector<uint16_t> want(n, k_poison);
  ol_ref::roi_pooling_ref(is_signed, boxes.data(), m.data.data(), want.data(), roi_num, pool_w,
                          pool_h, fmap_scale, m.fmap_h, m.fmap_w, m.fmap_d);
  ASSERT_EQ(want, pool(is_signed, boxes, m, roi_num, pool_w, pool_h, fmap_scale, n))
      << "signed " << is_signed << " map " << m.fmap_h << "x" << m.fmap_w << "x" << m.fmap_d
      << " pool " << pool_h << "x" << pool_w << " scale " << fmap_scale;
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
    map16 m(rng.range(1, side), rng.range(1, side), depths[rng.range(0, 5)]);
    for (auto& e : m.data) e = static_cast<uint16_t>(rng.next());
    const int scale = odd_bits ? rng.range(1, 20) : scales[rng.range(0, 2)];
    const int roi_num = rng.range(1, iter % 9 == 4 ? 40 : 4);
    std::vector<uint16_t> boxes;
    for (int r = 0; r < roi_num * 4; ++r) {
      const int extent = (r % 2 == 0 ? m.fmap_w : m.fmap_h) * scale;
      if (odd_bits)
        boxes.push_back(rng.next() & 1 ? unusual[rng.range(0, 11)] : uint16_t(rng.next()));
      else
        boxes.push_back(h(float(rng.range(-extent / 2 - 40, extent * 3 / 2 + 40)) +
                          rng.uniform(0.0f, 1.0f)));
    }
    // Mostly a few bins; sometimes many more bins than cells, where the
    // rounding of the fixed-point bin ends decides whether a bin is empty.
    const int max_bins = iter % 10 == 0 ? 300 : 12;
    expect_same(iter % 2, boxes, m, roi_num, rng.range(1, max_bins), rng.range(1, max_bins), scale);
  }
}

// Column ranges of the 7 bins of box x = 0..111 at stride 16: [0,2), [1,3),
// ..., [6,8). A map whose value grows with x gives each bin's last column,
// one whose value falls with x its first.
TEST(RoiPooling, WorkedExampleBinRanges) {
  map16 m(1, 10, 16);
  for (bool rising : {true, false}) {
    for (int x = 0; x < 10; ++x)
      for (int c = 0; c < 16; ++c) m.at(c, 0, x) = uint16_t(rising ? x + 1 : 100 - x);
    const auto out = pool(false, {h(0), h(0), h(111), h(0)}, m, 1, 7, 1, 16, 7 * 16);
    for (int pw = 0; pw < 7; ++pw) EXPECT_EQ(rising ? pw + 2 : 100 - pw, out[pw * 16 + 5]) << pw;
  }
}

// Coordinates are truncated toward zero before the +8 and the division:
// -20 -> cell 0, -30 -> cell -1 (so the box is one cell wider and its first
// bin falls off the map), 37.9 -> cell 2.
TEST(RoiPooling, NegativeCoordinatesTruncateTowardZero) {
  map16 m(1, 4, 16);
  for (int x = 0; x < 4; ++x)
    for (int c = 0; c < 16; ++c) m.at(c, 0, x) = uint16_t(10 + x);
  auto pool3 = [&](float x1, float x2) {
    const auto out = pool(false, {h(x1), h(0), h(x2), h(0)}, m, 1, 3, 1, 16, 3 * 16);
    return std::vector<uint16_t>{out[0], out[16], out[32]};
  };
  // start 0, end (8+8)/16 = 1: roi_w 2, bin_w 85 -> [0,1) [0,2) [1,2)
  EXPECT_EQ((std::vector<uint16_t>{10, 11, 11}), pool3(-20, 8));
  // start -1: roi_w 3, bin_w 128 -> [-1,0) empty, [0,1), [1,2)
  EXPECT_EQ((std::vector<uint16_t>{0, 10, 11}), pool3(-30, 8));
  // 37.9 -> (37+8)/16 = 2: a box from 37.9 to 37.9 is column 2 alone
  EXPECT_EQ((std::vector<uint16_t>{12, 12, 12}), pool3(37.9f, 37.9f));
}

// 0xFFFF is the largest unsigned element and -1 when signed (where it beats
// only the empty value); empty bins (boxes right of or below the map) are 0
// or 0x8000.
TEST(RoiPooling, SignednessAndEmptyBins) {
  map16 m(2, 2, 32);
  for (int c = 0; c < 32; ++c) m.at(c, 0, 0) = 0xFFFF;  // everything else 0
  const std::vector<uint16_t> box = {h(0), h(0), h(23), h(23)};  // cells 0..1 x 0..1
  for (bool is_signed : {false, true}) {
    const auto bins = pool(is_signed, box, m, 1, 2, 2, 16, 2 * 4 * 16);
    EXPECT_EQ(0xFFFF, bins[0 * 16 + 3]);  // bin (0, 0) is cell (0, 0) alone
    EXPECT_EQ(0, bins[3 * 16 + 3]);
    EXPECT_EQ(is_signed ? 0 : 0xFFFF, pool(is_signed, box, m, 1, 1, 1, 16, 2 * 16)[16 + 3]);
    const auto out = pool(is_signed, {h(48), h(0), h(80), h(30), h(0), h(60), h(30), h(90)}, m, 2,
                          2, 2, 16, 2 * 2 * 4 * 16);
    for (uint16_t e : out) ASSERT_EQ(is_signed ? 0x8000 : 0, e);
  }
}

// Up to 128 bins per cell on a box inside the map: no bin is empty (each
// bin end is rounded up). Beyond that, bins start to come out empty.
TEST(RoiPooling, MoreBinsThanCellsStillCoverACell) {
  map16 m(2, 3, 16, 7);
  const std::vector<uint16_t> box = {h(0), h(0), h(20), h(7)};  // cells 0..1 by 0..0
  for (int bins : {3, 17, 100, 127, 128}) {
    for (uint16_t e : pool(false, box, m, 1, 2 * bins, 1, 16, bins * 32)) ASSERT_EQ(7, e) << bins;
    for (uint16_t e : pool(false, box, m, 1, 1, bins, 16, bins * 16)) ASSERT_EQ(7, e) << bins;
  }
  EXPECT_EQ(0, pool(false, box, m, 1, 1, 129, 16, 129 * 16)[128 * 16]);  // bin_h 128 / 129 = 0
}

// Degenerate arguments write nothing.
TEST(RoiPooling, DegenerateArgumentsWriteNothing) {
  map16 m(2, 2, 16);
  struct args { int roi_num, pool_w, pool_h, fmap_scale, fmap_d; } cases[] = {
      {0, 2, 2, 16, 16}, {-1, 2, 2, 16, 16}, {1, 0, 2, 16, 16}, {1, 2, 0, 16, 16},
      {1, 2, 2, 16, 15}, {1, -3, 2, 16, 16}, {1, 2, 2, 0, 16},  {1, 2, 2, 16, -32}};
  for (bool is_signed : {false, true}) {
    for (const args& a : cases) {
      m.fmap_d = a.fmap_d;
      for (uint16_t e : pool(is_signed, {h(0), h(0), h(20), h(20)}, m, a.roi_num, a.pool_w,
                             a.pool_h, a.fmap_scale, 256))
        ASSERT_EQ(k_poison, e);
    }
  }
}

}  // namespace
