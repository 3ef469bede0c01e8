#include "frcnn/hist_sort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "common/alloc.h"
#include "common/test_util.h"
#include "frcnn/hist_fixture.h"

namespace {

using ol_test::hist_fixture;

bool is_nan(uint16_t p) { return (p & 0x7FFF) > 0x7C00; }

// Visiting order written out plainly: descending value, +0 before -0, the
// NaN patterns last by increasing pattern.
bool ref_before(uint16_t a, uint16_t b) {
  if (is_nan(a) != is_nan(b)) return !is_nan(a);
  if (is_nan(a)) return a < b;
  const float fa = ol_test::f(a), fb = ol_test::f(b);
  if (fa != fb) return fa > fb;
  return a < b;
}

std::vector<uint16_t> expected_order() {
  std::vector<uint16_t> v;
  for (int p = 0x7C00; p >= 0; --p) v.push_back(static_cast<uint16_t>(p));
  for (int p = 0x8000; p <= 0xFC00; ++p) v.push_back(static_cast<uint16_t>(p));
  for (int p = 0x7C01; p <= 0x7FFF; ++p) v.push_back(static_cast<uint16_t>(p));
  for (int p = 0xFC01; p <= 0xFFFF; ++p) v.push_back(static_cast<uint16_t>(p));
  return v;
}

// Reference sort: stable by visiting order, so equal patterns keep
// increasing candidate number. The last pattern of the order (0xFFFF) is
// never visited, so its candidates are left out.
std::vector<uint32_t> ref_sorted(const std::vector<uint16_t>& s) {
  std::vector<uint32_t> idx(s.size());
  std::iota(idx.begin(), idx.end(), 0u);
  std::stable_sort(idx.begin(), idx.end(),
                   [&](uint32_t a, uint32_t b) { return ref_before(s[a], s[b]); });
  idx.erase(std::remove_if(idx.begin(), idx.end(), [&](uint32_t i) { return s[i] == 0xFFFF; }),
            idx.end());
  return idx;
}

// A walk written out plainly over any visiting order: every visited
// position, every candidate of that pattern by increasing number.
std::vector<uint32_t> ref_walk(const uint16_t* order, const std::vector<uint16_t>& s) {
  std::vector<std::vector<uint32_t>> by_key(65536);
  for (uint32_t i = 0; i < s.size(); ++i) by_key[s[i]].push_back(i);
  std::vector<uint32_t> out;
  for (uint32_t p = 0; p < 65535; ++p)
    for (uint32_t i : by_key[order[p]]) out.push_back(i);
  return out;
}

std::vector<uint32_t> walk(hist_fixture& fx, uint32_t n, bool restart) {
  std::vector<uint32_t> out(n + 8, 0xDEADBEEF);
  const uint32_t got = ol::hist_walk(out.data(), n, &fx.t, restart);
  for (uint32_t i = got; i < out.size(); ++i) EXPECT_EQ(out[i], 0xDEADBEEFu) << i;
  out.resize(got);
  return out;
}

// Walks everything in pieces of the given sizes (the last one repeated).
std::vector<uint32_t> walk_in_pieces(hist_fixture& fx, const std::vector<uint32_t>& pieces) {
  std::vector<uint32_t> all;
  for (size_t k = 0;; ++k) {
    const uint32_t n = pieces[std::min(k, pieces.size() - 1)];
    std::vector<uint32_t> part = walk(fx, n, k == 0);
    all.insert(all.end(), part.begin(), part.end());
    if (part.size() < n) return all;
  }
}

void insert(hist_fixture& fx, const std::vector<uint16_t>& s) {
  ol::hist_reset(&fx.t);
  ASSERT_EQ(ol::hist_insert(&fx.t, s.data(), static_cast<uint32_t>(s.size())), 0);
}

std::vector<uint32_t> iota_vec(uint32_t first, uint32_t count) {
  std::vector<uint32_t> v(count);
  std::iota(v.begin(), v.end(), first);
  return v;
}

// ---- visiting order and comparators -----------------------------------------

TEST(HistOrder, DescendingZerosAdjacentNanLastEveryPatternOnce) {
  std::vector<uint16_t> order(65536, 0);
  ol::hist_build_order(order.data(), 65536);
  EXPECT_EQ(order, expected_order());
  EXPECT_EQ(order[0], 0x7C00);       // +inf first
  EXPECT_EQ(order[0x7C00], 0x0000);  // +0 then -0
  EXPECT_EQ(order[0x7C01], 0x8000);
  EXPECT_EQ(order[65535], 0xFFFF);  // the never visited position holds a NaN

  // The same as a stable sort of the ascending pattern list, and the same
  // when built again.
  std::vector<uint16_t> ref(65536);
  std::iota(ref.begin(), ref.end(), 0);
  std::stable_sort(ref.begin(), ref.end(), ref_before);
  EXPECT_EQ(order, ref);
  std::vector<uint16_t> again(65536, 0);
  ol::hist_build_order(again.data(), 65536);
  EXPECT_EQ(order, again);

  // Any other count goes through the sort itself, to the same order.
  std::vector<uint16_t> part(65535, 0);
  ol::hist_build_order(part.data(), 65535);
  ref.erase(std::remove(ref.begin(), ref.end(), 0xFFFF), ref.end());
  EXPECT_EQ(part, ref);

  // Consistent with the comparator given to qsort.
  for (size_t i = 0; i + 1 < 65536; ++i) {
    if (is_nan(order[i + 1])) break;
    ASSERT_LE(ol::bucket_order_cmp(&order[i], &order[i + 1]), 0) << i;
  }
}

TEST(HistOrder, Comparators) {
  auto cmp = [](uint16_t a, uint16_t b) { return ol::bucket_order_cmp(&a, &b); };
  EXPECT_EQ(cmp(0x3C00, 0x4000), 1);  // 1 after 2
  EXPECT_EQ(cmp(0x4000, 0x3C00), -1);
  EXPECT_EQ(cmp(0x0001, 0x0000), -1);  // smallest subnormal before +0
  EXPECT_EQ(cmp(0x0000, 0x8000), 0);   // +0 == -0
  EXPECT_EQ(cmp(0x7BFF, 0xFBFF), -1);  // difference overflows to +inf
  EXPECT_EQ(cmp(0x7C00, 0x7C00), 0);   // inf - inf is NaN
  EXPECT_EQ(cmp(0x7E00, 0x3C00), 0);   // NaN equals everything
  EXPECT_EQ(cmp(0x3C00, 0xFE00), 0);

  std::vector<uint16_t> s = {ol_test::h(0.5f), ol_test::h(0.75f), 0x7E00, ol_test::h(0.5f)};
  auto scmp = [&](uint32_t a, uint32_t b) { return ol::score_desc_cmp(&a, &b, s.data()); };
  EXPECT_EQ(scmp(0, 1), 1);
  EXPECT_EQ(scmp(1, 0), -1);
  EXPECT_EQ(scmp(0, 3), 0);
  EXPECT_EQ(scmp(2, 0), 0);
}

// ---- insertion and chains ---------------------------------------------------

TEST(HistInsert, InlineRowThenFirstAndSecondChainNode) {
  hist_fixture fx;
  const uint16_t key = ol_test::h(0.5f);
  std::vector<uint16_t> s(64, key);
  insert(fx, s);
  EXPECT_EQ(fx.t.num[key], 64u);
  EXPECT_EQ(fx.t.list[key].head, nullptr);
  for (uint32_t i = 0; i < 64; ++i) EXPECT_EQ(fx.t.map[key * 64u + i], i);

  s.resize(65, key);
  insert(fx, s);
  ASSERT_NE(fx.t.list[key].head, nullptr);
  EXPECT_EQ(fx.t.list[key].head, fx.t.list[key].tail);
  EXPECT_EQ(fx.t.list[key].used, 1u);
  EXPECT_EQ(fx.t.list[key].head->slot[0], 64u);
  EXPECT_EQ(fx.t.list[key].head->next, nullptr);

  s.resize(574, key);
  insert(fx, s);
  EXPECT_EQ(fx.t.list[key].used, 510u);
  EXPECT_EQ(fx.t.list[key].head->next, nullptr);

  s.resize(575, key);
  insert(fx, s);
  const ol::hist_bucket& b = fx.t.list[key];
  ASSERT_NE(b.head->next, nullptr);
  EXPECT_EQ(b.head->next, b.tail);
  EXPECT_EQ(b.tail->next, nullptr);
  EXPECT_EQ(b.used, 1u);
  EXPECT_EQ(b.head->slot[509], 573u);
  EXPECT_EQ(b.tail->slot[0], 574u);
  EXPECT_EQ(fx.chained_count(), 2u);
  EXPECT_EQ(walk(fx, 1000, true), iota_vec(0, 575));
}

TEST(HistInsert, NodesComeFromTheFreeListAndResetReturnsThemAll) {
  hist_fixture fx(3);
  ASSERT_EQ(fx.free_count(), 3u);
  // Three buckets with 2, 1 and 0 chain nodes, then a bucket needing 3:
  // 6 nodes in all, 3 of them allocated on demand.
  std::vector<uint16_t> s;
  for (int i = 0; i < 64 + 600; ++i) s.push_back(0x3000);
  for (int i = 0; i < 64 + 10; ++i) s.push_back(0x2000);
  for (int i = 0; i < 64; ++i) s.push_back(0x1000);
  for (int i = 0; i < 64 + 1100; ++i) s.push_back(0xB000);
  insert(fx, s);
  EXPECT_EQ(fx.free_count(), 0u);
  EXPECT_EQ(fx.chained_count(), 6u);

  ol::hist_reset(&fx.t);
  EXPECT_EQ(fx.free_count(), 6u);
  EXPECT_EQ(fx.chained_count(), 0u);
  for (uint32_t k = 0; k < 65536; ++k) {
    ASSERT_EQ(fx.t.num[k], 0u) << k;
    ASSERT_EQ(fx.t.list[k].tail, nullptr) << k;
    ASSERT_EQ(fx.t.list[k].used, 0u) << k;
  }
  for (uint32_t w = 0; w < 1024; ++w) ASSERT_EQ(fx.t.occupied[w], 0u) << w;

  // The next frame reuses them without allocating.
  int allocations = 0;
  ol::alloc_hooks hooks = {[](size_t, void* u) { return ++*static_cast<int*>(u), true; },
                           &allocations};
  ol::set_alloc_hooks(&hooks);
  insert(fx, s);
  ol::set_alloc_hooks(nullptr);
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(walk(fx, 5000, true), ref_sorted(s));
}

// A shared count of allowed node allocations for the failure test.
int g_nodes_left = 0;

TEST(HistInsert, NodeAllocationFailureStopsInsertion) {
  hist_fixture fx(1);
  std::vector<uint16_t> s;
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
  const size_t nl = err.find('\n');
  ASSERT_NE(nl, std::string::npos);
  EXPECT_EQ(err.compare(0, 18, "hlist_alloc node: "), 0) << err;
  EXPECT_EQ(err.compare(nl + 1, 22, "hlist_alloc_node err: "), 0) << err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 2) << err;

