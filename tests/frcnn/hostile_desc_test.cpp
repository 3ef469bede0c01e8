// Hostile descriptors: sizes whose buffers would need 4 GiB or more or whose
// 32-bit products wrap, class_num 0 and 1, proposal counts at and beyond
// 32767, empty maps and pitches below the widths. Init either fails with the
// message of the buffer concerned or the frames run on exactly sized arrays
// (ASan reports any access past them) with bounded results.
#include <dirent.h>

#include <string>

#include "common/alloc.h"
#include "frcnn/context.h"
#include "frcnn/robust_frame.h"

namespace {

using ol_test::frame_arrays;
using ol_test::run_frame;
using ol_test::stdout_capture;

using ol_test::live_threads;

// Records the largest allocation init asks for.
struct largest_alloc {
  size_t largest = 0;
  static bool hook(size_t bytes, void* user) {
    auto* self = static_cast<largest_alloc*>(user);
    self->largest = std::max(self->largest, bytes);
    return true;
  }
};

frcnn_desc small(bool qsort = true) {
  frcnn_desc d = ol_test::mobile_desc(2, qsort);
  d.anchor_num = 3;
  d.fmap_h = 6;
  d.fmap_w = 7;
  d.fmap_pitch = d.rpn_cls_pitch = d.rpn_bbox_pitch = 8;
  d.pre_nms_num = 60;
  d.post_nms_num = 20;
  d.fmap_d = 32;
  d.pool_h = d.pool_w = 3;
  return d;
}

struct refused_case {
  const char* name;
  void (*set)(frcnn_desc&);
  const char* message;
};

// Each configuration needs one buffer of 4 GiB or more (or a 32-bit product
// that wraps); every buffer before it is small.
const refused_case k_refused[] = {
    {"positions wrap to 0 in 32 bits",
     [](frcnn_desc& d) { d.anchor_num = 0x10000; d.fmap_h = 0x10000; d.fmap_w = 1; },
     "malloc for anchors err\n"},
    {"anchors exactly 4 GiB",
     [](frcnn_desc& d) { d.anchor_num = 1; d.fmap_h = 0x10000; d.fmap_w = 0x1000; },
     "malloc for anchors err\n"},
    {"all u32 maxima",
     [](frcnn_desc& d) { d.anchor_num = d.fmap_h = d.fmap_w = 0xFFFFFFFF; },
     "malloc for anchors err\n"},
    {"detections of pre_nms_num * 10 above 4 GiB",
     [](frcnn_desc& d) { d.pre_nms_num = 0x1999999A; },
     "malloc for detections err\n"},
    {"per-anchor counts of an empty map",
     [](frcnn_desc& d) { d.anchor_num = 0x40000000; d.fmap_h = 0; },
     "malloc for order_rpn_index \n"},
    {"head boxes wrap in 32 bits",
     [](frcnn_desc& d) { d.post_nms_num = 0x10000; d.class_num = 0x1000; },
     "malloc for anchors err\n"},
    {"head task records without classes",
     [](frcnn_desc& d) { d.post_nms_num = 0x7FFFFFFF; d.class_num = 0; },
     "malloc for anchors err\n"},
};

TEST(hostile_desc, oversized_buffers_are_refused_with_their_message) {
  std::vector<float> anchors(4 * 16, 1.0f);
  const int threads = ol_test::quiet_threads();
  for (bool qsort : {true, false}) {
    for (const refused_case& c : k_refused) {
      SCOPED_TRACE(c.name);
      frcnn_desc d = small(qsort);
      c.set(d);
      const frcnn_desc copy = d;
      largest_alloc la;
      ol::alloc_hooks hooks{largest_alloc::hook, &la};
      {
        stdout_capture cap;
        ol::set_alloc_hooks(&hooks);
        void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
        ol::set_alloc_hooks(nullptr);
        EXPECT_EQ(h, nullptr);
        EXPECT_EQ(cap.end(), c.message);
      }
      // Nothing of 4 GiB or more (nor a wrapped size) reached the allocator.
      EXPECT_LT(la.largest, 64u << 20);
      EXPECT_EQ(memcmp(&d, &copy, sizeof d), 0);
      {
        stdout_capture cap;
        EXPECT_EQ(opt_layers_frcnn_init(&d, anchors.data()), -1);
        EXPECT_EQ(cap.end(), std::string(c.message) + "frcnn_init err\n");
      }
      EXPECT_EQ(ol::global_context(), nullptr);
      EXPECT_EQ(ol_test::settled_threads(threads), threads);
    }
  }
}

// class_num 0 and 1 in every head layout: the frame runs, post_nms returns 0,
// and the detection table (class_num + 5 * post_nms_num * class_num halves)
// gets only what it has room for.
TEST(hostile_desc, class_num_zero_and_one) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (uint32_t classes : {0u, 1u}) {
    for (int layout = 0; layout < 4; ++layout) {
      SCOPED_TRACE(testing::Message() << "class_num " << classes << " layout " << layout);
      frcnn_desc d = small();
      d.class_num = classes;
      d.rcnn_bbox_share_location = layout & 1;
      d.is_no_rcnn_bg_bbox = (layout >> 1) & 1;
      d.rcnn_cls_pitch = classes;
      d.rcnn_bbox_pitch = 4 * classes;
      void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
      ASSERT_NE(h, nullptr);
      frame_arrays a(d);
      a.fill(classes * 4 + layout);
      const ol_test::frame_result r = run_frame(h, a);
      EXPECT_GT(r.r, 0);
      EXPECT_EQ(r.post, 0);
      if (classes == 1) {
        EXPECT_EQ(a.rcnn_result[0], 0u);
      }
      opt_layers_instance_frcnn_exit(h);
    }
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
    d.fmap_w = 80;  // 43200 positions
    d.fmap_pitch = d.rpn_cls_pitch = 80;
    d.min_size = 0;
    d.pre_nms_iou = 0.95f;
    d.fmap_d = 16;
    d.pool_h = d.pool_w = 2;
    d.class_num = 3;
    d.rcnn_cls_pitch = 3;
    d.rcnn_bbox_pitch = 12;
    d.pre_nms_num = c[0];
    d.post_nms_num = c[1];
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(h, nullptr);
    frame_arrays a(d, d.post_nms_num + 5);
    a.fill(c[0] ^ c[1]);
    ol_test::frame_result r = run_frame(h, a, ol_test::step_prenms | ol_test::step_prenms_nms);
    EXPECT_EQ(static_cast<uint32_t>(r.k), std::min(d.pre_nms_num, 43200u));
    EXPECT_GE(r.r, 0);
    EXPECT_LE(r.r, 32767);
    {
      stdout_capture cap;
      const int post = opt_layers_instance_frcnn_post_nms(h, a.rcnn_cls.half(), a.rcnn_bbox.half(),
                                                          a.nms_out.half(), a.rcnn_result.half(),
                                                          d.post_nms_num + 5);
      EXPECT_EQ(post, 0);
      EXPECT_EQ(cap.end(), ol_test::format("Abnormal frcnn post nms rois num: %u > %u\n",
                                           d.post_nms_num + 5, d.post_nms_num));
    }
    for (uint32_t cl = 1; cl < d.class_num; ++cl)
      EXPECT_LE(ol_test::f(a.rcnn_result[cl]), 32767.0f);
    opt_layers_instance_frcnn_exit(h);
  }
}

