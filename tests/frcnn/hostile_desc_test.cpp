// Hostile descriptors: sizes whose buffers would need 4 GiB or more or whose
// 32-bit products wrap, class_num 0 and 1, proposal counts at and beyond
// 32767, empty maps and pitches below the widths. Init either fails with the
// message of the buffer concerned or the frames run on exactly sized arrays
// (ASan reports any access past them) with bounded results.
#include <string>

#include "common/alloc.h"
#include "frcnn/context.h"
#include "frcnn/robust_frame.h"

namespace {

using ol_test::frame_arrays;
using ol_test::run_frame;
using ol_test::stdout_capture;

frcnn_desc small(bool qsort = true) { return ol_test::robust_desc(2, qsort); }

// Hooks that let every allocation through and keep the largest size asked.
ol::alloc_hooks largest_allocation(size_t* largest) {
  return {[](size_t bytes, void* user) {
            size_t& l = *static_cast<size_t*>(user);
            l = std::max(l, bytes);
            return true;
          },
          largest};
}

// Each configuration needs one buffer of 4 GiB or more (or a 32-bit product
// that wraps); every buffer before it is small.
const struct {
  const char* name;
  uint32_t anchor_num, fmap_h, fmap_w, pre_nms_num, post_nms_num, class_num;
  const char* message;
} k_refused[] = {
    {"positions wrap to 0 in 32 bits", 0x10000, 0x10000, 1, 100, 30, 4, "malloc for anchors err\n"},
    {"anchors exactly 4 GiB", 1, 0x10000, 0x1000, 100, 30, 4, "malloc for anchors err\n"},
    {"all u32 maxima", ~0u, ~0u, ~0u, 100, 30, 4, "malloc for anchors err\n"},
    {"detections of pre_nms_num * 10 above 4 GiB", 3, 8, 10, 0x1999999A, 30, 4,
     "malloc for detections err\n"},
    {"head boxes wrap in 32 bits", 3, 8, 10, 100, 0x10000, 0x1000, "malloc for anchors err\n"},
};

TEST(hostile_desc, oversized_buffers_are_refused_with_their_message) {
  std::vector<float> anchors(4 * 16, 1.0f);
  const int threads = ol_test::quiet_threads();
  for (bool qsort : {true, false}) {
    for (const auto& c : k_refused) {
      SCOPED_TRACE(c.name);
      frcnn_desc d = small(qsort);
      d.anchor_num = c.anchor_num;
      d.fmap_h = c.fmap_h;
      d.fmap_w = c.fmap_w;
      d.pre_nms_num = c.pre_nms_num;
      d.post_nms_num = c.post_nms_num;
      d.class_num = c.class_num;
      const frcnn_desc copy = d;
      size_t largest = 0;  // the largest allocation init asks for
      const ol::alloc_hooks hooks = largest_allocation(&largest);
      stdout_capture cap;
      ol::set_alloc_hooks(&hooks);
      EXPECT_EQ(opt_layers_instance_frcnn_init(&d, anchors.data()), nullptr);
      ol::set_alloc_hooks(nullptr);
      EXPECT_EQ(cap.end(), c.message);
      // Nothing of 4 GiB or more (nor a wrapped size) reached the allocator.
      EXPECT_LT(largest, 64u << 20);
      EXPECT_EQ(memcmp(&d, &copy, sizeof d), 0);
      stdout_capture cap2;
      EXPECT_EQ(opt_layers_frcnn_init(&d, anchors.data()), -1);
      EXPECT_EQ(cap2.end(), std::string(c.message) + "frcnn_init err\n");
      EXPECT_EQ(ol::global_context(), nullptr);
      EXPECT_EQ(ol_test::settled_threads(threads), threads);
    }
  }
}

// Huge counts that size no buffer (anchors of an empty map, ROIs without
// classes) are accepted: init allocates nothing large for them.
TEST(hostile_desc, huge_counts_of_empty_buffers_are_accepted) {
  std::vector<float> anchors(4 * 16, 1.0f);
  for (bool qsort : {true, false})
    for (const uint32_t which : {0u, 1u}) {
      frcnn_desc d = small(qsort);
      if (which == 0) {
        d.anchor_num = 0x40000000;
        d.fmap_h = 0;
      } else {
        d.post_nms_num = 0x7FFFFFFF;
        d.class_num = 0;
      }
      size_t largest = 0;
      const ol::alloc_hooks hooks = largest_allocation(&largest);
      stdout_capture cap;
      ol::set_alloc_hooks(&hooks);
      void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
      ol::set_alloc_hooks(nullptr);
      EXPECT_NE(h, nullptr) << qsort << which;
      EXPECT_EQ(cap.end(), "");
      EXPECT_LT(largest, 64u << 20);
      opt_layers_instance_frcnn_exit(h);
    }
}

// Empty maps and no anchors: every entry point runs and finds nothing.
// class_num 0 and 1 in every head layout: the frame runs, post_nms returns
// 0, and the detection table (class_num + 5 * post_nms_num * class_num
// halves) gets only what it has room for.
TEST(hostile_desc, empty_maps_and_class_num_zero_and_one) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (int which = 0; which < 12; ++which) {
    SCOPED_TRACE(which);
    frcnn_desc d = small(which & 1);
    const bool empty = which < 4;
    if (which == 0) d.fmap_h = 0;
    if (which == 1) d.fmap_w = 0;
    if (which == 2) d.anchor_num = 0;
    if (which == 3) d.pre_nms_num = d.post_nms_num = 0;
    if (!empty) {
      d.class_num = which >= 8;
      d.rcnn_bbox_share_location = which & 1;
      d.is_no_rcnn_bg_bbox = (which >> 1) & 1;
      d.rcnn_cls_pitch = d.class_num;
      d.rcnn_bbox_pitch = 4 * d.class_num;
    }
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(h, nullptr);
    frame_arrays a(d);
    a.fill(which);
    const ol_test::frame_result r = run_frame(h, a);
    EXPECT_EQ(r.post, 0);
    EXPECT_EQ(r.r2, r.r);
    EXPECT_EQ(r.r == 0, empty);
    EXPECT_EQ(r.k == 0, empty);
    EXPECT_TRUE(d.class_num != 1 || a.rcnn_result[0] == 0);
    opt_layers_instance_frcnn_exit(h);
  }
}