  // Bucket 0x3C00 (even candidates) fills its inline row and one node
  // (574 entries, up to candidate 1146); bucket 0x3800 likewise; candidate
  // 1148 needs a third node and everything from it on is left out.
  EXPECT_EQ(fx.t.num[0x3C00], 574u);
  EXPECT_EQ(fx.t.num[0x3800], 574u);
  std::vector<uint16_t> stored(s.begin(), s.begin() + 1148);
  EXPECT_EQ(walk(fx, 2000, true), ref_sorted(stored));
  ol::hist_reset(&fx.t);
  EXPECT_EQ(fx.free_count(), 2u);
}

// ---- walking ----------------------------------------------------------------

TEST(HistWalk, ResumedWalksEqualOneWalk) {
  hist_fixture fx;
  // Bucket 1.0: 700 entries (inline row, a full node, a partial node),
  // bucket 0.5: 5 entries, bucket -2: 600 entries, interleaved.
  std::vector<uint16_t> s;
  s.insert(s.end(), 700, ol_test::h(1.0f));
  s.insert(s.end(), 5, ol_test::h(0.5f));
  s.insert(s.end(), 600, ol_test::h(-2.0f));
  ol_test::rng shuffle(9);
  for (size_t i = s.size() - 1; i > 0; --i) std::swap(s[i], s[shuffle.next() % (i + 1)]);
  insert(fx, s);
  const std::vector<uint32_t> one = ref_sorted(s);
  ASSERT_EQ(walk(fx, 5000, true), one);

  EXPECT_EQ(walk_in_pieces(fx, {3, 5}), one);
  // Splits right after the inline row (slot 63) and right after a full
  // node (slot 509), then one past each.
  for (uint32_t first : {63u, 64u, 65u, 573u, 574u, 575u, 700u, 705u, 768u, 769u, 770u, 1278u,
                         1279u, 1280u, 1305u}) {
    std::vector<uint32_t> a = walk(fx, first, true);
    std::vector<uint32_t> b = walk(fx, 5000, false);
    a.insert(a.end(), b.begin(), b.end());
    EXPECT_EQ(a, one) << first;
    EXPECT_TRUE(walk(fx, 10, false).empty());  // exhausted stays exhausted
  }
  std::vector<uint32_t> head8 = walk(fx, 8, true);
  std::vector<uint32_t> head3 = walk(fx, 3, true);
  std::vector<uint32_t> next5 = walk(fx, 5, false);
  head3.insert(head3.end(), next5.begin(), next5.end());
  EXPECT_EQ(head3, head8);
  // A zero-length walk changes nothing.
  walk(fx, 3, true);
  EXPECT_TRUE(walk(fx, 0, false).empty());
  EXPECT_EQ(walk(fx, 5, false), next5);

  ol_test::rng r(7);
  for (int round = 0; round < 200; ++round) {
    std::vector<uint32_t> pieces;
    for (int k = 0; k < 6; ++k)
      pieces.push_back(static_cast<uint32_t>(r.range(1, round % 4 ? 40 : 600)));
    ASSERT_EQ(walk_in_pieces(fx, pieces), one) << round;
  }
}

