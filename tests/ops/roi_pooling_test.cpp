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
  map16(int hh, int ww, int dd)
      : fmap_h(hh), fmap_w(ww), fmap_d(dd), data(static_cast<size_t>((dd + 15) / 16) * hh * ww * 16) {}
  uint16_t& at(int c, int y, int x) {
    return data[((static_cast<size_t>(c / 16) * fmap_h + y) * fmap_w + x) * 16 + c % 16];
  }
};

using pool_fn = int (*)(half_float::half*, unsigned short*, unsigned short*, int, int, int, int,
                        int, int, int, int, int);

pool_fn fn(bool is_signed) { return is_signed ? roi_pooling_sign : roi_pooling; }

// Runs the library and the twin on the same inputs; outputs start poisoned
// and include a guard zone after the last box.
void expect_same(bool is_signed, std::vector<uint16_t> boxes, map16& m, int roi_num, int pool_w,
                 int pool_h, int fmap_scale) {
  const size_t cells = static_cast<size_t>(pool_w) * pool_h;
  const size_t n = static_cast<size_t>(roi_num) * (m.fmap_d / 16) * cells * 16 + 64;
  std::vector<uint16_t> got(n, k_poison), want(n, k_poison);
  ol_ref::roi_pooling_ref(is_signed, boxes.data(), m.data.data(), want.data(), roi_num, pool_w,
                          pool_h, fmap_scale, m.fmap_h, m.fmap_w, m.fmap_d);
  EXPECT_EQ(0, fn(is_signed)(as_half(boxes), m.data.data(), got.data(), roi_num, pool_w, pool_h,
                             -7, fmap_scale, -9, m.fmap_h, m.fmap_w, m.fmap_d));
  ASSERT_EQ(want, got) << "signed " << is_signed << " map " << m.fmap_h << "x" << m.fmap_w << "x"
                       << m.fmap_d << " pool " << pool_h << "x" << pool_w << " scale "
                       << fmap_scale;
}

// Random maps and boxes: inside, partly and wholly outside the map, reversed,
// smaller than the bin grid, 40 channels (last 8 ignored).
TEST(RoiPooling, MatchesTwinOnRandomInputs) {
  ol_test::rng rng(7);
  const int depths[] = {16, 32, 40, 48};
  const int scales[] = {1, 4, 16};
  for (int iter = 0; iter < 300; ++iter) {
    map16 m(rng.range(1, 12), rng.range(1, 12), depths[rng.range(0, 3)]);
    for (auto& e : m.data) e = static_cast<uint16_t>(rng.next());
    const int scale = scales[rng.range(0, 2)];
    const int roi_num = rng.range(1, 4);
    std::vector<uint16_t> boxes;
    for (int r = 0; r < roi_num * 4; ++r) {
      const int extent = (r % 2 == 0 ? m.fmap_w : m.fmap_h) * scale;
      boxes.push_back(h(static_cast<float>(rng.range(-extent / 2 - 40, extent * 3 / 2 + 40)) +
                        rng.uniform(0.0f, 1.0f)));
    }
    // Mostly a few bins; sometimes many more bins than cells, where the
    // rounding of the fixed-point bin ends decides whether a bin is empty.
    const int max_bins = iter % 10 == 0 ? 300 : 12;
    expect_same(iter % 2, boxes, m, roi_num, rng.range(1, max_bins), rng.range(1, max_bins), scale);
  }
}

// Arbitrary half patterns as coordinates (NaN, infinities, +-65504, huge
// negative): the result matches the twin and nothing is read outside the map.
TEST(RoiPooling, AnyCoordinateBitsStayInsideTheMap) {
  ol_test::rng rng(11);
  const uint16_t unusual[] = {0x7C00, 0xFC00, 0x7E00, 0xFE01, 0x7BFF, 0xFBFF, 0x7800,
                               0xF800, 0x77FF, 0x0000, 0x8000, 0x3C00};
  for (int iter = 0; iter < 200; ++iter) {
    map16 m(rng.range(1, 6), rng.range(1, 6), 32);
    for (auto& e : m.data) e = static_cast<uint16_t>(rng.next());
    std::vector<uint16_t> boxes(8);
    for (auto& b : boxes)
      b = (rng.next() & 1) ? unusual[rng.range(0, 11)] : static_cast<uint16_t>(rng.next());
    expect_same(iter % 2, boxes, m, 2, rng.range(1, 8), rng.range(1, 8), rng.range(1, 20));
  }
}