// Empty maps and no anchors: every entry point runs and finds nothing.
TEST(hostile_desc, empty_maps) {
  std::vector<float> anchors = ol_test::base_anchors_9();
  for (int which = 0; which < 4; ++which) {
    SCOPED_TRACE(which);
    frcnn_desc d = small(which & 1);
    if (which == 0) d.fmap_h = 0;
    if (which == 1) d.fmap_w = 0;
    if (which == 2) d.anchor_num = 0;
    if (which == 3) d.pre_nms_num = d.post_nms_num = 0;
    void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
    ASSERT_NE(h, nullptr);
    frame_arrays a(d);
    a.fill(which);
    const ol_test::frame_result r = run_frame(h, a);
    EXPECT_EQ(r.k, 0);
    EXPECT_EQ(r.r, 0);
    EXPECT_EQ(r.r2, 0);
    EXPECT_EQ(r.post, 0);
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
    d.rpn_cls_pitch = which == 0 ? 5 : 9;
    d.fmap_pitch = which == 0 ? 9 : 4;
    if (which == 2) d.rpn_cls_pitch = 0;  // every row the same
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
  d.fmap_h = 5;
  d.fmap_w = 5;
  d.fmap_scale = 0x80808080u;
  void* h = opt_layers_instance_frcnn_init(&d, anchors.data());
  ASSERT_NE(h, nullptr);
  const auto* ctx = static_cast<const ol::frcnn_context*>(h);
  const int64_t S = static_cast<int32_t>(d.fmap_scale);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x)
      for (int a = 0; a < 2; ++a) {
        const float* r = ctx->anchors + 4 * ((y * 5 + x) * 2 + a);
        EXPECT_EQ(r[0], anchors[4 * a] + static_cast<float>(x * S));
        EXPECT_EQ(r[1], anchors[4 * a + 1] + static_cast<float>(y * S));
        EXPECT_EQ(r[3], anchors[4 * a + 3] + static_cast<float>(y * S));
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
