// Deterministic synthetic frames for tests and benchmarks: descriptors of
// realistic configurations, region-proposal tensors to go with them, and a
// whole pipeline frame on caller arrays sized exactly to what the library
// may read or write (AddressSanitizer reports any access past them).
#ifndef OL_TESTS_FRAME_GEN_H
#define OL_TESTS_FRAME_GEN_H

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "brennik_opt_layers.h"
#include "common/test_util.h"

namespace ol_test {

// The nine anchors of a stride-16 detector (ratios 0.5, 1, 2; scales 8, 16,
// 32), for the cell at the origin.
inline std::vector<float> base_anchors_9() {
  return {-84,  -40,  99,  55,  -176, -88,  191, 103, -360, -184, 375, 199,
          -56,  -56,  71,  71,  -120, -120, 135, 135, -248, -248, 263, 263,
          -36,  -80,  51,  95,  -80,  -168, 95,  183, -168, -344, 183, 359};
}

// VGG16 Faster R-CNN at 600x1000: 38x63 map, 9 anchors, two-class scores,
// 6000 proposals before NMS, 300 after, 21 classes, 512 channels, 7x7.
inline frcnn_desc vgg16_desc(uint8_t threads, bool use_qsort) {
  frcnn_desc d;
  memset(&d, 0, sizeof d);
  d.thread_num = threads;
  d.is_use_qsort = use_qsort;
  d.anchor_num = 9;
  d.pre_nms_num = 6000;
  d.post_nms_num = 300;
  d.class_num = 21;
  d.img_h = 600;
  d.img_w = 1000;
  d.fmap_scale = 16;
  d.fmap_d = 512;
  d.fmap_h = 38;
  d.fmap_w = 63;
  d.fmap_pitch = 64;
  d.rpn_bbox_pitch = 64;
  d.rpn_cls_pitch = 64;
  d.min_size = 16;
  d.pool_h = 7;
  d.pool_w = 7;
  d.pool_pitch = 7;
  d.rcnn_bbox_pitch = 84;
  d.rcnn_cls_pitch = 21;
  d.pre_nms_iou = 0.7f;
  d.post_nms_iou = 0.3f;
  d.cls_prob = 0.05f;
  d.rpn_cls_threshold = 0.0f;
  d.bbox_type = 0;
  d.bbox_scale_factor = {1.0f, 1.0f, 1.0f, 1.0f};
  return d;
}

// A mobile configuration: 19x32 map, 9 anchors, 1000 before NMS, 100 after.
inline frcnn_desc mobile_desc(uint8_t threads, bool use_qsort) {
  frcnn_desc d = vgg16_desc(threads, use_qsort);
  d.fmap_h = 19;
  d.fmap_w = 32;
  d.fmap_pitch = d.rpn_cls_pitch = d.rpn_bbox_pitch = 32;
  d.img_h = 300;
  d.img_w = 500;
  d.pre_nms_num = 1000;
  d.post_nms_num = 100;
  return d;
}

inline uint32_t rpn_score_planes(const frcnn_desc& d) {
  return (d.is_rpn_cls_fg_minus_bg || !d.is_rpn_cls_fg_only) ? 2 * d.anchor_num : d.anchor_num;
}

struct rpn_frame {
  std::vector<uint16_t> cls;
  std::vector<uint16_t> bbox;
};

// Scores: a softmax pair per position with a few peaked "objects" (so
// there are many distinct values and clusters of overlapping boxes); pad
// columns hold NaN so that reading them shows. Deltas: small, in [-0.2, 0.2).
inline rpn_frame make_rpn_frame(const frcnn_desc& d, uint64_t seed) {
  uint64_t s = seed * 0x9E3779B97F4A7C15ull + 7;
  auto rnd = [&s]() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return static_cast<float>((s >> 11) & 0xFFFFFF) / 16777216.0f;
  };
  const uint32_t A = d.anchor_num, H = d.fmap_h, W = d.fmap_w;
  const uint32_t planes = rpn_score_planes(d);
  rpn_frame f;
  f.cls.assign(static_cast<size_t>(planes) * H * d.rpn_cls_pitch, 0x7E00);
  f.bbox.assign(static_cast<size_t>(4) * A * H * d.fmap_pitch, 0x7E00);
  const int objects = 6;
  float ox[objects], oy[objects];
  for (int o = 0; o < objects; ++o) {
    ox[o] = rnd() * W;
    oy[o] = rnd() * H;
  }
  for (uint32_t a = 0; a < A; ++a)
    for (uint32_t y = 0; y < H; ++y)
      for (uint32_t x = 0; x < W; ++x) {
        float logit = -4.0f + 2.0f * rnd();
        for (int o = 0; o < objects; ++o) {
          const float dx = x - ox[o], dy = y - oy[o];
          logit += 7.0f * expf(-(dx * dx + dy * dy) / (2.0f + a));
        }
        const float fg = 1.0f / (1.0f + expf(-logit));
        const size_t at = static_cast<size_t>(y) * d.rpn_cls_pitch + x;
        const size_t plane = static_cast<size_t>(H) * d.rpn_cls_pitch;
        // The foreground score's plane, and the background's when there is one
        // (pairs: background and foreground plane of each anchor in turn).
        const bool pairs = d.is_rpn_cls_fg_minus_bg;
        const size_t fg_plane = pairs ? 2 * a + 1 : d.is_rpn_cls_fg_only ? a : A + a;
        f.cls[fg_plane * plane + at] = h(fg);
        if (pairs || !d.is_rpn_cls_fg_only) f.cls[(pairs ? 2 * a : a) * plane + at] = h(1.0f - fg);
        for (uint32_t k = 0; k < 4; ++k)
          f.bbox[((4 * a + k) * H + y) * static_cast<size_t>(d.fmap_pitch) + x] =
              opt_layers_half::from_float_round(0.4f * rnd() - 0.2f);
      }
  return f;
}

