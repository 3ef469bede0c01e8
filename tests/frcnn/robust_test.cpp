// Robustness: hostile frames and descriptors, NaN and infinities in every
// input, and the largest sizes on 128 KiB stacks, through the entry points
// (common/frame_gen.h) and one table of the operators. Caller arrays are sized
// exactly (AddressSanitizer reports any access past them).
#include <math.h>

#include <string>

#include "common/frame_gen.h"
#include "frcnn/context.h"

namespace {

using ol_test::frame_arrays;
using ol_test::h;
using ol_test::run_frame;

// NaNs, infinities, -0, the largest finite and the smallest subnormal half.
const uint16_t kSpecials[] = {0x7E00, 0xFE01, 0x7C00, 0xFC00, 0x8000, 0x7BFF, 0x0001};

// Shared inputs: a 16-bit map of W x H cells (four 16-channel blocks for
// ROI pooling, 32 channels for the bilinear operators), a float map of at
// most 8 x 8 cells for position-sensitive pooling, two boxes as halves and
// as floats, and the scalar arguments: crop scales x and y and extrapolation
// value, then the position-sensitive spatial scale and box scales.
struct op_inputs {
  int W, H, group, psW = std::min(W, 8), psH = std::min(H, 8);
  std::vector<uint16_t> hmap, hbox;
  std::vector<short> smap;
  std::vector<float> psmap, fbox, arg;
  op_inputs(int w, int hh, int g, std::vector<float> boxes, std::vector<float> args)
      : W(w), H(hh), group(g), fbox(boxes), arg(args) {
    ol_test::rng r(W * H);
    hmap.resize(size_t(4) * W * H * 16);
    smap.resize(size_t(W) * H * 32);
    psmap.resize(size_t(group) * group * psW * psH * 24);
    for (auto& v : hmap) v = static_cast<uint16_t>(r.next());
    for (auto& v : smap) v = static_cast<short>(r.next() | 1);
    for (auto& v : psmap) v = r.next() % 9 ? r.uniform(-1, 1) : NAN;
    for (float v : fbox) hbox.push_back(h(v));
  }
};

// Operator `op` (an index into kOperators) over a grid of gw x gh bins into
// out (all of it poisoned first); returns the operator's result. The
// position-sensitive entry runs both forms and both channel paths; out then
// holds 1 where the last call wrote a non-zero float.
const char* const kOperators[] = {"roi_pooling", "roi_pooling_sign", "roi_align", "roi_align_four",
                                  "crop_and_resize", "ps_roi_pooling"};
int run_op(int op, op_inputs& in, int gw, int gh, std::vector<short>& out) {
  short* maps[3] = {in.smap.data(), in.smap.data(), in.smap.data()};
  unsigned scales[3] = {1, 1, 1};
  float* b = in.fbox.data();
  out.assign(size_t(2) * gw * gh * (op < 2 ? 64 : 32), 0x5A5A);
  ol_test::stdout_capture cap;  // crop_and_resize prints a line per sample outside the map
  switch (op) {
    case 0:
    case 1:
      return (op ? roi_pooling_sign : roi_pooling)(ol_test::as_half(in.hbox), in.hmap.data(),
                                                   reinterpret_cast<uint16_t*>(out.data()), 2, gw, gh, 0,
                                                   16, 0, in.H, in.W, 64);
    case 2: return roi_align_fmap_int16(in.smap.data(), 16, b, 2, in.W, in.H, gw, gh, 32, out.data());
    case 3: return roi_align_four_fmap_int16(maps, scales, b, 2, in.W, in.H, gw, gh, 32, out.data());
    case 4:
      return crop_and_resize_fmap_int16(in.smap.data(), in.arg[0], in.arg[1], in.arg[2], b, 2, in.W, in.H, gw,
                                        gh, 32, out.data());
  }
  const int g = in.group;
  std::vector<float> o(size_t(2) * g * g * 24, 3.0f);
  int rc = ps_roi_pooling(in.psmap.data(), in.psW, in.psH, g * g * 21, 24, b, 2, o.data(), g, g, 21, 24,
                          0.125f, g);
  for (int oc : {21, 10})
    rc |= ps_roi_pooling_scale(in.psmap.data(), in.psW, in.psH, g * g * oc, 24, b, 2, o.data(), g, g, oc, 24,
                               in.arg[3], g, in.arg[4], in.arg[5], in.arg[6]);
  out.assign(o.size(), 0);
  for (size_t i = 0; i < o.size(); ++i) out[i] = o[i] != 0.0f;
  return rc;
}

// Every operator on a 128 KiB stack: at long grids in each direction (4096 x
// 1 and 1 x 4096 bins; 21 x 21 position-sensitive bins), and with NaN and
// infinite boxes, maps and scales, indexing nothing outside the maps; where
// the box is NaN the output is the documented zeros.
TEST(small_stack, operators_at_large_sizes_and_nan_inputs) {
  op_inputs nan_in(9, 7, 3, {NAN, NAN, NAN, NAN, -INFINITY, -INFINITY, INFINITY, INFINITY},
                   {NAN, INFINITY, NAN, NAN, INFINITY, NAN, -INFINITY});
  op_inputs large(64, 64, 21, {2, 3, 500, 400, 10, 10, 300, 600}, {0.1f, 0.1f, 0.0f, 0.0625f, 1.2f, 1.0f, 1.0f});
  ol_test::on_small_stack([&] {
    for (int op = 0; op < 6; ++op) {
      SCOPED_TRACE(kOperators[op]);
      std::vector<short> out;
      EXPECT_EQ(run_op(op, nan_in, 3, 3, out), 0);
      for (size_t i = 0; op >= 2 && i < out.size() / 2; ++i) ASSERT_EQ(out[i], 0) << i;  // not for ROI pooling
      for (int wide : {0, 1}) EXPECT_EQ(run_op(op, large, wide ? 4096 : 2, wide ? 2 : 4096, out), 0);
    }
  });
}

// Hostile frames and counts through every entry point, from a 128 KiB stack
// while the workers run on theirs: frames that find nothing (empty maps, no
// anchors, no proposals), class_num 0 and 1 in every head layout, every
// input array sprinkled with NaN and infinities (one value in 16, 3 or 1),
// and pre_nms_num and post_nms_num at 32767 and beyond with up to 81
// classes. Every entry point returns normally; without NaN every position
// gives a proposal up to pre_nms_num; the NMS count stays within
// post_nms_num and 32767 (and is 0 beyond 32767 candidates: the
// suppression's count is 16-bit); every proposal and decoded head box lies
// inside the 500 x 300 image; post_nms with more ROIs than post_nms_num is
// clamped with its message; the table gets only what it has room for.
TEST(small_stack, hostile_frames_and_counts) {
  // Coordinate i of a box (x1, y1, x2, y2) inside the 500 x 300 image.
  auto inside = [](size_t i, float v) { return v >= 0.0f && v <= (i % 2 ? 299.0f : 499.0f); };
  const struct {
    uint32_t fmap_h, fmap_w, anchors, pre, post, classes;
    int layout;   // bit 0: rcnn_bbox_share_location, bit 1: is_no_rcnn_bg_bbox
    int density;  // one input value in `density` a NaN or an infinity (0: none)
    bool qsort;
  } cases[] = {
      {0, 10, 3, 100, 30, 4, 0, 0, false},   {8, 0, 3, 100, 30, 4, 0, 0, true},
      {8, 10, 0, 100, 30, 4, 0, 0, false},   {8, 10, 3, 0, 0, 4, 0, 0, true},
      {8, 10, 3, 100, 30, 0, 0, 0, false},   {8, 10, 3, 100, 30, 0, 1, 0, true},
      {8, 10, 3, 100, 30, 0, 2, 0, false},   {8, 10, 3, 100, 30, 0, 3, 0, true},
      {8, 10, 3, 100, 30, 1, 0, 0, false},   {8, 10, 3, 100, 30, 1, 1, 0, true},
      {8, 10, 3, 100, 30, 1, 2, 0, false},   {8, 10, 3, 100, 30, 1, 3, 0, true},
      {8, 10, 3, 100, 30, 4, 0, 16, false},  {8, 10, 3, 100, 30, 4, 0, 16, true},
      {8, 10, 3, 100, 30, 4, 0, 3, false},   {8, 10, 3, 100, 30, 4, 0, 3, true},
      {8, 10, 3, 100, 30, 4, 0, 1, false},   {8, 10, 3, 100, 30, 4, 0, 1, true},
      {60, 80, 9, 32767, 32767, 81, 0, 0, true}, {60, 80, 9, 32767, 32767, 81, 0, 0, false},
      {60, 80, 9, 40000, 32767, 3, 0, 0, true},  {60, 80, 9, 32767, 40000, 3, 0, 0, false},
      {60, 80, 9, 65536, 65535, 3, 0, 0, true},
  };
  int seed = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << seed);
    frcnn_desc d = ol_test::robust_desc(2, c.qsort);
    d.fmap_h = c.fmap_h;
    d.fmap_w = c.fmap_w;
    d.fmap_pitch = d.rpn_cls_pitch = c.fmap_w + 1;
    d.anchor_num = c.anchors;
    d.pre_nms_num = c.pre;
    d.post_nms_num = c.post;
    d.class_num = d.rcnn_cls_pitch = c.classes;
    d.rcnn_bbox_pitch = 4 * c.classes;
    d.rcnn_bbox_share_location = c.layout & 1;
    d.is_no_rcnn_bg_bbox = c.layout >> 1;
    d.is_rpn_cls_fg_only = c.density != 0;
    d.is_filter_rpn_cls = c.density == 3;
    const bool large = c.pre > 1000;  // close boxes all kept, few detections: short suppressions
    d.pre_nms_iou = large ? 0.95f : d.pre_nms_iou;
    d.cls_prob = large ? 0.099f : d.cls_prob;
    ol_test::handle hd(d);
    ASSERT_NE(hd.h, nullptr);
    frame_arrays a(d, c.post + 5);
    a.fill(seed);
    ol_test::rng g(seed++);
    for (auto* v : {&a.cls, &a.bbox, &a.rcnn_cls, &a.rcnn_bbox})
      for (size_t i = 0; c.density && i < v->n; ++i)
        if (g.next() % c.density == 0) (*v)[i] = kSpecials[g.next() % 7];
    for (size_t i = 0; large && i < a.rcnn_cls.n; ++i) a.rcnn_cls[i] = h(g.uniform(0.0f, 0.1f));
    ol_test::frame_result r;
    std::string out;
    ol_test::on_small_stack([&] {
      ol_test::stdout_capture cap;
      r = run_frame(hd.h, a, ol_test::step_prenms | ol_test::step_prenms_nms | ol_test::step_pre_nms_roi);
      r.post = ol_test::frame_calls{hd.h, a}.post_nms(c.post + 5);
      out = cap.end();
    });
    const int limit = static_cast<int>(std::min(c.post, 32767u));
    const uint64_t positions = uint64_t{c.anchors} * c.fmap_h * c.fmap_w;
    EXPECT_TRUE(c.density ? r.k >= 0 : r.k == static_cast<int>(std::min<uint64_t>(c.pre, positions))) << r.k;
    EXPECT_EQ(r.r2, r.r);
    EXPECT_LE(r.r, limit);
    EXPECT_EQ(r.r > 0, r.k > 0 && r.k <= 32767 && limit > 0) << r.r;
    EXPECT_EQ(r.post, 0);
    EXPECT_EQ(out, ol_test::format("Abnormal frcnn post nms rois num: %u > %u\n", c.post + 5, c.post));
    EXPECT_TRUE(c.classes != 1 || a.rcnn_result[0] == 0);
    for (uint32_t cl = 1; cl < c.classes; ++cl) EXPECT_LE(ol_test::f(a.rcnn_result[cl]), limit);
    for (size_t i = 0; i < r.proposals.size(); ++i)  // a box and its score each
      ASSERT_TRUE(i % 5 == 4 || inside(i % 5, ol_test::f(r.proposals[i]))) << i;
    const float* boxes = static_cast<const ol::frcnn_context*>(hd.h)->rcnn_boxes;
    for (size_t i = 0; i < size_t(4) * c.post * c.classes; ++i)
      ASSERT_TRUE(inside(i, boxes[i])) << i << " " << boxes[i];
  }
}