// Column ranges of the 7 bins of box x = 0..111 at stride 16: [0,2), [1,3),
// ..., [6,8). A map whose value grows with x gives each bin's last column,
// one whose value falls with x its first.
TEST(RoiPooling, WorkedExampleBinRanges) {
  map16 m(1, 10, 16);
  std::vector<uint16_t> box = {h(0), h(0), h(111), h(0)};
  for (bool rising : {true, false}) {
    for (int x = 0; x < 10; ++x)
      for (int c = 0; c < 16; ++c) m.at(c, 0, x) = static_cast<uint16_t>(rising ? x + 1 : 100 - x);
    std::vector<uint16_t> out(7 * 16, k_poison);
    roi_pooling(as_half(box), m.data.data(), out.data(), 1, 7, 1, 0, 16, 0, 1, 10, 16);
    for (int pw = 0; pw < 7; ++pw) {
      const int first = pw, last = pw + 1;
      EXPECT_EQ(rising ? last + 1 : 100 - first, out[pw * 16 + 5]) << "bin " << pw;
    }
  }
}

// Coordinates are truncated toward zero before the +8 and the division:
// -20 -> cell 0, -30 -> cell -1 (so the box is one cell wider and its first
// bin falls off the map), 37.9 -> cell 2.
TEST(RoiPooling, NegativeCoordinatesTruncateTowardZero) {
  map16 m(1, 4, 16);
  for (int x = 0; x < 4; ++x)
    for (int c = 0; c < 16; ++c) m.at(c, 0, x) = static_cast<uint16_t>(10 + x);
  auto pool3 = [&](float x1, float x2) {
    std::vector<uint16_t> box = {h(x1), h(0), h(x2), h(0)}, out(3 * 16, k_poison);
    roi_pooling(as_half(box), m.data.data(), out.data(), 1, 3, 1, 0, 16, 0, 1, 4, 16);
    return std::vector<uint16_t>{out[0], out[16], out[32]};
  };
  // start 0, end (8+8)/16 = 1: roi_w 2, bin_w 85 -> [0,1) [0,2) [1,2)
  EXPECT_EQ((std::vector<uint16_t>{10, 11, 11}), pool3(-20, 8));
  // start -1: roi_w 3, bin_w 128 -> [-1,0) empty, [0,1), [1,2)
  EXPECT_EQ((std::vector<uint16_t>{0, 10, 11}), pool3(-30, 8));
  // 37.9 -> (37+8)/16 = 2: a box from 37.9 to 37.9 is column 2 alone
  EXPECT_EQ((std::vector<uint16_t>{12, 12, 12}), pool3(37.9f, 37.9f));
}

// 0xFFFF is the largest unsigned element and -1 when signed.
TEST(RoiPooling, AllOnesElementUnsignedVersusSigned) {
  map16 m(2, 2, 16);
  for (int c = 0; c < 16; ++c) m.at(c, 0, 0) = 0xFFFF;  // everything else 0
  std::vector<uint16_t> box = {h(0), h(0), h(31), h(31)};  // cells 0..1 x 0..1
  std::vector<uint16_t> out(4 * 16, k_poison);
  roi_pooling(as_half(box), m.data.data(), out.data(), 1, 2, 2, 0, 16, 0, 2, 2, 16);
  EXPECT_EQ(0xFFFF, out[0 * 16 + 3]);  // bin (0,0) holds the element
  EXPECT_EQ(0, out[3 * 16 + 3]);
  roi_pooling_sign(as_half(box), m.data.data(), out.data(), 1, 2, 2, 0, 16, 0, 2, 2, 16);
  EXPECT_EQ(0, out[0 * 16 + 3]);  // 0 beats -1
  for (auto& e : m.data) e = 0xFFFF;
  roi_pooling_sign(as_half(box), m.data.data(), out.data(), 1, 2, 2, 0, 16, 0, 2, 2, 16);
  EXPECT_EQ(0xFFFF, out[0 * 16 + 3]);  // -1 beats the empty value
}

