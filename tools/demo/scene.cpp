#include "demo/scene.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace ol_demo {

namespace {

using opt_layers_half::from_float_round;
using opt_layers_half::to_float;

uint64_t mix64(uint64_t z) {
  z += 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// Uniform in [-1, 1), a pure function of its arguments.
float noise(uint64_t stream, uint64_t a, uint64_t b = 0, uint64_t c = 0) {
  const uint64_t h = mix64(stream ^ mix64(a ^ mix64(b ^ mix64(c))));
  return static_cast<float>(h >> 40) * (2.0f / 16777216.0f) - 1.0f;
}

enum : uint64_t { k_rpn_score = 1, k_rpn_delta, k_head_score, k_head_delta, k_fmap_weight };

float sigmoid(float x) { return 1.0f / (1.0f + expf(-x)); }

// The object that overlaps the box most, and that overlap.
struct best_match {
  int object = -1;
  float iou = 0.0f;
};

best_match match(const scene& s, float x1, float y1, float x2, float y2) {
  best_match m;
  for (size_t o = 0; o < s.objects.size(); ++o) {
    const scene_object& b = s.objects[o];
    const float u = iou_inclusive(x1, y1, x2, y2, b.x1, b.y1, b.x2, b.y2);
    if (u > m.iou) {
      m.iou = u;
      m.object = static_cast<int>(o);
    }
  }
  return m;
}

// Deltas (dx, dy, dw, dh) that the centre-size decode turns from the box
// (x1, y1, x2, y2) into the target: both decodes place the centre at
// x1 + 0.5*w + dx*w with w = x2 - x1 + 1 and the edges at centre -/+
// 0.5*w*exp(dw), so the target's edges come back exactly (up to the
// precision of the halves).
void inverse_decode(float x1, float y1, float x2, float y2, const scene_object& t, float* out) {
  const float w = x2 - x1 + 1.0f, h = y2 - y1 + 1.0f;
  out[0] = (0.5f * (t.x1 + t.x2) - (x1 + 0.5f * w)) / w;
  out[1] = (0.5f * (t.y1 + t.y2) - (y1 + 0.5f * h)) / h;
  out[2] = logf((t.x2 - t.x1) / w);
  out[3] = logf((t.y2 - t.y1) / h);
}

// Writes the four deltas in the order of the descriptor's bbox_type
// (0: dx dy dw dh, 1: dy dx dh dw).
void store_deltas(const float* d, uint32_t bbox_type, uint16_t* out, size_t stride) {
  static const int order0[4] = {0, 1, 2, 3};
  static const int order1[4] = {1, 0, 3, 2};
  const int* order = bbox_type == 1 ? order1 : order0;
  for (int k = 0; k < 4; ++k) out[k * stride] = from_float_round(d[order[k]]);
}

}  // namespace

float iou_inclusive(float ax1, float ay1, float ax2, float ay2, float bx1, float by1, float bx2,
                    float by2) {
  const float iw = std::min(ax2, bx2) - std::max(ax1, bx1) + 1.0f;
  const float ih = std::min(ay2, by2) - std::max(ay1, by1) + 1.0f;
  if (!(iw > 0.0f) || !(ih > 0.0f)) return 0.0f;
  const float inter = iw * ih;
  const float ua = (ax2 - ax1 + 1.0f) * (ay2 - ay1 + 1.0f) + (bx2 - bx1 + 1.0f) * (by2 - by1 + 1.0f);
  return inter / (ua - inter);
}

scene default_scene() {
  scene s;
  s.width = 1000;
  s.height = 600;
  s.class_names = {"background", "box", "disc", "diamond", "bar"};
  s.objects = {
      {1, shape_kind::box, 80, 90, 259, 249},
      {2, shape_kind::disc, 330, 60, 469, 199},
      {3, shape_kind::diamond, 560, 120, 799, 359},
      {4, shape_kind::bar, 120, 400, 419, 469},
      {2, shape_kind::disc, 400, 360, 519, 479},
      {1, shape_kind::box, 840, 300, 949, 539},
      {3, shape_kind::diamond, 870, 50, 959, 139},
      {0, shape_kind::ring, 620, 430, 759, 529},  // clutter
  };
  return s;
}

std::vector<labelled_box> ground_truth(const scene& s) {
  std::vector<labelled_box> gt;
  for (const scene_object& o : s.objects)
    if (o.cls != 0) gt.push_back({o.cls, o.x1, o.y1, o.x2, o.y2});
  return gt;
}

rgb_image render_scene(const scene& s) {
  rgb_image img;
  img.width = s.width;
  img.height = s.height;
  img.pixels.resize(static_cast<size_t>(s.width) * s.height * 3);
  for (int y = 0; y < s.height; ++y)
    for (int x = 0; x < s.width; ++x) {
      const float t = static_cast<float>(y) / s.height, u = static_cast<float>(x) / s.width;
      uint8_t* p = &img.pixels[(static_cast<size_t>(y) * s.width + x) * 3];
      p[0] = static_cast<uint8_t>(228 - 70 * t + 8 * u);
      p[1] = static_cast<uint8_t>(234 - 62 * t);
      p[2] = static_cast<uint8_t>(242 - 50 * t - 10 * u);
    }
  static const uint8_t colours[5][3] = {
      {200, 60, 50}, {40, 150, 80}, {50, 90, 200}, {230, 150, 30}, {130, 130, 135}};
  for (const scene_object& o : s.objects) {
    const float cx = 0.5f * (o.x1 + o.x2 + 1.0f), cy = 0.5f * (o.y1 + o.y2 + 1.0f);
    const float rx = 0.5f * (o.x2 - o.x1 + 1.0f), ry = 0.5f * (o.y2 - o.y1 + 1.0f);
    const uint8_t* c = colours[o.shape == shape_kind::ring ? 4 : static_cast<int>(o.shape)];
    for (int y = static_cast<int>(o.y1); y <= static_cast<int>(o.y2); ++y)
      for (int x = static_cast<int>(o.x1); x <= static_cast<int>(o.x2); ++x) {
        if (x < 0 || y < 0 || x >= s.width || y >= s.height) continue;
        const float dx = (x + 0.5f - cx) / rx, dy = (y + 0.5f - cy) / ry;
        bool inside = true;
        float shade = 1.0f;
        switch (o.shape) {
          case shape_kind::box:
          case shape_kind::bar: break;
          case shape_kind::disc: inside = dx * dx + dy * dy <= 1.0f; break;
          case shape_kind::diamond: inside = fabsf(dx) + fabsf(dy) <= 1.0f; break;
          case shape_kind::ring: {
            const float r2 = dx * dx + dy * dy;
            inside = r2 <= 1.0f && r2 >= 0.3f;
            break;
          }
        }
        if (o.shape == shape_kind::bar) shade = ((y / 10) % 2) ? 0.9f : 1.0f;
        if (!inside) continue;
        uint8_t* p = &img.pixels[(static_cast<size_t>(y) * s.width + x) * 3];
        for (int k = 0; k < 3; ++k) p[k] = static_cast<uint8_t>(c[k] * shade);
      }
  }
  return img;
}

frcnn_desc default_desc(uint8_t threads) {
  frcnn_desc d;
  memset(&d, 0, sizeof d);
  d.thread_num = threads;
  d.anchor_num = 9;
  d.pre_nms_num = 6000;
  d.post_nms_num = 300;
  d.class_num = 5;
  d.img_h = 600;
  d.img_w = 1000;
  d.fmap_scale = 16;
  d.fmap_d = 64;
  d.fmap_h = 38;
  d.fmap_w = 63;
  d.fmap_pitch = 64;
  d.rpn_bbox_pitch = 64;
  d.rpn_cls_pitch = 64;
  d.min_size = 16;
  d.pool_h = 7;
  d.pool_w = 7;
  d.pool_pitch = 7;
  d.rcnn_bbox_pitch = 4 * d.class_num;
  d.rcnn_cls_pitch = d.class_num;
  d.pre_nms_iou = 0.7f;
  d.post_nms_iou = 0.3f;
  d.cls_prob = 0.5f;
  d.rpn_cls_threshold = 0.0f;
  d.bbox_type = 0;
  d.bbox_scale_factor = {1.0f, 1.0f, 1.0f, 1.0f};
  return d;
}

std::vector<float> base_anchors_9() {
  return {-84,  -40,  99,  55,  -176, -88,  191, 103, -360, -184, 375, 199,
          -56,  -56,  71,  71,  -120, -120, 135, 135, -248, -248, 263, 263,
          -36,  -80,  51,  95,  -80,  -168, 95,  183, -168, -344, 183, 359};
}

uint32_t rpn_cls_planes(const frcnn_desc& d) {
  return (d.is_rpn_cls_fg_minus_bg || !d.is_rpn_cls_fg_only) ? 2 * d.anchor_num : d.anchor_num;
}

void make_rpn_outputs(const scene& s, const frcnn_desc& d, const std::vector<float>& base_anchors,
                      std::vector<uint16_t>* rpn_cls, std::vector<uint16_t>* rpn_bbox) {
  const uint32_t A = d.anchor_num, H = d.fmap_h, W = d.fmap_w, S = d.fmap_scale;
  const size_t cls_plane = static_cast<size_t>(H) * d.rpn_cls_pitch;
  const size_t box_plane = static_cast<size_t>(H) * d.fmap_pitch;
  rpn_cls->assign(rpn_cls_planes(d) * cls_plane, 0);
  rpn_bbox->assign(4 * A * box_plane, 0);
  for (uint32_t a = 0; a < A; ++a)
    for (uint32_t y = 0; y < H; ++y)
      for (uint32_t x = 0; x < W; ++x) {
        // The anchor as the library places it: the base anchor shifted by
        // the cell's offset.
        const float* b = &base_anchors[4 * a];
        const float sx = static_cast<float>(x * S), sy = static_cast<float>(y * S);
        const float ax1 = b[0] + sx, ay1 = b[1] + sy, ax2 = b[2] + sx, ay2 = b[3] + sy;
        const best_match m = match(s, ax1, ay1, ax2, ay2);
        const float fg = sigmoid(16.0f * (m.iou - 0.35f) + 0.6f * noise(k_rpn_score, a, y, x));
        const size_t at = static_cast<size_t>(y) * d.rpn_cls_pitch + x;
        if (d.is_rpn_cls_fg_minus_bg) {
          (*rpn_cls)[2 * a * cls_plane + at] = from_float_round(1.0f - fg);
          (*rpn_cls)[(2 * a + 1) * cls_plane + at] = from_float_round(fg);
        } else if (d.is_rpn_cls_fg_only) {
          (*rpn_cls)[a * cls_plane + at] = from_float_round(fg);
        } else {
          (*rpn_cls)[a * cls_plane + at] = from_float_round(1.0f - fg);
          (*rpn_cls)[(A + a) * cls_plane + at] = from_float_round(fg);
        }
        // Anchors that overlap an object by half or more regress onto it;
        // those with less overlap move part of the way (none below 0.1), so
        // the proposals spread around the objects as a trained network's do.
        float delta[4] = {0, 0, 0, 0};
        const float pull = std::min(1.0f, std::max(0.0f, (m.iou - 0.1f) / 0.4f));
        if (pull > 0.0f) inverse_decode(ax1, ay1, ax2, ay2, s.objects[m.object], delta);
        for (int k = 0; k < 4; ++k)
          delta[k] = pull * delta[k] + 0.03f * noise(k_rpn_delta, a * 4 + k, y, x);
        store_deltas(delta, d.bbox_type,
                     &(*rpn_bbox)[4 * a * box_plane + static_cast<size_t>(y) * d.fmap_pitch + x],
                     box_plane);
      }
}

std::vector<uint16_t> make_feature_map(const rgb_image& img, const frcnn_desc& d) {
  const uint32_t H = d.fmap_h, W = d.fmap_w, S = d.fmap_scale, D = d.fmap_d;
  const uint32_t blocks = D / 16;
  std::vector<uint16_t> fmap(static_cast<size_t>(blocks) * H * W * 16, 0);
  for (uint32_t y = 0; y < H; ++y)
    for (uint32_t x = 0; x < W; ++x) {
      // Patch statistics: mean colour and mean gradient magnitude.
      double sum[3] = {0, 0, 0}, grad = 0;
      int n = 0;
      for (uint32_t py = y * S; py < (y + 1) * S && py < static_cast<uint32_t>(img.height); ++py)
        for (uint32_t px = x * S; px < (x + 1) * S && px < static_cast<uint32_t>(img.width);
             ++px) {
          const uint8_t* p = &img.pixels[(static_cast<size_t>(py) * img.width + px) * 3];
          for (int k = 0; k < 3; ++k) sum[k] += p[k];
          if (px + 1 < static_cast<uint32_t>(img.width) &&
              py + 1 < static_cast<uint32_t>(img.height)) {
            const uint8_t* r = p + 3;
            const uint8_t* u = p + 3 * static_cast<size_t>(img.width);
            for (int k = 0; k < 3; ++k) grad += abs(r[k] - p[k]) + abs(u[k] - p[k]);
          }
          ++n;
        }
      float f[5] = {0, 0, 0, 0, 1};
      if (n > 0) {
        for (int k = 0; k < 3; ++k) f[k] = static_cast<float>(sum[k] / (255.0 * n));
        f[3] = static_cast<float>(grad / (6.0 * 255.0 * n)) * 8.0f;
      }
      for (uint32_t c = 0; c < blocks * 16; ++c) {
        float v = 0.0f;
        for (int j = 0; j < 5; ++j) v += noise(k_fmap_weight, c, j) * f[j];
        const float q = 32768.0f + 16384.0f * v;
        const float clamped = std::min(65535.0f, std::max(0.0f, q));
        fmap[((static_cast<size_t>(c / 16) * H + y) * W + x) * 16 + c % 16] =
            static_cast<uint16_t>(clamped);
      }
    }
  return fmap;
}

void make_head_outputs(const scene& s, const frcnn_desc& d, const uint16_t* rois, uint32_t roi_num,
                       std::vector<uint16_t>* rcnn_cls, std::vector<uint16_t>* rcnn_bbox) {
  const uint32_t C = d.class_num;
  rcnn_cls->assign(static_cast<size_t>(roi_num) * d.rcnn_cls_pitch, 0);
  rcnn_bbox->assign(static_cast<size_t>(roi_num) * d.rcnn_bbox_pitch, 0);
  const uint32_t sets = d.rcnn_bbox_share_location ? 1 : C - (d.is_no_rcnn_bg_bbox ? 1 : 0);
  std::vector<float> logit(C), target(4);
  for (uint32_t i = 0; i < roi_num; ++i) {
    const float x1 = to_float(rois[4 * i]), y1 = to_float(rois[4 * i + 1]);
    const float x2 = to_float(rois[4 * i + 2]), y2 = to_float(rois[4 * i + 3]);
    const best_match m = match(s, x1, y1, x2, y2);
    const scene_object* o = m.iou >= 0.1f ? &s.objects[m.object] : nullptr;
    // Class probabilities: background logit 0, other classes low, the
    // matched object's class rising with the overlap. Clutter looks a bit
    // like a box but never convincingly.
    logit[0] = 0.0f;
    for (uint32_t c = 1; c < C; ++c) logit[c] = -4.0f + 0.5f * noise(k_head_score, i, c);
    if (o != nullptr) {
      const float l = 12.0f * (m.iou - 0.5f) + 0.3f * noise(k_head_score, i, C);
      if (o->cls != 0 && o->cls < C) logit[o->cls] = l;
      else if (C > 1) logit[1] = std::min(l, -0.8f);
    }
    float mx = logit[0];
    for (uint32_t c = 1; c < C; ++c) mx = std::max(mx, logit[c]);
    float sum = 0.0f;
    for (uint32_t c = 0; c < C; ++c) sum += expf(logit[c] - mx);
    for (uint32_t c = 0; c < C && c < d.rcnn_cls_pitch; ++c)
      (*rcnn_cls)[static_cast<size_t>(i) * d.rcnn_cls_pitch + c] =
          from_float_round(expf(logit[c] - mx) / sum);
    // Deltas: the matched class's set regresses onto the object, the other
    // sets keep the ROI.
    for (uint32_t k = 0; k < sets && 4 * k + 3 < d.rcnn_bbox_pitch; ++k) {
      const uint32_t cls = d.rcnn_bbox_share_location ? (o ? o->cls : 0)
                                                      : k + (d.is_no_rcnn_bg_bbox ? 1 : 0);
      float delta[4] = {0, 0, 0, 0};
      if (o != nullptr && o->cls == cls) inverse_decode(x1, y1, x2, y2, *o, delta);
      for (int j = 0; j < 4; ++j) delta[j] += 0.02f * noise(k_head_delta, i, 4 * k + j);
      store_deltas(delta, d.bbox_type,
                   &(*rcnn_bbox)[static_cast<size_t>(i) * d.rcnn_bbox_pitch + 4 * k], 1);
    }
  }
}

}  // namespace ol_demo
