// Box decode of the proposal stage: anchors + RPN deltas -> clipped
// proposal records, with refill of candidates dropped for their size.
#include <math.h>
#include <stdio.h>

#include "common/box.h"
#include "frcnn/rpn_stage.h"

namespace ol {

namespace {

struct decode_task {
  const rpn_decode_params* params;
  uint16_t* out;
  const uint32_t* order;
  uint32_t count;
  uint32_t dropped;
  int result;
  thread_task task;
};

int32_t decode_task_func(void* arg) {
  decode_task* t = static_cast<decode_task*>(arg);
  t->result = rpn_decode_batch(*t->params, t->out, t->order, t->count, &t->dropped);
  return t->result;
}

}  // namespace

int rpn_decode_batch(const rpn_decode_params& p, uint16_t* out, const uint32_t* order,
                     uint32_t count, uint32_t* dropped) {
  if (count == 0) {
    *dropped = 0;
    return 0;
  }
  if (p.bbox_type > 1) {
    printf("Unsupport bbox type: %u\n", p.bbox_type);
    return -1;
  }
  const uint32_t HW = p.H * p.W;
  const size_t plane = static_cast<size_t>(p.H) * p.Pb;
  const float min_size = static_cast<float>(p.min_size);
  const float limit_w = static_cast<float>(p.img_w);
  const float limit_h = static_cast<float>(p.img_h);
  // Plane k of the anchor's four holds dx, dy, dw, dh (type 0) or dy, dx,
  // dh, dw (type 1).
  const uint32_t ix = p.bbox_type == 0 ? 0 : 1, iy = 1 - ix;
  const uint32_t iw = p.bbox_type == 0 ? 2 : 3, ih = 5 - iw;
  uint32_t drops = 0;
  for (uint32_t k = 0; k < count; ++k) {
    const uint32_t i = order[k];
    const uint32_t pos = p.order_rpn_index[i];
    const uint32_t a = pos / HW, r = pos % HW;
    const uint32_t y = r / p.W, x = r % p.W;
    const float* anchor = p.anchors + (static_cast<size_t>(r) * p.A + a) * 4;
    const float ax1 = anchor[0], ay1 = anchor[1], ax2 = anchor[2], ay2 = anchor[3];
    const float wa = inclusive_size(ax1, ax2);
    const float ha = inclusive_size(ay1, ay2);

    const uint16_t* delta = p.rpn_bbox + 4 * a * plane + static_cast<size_t>(y) * p.Pb + x;
    float dx = opt_layers_half::to_float(delta[ix * plane]);
    float dy = opt_layers_half::to_float(delta[iy * plane]);
    float dw = opt_layers_half::to_float(delta[iw * plane]);
    float dh = opt_layers_half::to_float(delta[ih * plane]);
    if (p.apply_scale) {
      dx = dx * p.bbox_scale_factor[0];
      dy = dy * p.bbox_scale_factor[1];
      dw = dw * p.bbox_scale_factor[2];
      dh = dh * p.bbox_scale_factor[3];
    }
    const float pw = wa * expf(dw);
    const float ph = ha * expf(dh);
    // The size test uses the unclipped size; a NaN size is kept.
    if (pw + 1.0f < min_size || ph + 1.0f < min_size) {
      ++drops;
      continue;
    }
    const float cx = static_cast<float>(static_cast<double>(ax1) + 0.5 * static_cast<double>(wa));
    const float cy = static_cast<float>(static_cast<double>(ay1) + 0.5 * static_cast<double>(ha));
    const float pcx = fmaf(dx, wa, cx);
    const float pcy = fmaf(dy, ha, cy);
    const double hw = 0.5 * static_cast<double>(pw), hh = 0.5 * static_cast<double>(ph);
    const float x1 = static_cast<float>(static_cast<double>(pcx) - hw);
    const float y1 = static_cast<float>(static_cast<double>(pcy) - hh);
    const float x2 = static_cast<float>(static_cast<double>(pcx) + hw);
    const float y2 = static_cast<float>(static_cast<double>(pcy) + hh);
    out[0] = opt_layers_half::from_float_round(clamp_to_image(x1, limit_w));
    out[1] = opt_layers_half::from_float_round(clamp_to_image(y1, limit_h));
    out[2] = opt_layers_half::from_float_round(clamp_to_image(x2, limit_w));
    out[3] = opt_layers_half::from_float_round(clamp_to_image(y2, limit_h));
    out[4] = p.scores[i];
    out += 5;
  }
  *dropped = drops;
  return 0;
}

int rpn_decode(frcnn_context* ctx, const uint16_t* rpn_bbox, uint32_t n, uint32_t M) {
  const frcnn_desc& d = ctx->desc;
  rpn_decode_params p;
  p.anchors = ctx->anchors;
  p.rpn_bbox = rpn_bbox;
  p.scores = ctx->rpn_cls_nopitch;
  p.order_rpn_index = ctx->order_rpn_index;
  p.img_h = static_cast<int16_t>(d.img_h);
  p.img_w = static_cast<int16_t>(d.img_w);
  p.H = d.fmap_h;
  p.W = d.fmap_w;
  p.Pb = d.fmap_pitch;
  p.min_size = d.min_size;
  p.A = d.anchor_num;
  p.bbox_type = d.bbox_type;
  p.apply_scale = d.is_apply_bbox_scale_factor;
  p.bbox_scale_factor = &d.bbox_scale_factor.center_x;
  const bool use_qsort = d.is_use_qsort;

  // First batch: one task on the pool (run here if the pool refuses it).
  decode_task first;
  first.params = &p;
  first.out = ctx->detections;
  first.order = ctx->order_buf;
  first.count = n;
  first.dropped = 0;
  first.result = 0;
  first.task.func = decode_task_func;
  first.task.arg = &first;
  first.task.retval = 0;
  dispatch_tasks(ctx->pool, &first, 1, on_refused::run_inline);
  if (first.result != 0) return -1;

  uint32_t d_count = first.dropped;
  uint32_t K = n - d_count;
  if (n >= M) return static_cast<int>(K);
  uint32_t remaining = M - n, next = n;
  while (d_count > 0 && remaining > 0) {
    uint32_t b = d_count < remaining ? d_count : remaining;
    if (!use_qsort) {
      // The walk never yields more than was inserted; decode only what it gave.
      b = hist_walk(ctx->order_buf + next, b, &ctx->hist, false);
      if (b == 0) break;
    }
    uint32_t dropped = 0;
    if (rpn_decode_batch(p, ctx->detections + static_cast<size_t>(K) * 5, ctx->order_buf + next,
                         b, &dropped) != 0)
      return -1;
    K += b - dropped;
    next += b;
    remaining -= b;
    d_count = dropped;
  }
  return static_cast<int>(K);
}

}  // namespace ol
