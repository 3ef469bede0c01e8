// The candidate ordering: the histogram tables and the resumable walk
// against a plain walk over the visiting order, and both rpn_sort paths.
#include "frcnn/hist_sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "common/alloc.h"
#include "common/test_util.h"
#include "frcnn/hist_fixture.h"

namespace {

using ol_test::hist_fixture;
using u16v = std::vector<uint16_t>;
using u32v = std::vector<uint32_t>;

// The first `written` numbers of a buffer filled with 0xA5A5A5A5 beforehand:
// nothing may be written past them.
u32v written_part(u32v out, size_t written) {
  const size_t n = std::min(out.size(), written);
  EXPECT_EQ(u32v(out.begin() + n, out.end()), u32v(out.size() - n, 0xA5A5A5A5));
  out.resize(n);
  return out;
}

u32v walk(hist_fixture& fx, uint32_t n, bool restart) {
  u32v out(n + 8, 0xA5A5A5A5);
  const uint32_t written = ol::hist_walk(out.data(), n, &fx.t, restart);
  return written_part(out, written);
}

// Walks everything in pieces of the given sizes (the last one repeated).
u32v walk_in_pieces(hist_fixture& fx, const u32v& pieces) {
  u32v all;
  for (size_t k = 0;; ++k) {
    const uint32_t n = pieces[std::min(k, pieces.size() - 1)];
    const u32v part = walk(fx, n, k == 0);
    all.insert(all.end(), part.begin(), part.end());
    if (part.size() < n) return all;
  }
}

void insert(hist_fixture& fx, const u16v& s) {
  ol::hist_reset(&fx.t);
  ASSERT_EQ(ol::hist_insert(&fx.t, s.data(), static_cast<uint32_t>(s.size())), 0);
}

u32v iota_vec(uint32_t first, uint32_t count) {
  u32v v(count);
  std::iota(v.begin(), v.end(), first);
  return v;
}

TEST(HistOrder, BuiltOrder) {
  const u16v want = ol_test::expected_order();
  for (uint32_t count : {65536u, 65535u}) {  // any other count goes through qsort, to the same order
    u16v order(count, 0);
    ol::hist_build_order(order.data(), count);
    EXPECT_EQ(order, u16v(want.begin(), want.begin() + count));
  }
}

TEST(HistInsert, ChainNodesFreeListAndReset) {
  // Counts at the edges of the 64-entry inline row and of the 510-slot
  // nodes, and a long run: 0, 1, 1, 2 and 3 chain nodes. In the first frame
  // 3 come from the free list and 4 are allocated; reset gives all 7 back
  // and the next frame takes all of them again (links cleared) without
  // allocating.
  hist_fixture fx(3);
  const struct { uint16_t key; uint32_t count, nodes; } runs[] = {
      {0x1000, 64, 0}, {0x2000, 65, 1}, {0x2800, 574, 1}, {0x3000, 575, 2}, {0xB000, 64 + 1100, 3}};
  u16v s;
  for (const auto& b : runs) s.insert(s.end(), b.count, b.key);
  for (int frame = 0; frame < 2; ++frame) {
    insert(fx, s);
    EXPECT_EQ(fx.free_count(), 0u);
    for (const auto& b : runs) EXPECT_EQ(hist_fixture::length(fx.t.list[b.key].head), b.nodes) << b.key;
    EXPECT_EQ(walk(fx, 5000, true), ol_test::ref_sorted(s));
    ol::hist_reset(&fx.t);
    EXPECT_EQ(fx.free_count(), 7u);
    for (uint32_t k = 0; k < 65536; ++k)
      ASSERT_TRUE(!fx.t.num[k] && !fx.t.list[k].head && !fx.t.list[k].tail && !fx.t.list[k].used &&
                  !fx.t.occupied[k / 64]) << k;
  }
}

int g_nodes_left = 0;  // node allocations the failure test allows

TEST(HistInsert, NodeAllocationFailureStopsInsertion) {
  hist_fixture fx(1);
  u16v s;
  for (int i = 0; i < 1200; ++i) s.push_back(i % 2 ? 0x3800 : 0x3C00);
  g_nodes_left = 1;  // the free node plus one allocation: 2 of the 3 needed
  ol::alloc_hooks hooks = {
      [](size_t bytes, void*) { return bytes != ol::k_hist_node_bytes || g_nodes_left-- > 0; },
      nullptr};
  ol::hist_reset(&fx.t);
  ol::set_alloc_hooks(&hooks);
  testing::internal::CaptureStderr();
  const int rc = ol::hist_insert(&fx.t, s.data(), static_cast<uint32_t>(s.size()));
  const std::string err = testing::internal::GetCapturedStderr();
  ol::set_alloc_hooks(nullptr);
  EXPECT_EQ(rc, -1);
  const size_t nl = err.find('\n');  // perror's two lines, message bytes first
  EXPECT_TRUE(!err.compare(0, 18, "hlist_alloc node: ") && !err.compare(nl + 1, 22, "hlist_alloc_node err: ") &&
              std::count(err.begin(), err.end(), '\n') == 2) << err;

  // Each bucket fills its inline row and one node (574 entries, up to
  // candidate 1147); candidate 1148 needs a third node: it and all after it
  // are left out, and the counts say so.
  EXPECT_EQ(walk(fx, 2000, true), ol_test::ref_sorted(u16v(s.begin(), s.begin() + 1148)));
  ol::hist_reset(&fx.t);
  EXPECT_EQ(fx.free_count(), 2u);
}

TEST(HistWalk, InconsistentBucketsReportAndStop) {
  // A count that promises a chain which is not there: the walk stops.
  hist_fixture fx;
  insert(fx, {0x4000, 0x3C00});
  fx.t.num[0x4000] = 70;
  for (uint32_t i = 1; i < 64; ++i) fx.t.map[0x4000 * 64 + i] = 100 + i;
  EXPECT_EQ(ol_test::printed([&] { EXPECT_EQ(walk(fx, 100, true).size(), 64u); }),
            "hist_list [16384] head is NULL\n");

  // A chain one node short: the bucket is abandoned, the walk goes on.
  u16v s(64 + 20, 0x4000);
  s.push_back(0x3C00);
  insert(fx, s);
  fx.t.num[0x4000] = 64 + 510 + 3;
  for (uint32_t i = 20; i < 510; ++i) fx.t.list[0x4000].head->slot[i] = 1000 + i;
  ol_test::stdout_capture cap2;
  const u32v got = walk(fx, 1000, true);
  EXPECT_EQ(cap2.end(), "node [16384] is NULL\n");
  ASSERT_EQ(got.size(), 64u + 510u + 1u);
  EXPECT_EQ(got.back(), 84u);
}

// rpn_sort into a poisoned buffer; the comparison path runs on scratch as
// the context gives it.
u32v sort_path(hist_fixture& fx, const u16v& s, uint32_t pre, bool use_qsort) {
  u32v out(s.size() + 4, 0xA5A5A5A5), scratch(s.size());
  const uint32_t written = ol::rpn_sort(&fx.t, s.data(), pre, out.data(), static_cast<uint32_t>(s.size()),
                                        use_qsort, scratch.data());
  return written_part(out, written);
}

// Random scores: ties (runs long enough to chain), both zeros, infinities,
// NaNs, halves in (0, 1) or near 0, any pattern. Every other round uses
// another visiting order (shuffled, a few entries swapped, that reversed):
// the empty-bucket skipping must not assume the built one. The histogram
// path gives the best min(M, pre_nms_num) in visiting order, and a walk
// resumed in pieces from the top all of them; the comparison path gives a
// stable sort by descending score (+0 equal to -0), with NaN scores present
// (one round in three) still a permutation.
TEST(RpnSort, BothPathsOnRandomScores) {
  hist_fixture fx(10);
  ol_test::rng r(11);
  const u16v pool = {0x0000, 0x8000, 0x7C00, 0xFC00, 0x7E00, 0xFFFF,
                     0x7C01, 0x3C00, 0xBC00, 0x0001, 0x8001, 0x3555};
  for (int round = 0; round < 48; ++round) {
    u16v order = ol_test::expected_order();
    const int variant = round % 6;  // 0, 2, 4: the built order
    if (variant == 1)  // shuffled
      for (size_t i = order.size() - 1; i > 0; --i) std::swap(order[i], order[r.next() % (i + 1)]);
    if (variant == 3 || variant == 5)
      for (int k = 0; k < 40; ++k) std::swap(order[r.next() % 65536], order[r.next() % 65536]);
    if (variant == 5) std::reverse(order.begin(), order.end());
    memcpy(fx.t.sort, order.data(), 65536 * 2);
    u16v s(static_cast<size_t>(r.range(1, round % 8 == 7 ? 20000 : 3000)));
    const bool nan = round % 3 == 0;
    for (auto& v : s) {
      const uint32_t pick = r.next() % 4;
      v = pick == 0   ? pool[r.next() % pool.size()]
          : pick == 1 ? static_cast<uint16_t>(r.next())
          : pick == 2 ? ol_test::h(0.125f * static_cast<float>(r.next() % 9) - 0.5f)
                      : ol_test::h(r.uniform(0.0f, round % 4 < 2 ? 1.0f : 0.01f));
      if (!nan && (v & 0x7FFF) > 0x7C00) v &= 0xFC00;  // a NaN becomes the infinity of its sign
    }
    const uint32_t pre = static_cast<uint32_t>(r.range(1, 7000));
    const u32v ref = ol_test::ref_sorted(s, order);
    const u32v top(ref.begin(), ref.begin() + std::min<size_t>(ref.size(), pre));
    ASSERT_EQ(sort_path(fx, s, pre, false), top) << round;
    ASSERT_EQ(walk_in_pieces(fx, {static_cast<uint32_t>(r.range(1, 100)), 7}), ref) << round;
    u32v q = sort_path(fx, s, pre, true), want = iota_vec(0, static_cast<uint32_t>(s.size()));
    if (nan) {
      std::sort(q.begin(), q.end());
    } else {
      std::stable_sort(want.begin(), want.end(), [&](uint32_t x, uint32_t y) { return ol_test::f(s[x]) > ol_test::f(s[y]); });
    }
    ASSERT_EQ(q, want) << round;
  }
}

TEST(RpnSort, BlankFrameZeroCountsAndResume) {
  // 100 x 100 map, 9 anchors: 90,000 equal scores, more than a 16-bit count.
  hist_fixture fx(100);
  const u16v s(90000, ol_test::h(0.25f));
  EXPECT_EQ(sort_path(fx, s, 6000, false), iota_vec(0, 6000));
  EXPECT_EQ(walk(fx, 10, false), iota_vec(6000, 10));  // the decode's refill
  EXPECT_EQ(sort_path(fx, s, 90000, false), iota_vec(0, 90000));
  EXPECT_TRUE(walk(fx, 10, false).empty());

  const u16v s3 = {0x3C00, 0x3800, 0x3C00};
  EXPECT_EQ(sort_path(fx, s3, 2, false), (u32v{0, 2}));
  // A zero-length walk, and no candidates: nothing written, tables and
  // cursor unchanged.
  EXPECT_TRUE(walk(fx, 0, false).empty());
  u32v out(8, 0x5A5A5A5A);
  ol::rpn_sort(&fx.t, s3.data(), 2, out.data(), 0, false);
  ol::rpn_sort(&fx.t, s3.data(), 2, out.data(), 0, true);
  EXPECT_EQ(out, u32v(8, 0x5A5A5A5A));
  EXPECT_EQ(walk(fx, 5, false), (u32v{1}));
  // pre_nms 0 after an exhausted walk: a resumed walk starts at this frame's top.
  EXPECT_TRUE(sort_path(fx, {0x3800, 0x3C00, 0x3A00}, 0, false).empty());
  EXPECT_EQ(walk(fx, 5, false), (u32v{1, 2, 0}));
}

}  // namespace