TEST(HistWalk, RandomScoresWithTiesZerosAndNaNs) {
  hist_fixture fx(4);
  ol_test::rng r(11);
  const std::vector<uint16_t> pool = {0x0000, 0x8000, 0x7C00, 0xFC00, 0x7E00, 0xFFFF,
                                      0x7C01, 0x3C00, 0xBC00, 0x0001, 0x8001, 0x3555};
  for (int round = 0; round < 30; ++round) {
    std::vector<uint16_t> s(static_cast<size_t>(r.range(1, 3000)));
    for (auto& v : s) {
      const uint32_t pick = r.next() % 4;
      v = pick == 0   ? pool[r.next() % pool.size()]
          : pick == 1 ? static_cast<uint16_t>(r.next())
                      : ol_test::h(r.uniform(0.0f, round % 2 ? 1.0f : 0.01f));
    }
    insert(fx, s);
    const std::vector<uint32_t> ref = ref_sorted(s);
    ASSERT_EQ(walk(fx, static_cast<uint32_t>(s.size()), true), ref) << round;
    ASSERT_EQ(walk_in_pieces(fx, {static_cast<uint32_t>(r.range(1, 100)), 7}), ref) << round;
  }
}

TEST(HistWalk, PositiveAndNegativeZeroComeOutAdjacent) {
  hist_fixture fx;
  std::vector<uint16_t> s = {0x8000, 0x0000, ol_test::h(-1.0f), 0x8000, 0x0000,
                             0x0001, 0x8001, ol_test::h(1.0f)};
  insert(fx, s);
  EXPECT_EQ(walk(fx, 100, true), (std::vector<uint32_t>{7, 5, 1, 4, 0, 3, 6, 2}));
}

