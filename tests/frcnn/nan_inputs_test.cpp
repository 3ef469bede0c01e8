// NaN and infinities in every input array: RPN scores and deltas, the boxes
// given to the head, head probabilities and deltas, operator boxes and float
// maps. Arrays are sized exactly (ASan reports any access past them), and
// where the clamp rule fixes the result (a NaN coordinate becomes L - 1, -inf
// becomes 0, +inf L - 1) it is checked.
#include <math.h>

#include "frcnn/context.h"
#include "frcnn/nms_ref.h"
#include "frcnn/robust_frame.h"

namespace {

using ol_test::frame_arrays;
using ol_test::h;
using ol_test::run_frame;

constexpr uint16_t kNaN = 0x7E00, kInf = 0x7C00, kNegInf = 0xFC00;
const uint16_t kSpecials[] = {kNaN, 0xFE01, kInf, kNegInf, 0x8000, 0x7BFF, 0x0001};

// The small frame (a 500 x 300 image, 4 classes) with foreground scores only.
frcnn_desc nan_desc(bool qsort) {
  frcnn_desc d = ol_test::robust_desc(2, qsort);
  d.is_rpn_cls_fg_only = 1;
  return d;
}

// Every coordinate of the boxes (4 floats each) is in [0, L - 1].
void expect_inside_the_image(const float* boxes, size_t count) {
  for (size_t i = 0; i < 4 * count; ++i)
    ASSERT_TRUE(boxes[i] >= 0.0f && boxes[i] <= (i % 2 ? 299.0f : 499.0f)) << i << " " << boxes[i];
}

// Every input array of a frame sprinkled with NaN and infinities: every
// entry point returns normally, counts stay in range and every proposal and
// every decoded head box lies inside the image.
TEST(nan_inputs, sprinkled_everywhere_in_a_frame) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (bool qsort : {true, false}) {
    for (int density : {16, 3, 1}) {
      SCOPED_TRACE(testing::Message() << "qsort " << qsort << " one in " << density);
      frcnn_desc d = nan_desc(qsort);
      d.is_filter_rpn_cls = density == 3;
      void* hd = opt_layers_instance_frcnn_init(&d, anchors.data());
      ASSERT_NE(hd, nullptr);
      frame_arrays a(d);
      a.fill(density);
      ol_test::rng g(density);
      for (auto* v : {&a.cls, &a.bbox, &a.rcnn_cls, &a.rcnn_bbox})
        for (size_t i = 0; i < v->n; ++i)
          if (g.next() % density == 0) (*v)[i] = kSpecials[g.next() % 7];
      const ol_test::frame_result r = run_frame(hd, a);
      EXPECT_GE(r.k, 0);
      EXPECT_GE(r.r, 0);
      EXPECT_LE(r.r, 30);
      EXPECT_EQ(r.r2, r.r);
      EXPECT_EQ(r.post, 0);
      std::vector<float> props;
      for (size_t i = 0; i < r.proposals.size(); ++i)
        if (i % 5 != 4) props.push_back(ol_test::f(r.proposals[i]));
      expect_inside_the_image(props.data(), props.size() / 4);
      // The head boxes decoded into the context, NaN deltas included.
      const auto* ctx = static_cast<const ol::frcnn_context*>(hd);
      expect_inside_the_image(ctx->rcnn_boxes, size_t(r.r2) * d.class_num);
      for (uint32_t c = 1; c < d.class_num; ++c) EXPECT_LE(ol_test::f(r.rcnn_result[c]), 30.0f);
      opt_layers_instance_frcnn_exit(hd);
    }
  }
}