// pre_nms_num and post_nms_num at 32767 and beyond: init accepts them, the
// NMS count stays within 32767 and within the caller's room, and post_nms
// with more ROIs than post_nms_num is clamped.
TEST(hostile_desc, proposal_counts_at_and_beyond_32767) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  const uint32_t counts[][2] = {{32767, 32767}, {40000, 32767}, {32767, 40000}, {65536, 65535}};
  for (const auto& c : counts) {
    SCOPED_TRACE(testing::Message() << "pre " << c[0] << " post " << c[1]);
    frcnn_desc d = ol_test::vgg16_desc(2, true);
    d.fmap_h = 60;
    d.fmap_w = d.fmap_pitch = d.rpn_cls_pitch = 80;  // 43200 positions
    d.min_size = 0;
    d.pre_nms_iou = 0.95f;
    d.fmap_d = 16;
    d.pool_h = d.pool_w = 2;
    d.class_num = d.rcnn_cls_pitch = 3;
    d.rcnn_bbox_pitch = 12;
    d.pre_nms_num = c[0];
    d.post_nms_num = c[1];
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(h, nullptr);
    frame_arrays a(d, d.post_nms_num + 5);
    a.fill(c[0] ^ c[1]);
    const ol_test::frame_result r = run_frame(h, a, ol_test::step_prenms | ol_test::step_prenms_nms);
    EXPECT_EQ(static_cast<uint32_t>(r.k), std::min(d.pre_nms_num, 43200u));
    EXPECT_GE(r.r, 0);
    EXPECT_LE(r.r, 32767);
    stdout_capture cap;
    EXPECT_EQ((ol_test::frame_calls{h, a}.post_nms(d.post_nms_num + 5)), 0);
    EXPECT_EQ(cap.end(), ol_test::format("Abnormal frcnn post nms rois num: %u > %u\n",
                                         d.post_nms_num + 5, d.post_nms_num));
    for (uint32_t cl = 1; cl < d.class_num; ++cl) EXPECT_LE(ol_test::f(a.rcnn_result[cl]), 32767.0f);
    opt_layers_instance_frcnn_exit(h);
  }
}