TEST(HistWalk, SeveralLongChainsInVisitingOrder) {
  hist_fixture fx;
  ol_test::rng r(3);
  const uint16_t keys[] = {0x3C00, 0x3BFF, 0x3BFE, 0x0000, 0x8000, 0xBC00};
  std::vector<uint16_t> s(9000);
  for (auto& v : s) v = keys[r.next() % 6];
  insert(fx, s);
  EXPECT_EQ(walk(fx, 9000, true), ref_sorted(s));
  EXPECT_EQ(walk_in_pieces(fx, {509, 510, 511}), ref_sorted(s));
}

TEST(HistWalk, AnyVisitingOrder) {
  // The empty-bucket skipping must not assume the built order: a shuffled
  // order, and the built order with a few entries swapped inside its runs.
  hist_fixture fx;
  ol_test::rng r(5);
  std::vector<uint16_t> s(4000);
  for (auto& v : s) v = static_cast<uint16_t>(r.next() % 5 ? 0x3000 + r.next() % 0x1000 : r.next());
  for (int variant = 0; variant < 3; ++variant) {
    std::vector<uint16_t> order = expected_order();
    if (variant == 0) {
      for (size_t i = order.size() - 1; i > 0; --i) std::swap(order[i], order[r.next() % (i + 1)]);
    } else {
      for (int k = 0; k < 40; ++k) std::swap(order[r.next() % 65536], order[r.next() % 65536]);
    }
    if (variant == 2) std::reverse(order.begin(), order.end());
    memcpy(fx.t.sort, order.data(), 65536 * 2);
    insert(fx, s);
    const std::vector<uint32_t> ref = ref_walk(order.data(), s);
    EXPECT_EQ(walk(fx, 5000, true), ref) << variant;
    EXPECT_EQ(walk_in_pieces(fx, {1, 13}), ref) << variant;
  }
}

