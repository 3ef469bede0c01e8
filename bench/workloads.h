// Deterministic workloads shared by the Google benchmarks and the aarch64
// instruction-count driver (arm_cost.cpp), so that both measure the same
// inputs: the VGG16 frame through an instance handle, and the operators'
// standard cases.
#ifndef OL_BENCH_WORKLOADS_H
#define OL_BENCH_WORKLOADS_H

#include <math.h>
#include <stdint.h>

#include <algorithm>
#include <vector>

#include "brennik_opt_layers.h"
#include "common/frame_gen.h"

namespace ol_bench {

using ol_test::hp;

// A whole VGG16 frame (600x1000 image, 38x63 map, 9 anchors, 6000 -> 300
// proposals, 21 classes) on an instance handle: RPN tensors, a feature map
// of `depth` channels pooled 7x7, and second-stage outputs that are mostly
// background with a few classes above cls_prob.
struct vgg16_frame {
  std::vector<float> anchors = ol_test::base_anchors_9();
  frcnn_desc desc;
  void* h;
  ol_test::rpn_frame rpn;
  std::vector<uint16_t> nms_out, fmap, roi_result, rcnn_cls, rcnn_bbox, rcnn_result;
  int rois = 0;

  vgg16_frame(uint32_t threads, uint32_t depth, bool qsort = false, bool filter = false) {
    desc = ol_test::vgg16_desc(static_cast<uint8_t>(threads), qsort);
    desc.fmap_d = depth;
    desc.is_filter_rpn_cls = filter;
    desc.rpn_cls_threshold = filter ? 0.05f : 0.0f;
    h = opt_layers_instance_frcnn_init(&desc, anchors.data());
    rpn = ol_test::make_rpn_frame(desc, 42);
    const frcnn_desc& d = desc;
    nms_out.resize(4 * d.post_nms_num);
    fmap.resize(static_cast<size_t>(d.fmap_d) * d.fmap_h * d.fmap_w);
    for (size_t i = 0; i < fmap.size(); ++i) fmap[i] = static_cast<uint16_t>(i * 2654435761u >> 16);
    roi_result.resize(static_cast<size_t>(d.post_nms_num) * d.pool_h * d.pool_w * d.fmap_d);
    rcnn_cls.resize(static_cast<size_t>(d.post_nms_num) * d.rcnn_cls_pitch);
    rcnn_bbox.resize(static_cast<size_t>(d.post_nms_num) * d.rcnn_bbox_pitch);
    rcnn_result.resize(d.class_num + 5 * d.post_nms_num * d.class_num);
    uint32_t seed = 1;
    auto unit = [&seed] {
      seed = seed * 1664525u + 1013904223u;
      return (seed >> 8) * (1.0f / 16777216.0f);
    };
    for (uint32_t r = 0; r < d.post_nms_num; ++r) {
      for (uint32_t c = 0; c < d.class_num; ++c) {
        const float prob = c == 0 ? 0.6f : unit() * 0.12f;
        rcnn_cls[r * d.rcnn_cls_pitch + c] = opt_layers_half::from_float_round(prob);
      }
      for (uint32_t k = 0; k < d.rcnn_bbox_pitch; ++k)
        rcnn_bbox[r * d.rcnn_bbox_pitch + k] =
            opt_layers_half::from_float_round((unit() - 0.5f) * 0.2f);
    }
  }
  ~vgg16_frame() { opt_layers_instance_frcnn_exit(h); }
  vgg16_frame(const vgg16_frame&) = delete;
  vgg16_frame& operator=(const vgg16_frame&) = delete;

  int prenms_nms() {
    return rois = opt_layers_instance_frcnn_prenms_nms(h, hp(rpn.cls), hp(rpn.bbox), hp(nms_out));
  }
  int pre_nms_roi() {
    return rois = opt_layers_instance_frcnn_pre_nms_roi(h, hp(rpn.cls), hp(rpn.bbox), fmap.data(),
                                                        roi_result.data(), hp(nms_out));
  }
  int post_nms() {
    return opt_layers_instance_frcnn_post_nms(h, hp(rcnn_cls), hp(rcnn_bbox), hp(nms_out),
                                              hp(rcnn_result), static_cast<unsigned>(rois));
  }
};

// Deterministic generator (xorshift) of the operator workloads.
struct gen {
  uint64_t s;
  explicit gen(uint64_t state = 0x9E3779B97F4A7C15ull) : s(state) {}
  uint32_t next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return uint32_t(s >> 11);
  }
  float uniform(float lo, float hi) { return lo + (hi - lo) * float(next() & 0xFFFFFF) / 16777216.0f; }
};

// Boxes in an img_w x img_h image with sides log-uniform in [lo, hi] pixels.
inline std::vector<float> image_boxes(gen& g, int n, float lo, float hi, float img_w = 1344,
                                      float img_h = 800) {
  std::vector<float> b;
  for (int i = 0; i < n; ++i) {
    const float w = std::min(img_w - 1, expf(g.uniform(logf(lo), logf(hi))));
    const float h = std::min(img_h - 1, expf(g.uniform(logf(lo), logf(hi))));
    const float x = g.uniform(0, img_w - w), y = g.uniform(0, img_h - h);
    b.insert(b.end(), {x, y, x + w, y + h});
  }
  return b;
}

