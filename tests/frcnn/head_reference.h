// Plain scalar twins of the detection-head kernels, written step by step in
// the most readable form. The tests hold the library's kernels to them bit
// for bit; the benchmarks time them as the baseline.
#ifndef OL_TESTS_FRCNN_HEAD_REFERENCE_H
#define OL_TESTS_FRCNN_HEAD_REFERENCE_H

#include <math.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "brennik_opt_layers.h"

namespace ol_ref {

using opt_layers_half::from_float_round;
using opt_layers_half::to_float;

// min(v, L - 1), then max(., 0), with these exact comparisons.
inline float clamp(float v, float limit) {
  float m = v < limit - 1.0f ? v : limit - 1.0f;
  return m > 0.0f ? m : 0.0f;
}

// One delta set (four halves; bbox_type 1 holds dy, dx, dh, dw) with the
// optional factors: the centre-size decode in double with two fused
// multiply-adds per edge, rounded to float once, then clipped.
inline void decode_set(const uint16_t* proposal, const uint16_t* e, uint32_t img_h,
                       uint32_t img_w, uint32_t bbox_type, const float* scale, float* out) {
  const int t = bbox_type == 0 ? 0 : 1;
  for (int a = 0; a < 2; ++a) {  // x, then y
    float d = to_float(e[a ^ t]), s = to_float(e[2 + (a ^ t)]);
    if (scale) d *= scale[a], s *= scale[2 + a];
    const float lo = to_float(proposal[a]), size = (to_float(proposal[a + 2]) - lo) + 1.0f;
    const double c = (double)d + 0.5, ew = (double)expf(s);
    const float limit = (float)(a ? img_h : img_w);
    out[a] = clamp((float)fma(fma(-0.5, ew, c), (double)size, (double)lo), limit);
    out[a + 2] = clamp((float)fma(fma(0.5, ew, c), (double)size, (double)lo), limit);
  }
}

// rcnn_bbox_decode for class_num >= 1: returns 0, or -1 for a bad type.
inline int bbox_decode(const uint16_t* proposal, const uint16_t* deltas, float* boxes,
                       uint32_t img_h, uint32_t img_w, uint32_t class_num, bool share,
                       uint32_t bbox_type, const float* scale, bool no_bg) {
  uint32_t slots = no_bg ? class_num - 1 : class_num;
  if (bbox_type > 1) return slots == 0 && !share ? 0 : -1;
  if (share) {
    decode_set(proposal, deltas, img_h, img_w, bbox_type, scale, boxes);
    for (uint32_t k = 1; k < slots; ++k) memcpy(boxes + 4 * k, boxes, 16);
    return 0;
  }
  for (uint32_t k = 0; k < slots; ++k)
    decode_set(proposal, deltas + 4 * k, img_h, img_w, bbox_type, scale, boxes + 4 * k);
  return 0;
}

struct cand {
  float v[5];  // x1 y1 x2 y2 score
  uint16_t bits[5];
};

inline float fmax_a(float p, float q) { return p > q ? p : q; }
inline float fmin_a(float p, float q) { return p < q ? p : q; }

inline float iou(const cand& a, float area_a, const cand& b, float area_b) {
  float iw = fmax_a(0.0f, (fmin_a(a.v[2], b.v[2]) - fmax_a(a.v[0], b.v[0])) + 1.0f);
  float ih = fmax_a(0.0f, (fmin_a(a.v[3], b.v[3]) - fmax_a(a.v[1], b.v[1])) + 1.0f);
  float inter = iw * ih;
  return inter / ((area_a + area_b) - inter);
}

// rcnn_class_nms over classes [class_start, class_end), n <= 32767: full
// candidates, full selection sort, then the greedy walk.
inline void class_nms(uint16_t* rcnn_result, uint16_t* class_dets, const float* rcnn_boxes,
                      const uint16_t* rcnn_cls, uint32_t class_start, uint32_t class_end,
                      uint32_t class_num, uint32_t pitch, uint32_t n, uint32_t post_nms_num,
                      bool no_bg, float post_nms_iou, float cls_prob) {
  for (uint32_t c = class_start; c < class_end; ++c) {
    uint32_t slot = no_bg ? c - 1 : c;
    std::vector<cand> cands(n);
    std::vector<float> area(n);
    std::vector<int32_t> order(n);
    for (uint32_t i = 0; i < n; ++i) {
      const float* b = rcnn_boxes + 4 * ((size_t)i * class_num + slot);
      for (int k = 0; k < 5; ++k) {
        cands[i].bits[k] = k < 4 ? from_float_round(b[k]) : rcnn_cls[(size_t)i * pitch + c];
        cands[i].v[k] = to_float(cands[i].bits[k]);
      }
      double w = (double)(cands[i].v[2] - cands[i].v[0]) + 1.0;
      double h = (double)(cands[i].v[3] - cands[i].v[1]) + 1.0;
      area[i] = (float)(w * h);
      order[i] = (int32_t)i;
    }
    for (uint32_t p = 0; p + 1 < n; ++p) {
      uint32_t q = p;
      for (uint32_t j = p + 1; j < n; ++j)
        if (cands[order[q]].v[4] < cands[order[j]].v[4]) q = j;
      int32_t t = order[p]; order[p] = order[q]; order[q] = t;
    }
    uint32_t count = 0;
    uint16_t* dets = class_dets + 5 * ((size_t)post_nms_num * c);
    for (uint32_t pos = 0; pos < n && count < post_nms_num; ++pos) {
      const int32_t h = order[pos];
      if (h == -1) continue;  // suppressed
      if (cands[h].v[4] <= cls_prob) break;
      memcpy(dets + 5 * count, cands[h].bits, 10);
      ++count;
      for (uint32_t j = pos + 1; j < n; ++j)
        if (order[j] != -1 && iou(cands[h], area[h], cands[order[j]], area[order[j]]) > post_nms_iou)
          order[j] = -1;
    }
    rcnn_result[c] = opt_layers_half::from_float_trunc((float)count);
  }
}

}  // namespace ol_ref

#endif