TEST(HistWalk, InconsistentBucketsReportAndStop) {
  hist_fixture fx;
  std::vector<uint16_t> s = {0x4000, 0x3C00};
  insert(fx, s);
  // A count that promises a chain which is not there.
  fx.t.num[0x4000] = 70;
  for (uint32_t i = 1; i < 64; ++i) fx.t.map[0x4000 * 64 + i] = 100 + i;
  ol_test::stdout_capture cap;
  std::vector<uint32_t> got = walk(fx, 100, true);
  EXPECT_EQ(cap.end(), "hist_list [16384] head is NULL\n");
  EXPECT_EQ(got.size(), 64u);

  // A chain one node short: the bucket is abandoned, the walk goes on.
  hist_fixture fx2;
  std::vector<uint16_t> s2(64 + 20, 0x4000);
  s2.push_back(0x3C00);
  insert(fx2, s2);
  fx2.t.num[0x4000] = 64 + 510 + 3;
  for (uint32_t i = 20; i < 510; ++i) fx2.t.list[0x4000].head->slot[i] = 1000 + i;
  ol_test::stdout_capture cap2;
  got = walk(fx2, 1000, true);
  EXPECT_EQ(cap2.end(), "node [16384] is NULL\n");
  ASSERT_EQ(got.size(), 64u + 510u + 1u);
  EXPECT_EQ(got.back(), 84u);
}

// ---- rpn_sort ---------------------------------------------------------------

std::vector<uint32_t> sort_path(hist_fixture& fx, const std::vector<uint16_t>& s, uint32_t pre,
                                bool use_qsort) {
  std::vector<uint32_t> out(s.size() + 4, 0xA5A5A5A5);
  ol::rpn_sort(&fx.t, s.data(), pre, out.data(), static_cast<uint32_t>(s.size()), use_qsort);
  const size_t n = use_qsort ? s.size() : std::min<size_t>(s.size(), pre);
  for (size_t i = n; i < out.size(); ++i) EXPECT_EQ(out[i], 0xA5A5A5A5u) << i;
  out.resize(n);
  return out;
}

TEST(RpnSort, HistogramMatchesComparisonOnDistinctScores) {
  hist_fixture fx;
  ol_test::rng r(21);
  for (int round = 0; round < 20; ++round) {
    // Distinct non-NaN patterns (only one of the two zeros).
    std::vector<uint16_t> s;
    std::vector<bool> used(65536, false);
    used[0x8000] = true;
    // Halves in (0, 1) offer about 15,000 distinct patterns.
    const size_t M = static_cast<size_t>(r.range(1, round % 2 ? 20000 : 12000));
    while (s.size() < M) {
      const uint16_t v =
          round % 2 ? static_cast<uint16_t>(r.next()) : ol_test::h(r.uniform(0.0f, 1.0f));
      if (used[v] || is_nan(v)) continue;
      used[v] = true;
      s.push_back(v);
    }
    const uint32_t pre = static_cast<uint32_t>(r.range(1, 7000));
    const std::vector<uint32_t> q = sort_path(fx, s, pre, true);
    const std::vector<uint32_t> h = sort_path(fx, s, pre, false);
    ASSERT_EQ(h, std::vector<uint32_t>(q.begin(), q.begin() + h.size())) << round;
  }
}

