// Head box decode: one clipped float box per proposal and class from the
// second-stage deltas; the proposals are cut into up to k_stage_tasks runs,
// one pool task each.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "brennik_opt_layers.h"
#include "common/box.h"
#include "common/cpu.h"
#include "frcnn/head_stage.h"

namespace ol {

namespace {

using opt_layers_half::to_float;

struct decode_input {
  float x1, y1, w, h;  // proposal origin and inclusive size
  float lx, ly;        // clip bounds (image width and height)
  const float* scale;  // four factors, or NULL
  uint32_t bbox_type;  // 0 or 1
  // expf of the (scaled) width and height deltas by pattern, or NULL.
  const float* exp_w;
  const float* exp_h;
};

// Decodes one delta set (four halves) into box[0..3].
//
// x1' = x1 + w * ((dx + 0.5) - 0.5 * ew), x2' likewise with + 0.5 * ew, all
// in double from the float values: the inner step (dx + 0.5) -+ 0.5 * ew is
// one fused multiply-add, the outer step t * w + x1 another, and the result
// is rounded to float once. 0.5 * ew is exact in double, so the inner fused
// multiply-add equals a plain double addition of that product; only the outer
// step needs fma().
__attribute__((always_inline)) inline void decode_set(const decode_input& in, const uint16_t* e,
                                                     float* box) {
  const float e0 = to_float(e[0]), e1 = to_float(e[1]), e2 = to_float(e[2]), e3 = to_float(e[3]);
  float dx, dy, dw, dh;
  if (in.bbox_type == 0) {
    dx = e0, dy = e1, dw = e2, dh = e3;
  } else {
    dx = e1, dy = e0, dw = e3, dh = e2;
  }
  if (in.scale) {
    dx *= in.scale[0];
    dy *= in.scale[1];
    dw *= in.scale[2];
    dh *= in.scale[3];
  }
  float ew, eh;
  if (in.exp_w != nullptr) {
    ew = in.exp_w[e[in.bbox_type == 0 ? 2 : 3]];
    eh = in.exp_h[e[in.bbox_type == 0 ? 3 : 2]];
  } else {
    ew = expf(dw);
    eh = expf(dh);
  }
  const double half_ew = 0.5 * static_cast<double>(ew);
  const double half_eh = 0.5 * static_cast<double>(eh);
  const double cx = static_cast<double>(dx) + 0.5;
  const double cy = static_cast<double>(dy) + 0.5;
  const double w = in.w, h = in.h, x1 = in.x1, y1 = in.y1;
  const float nx1 = static_cast<float>(fma(cx - half_ew, w, x1));
  const float ny1 = static_cast<float>(fma(cy - half_eh, h, y1));
  const float nx2 = static_cast<float>(fma(cx + half_ew, w, x1));
  const float ny2 = static_cast<float>(fma(cy + half_eh, h, y1));
  box[0] = clamp_to_image(nx1, in.lx);
  box[1] = clamp_to_image(ny1, in.ly);
  box[2] = clamp_to_image(nx2, in.lx);
  box[3] = clamp_to_image(ny2, in.ly);
}

__attribute__((always_inline)) inline int decode_proposal(
    const uint16_t* proposal, const uint16_t* rcnn_bbox, float* boxes, uint32_t img_h,
    uint32_t img_w, uint32_t class_num, uint32_t share_location, uint32_t bbox_type,
    uint32_t apply_scale_factor, const float* bbox_scale_factor, uint32_t no_bg_bbox,
    const float* exp_w, const float* exp_h) {
  // Slots written per proposal. With no class at all there is no slot, not
  // even slot 0 (and class_num - 1 must not wrap).
  const uint32_t slots = class_num == 0 ? 0 : (no_bg_bbox ? class_num - 1 : class_num);

  decode_input in;
  in.x1 = to_float(proposal[0]);
  in.y1 = to_float(proposal[1]);
  const float x2 = to_float(proposal[2]);
  const float y2 = to_float(proposal[3]);
  in.w = inclusive_size(in.x1, x2);
  in.h = inclusive_size(in.y1, y2);
  in.lx = static_cast<float>(img_w);
  in.ly = static_cast<float>(img_h);
  in.scale = apply_scale_factor ? bbox_scale_factor : nullptr;
  in.bbox_type = bbox_type;
  in.exp_w = exp_w;
  in.exp_h = exp_h;

  if (share_location) {
    if (bbox_type > 1) {
      printf("Unsupported bbox type: %u\n", bbox_type);
      return -1;
    }
    if (class_num == 0) return 0;
    // One delta set for every class: decode slot 0 (also when no_bg_bbox
    // leaves no slot to fill for a single class; slot 0 exists), copy it.
    decode_set(in, rcnn_bbox, boxes);
    for (uint32_t k = 1; k < slots; ++k) memcpy(boxes + 4 * static_cast<size_t>(k), boxes, 4 * sizeof(float));
    return 0;
  }
  for (uint32_t k = 0; k < slots; ++k) {
    if (bbox_type > 1) {
      printf("Unsupported bbox type: %u\n", bbox_type);
      return -1;
    }
    decode_set(in, rcnn_bbox + 4 * static_cast<size_t>(k), boxes + 4 * static_cast<size_t>(k));
  }
  return 0;
}

// The x86-64 baseline has no fused multiply-add instruction, so fma() is a
// library call there; where the processor has one, a version that uses it
// runs instead (fma is exact, so both give the same bits).
#if defined(OL_X86_DISPATCH) && !defined(__FMA__)
__attribute__((target("fma"))) int decode_proposal_fma(
    const uint16_t* proposal, const uint16_t* rcnn_bbox, float* boxes, uint32_t img_h,
    uint32_t img_w, uint32_t class_num, uint32_t share_location, uint32_t bbox_type,
    uint32_t apply_scale_factor, const float* bbox_scale_factor, uint32_t no_bg_bbox,
    const float* exp_w, const float* exp_h) {
  return decode_proposal(proposal, rcnn_bbox, boxes, img_h, img_w, class_num, share_location,
                         bbox_type, apply_scale_factor, bbox_scale_factor, no_bg_bbox, exp_w,
                         exp_h);
}
#endif

}  // namespace

int rcnn_bbox_decode(const uint16_t* proposal, const uint16_t* rcnn_bbox, float* boxes,
                     uint32_t img_h, uint32_t img_w, uint32_t class_num, uint32_t share_location,
                     uint32_t bbox_type, uint32_t apply_scale_factor,
                     const float* bbox_scale_factor, uint32_t no_bg_bbox, const float* exp_w,
                     const float* exp_h) {
#if defined(OL_X86_DISPATCH) && !defined(__FMA__)
  if (cpu_has_fma())
    return decode_proposal_fma(proposal, rcnn_bbox, boxes, img_h, img_w, class_num,
                               share_location, bbox_type, apply_scale_factor, bbox_scale_factor,
                               no_bg_bbox, exp_w, exp_h);
#endif
  return decode_proposal(proposal, rcnn_bbox, boxes, img_h, img_w, class_num, share_location,
                         bbox_type, apply_scale_factor, bbox_scale_factor, no_bg_bbox, exp_w,
                         exp_h);
}

int32_t rcnn_decode_task_func(void* record) {
  const rcnn_decode_task* t = static_cast<const rcnn_decode_task*>(record);
  for (uint32_t i = t->begin; i < t->end; ++i)
    rcnn_bbox_decode(t->nms_out + 4 * static_cast<size_t>(i),
                     t->rcnn_bbox + static_cast<size_t>(i) * t->rcnn_bbox_pitch,
                     t->rcnn_boxes + 4 * (static_cast<size_t>(i) * t->class_num), t->img_h,
                     t->img_w, t->class_num, t->share_location, t->bbox_type,
                     t->apply_scale_factor, t->bbox_scale_factor, t->no_bg_bbox, t->exp_w,
                     t->exp_h);
  return 0;
}

void frcnn_rcnn_decode(thread_pool* pool, const uint16_t* nms_out,
                       const uint16_t* rcnn_bbox, float* rcnn_boxes, uint32_t img_h,
                       uint32_t img_w, uint32_t class_num, uint32_t rcnn_bbox_pitch, uint32_t n,
                       bool share_location, uint32_t bbox_type, bool apply_scale_factor,
                       const float* bbox_scale_factor, bool no_bg_bbox, const float* exp_w,
                       const float* exp_h) {
  if (n == 0) return;
  const uint32_t parts = n < k_stage_tasks ? n : k_stage_tasks;
  rcnn_decode_task records[k_stage_tasks];
  for (uint32_t k = 0; k < parts; ++k) {
    rcnn_decode_task& r = records[k];
    split_range(n, parts, k, &r.begin, &r.end);
    r.nms_out = nms_out;
    r.rcnn_bbox = rcnn_bbox;
    r.rcnn_boxes = rcnn_boxes;
    r.img_h = img_h;
    r.img_w = img_w;
    r.class_num = class_num;
    r.rcnn_bbox_pitch = rcnn_bbox_pitch;
    r.share_location = share_location ? 1 : 0;
    r.bbox_type = bbox_type;
    r.apply_scale_factor = apply_scale_factor ? 1 : 0;
    r.bbox_scale_factor = bbox_scale_factor;
    r.no_bg_bbox = no_bg_bbox ? 1 : 0;
    r.exp_w = exp_w;
    r.exp_h = exp_h;
    r.task.func = rcnn_decode_task_func;
    r.task.arg = &r;
    r.task.retval = 0;
    r.index = k;
  }
  dispatch_tasks(pool, records, parts, on_refused::skip, nullptr,
                 while_waiting::run_queued);
}

}  // namespace ol