// The best-scored anchor has all four deltas NaN: its proposal is the first
// record and every coordinate is clamped to L - 1. With +inf width and
// height deltas the box spans the image: 0 to L - 1.
TEST(nan_inputs, rpn_deltas_clamp_to_the_image) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (uint16_t special : {kNaN, kInf}) {
    frcnn_desc d = nan_desc(true);
    void* hd = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(hd, nullptr);
    frame_arrays a(d);
    a.fill(1);
    std::fill(a.cls.data(), a.cls.data() + a.cls.n, h(0.25f));
    const size_t a1 = 1, y = 4, x = 5;
    a.cls[(a1 * d.fmap_h + y) * d.rpn_cls_pitch + x] = h(0.9f);
    for (size_t k = 0; k < 4; ++k)
      a.bbox[((4 * a1 + k) * d.fmap_h + y) * d.fmap_pitch + x] =
          special == kNaN ? kNaN : (k >= 2 ? kInf : h(0.0f));
    const ol_test::frame_result r = run_frame(hd, a, ol_test::step_prenms);
    ASSERT_GT(r.k, 0);
    const bool nan = special == kNaN;
    const std::vector<uint16_t> want = {h(nan ? 499.0f : 0.0f), h(nan ? 299.0f : 0.0f), h(499.0f),
                                        h(299.0f), h(0.9f)};
    EXPECT_EQ(std::vector<uint16_t>(r.proposals.begin(), r.proposals.begin() + 5), want);
    opt_layers_instance_frcnn_exit(hd);
  }
}

// Head: NaN deltas give L - 1 for every coordinate of that proposal's class
// boxes; NaN ROI corners (from the caller) likewise. A NaN probability is
// not "at or below cls_prob" either: when the walk reaches it (last here, as
// the selection sort never moves a NaN ahead) it is kept, its score copied
// bit for bit.
TEST(nan_inputs, head_deltas_rois_and_probabilities) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc d = nan_desc(true);
  d.cls_prob = 0.0f;
  d.post_nms_iou = 1.0f;  // no suppression: every proposal above cls_prob is kept
  void* hd = opt_layers_instance_frcnn_init(&d, anchors.data());
  ASSERT_NE(hd, nullptr);
  frame_arrays a(d, 3);
  a.fill(2);
  std::fill(a.rcnn_bbox.data(), a.rcnn_bbox.data() + 16, kNaN);  // ROI 0
  std::fill(a.nms_out.data() + 4, a.nms_out.data() + 8, kNaN);   // ROI 1
  for (size_t c = 0; c < d.class_num; ++c) {
    a.rcnn_cls[0 * d.rcnn_cls_pitch + c] = h(0.5f);
    a.rcnn_cls[1 * d.rcnn_cls_pitch + c] = h(0.25f);
    a.rcnn_cls[2 * d.rcnn_cls_pitch + c] = kNaN;
  }
  ASSERT_EQ((ol_test::frame_calls{hd, a}.post_nms(3)), 0);
  const float* boxes = static_cast<const ol::frcnn_context*>(hd)->rcnn_boxes;
  for (uint32_t i = 0; i < 4 * 2 * d.class_num; ++i)  // ROIs 0 and 1
    EXPECT_EQ(boxes[i], i % 2 ? 299.0f : 499.0f) << i;
  for (uint32_t c = 1; c < d.class_num; ++c) {
    SCOPED_TRACE(c);
    EXPECT_EQ(a.rcnn_result[c], h(3.0f));
    const uint16_t* det = &a.rcnn_result[d.class_num + 5 * (d.post_nms_num * c)];
    EXPECT_EQ(det[4], h(0.5f));
    EXPECT_EQ(det[0], h(499.0f));
    EXPECT_EQ(det[5 + 4], h(0.25f));
    EXPECT_EQ(det[5 + 2], h(499.0f));
    EXPECT_EQ(det[10 + 4], kNaN);
  }
  opt_layers_instance_frcnn_exit(hd);
}