inline half_float::half* hp(std::vector<uint16_t>& v) {
  return reinterpret_cast<half_float::half*>(v.data());
}

// An instance handle (base_anchors_9 unless given), exited on destruction.
struct handle {
  void* h;
  explicit handle(frcnn_desc d, const std::vector<float>& anchors = base_anchors_9())
      : h(opt_layers_instance_frcnn_init(&d, const_cast<float*>(anchors.data()))) {}
  ~handle() { opt_layers_instance_frcnn_exit(h); }
  handle(const handle&) = delete;
  handle& operator=(const handle&) = delete;
};

// A small frame for the robustness tests: 3 anchors on an 8 x 10 map (rows at pitch 11) of a
// 500 x 300 image, 100 proposals before NMS and 30 after, no size limit,
// 4 classes, 16 channels pooled 2 x 2.
inline frcnn_desc robust_desc(uint8_t threads, bool qsort) {
  frcnn_desc d = mobile_desc(threads, qsort);
  d.anchor_num = 3;
  d.fmap_h = 8;
  d.fmap_w = 10;
  d.fmap_pitch = d.rpn_cls_pitch = 11;
  d.min_size = 0;
  d.pre_nms_num = 100;
  d.post_nms_num = 30;
  d.class_num = d.rcnn_cls_pitch = 4;
  d.rcnn_bbox_pitch = 16;
  d.fmap_d = 16;
  d.pool_h = d.pool_w = 2;
  return d;
}

// Extent of `rows` rows of `width` elements at row pitch `pitch` (the pitch
// may be below the width: rows then overlap).
inline size_t pitched_extent(uint64_t rows, uint64_t pitch, uint64_t width) {
  return rows == 0 || width == 0 ? 0 : static_cast<size_t>((rows - 1) * pitch + width);
}

// Caller arrays of one frame for descriptor d. rows_for_head: rows of the
// head arrays (the roi_num later given to post_nms, at least what NMS
// returns).
struct frame_arrays {
  exact_array<uint16_t> cls, bbox, fmap, roi_result, nms_out, rcnn_cls, rcnn_bbox, rcnn_result;
  uint32_t head_rows = 0;
  size_t roi_elems = 0;  // pooled elements per ROI; its whole 16-channel blocks are written

  frame_arrays(const frcnn_desc& d, uint32_t rows_for_head = 0) {
    const uint64_t A = d.anchor_num, H = d.fmap_h, W = d.fmap_w;
    cls = exact_array<uint16_t>(pitched_extent(rpn_score_planes(d) * H, d.rpn_cls_pitch, W));
    bbox = exact_array<uint16_t>(pitched_extent(4 * A * H, d.fmap_pitch, W));
    const uint32_t max_rois = std::min<uint32_t>(d.post_nms_num, 32767);
    head_rows = std::max(max_rois, std::min(rows_for_head, d.post_nms_num));
    fmap = exact_array<uint16_t>(d.fmap_d / 16 * H * W * 16);
    roi_elems = static_cast<size_t>(uint64_t{d.fmap_d} * d.pool_h * d.pool_w);
    roi_result = exact_array<uint16_t>(static_cast<size_t>(max_rois) * roi_elems);
    nms_out = exact_array<uint16_t>(4ull * head_rows);
    const uint64_t C = d.class_num == 0 ? 0 : (d.is_no_rcnn_bg_bbox ? d.class_num - 1 : d.class_num);
    const uint64_t bbox_reads = d.rcnn_bbox_share_location ? (d.class_num > 0 ? 4 : 0) : 4 * C;
    rcnn_cls = exact_array<uint16_t>(pitched_extent(head_rows, d.rcnn_cls_pitch, d.class_num));
    rcnn_bbox = exact_array<uint16_t>(pitched_extent(head_rows, d.rcnn_bbox_pitch, bbox_reads));
    rcnn_result = exact_array<uint16_t>(d.class_num + 5ull * d.post_nms_num * d.class_num);
  }