// Boxes right of or below the map: every bin empty, 0 or 0x8000.
TEST(RoiPooling, BoxesOutsideTheMapGiveEmptyBins) {
  map16 m(3, 3, 32);
  for (auto& e : m.data) e = 0x1234;
  for (bool is_signed : {false, true}) {
    std::vector<uint16_t> boxes = {h(48), h(0), h(80), h(30),    // right of the map
                                   h(0), h(60), h(30), h(90)};   // below it
    std::vector<uint16_t> out(2 * 2 * 4 * 16, k_poison);
    fn(is_signed)(as_half(boxes), m.data.data(), out.data(), 2, 2, 2, 0, 16, 0, 3, 3, 32);
    for (uint16_t e : out) ASSERT_EQ(is_signed ? 0x8000 : 0, e);
  }
}

// Up to 128 bins per cell on a box inside the map: no bin is empty (each
// bin end is rounded up). Beyond that, bins start to come out empty.
TEST(RoiPooling, MoreBinsThanCellsStillCoverACell) {
  map16 m(2, 3, 16);
  for (auto& e : m.data) e = 7;
  std::vector<uint16_t> box = {h(0), h(0), h(20), h(7)};  // cells 0..1 by 0..0
  for (int bins : {3, 17, 100, 127, 128}) {
    std::vector<uint16_t> out(static_cast<size_t>(bins) * 2 * 16, k_poison);
    roi_pooling(as_half(box), m.data.data(), out.data(), 1, 2 * bins, 1, 0, 16, 0, 2, 3, 16);
    for (uint16_t e : out) ASSERT_EQ(7, e) << bins;
    roi_pooling(as_half(box), m.data.data(), out.data(), 1, 1, bins, 0, 16, 0, 2, 3, 16);
    for (int k = 0; k < bins * 16; ++k) ASSERT_EQ(7, out[k]) << bins;
  }
  std::vector<uint16_t> out(129 * 16, k_poison);
  roi_pooling(as_half(box), m.data.data(), out.data(), 1, 1, 129, 0, 16, 0, 2, 3, 16);
  EXPECT_EQ(0, out[128 * 16]);  // bin_h = 128 / 129 = 0: empty
}

// The pooling stage's calling pattern with 40 channels: one box per call,
// stride pool_h * fmap_d * pool_w; the last 8 channels' share of each block
// stays untouched.
TEST(RoiPooling, FortyChannelsLeaveTheTailOfEachBlock) {
  ol_test::rng rng(3);
  map16 m(5, 6, 40);
  for (auto& e : m.data) e = static_cast<uint16_t>(rng.next());
  const int ph = 3, pw = 2, n = 4;
  std::vector<uint16_t> boxes;
  for (int i = 0; i < n * 4; ++i) boxes.push_back(h(static_cast<float>(rng.range(-10, 100))));
  const size_t stride = static_cast<size_t>(ph) * 40 * pw, pooled = static_cast<size_t>(ph) * 32 * pw;
  std::vector<uint16_t> got(n * stride, k_poison), want(pooled);
  for (int i = 0; i < n; ++i) {
    roi_pooling(as_half(boxes) + 4 * i, m.data.data(), got.data() + i * stride, 1, pw, ph, 0, 16, 0,
                5, 6, 40);
    ol_ref::roi_pooling_ref(false, boxes.data() + 4 * i, m.data.data(), want.data(), 1, pw, ph, 16,
                            5, 6, 40);
    for (size_t k = 0; k < stride; ++k)
      ASSERT_EQ(k < pooled ? want[k] : k_poison, got[i * stride + k]) << "box " << i << " " << k;
  }
}

// Degenerate arguments write nothing.
TEST(RoiPooling, DegenerateArgumentsWriteNothing) {
  map16 m(2, 2, 16);
  std::vector<uint16_t> box = {h(0), h(0), h(20), h(20)};
  struct args { int roi_num, pool_w, pool_h, fmap_scale, fmap_d; } cases[] = {
      {0, 2, 2, 16, 16}, {-1, 2, 2, 16, 16}, {1, 0, 2, 16, 16}, {1, 2, 0, 16, 16},
      {1, 2, 2, 16, 15}, {1, -3, 2, 16, 16}, {1, 2, 2, 0, 16},  {1, 2, 2, 16, -32}};
  for (bool is_signed : {false, true}) {
    for (const args& a : cases) {
      std::vector<uint16_t> out(256, k_poison);
      EXPECT_EQ(0, fn(is_signed)(as_half(box), m.data.data(), out.data(), a.roi_num, a.pool_w,
                                 a.pool_h, 0, a.fmap_scale, 0, 2, 2, a.fmap_d));
      for (uint16_t e : out) ASSERT_EQ(k_poison, e);
    }
  }
}

}  // namespace