// Operators: NaN boxes index nothing outside the maps and give the
// documented zeros; nms with NaN corners matches the plain twin.
TEST(nan_inputs, operators) {
  ol_test::rng g(4);
  std::vector<uint16_t> boxes(5 * 200), out(4 * 200), expect(4 * 200);
  for (size_t i = 0; i < boxes.size(); ++i)
    boxes[i] = g.next() % 5 == 0 ? kSpecials[g.next() % 7] : h(g.uniform(0, 100));
  const int kept = nms(ol_test::as_half(out), ol_test::as_half(boxes), 200, 0.5f, 200);
  EXPECT_EQ(kept, ol_ref::nms_ref(expect.data(), boxes.data(), 200, 0.5f, 200));
  EXPECT_EQ(memcmp(out.data(), expect.data(), 8 * kept), 0);

  // roi_pooling: NaN and infinite half corners stay inside the map.
  ol_test::exact_array<uint16_t> map(2 * 5 * 6 * 16), pooled(4 * 2 * 3 * 3 * 16);
  for (size_t i = 0; i < map.n; ++i) map[i] = static_cast<uint16_t>(g.next());
  uint16_t hb[16] = {kNaN, kNaN, kNaN, kNaN, kNegInf, kNegInf, kInf, kInf,
                     kInf, kInf, kNegInf, kNegInf, 0, kNaN, h(50), kInf};
  for (auto fn : {roi_pooling, roi_pooling_sign})
    EXPECT_EQ(fn(ol_test::as_half(hb), map.data(), pooled.data(), 4, 3, 3, 0, 8, 0, 5, 6, 32), 0);

  // roi_align and crop_and_resize: a NaN box gives zeros.
  ol_test::exact_array<short> smap(7 * 9 * 16), sout(2 * 3 * 4 * 16);
  for (size_t i = 0; i < smap.n; ++i) smap[i] = static_cast<short>(g.next() | 1);
  const float nan = NAN, inf = INFINITY;
  float fb[8] = {nan, nan, nan, nan, -inf, -inf, inf, inf};
  short* maps[3] = {smap.data(), smap.data(), smap.data()};
  unsigned scales[3] = {8, 16, 32};
  for (int op = 0; op < 3; ++op) {
    SCOPED_TRACE(op);
    std::fill(sout.data(), sout.data() + sout.n, short(0x5A5A));
    ol_test::stdout_capture cap;  // crop_and_resize prints one line per outside sample
    EXPECT_EQ(op == 0   ? roi_align_fmap_int16(smap.data(), 8, fb, 2, 9, 7, 4, 3, 16, sout.data())
              : op == 1 ? roi_align_four_fmap_int16(maps, scales, fb, 2, 72, 56, 4, 3, 16, sout.data())
                        : crop_and_resize_fmap_int16(smap.data(), 1.0f, 1.0f, 7.0f, fb, 2, 9, 7, 4,
                                                     3, 16, sout.data()),
              0);
    cap.end();
    for (size_t i = 0; i < 3 * 4 * 16; ++i) ASSERT_EQ(sout[i], 0) << i;
  }
  {
    ol_test::stdout_capture cap;
    EXPECT_EQ(crop_and_resize_fmap_int16(smap.data(), nan, inf, nan, fb + 4, 1, 9, 7, 4, 3, 16,
                                         sout.data()), 0);
  }

  // ps_roi_pooling: NaN boxes and NaN map values; zeros for NaN boxes.
  const int group = 3, oc = 5;
  ol_test::exact_array<float> fmap(group * group * 4 * 4 * oc), fout(2 * group * group * oc);
  for (size_t i = 0; i < fmap.n; ++i) fmap[i] = g.next() % 9 == 0 ? nan : g.uniform(-1, 1);
  std::fill(fout.data(), fout.data() + fout.n, 3.0f);
  float pb[8] = {nan, nan, nan, nan, -inf, nan, inf, 40};
  EXPECT_EQ(ps_roi_pooling(fmap.data(), 4, 4, group * group * oc, oc, pb, 2, fout.data(), group,
                           group, oc, oc, 0.125f, group), 0);
  for (int i = 0; i < group * group * oc; ++i) ASSERT_EQ(fout[i], 0.0f) << i;
  EXPECT_EQ(ps_roi_pooling_scale(fmap.data(), 4, 4, group * group * oc, oc, pb, 2, fout.data(),
                                 group, group, oc, oc, nan, group, inf, nan, -inf), 0);
}

}  // namespace
