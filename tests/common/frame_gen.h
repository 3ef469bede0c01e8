// Deterministic synthetic frames for tests and benchmarks: descriptors of
// realistic configurations and region-proposal tensors to go with them.
#ifndef OL_TESTS_FRAME_GEN_H
#define OL_TESTS_FRAME_GEN_H

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "brennik_opt_layers.h"

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
        if (d.is_rpn_cls_fg_minus_bg) {
          f.cls[2 * a * plane + at] = opt_layers_half::from_float_round(1.0f - fg);
          f.cls[(2 * a + 1) * plane + at] = opt_layers_half::from_float_round(fg);
        } else if (d.is_rpn_cls_fg_only) {
          f.cls[a * plane + at] = opt_layers_half::from_float_round(fg);
        } else {
          f.cls[a * plane + at] = opt_layers_half::from_float_round(1.0f - fg);
          f.cls[(A + a) * plane + at] = opt_layers_half::from_float_round(fg);
        }
        for (uint32_t k = 0; k < 4; ++k)
          f.bbox[((4 * a + k) * H + y) * static_cast<size_t>(d.fmap_pitch) + x] =
              opt_layers_half::from_float_round(0.4f * rnd() - 0.2f);
      }
  return f;
}

inline half_float::half* hp(std::vector<uint16_t>& v) {
  return reinterpret_cast<half_float::half*>(v.data());
}

}  // namespace ol_test

#endif