// Row pitches below the row width: rows overlap, and the stage reads each
// row [r * pitch, r * pitch + W). The same frame laid out at pitch W (each
// row copied out of the overlapping layout) gives the same results.
TEST(hostile_desc, pitches_below_the_width_read_overlapping_rows) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (int which = 0; which < 3; ++which) {
    SCOPED_TRACE(which);
    frcnn_desc d = small(which == 2);
    d.is_rpn_cls_fg_only = which == 1;
    d.is_filter_rpn_cls = which == 1;  // the parallel filter
    d.fmap_w = 9;
    d.rpn_cls_pitch = which == 0 ? 5 : (which == 1 ? 9 : 0);  // 0: every row the same
    d.fmap_pitch = which == 0 ? 9 : 4;
    frcnn_desc wide = d;
    wide.rpn_cls_pitch = wide.fmap_pitch = d.fmap_w;
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    void* hw = opt_layers_instance_frcnn_init(&wide, anchors.data());
    ASSERT_NE(h, nullptr);
    ASSERT_NE(hw, nullptr);
    frame_arrays a(d), b(wide);
    a.fill(7);
    b.fill(7);
    const uint32_t planes = ol_test::rpn_score_planes(d);
    for (size_t r = 0; r < size_t(planes) * d.fmap_h; ++r)
      for (size_t x = 0; x < d.fmap_w; ++x) b.cls[r * d.fmap_w + x] = a.cls[r * d.rpn_cls_pitch + x];
    for (size_t r = 0; r < size_t(4) * d.anchor_num * d.fmap_h; ++r)
      for (size_t x = 0; x < d.fmap_w; ++x) b.bbox[r * d.fmap_w + x] = a.bbox[r * d.fmap_pitch + x];
    // The rest of the frame is the same too.
    memcpy(b.fmap.data(), a.fmap.data(), a.fmap.n * 2);
    memcpy(b.nms_out.data(), a.nms_out.data(), a.nms_out.n * 2);
    memcpy(b.rcnn_cls.data(), a.rcnn_cls.data(), a.rcnn_cls.n * 2);
    memcpy(b.rcnn_bbox.data(), a.rcnn_bbox.data(), a.rcnn_bbox.n * 2);
    const ol_test::frame_result ra = run_frame(h, a), rb = run_frame(hw, b);
    EXPECT_GT(ra.k, 0);
    EXPECT_TRUE(ra == rb);
    opt_layers_instance_frcnn_exit(h);
    opt_layers_instance_frcnn_exit(hw);
  }
}

// Found by fuzzing: a stride beyond INT_MAX (read as a negative int) made
// the anchor shifts y * S and x * S overflow int. They are formed in 64 bits.
TEST(hostile_desc, huge_stride_shifts_anchors_without_overflow) {
  std::vector<float> anchors = {-8, -8, 8, 8, -16, -4, 16, 4};
  frcnn_desc d = small();
  d.anchor_num = 2;
  d.fmap_h = d.fmap_w = 5;
  d.fmap_scale = 0x80808080u;
  void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
  ASSERT_NE(h, nullptr);
  const float* got = static_cast<const ol::frcnn_context*>(h)->anchors;
  const int64_t S = static_cast<int32_t>(d.fmap_scale);
  for (int i = 0; i < 5 * 5 * 2; ++i) {
    const int a = i % 2, x = i / 2 % 5, y = i / 10;
    EXPECT_EQ(got[4 * i], anchors[4 * a] + static_cast<float>(x * S)) << i;
    EXPECT_EQ(got[4 * i + 1], anchors[4 * a + 1] + static_cast<float>(y * S)) << i;
    EXPECT_EQ(got[4 * i + 3], anchors[4 * a + 3] + static_cast<float>(y * S)) << i;
  }
  frame_arrays f(d);
  f.fill(3);
  EXPECT_GE(run_frame(h, f).r, 0);
  opt_layers_instance_frcnn_exit(h);
}

// Found by fuzzing: a count below -32768 has low 16 bits that read as a
// positive count; nms wrote boxes it had never been given.
TEST(hostile_operator_args, nms_negative_counts_write_nothing) {
  uint16_t in[5] = {0, 0, 0x5000, 0x5000, 0x3C00};
  uint16_t out[4] = {0xAAAA, 0xAAAA, 0xAAAA, 0xAAAA};
  for (int count : {-40000, -65535, -32769, -1, INT32_MIN}) {
    EXPECT_EQ(nms(ol_test::as_half(out), ol_test::as_half(in), count, 0.5f, 1), 0) << count;
    EXPECT_EQ(out[0], 0xAAAA);
  }
}

}  // namespace