  // Plausible RPN scores in [0, 1) and deltas in [-0.2, 0.2), random map,
  // head probabilities in [0, 1) and deltas in [-0.5, 0.5), seed boxes in
  // nms_out for the rows NMS will not write; outputs poisoned.
  void fill(uint64_t seed) {
    rng g(seed);
    std::fill(roi_result.data(), roi_result.data() + roi_result.n, 0xA5A5);
    std::fill(rcnn_result.data(), rcnn_result.data() + rcnn_result.n, 0xA5A5);
    for (size_t i = 0; i < cls.n; ++i) cls[i] = h(g.uniform(0.0f, 1.0f));
    for (size_t i = 0; i < bbox.n; ++i) bbox[i] = h(g.uniform(-0.2f, 0.2f));
    for (size_t i = 0; i < fmap.n; ++i) fmap[i] = static_cast<uint16_t>(g.next());
    for (size_t i = 0; i < rcnn_cls.n; ++i) rcnn_cls[i] = h(g.uniform(0.0f, 1.0f));
    for (size_t i = 0; i < rcnn_bbox.n; ++i) rcnn_bbox[i] = h(g.uniform(-0.5f, 0.5f));
    for (size_t i = 0; i + 4 <= nms_out.n; i += 4) {
      const float x = g.uniform(0, 400), y = g.uniform(0, 300);
      nms_out[i] = h(x);
      nms_out[i + 1] = h(y);
      nms_out[i + 2] = h(x + g.uniform(1, 200));
      nms_out[i + 3] = h(y + g.uniform(1, 200));
    }
  }
};

// Entry point opt_layers_[instance_]frcnn_<name> on handle hd, or on the
// process-wide context when hd is NULL.
#define OL_FRCNN_CALL(hd, name, ...)                                   \
  ((hd) ? opt_layers_instance_frcnn_##name((hd), __VA_ARGS__)          \
        : opt_layers_frcnn_##name(__VA_ARGS__))

// Each entry point on the frame's arrays.
struct frame_calls {
  void* hd;
  frame_arrays& a;
  int prenms(half_float::half** p) { return OL_FRCNN_CALL(hd, prenms, a.cls.half(), a.bbox.half(), p); }
  int prenms_nms() { return OL_FRCNN_CALL(hd, prenms_nms, a.cls.half(), a.bbox.half(), a.nms_out.half()); }
  int pre_nms_roi() {
    return OL_FRCNN_CALL(hd, pre_nms_roi, a.cls.half(), a.bbox.half(), a.fmap.data(), a.roi_result.data(),
                         a.nms_out.half());
  }
  int post_nms(uint32_t n) {
    return OL_FRCNN_CALL(hd, post_nms, a.rcnn_cls.half(), a.rcnn_bbox.half(), a.nms_out.half(),
                         a.rcnn_result.half(), n);
  }
};

// What one frame produced.
struct frame_result {
  int k = 0, r = 0, r2 = 0, post = 0;
  std::vector<uint16_t> proposals, nms_out, roi_result, rcnn_result;
  bool operator==(const frame_result& o) const {
    return k == o.k && r == o.r && r2 == o.r2 && post == o.post && proposals == o.proposals &&
           nms_out == o.nms_out && roi_result == o.roi_result && rcnn_result == o.rcnn_result;
  }
};

enum frame_steps : unsigned {
  step_prenms = 1,
  step_prenms_nms = 2,
  step_pre_nms_roi = 4,
  step_post_nms = 8,
  step_all = 15,
};

// Runs the chosen entry points on handle hd (the process-wide context when
// hd is NULL). roi_num 0: post_nms gets the NMS count.
// keep false: nothing is copied out (and nothing allocated), only the counts.
inline frame_result run_frame(void* hd, frame_arrays& a, unsigned steps = step_all,
                              uint32_t roi_num = 0, bool keep = true) {
  frame_calls c{hd, a};
  frame_result out;
  if (steps & step_prenms) {
    half_float::half* props = nullptr;
    out.k = c.prenms(&props);
    const uint16_t* p = reinterpret_cast<const uint16_t*>(props);
    if (keep && out.k > 0) out.proposals.assign(p, p + 5 * static_cast<size_t>(out.k));
  }
  if (steps & step_prenms_nms) out.r = c.prenms_nms();
  if (steps & step_pre_nms_roi) {
    out.r2 = c.pre_nms_roi();
    if (keep && out.r2 > 0 && a.roi_result.n > 0) out.roi_result = a.roi_result.vec(a.roi_elems * out.r2);
  }
  const int rois = (steps & step_pre_nms_roi) ? out.r2 : out.r;
  if (keep && rois > 0) out.nms_out = a.nms_out.vec(4 * static_cast<size_t>(rois));
  if (steps & step_post_nms) {
    out.post = c.post_nms(roi_num ? roi_num : static_cast<uint32_t>(std::max(rois, 0)));
    if (keep) out.rcnn_result = a.rcnn_result.vec();
  }
  return out;
}


}  // namespace ol_test

#endif