TEST(RpnSort, TiesFollowTheStableReference) {
  hist_fixture fx(10);
  ol_test::rng r(22);
  std::vector<uint16_t> s(21546);
  for (auto& v : s) v = ol_test::h(0.125f * static_cast<float>(r.next() % 9) - 0.5f);
  for (int k = 0; k < 50; ++k) s[r.next() % s.size()] = k % 2 ? 0x8000 : 0x0000;
  const std::vector<uint32_t> ref = ref_sorted(s);
  EXPECT_EQ(sort_path(fx, s, 6000, false), std::vector<uint32_t>(ref.begin(), ref.begin() + 6000));

  // The comparison path gives some order of equal scores, but descending.
  const std::vector<uint32_t> q = sort_path(fx, s, 6000, true);
  std::vector<uint32_t> sorted_q = q;
  std::sort(sorted_q.begin(), sorted_q.end());
  EXPECT_EQ(sorted_q, iota_vec(0, static_cast<uint32_t>(s.size())));
  for (size_t i = 0; i + 1 < q.size(); ++i)
    ASSERT_GE(ol_test::f(s[q[i]]), ol_test::f(s[q[i + 1]])) << i;
}

TEST(RpnSort, BlankFrameOfIdenticalScores) {
  // 100 x 100 map, 9 anchors: 90,000 equal scores, more than a 16-bit count.
  hist_fixture fx(100);
  const std::vector<uint16_t> s(90000, ol_test::h(0.25f));
  EXPECT_EQ(sort_path(fx, s, 6000, false), iota_vec(0, 6000));
  EXPECT_EQ(fx.t.num[ol_test::h(0.25f)], 90000u);
  // The decode's refill continues with the next ones.
  EXPECT_EQ(walk(fx, 10, false), iota_vec(6000, 10));
  EXPECT_EQ(sort_path(fx, s, 90000, false), iota_vec(0, 90000));
  EXPECT_TRUE(walk(fx, 10, false).empty());
  // 64 inline entries and 177 nodes, 77 of them allocated on demand.
  EXPECT_EQ(fx.chained_count(), 177u);
  EXPECT_EQ(fx.free_count(), 0u);
}

TEST(RpnSort, ZeroCandidatesChangeNothing) {
  hist_fixture fx;
  const std::vector<uint16_t> s = {0x3C00, 0x3800, 0x3C00};
  EXPECT_EQ(sort_path(fx, s, 2, false), (std::vector<uint32_t>{0, 2}));
  const uint32_t cursor[4] = {fx.t.cursor[0], fx.t.cursor[1], fx.t.cursor[2], fx.t.cursor[3]};
  std::vector<uint32_t> out(8, 0x5A5A5A5A);
  ol::rpn_sort(&fx.t, s.data(), 2, out.data(), 0, false);
  ol::rpn_sort(&fx.t, s.data(), 2, out.data(), 0, true);
  EXPECT_EQ(out, std::vector<uint32_t>(8, 0x5A5A5A5A));
  EXPECT_EQ(fx.t.num[0x3C00], 2u);
  EXPECT_EQ(fx.t.num[0x3800], 1u);
  EXPECT_EQ(memcmp(cursor, fx.t.cursor, sizeof cursor), 0);
  EXPECT_EQ(walk(fx, 5, false), (std::vector<uint32_t>{1}));
}

TEST(RpnSort, PreNmsZeroAndResumeStartsAtTheTop) {
  hist_fixture fx;
  const std::vector<uint16_t> s = {0x3800, 0x3C00, 0x3A00};
  sort_path(fx, s, 3, false);
  EXPECT_TRUE(sort_path(fx, s, 0, false).empty());
  EXPECT_EQ(walk(fx, 5, false), (std::vector<uint32_t>{1, 2, 0}));
}

}  // namespace
