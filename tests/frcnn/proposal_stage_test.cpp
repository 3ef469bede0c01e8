// The proposal stage through its entry points, against a direct
// formulation: every score computed, all candidates ordered at once, every
// candidate decoded, and the first survivors kept.
// ctest-labels: threaded
#include <math.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <functional>
#include <tuple>
#include <utility>
#include <vector>

#include "common/cpu.h"
#include "common/frame_gen.h"
#include "common/test_util.h"
#include "frcnn/context.h"
#include "frcnn/hist_fixture.h"

namespace {

using ol_test::hp;
using ol_test::stdout_capture;
using u16v = std::vector<uint16_t>;
using u32v = std::vector<uint32_t>;
namespace oh = opt_layers_half;

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
  for (uint32_t i : ol_test::ref_sorted(scores)) {
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
// both must reproduce the stable order exactly. 8 workers take the
// exponentials from the context's tables, 1 from expf.
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
            // One worker decodes with expf, as when the heap refused the
            // exponential tables.
            ol::frcnn_context& c = *h.ctx();
            const std::pair<float*, const float*> tables{c.exp_w, c.exp_h};
            if (threads == 1) {
              c.exp_w = nullptr;
              c.exp_h = nullptr;
            }
            EXPECT_EQ(run_prenms(h.h, f), want) << int(threads) << " " << int(qsort);
            std::tie(c.exp_w, c.exp_h) = tables;
          }
      }
}

// prenms_nms suppresses the proposals while it decodes them and stops once it
// has post_nms_num boxes: boxes and count equal nms of all of prenms's
// proposals. Zero deltas make the proposals the anchors, which overlap
// heavily, so few of the first 1,024 proposals (the part decoded first when
// fewer than 256 boxes are wanted) survive: wanting exactly those, one more
// (the decode goes on, the walk resumes) and more than exist covers every
// place the decode can stop.
TEST(proposal_stage, prenms_nms_equals_nms_of_all_proposals) {
  const std::vector<float> anchors = ol_test::base_anchors_9();
  for (uint8_t qsort : {0, 1}) {
    frcnn_desc d = ol_test::vgg16_desc(2, qsort);
    ol_test::rpn_frame f = ol_test::make_rpn_frame(d, 11);
    std::fill(f.bbox.begin(), f.bbox.end(), 0);
    std::vector<uint16_t> props = run_prenms(handle(d, anchors).h, f), want;
    const int n = static_cast<int>(props.size() / 5);
    ASSERT_GT(n, 2048);
    want.resize(4 * static_cast<size_t>(n));
    const int first = nms(hp(want), hp(props), 1024, d.pre_nms_iou, n);
    ASSERT_LT(first, 255);
    for (int post : {1, first, first + 1, 2 * first, n}) {
      d.post_nms_num = static_cast<uint32_t>(post);
      handle h(d, anchors);
      std::vector<uint16_t> got(want.size(), 0xA5A5);
      const int r = opt_layers_instance_frcnn_prenms_nms(h.h, hp(f.cls), hp(f.bbox), hp(got));
      const int w = nms(hp(want), hp(props), n, d.pre_nms_iou, post);
      ASSERT_EQ(r, w) << "post " << post << " qsort " << int(qsort);
      EXPECT_TRUE(std::equal(want.begin(), want.begin() + 4 * w, got.begin()));
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
