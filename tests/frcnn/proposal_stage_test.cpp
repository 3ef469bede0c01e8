// The proposal stage. Its ordering: the histogram tables and the resumable
// walk against a plain walk over the visiting order, and both sort paths.
// The whole stage through its entry points, against a direct formulation:
// every score computed, all candidates ordered at once, every candidate
// decoded, and the first survivors kept.
// ctest-labels: threaded
#include <math.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <functional>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "common/alloc.h"
#include "common/cpu.h"
#include "common/frame_gen.h"
#include "common/test_util.h"
#include "frcnn/context.h"
#include "frcnn/hist_fixture.h"
#include "frcnn/hist_sort.h"

namespace {

using ol_test::hist_fixture;
using ol_test::hp;
using ol_test::stdout_capture;
using u16v = std::vector<uint16_t>;
using u32v = std::vector<uint32_t>;
namespace oh = opt_layers_half;

// ---- ordering ----------------------------------------------------------------

// The visiting order written out plainly: +inf down to +0, -0 down to -inf,
// then the NaN patterns by increasing pattern.
u16v expected_order() {
  u16v v;
  for (int p = 0x7C00; p >= 0; --p) v.push_back(static_cast<uint16_t>(p));
  for (int p = 0x8000; p <= 0xFC00; ++p) v.push_back(static_cast<uint16_t>(p));
  for (int p = 0x7C01; p <= 0x7FFF; ++p) v.push_back(static_cast<uint16_t>(p));
  for (int p = 0xFC01; p <= 0xFFFF; ++p) v.push_back(static_cast<uint16_t>(p));
  return v;
}

// A plain walk over a visiting order: every visited position (all but the
// last), every candidate of that pattern by increasing number.
u32v ref_sorted(const u16v& s, const u16v& order = expected_order()) {
  std::vector<u32v> by_key(65536);
  for (uint32_t i = 0; i < s.size(); ++i) by_key[s[i]].push_back(i);
  u32v out;
  for (uint32_t p = 0; p < 65535; ++p)
    out.insert(out.end(), by_key[order[p]].begin(), by_key[order[p]].end());
  return out;
}

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
  const u16v want = expected_order();
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
    EXPECT_EQ(walk(fx, 5000, true), ref_sorted(s));
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
  EXPECT_EQ(walk(fx, 2000, true), ref_sorted(u16v(s.begin(), s.begin() + 1148)));
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
    u16v order = expected_order();
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
    const u32v ref = ref_sorted(s, order);
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

// ---- the stage ---------------------------------------------------------------

// The stage written directly: every position's score as the three modes
// define it, the candidates (with the filter, scores above the threshold
// truncated to half) ordered best first by the plain walk (equal values by
// position, +0 before -0), each decoded in turn and the first
// min(pre_nms_num, survivors) kept.
std::vector<uint16_t> reference_proposals(const frcnn_desc& d, const std::vector<float>& base,
                                          const ol_test::rpn_frame& f) {
  const uint32_t A = d.anchor_num, H = d.fmap_h, W = d.fmap_w;
  const size_t cls_plane = static_cast<size_t>(H) * d.rpn_cls_pitch;
  const uint16_t T = oh::from_float_trunc(d.rpn_cls_threshold);
  u16v scores;
  u32v positions;
  for (uint32_t a = 0; a < A; ++a)
    for (uint32_t y = 0; y < H; ++y)
      for (uint32_t x = 0; x < W; ++x) {
        const size_t at = static_cast<size_t>(y) * d.rpn_cls_pitch + x;
        const uint16_t s =
            d.is_rpn_cls_fg_minus_bg
                ? oh::from_float_trunc(oh::to_float(f.cls[(2 * a + 1) * cls_plane + at]) -
                                       oh::to_float(f.cls[2 * a * cls_plane + at]))
                : f.cls[(d.is_rpn_cls_fg_only ? a : A + a) * cls_plane + at];
        if (!d.is_filter_rpn_cls || oh::to_float(s) > oh::to_float(T)) {
          scores.push_back(s);
          positions.push_back((a * H + y) * W + x);
        }
      }
  const size_t plane = static_cast<size_t>(H) * d.fmap_pitch;
  const size_t n = std::min<size_t>(scores.size(), d.pre_nms_num);
  std::vector<uint16_t> out;
  for (uint32_t i : ref_sorted(scores)) {
    if (out.size() / 5 == n) break;
    const uint32_t a = positions[i] / (H * W), y = positions[i] % (H * W) / W, x = positions[i] % W;
    const float sx = static_cast<float>(x * d.fmap_scale), sy = static_cast<float>(y * d.fmap_scale);
    const float ax1 = base[4 * a] + sx, ay1 = base[4 * a + 1] + sy;
    const float ax2 = base[4 * a + 2] + sx, ay2 = base[4 * a + 3] + sy;
    const float wa = ax2 - ax1 + 1.0f, ha = ay2 - ay1 + 1.0f;
    float e[4];
    for (int j = 0; j < 4; ++j)
      e[j] = oh::to_float(f.bbox[(4 * a + j) * plane + static_cast<size_t>(y) * d.fmap_pitch + x]);
    float dx = e[0], dy = e[1], dw = e[2], dh = e[3];
    if (d.bbox_type == 1) std::swap(dx, dy), std::swap(dw, dh);
    if (d.is_apply_bbox_scale_factor) {
      const auto& k = d.bbox_scale_factor;
      dx *= k.center_x, dy *= k.center_y, dw *= k.width, dh *= k.height;
    }
    const float pw = wa * expf(dw), ph = ha * expf(dh);
    if (pw + 1.0f < static_cast<float>(d.min_size) || ph + 1.0f < static_cast<float>(d.min_size))
      continue;
    const float cx = static_cast<float>(ax1 + 0.5 * wa), cy = static_cast<float>(ay1 + 0.5 * ha);
    const float pcx = fmaf(dx, wa, cx), pcy = fmaf(dy, ha, cy);
    const float box[4] = {static_cast<float>(pcx - 0.5 * pw), static_cast<float>(pcy - 0.5 * ph),
                          static_cast<float>(pcx + 0.5 * pw), static_cast<float>(pcy + 0.5 * ph)};
    for (int j = 0; j < 4; ++j) {
      const float L = static_cast<float>(j % 2 == 0 ? d.img_w : d.img_h);
      float v = std::isnan(box[j]) || box[j] >= L - 1 ? L - 1 : box[j];
      v = v > 0 ? v : 0;
      out.push_back(oh::from_float_round(v));
    }
    out.push_back(scores[i]);
  }
  return out;
}

struct handle : ol_test::handle {
  using ol_test::handle::handle;
  ol::frcnn_context* ctx() const { return static_cast<ol::frcnn_context*>(h); }
};

std::vector<uint16_t> run_prenms(void* h, ol_test::rpn_frame& f) {
  half_float::half* props = nullptr;
  const int k = opt_layers_instance_frcnn_prenms(h, hp(f.cls), hp(f.bbox), &props);
  EXPECT_GE(k, 0);
  if (k <= 0) return {};
  const uint16_t* p = reinterpret_cast<const uint16_t*>(props);
  return std::vector<uint16_t>(p, p + 5 * k);
}

// A small first stage: 9 anchors over 11 x 13 positions (score and delta rows
// at different pitches), 200 proposals kept, min_size 120, box factors set
// (applied where a test turns them on).
frcnn_desc small_config(uint8_t threads, bool qsort) {
  frcnn_desc d = ol_test::mobile_desc(threads, qsort);
  d.fmap_h = 11;
  d.fmap_w = 13;
  d.rpn_cls_pitch = 16;
  d.fmap_pitch = 15;
  d.rpn_bbox_pitch = 999;  // read by no stage
  d.pre_nms_num = 200;
  d.min_size = 120;
  d.bbox_scale_factor = {0.5f, 2.0f, 0.25f, 1.5f};
  return d;
}

// The whole stage against the direct formulation, in every mode (mode 3:
// both flags, the difference wins), with and without the threshold
// (truncated to half, strict), among signed zeros, negatives, infinities, NaN
// and the threshold rounded and truncated, with some NaN deltas, and with the
// box scale factors (threshold 0.125). min_size drops many candidates and
// pre_nms_num 200 makes the refill run. 1 and 8 workers, both sort paths:
// both must reproduce the stable order exactly.
TEST(proposal_stage, matches_direct_formulation) {
  const std::vector<float> anchors = ol_test::base_anchors_9();
  ol_test::rng stream(3);
  for (int mode = 0; mode < 4; ++mode)
    for (int filter = 0; filter < 2; ++filter)
      for (float threshold : {0.0f, -0.5f, 0.3f, 0.125f}) {
        // The scaled cases draw from their own stream.
        ol_test::rng own(mode * 2 + filter), &r = threshold == 0.125f ? own : stream;
        frcnn_desc d = small_config(1, false);
        d.is_rpn_cls_fg_minus_bg = mode == 1 || mode == 3;
        d.is_rpn_cls_fg_only = mode >= 2;
        d.is_filter_rpn_cls = filter;
        d.rpn_cls_threshold = threshold;
        d.bbox_type = (mode + filter) % 2;
        d.is_apply_bbox_scale_factor = threshold == 0.125f;
        ol_test::rpn_frame f = ol_test::make_rpn_frame(d, 5 + mode);
        const uint16_t fixed[] = {0x8000, 0x0000, oh::from_float_trunc(threshold), oh::from_float_round(threshold)};
        for (uint16_t& v : f.cls) {
          const uint32_t pick = r.next() % 10;
          if (v == 0x7E00) continue;  // padding
          if (pick < 4) v = fixed[pick];
          if (pick == 4) v = oh::from_float_round(-r.uniform(0, 1));
          if (pick == 5 && r.next() % 8 == 0)  // infinities (of the difference, too)
            v = (r.next() % 2 ? 0x8000 : 0) | (d.is_rpn_cls_fg_minus_bg ? 0x7B53 : 0x7C00);
          if (pick == 6 && filter) v = r.next() % 2 ? 0x7E00 : 0xFE00;  // never candidates
        }
        for (uint16_t& v : f.bbox)  // a NaN dw or dh is kept, a NaN edge clips to L - 1
          if (r.next() % 64 == 0) v = 0x7E00;
        SCOPED_TRACE(testing::Message() << mode << " " << filter << " " << threshold);
        const std::vector<uint16_t> want = reference_proposals(d, anchors, f);
        ASSERT_GT(want.size(), 25u);
        for (uint8_t threads : {1, 8})
          for (uint8_t qsort : {0, 1}) {
            ol::cpu_force_baseline = threads == 1;  // the x86-64 decode without FMA
            d.thread_num = threads;
            d.is_use_qsort = qsort;
            handle h(d, anchors);
            ASSERT_NE(h.h, nullptr);
            EXPECT_EQ(run_prenms(h.h, f), want) << int(threads) << " " << int(qsort);
          }
      }
}

// Unfiltered scores on the histogram path: the pattern 0xFFFF sits in the
// bucket the walk never visits, so the sort yields fewer numbers than asked.
// Only those are decoded: no duplicate of a stale order entry (zeros after
// init, the previous frame's numbers after that).
TEST(proposal_stage, never_visited_bucket_gives_no_stale_proposal) {
  frcnn_desc d = small_config(2, false);  // one anchor over two positions
  d.anchor_num = d.fmap_h = 1;
  d.fmap_w = d.rpn_cls_pitch = d.fmap_pitch = 2;
  d.pre_nms_num = 4;
  d.min_size = 0;
  d.is_filter_rpn_cls = 0;
  handle h(d, {0, 0, 15, 15});
  ol_test::rpn_frame f{std::vector<uint16_t>(4, 0), std::vector<uint16_t>(8, 0)};
  for (const auto& [first, second, kept] :
       std::vector<std::array<uint16_t, 3>>{{0x3C00, 0xFFFF, 0x3C00}, {0xFFFF, 0x3800, 0x3800}}) {
    f.cls[2] = first;  // foreground plane of the two-class layout
    f.cls[3] = second;
    const std::vector<uint16_t> p = run_prenms(h.h, f);
    ASSERT_EQ(p.size(), 5u) << std::hex << first;
    EXPECT_EQ(p[4], kept);
  }
}

// Every entry point's refusals, in both forms: the messages byte for byte,
// -1, and the context lock released (also after a failed stage).
TEST(proposal_stage, failures_print_their_messages_and_release_the_lock) {
  frcnn_desc d = small_config(2, false);
  d.bbox_type = 2;
  handle bad(d);
  d.bbox_type = 0;
  handle ok(d);
  ol_test::frame_arrays a(d);
  half_float::half *cls = a.cls.half(), *bbox = a.bbox.half(), *nms = a.nms_out.half();
  uint16_t *fmap = a.fmap.data(), *pooled = a.roi_result.data();
  const std::string null_cls = ol_test::format("RPN Output (cls or bbox) is NULL: %p %p\n", nullptr, a.bbox.data());
  const std::string null_bbox = ol_test::format("RPN Output (cls or bbox) is NULL: %p %p\n", a.cls.data(), nullptr);
  const struct {
    std::function<int()> call;
    std::string want;
  } cases[] = {
      {[&] { return opt_layers_frcnn_prenms(cls, bbox, nullptr); }, "opt_layers library is not inited\n"},
      {[&] { return opt_layers_frcnn_prenms_nms(cls, bbox, nms); }, "opt_layers library is not inited\nfrcnn prenms err\n"},
      {[&] { return opt_layers_frcnn_prenms_nms(nullptr, bbox, nullptr); }, "frcnn nms_out is NULL\n"},
      {[&] { return opt_layers_frcnn_pre_nms_roi(cls, bbox, fmap, pooled, nms); }, "frcnn handle is NULL for pre_nms_roi\n"},
      {[&] { return opt_layers_frcnn_post_nms(cls, bbox, nms, nms, 1); }, "frcnn handle is NULL for post_nms\n"},
      {[&] { return opt_layers_instance_frcnn_prenms(ok.h, nullptr, bbox, nullptr); }, null_cls},
      {[&] { return opt_layers_instance_frcnn_prenms_nms(ok.h, cls, nullptr, nms); }, null_bbox + "frcnn prenms err\n"},
      {[&] { return opt_layers_instance_frcnn_pre_nms_roi(ok.h, nullptr, bbox, fmap, pooled, nms); },
       null_cls + "frcnn prenms err\nfrcnn nms err\n"},
      {[&] { return opt_layers_instance_frcnn_post_nms(ok.h, cls, bbox, nms, nullptr, 1); },
       "frcnn_post_nms input pointer is NULL\n"},
      {[&] { return opt_layers_instance_frcnn_prenms(bad.h, cls, bbox, nullptr); }, "Unsupport bbox type: 2\n"},
      {[&] { return opt_layers_instance_frcnn_prenms_nms(bad.h, cls, bbox, nms); }, "Unsupport bbox type: 2\nfrcnn prenms err\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ol_test::printed([&] { EXPECT_EQ(c.call(), -1) << c.want; }), c.want);
    for (const handle* x : {&ok, &bad}) {
      EXPECT_EQ(pthread_mutex_trylock(&x->ctx()->lock), 0) << c.want;
      pthread_mutex_unlock(&x->ctx()->lock);
    }
  }
}

// Debug counts (only with is_debug), for a threshold above every score, for
// pre_nms_num 0 (every position a candidate, none decoded) and for a
// min_size no box reaches (every candidate dropped, the refill runs dry).
TEST(proposal_stage, debug_counts_and_empty_frames) {
  const struct { bool debug, filter; uint32_t pre_nms, min_size; const char* want; } cases[] = {
      {true, true, 300, 16, "Total_RPN_Score Num: 0 before sorting\nTotal_RoI Num: 0 before nms\n"},
      {false, true, 300, 16, ""},
      {true, false, 0, 16, "Total_RPN_Score Num: 1287 before sorting\nTotal_RoI Num: 0 before nms\n"},
      {true, false, 300, 5000, "Total_RPN_Score Num: 1287 before sorting\nTotal_RoI Num: 0 before nms\n"}};
  for (const auto& c : cases) {
    frcnn_desc d = small_config(1, false);
    d.is_debug = c.debug;
    d.is_filter_rpn_cls = c.filter;
    d.rpn_cls_threshold = 2.0f;
    d.pre_nms_num = c.pre_nms;
    d.min_size = c.min_size;
    ol_test::rpn_frame f = ol_test::make_rpn_frame(d, 2);
    stdout_capture dump;  // the configuration printed at init
    handle h(d, ol_test::base_anchors_9());
    dump.end();
    const auto prenms = [&] { EXPECT_EQ(opt_layers_instance_frcnn_prenms(h.h, hp(f.cls), hp(f.bbox), nullptr), 0); };
    EXPECT_EQ(ol_test::printed(prenms), c.want);
  }
}

}  // namespace