// Row pitches below the row width: rows overlap, and the stage reads each
// row [r * pitch, r * pitch + W). The same frame laid out at pitch W gives
// the same results.
TEST(hostile_desc, pitches_below_the_width_read_overlapping_rows) {
  for (int which = 0; which < 3; ++which) {
    SCOPED_TRACE(which);
    frcnn_desc d = ol_test::robust_desc(2, which == 2);
    d.is_rpn_cls_fg_only = d.is_filter_rpn_cls = which == 1;  // the parallel filter
    d.fmap_w = 9;
    d.rpn_cls_pitch = which == 0 ? 5 : (which == 1 ? 9 : 0);  // 0: every row the same
    d.fmap_pitch = which == 0 ? 9 : 4;
    frcnn_desc wide = d;
    wide.rpn_cls_pitch = wide.fmap_pitch = d.fmap_w;
    ol_test::handle hn(d), hw(wide);
    frame_arrays a(d), b(wide);
    a.fill(7);
    b.fill(7);
    const uint32_t planes = ol_test::rpn_score_planes(d);
    for (size_t r = 0; r < size_t(planes) * d.fmap_h; ++r)
      for (size_t x = 0; x < d.fmap_w; ++x) b.cls[r * d.fmap_w + x] = a.cls[r * d.rpn_cls_pitch + x];
    for (size_t r = 0; r < size_t(4) * d.anchor_num * d.fmap_h; ++r)
      for (size_t x = 0; x < d.fmap_w; ++x) b.bbox[r * d.fmap_w + x] = a.bbox[r * d.fmap_pitch + x];
    for (auto arr : {&frame_arrays::fmap, &frame_arrays::nms_out, &frame_arrays::rcnn_cls, &frame_arrays::rcnn_bbox})
      std::copy((a.*arr).data(), (a.*arr).data() + (a.*arr).n, (b.*arr).data());
    const ol_test::frame_result ra = run_frame(hn.h, a), rb = run_frame(hw.h, b);
    EXPECT_GT(ra.k, 0);
    EXPECT_TRUE(ra == rb);
  }
}

}  // namespace