inline std::vector<short> random_map(gen& g, size_t n) {
  std::vector<short> m(n);
  for (short& v : m) v = short(g.next());
  return m;
}

// ROI pooling of a VGG16 frame: 300 ROIs inside the 600x1000 image, on a
// 512-channel 38x63 map of 16-channel blocks, 7x7 bins at stride 16 (the
// workload of ops_pool_bench.cpp). Box sides are log-uniform in 16..600 px,
// or with `realistic` log-normal around a 73 px median with the 5th and 95th
// percentiles at about 30 and 384 px (as a trained RPN's proposals).
struct pool_workload {
  static constexpr int img_h = 600, img_w = 1000, map_h = 38, map_w = 63, depth = 512, pool = 7,
                       stride = 16, rois = 300;
  std::vector<uint16_t> boxes, fmap, out;
  explicit pool_workload(bool realistic = false) {
    gen g(42 * 0x9E3779B97F4A7C15ull + 1);
    fmap.resize(static_cast<size_t>(depth) * map_h * map_w);
    for (auto& e : fmap) e = static_cast<uint16_t>(g.next());
    auto side = [&g, realistic](float limit) {
      if (!realistic) return std::min(expf(g.uniform(logf(16.f), logf(600.f))), limit);
      // Standard normal (Box-Muller), then a log-normal with a wider upper tail:
      // ln(73/30) and ln(384/73) over the 95% quantile 1.645.
      const float u = g.uniform(1e-7f, 1.f), v = g.uniform(0.f, 1.f);
      const float z = sqrtf(-2.f * logf(u)) * cosf(6.2831853f * v);
      const float sigma = z < 0 ? 0.5405f : 1.0095f;
      return std::min(std::max(73.f * expf(sigma * z), 1.f), limit);
    };
    for (int r = 0; r < rois; ++r) {
      const float w = side(float(img_w));
      const float h = side(float(img_h));
      const float x1 = g.uniform(0, img_w - w), y1 = g.uniform(0, img_h - h);
      for (float v : {x1, y1, x1 + w - 1, y1 + h - 1})
        boxes.push_back(opt_layers_half::from_float_round(v));
    }
    out.resize(static_cast<size_t>(rois) * depth * pool * pool);
  }
  int run(bool sign) {
    return (sign ? roi_pooling_sign : roi_pooling)(hp(boxes), fmap.data(), out.data(), rois, pool,
                                                   pool, pool, stride, map_w, map_h, map_w, depth);
  }
};

// roi_align_fmap_int16: 300 ROIs (32..600 px) in an 800x1344 image, 256
// channels, 50x84 map at stride 16, 7x7. Crop and resize uses the same map
// and boxes, 14x14.
struct align_workload {
  std::vector<short> map, out;
  std::vector<float> boxes;
  align_workload() {
    gen g;
    map = random_map(g, size_t(50) * 84 * 256);
    gen gb;
    boxes = image_boxes(gb, 300, 32, 600);
  }
  int roi_align() {
    out.resize(size_t(300) * 49 * 256);
    return roi_align_fmap_int16(map.data(), 16, boxes.data(), 300, 84, 50, 7, 7, 256, out.data());
  }
  int crop_and_resize() {
    out.resize(size_t(300) * 196 * 256);
    return crop_and_resize_fmap_int16(map.data(), 1.0f / 16, 1.0f / 16, 0, boxes.data(), 300, 84,
                                      50, 14, 14, 256, out.data());
  }
};

// roi_align_four_fmap_int16: 1,000 ROIs (32..800 px) over strides 8, 16, 32
// of an 800x1344 image, 256 channels, 7x7.
struct align_four_workload {
  std::vector<short> maps[3];
  std::vector<float> boxes;
  std::vector<short> out = std::vector<short>(size_t(1000) * 49 * 256);
  unsigned scales[3] = {8, 16, 32};
  align_four_workload() {
    gen g;
    for (int k = 0; k < 3; ++k)
      maps[k] = random_map(g, size_t(800 / scales[k]) * (1344 / scales[k]) * 256);
    boxes = image_boxes(g, 1000, 32, 800);
  }
  int run() {
    short* m[3] = {maps[0].data(), maps[1].data(), maps[2].data()};
    return roi_align_four_fmap_int16(m, scales, boxes.data(), 1000, 1344, 800, 7, 7, 256,
                                     out.data());
  }
};

// ps_roi_pooling, R-FCN: 38x63 map of 1,029 channels (7x7 groups of 21), 300
// ROIs in a 600x1000 image, spatial scale 1/16.
struct ps_workload {
  std::vector<float> map, boxes;
  std::vector<float> out = std::vector<float>(size_t(300) * 49 * 21);
  ps_workload() {
    gen g;
    map.resize(size_t(49) * 38 * 63 * 21);
    for (float& v : map) v = g.uniform(-1, 1);
    boxes = image_boxes(g, 300, 32, 600, 1000, 600);
  }
  int run() {
    return ps_roi_pooling(map.data(), 63, 38, 1029, 21, boxes.data(), 300, out.data(), 7, 7, 21,
                          21, 0.0625f, 7);
  }
};

}  // namespace ol_bench

#endif
