// Per-frame entry points: the global forms use the process-wide context,
// the instance forms a handle; both share one implementation each.
#include <stdio.h>

#include "common/box.h"
#include "frcnn/context.h"
#include "frcnn/head_stage.h"
#include "frcnn/nms.h"
#include "frcnn/rpn_stage.h"

namespace ol {

namespace {

int prenms(frcnn_context* ctx, half_float::half* rpn_cls, half_float::half* rpn_bbox,
           half_float::half** proposals, rpn_nms_request* nms = nullptr) {
  if (ctx == nullptr) {
    puts("opt_layers library is not inited");
    return -1;
  }
  return frcnn_prenms(ctx, half_bits_ptr(rpn_cls), half_bits_ptr(rpn_bbox), proposals, nms);
}

int prenms_nms(frcnn_context* ctx, half_float::half* rpn_cls, half_float::half* rpn_bbox,
               half_float::half* nms_out) {
  if (nms_out == nullptr) {
    puts("frcnn nms_out is NULL");
    return -1;
  }
  // The suppression counts are 16-bit: post_nms_num beyond 32767 cannot be
  // reached, and a negative max_out would write nothing.
  const uint32_t post = context_ready(ctx) ? ctx->desc.post_nms_num : 0;
  const int max_out = post > 32767u ? 32767 : static_cast<int>(post);
  // The proposals themselves are not handed out here, so the suppression
  // runs while they are decoded and the decode stops once it has its boxes.
  // The proposal count is then not known, so not with is_debug (which
  // prints it); and not for more than 32767 proposals, whose count the
  // suppression reads as a 16-bit number.
  const bool fused = context_ready(ctx) && !ctx->desc.is_debug &&
                     ctx->desc.pre_nms_num <= static_cast<uint32_t>(k_nms_max_count) &&
                     max_out > 0;
  rpn_nms_request request = {half_bits_ptr(nms_out), fused ? ctx->desc.pre_nms_iou : 0.0f,
                             max_out, 0};
  const int K = prenms(ctx, rpn_cls, rpn_bbox, nullptr, fused ? &request : nullptr);
  if (K < 0) {
    puts("frcnn prenms err");
    return -1;
  }
  const int R = fused ? request.kept
                      : nms_kernel(half_bits_ptr(nms_out), ctx->detections, K,
                                   ctx->desc.pre_nms_iou, max_out, ctx->nms_scratch);
  if (R < 0) {
    puts("frcnn nms err");
    return -1;
  }
  if (static_cast<uint32_t>(R) > post)
    printf("Abnormal frcnn nms out rois num: %u > %u\n", static_cast<unsigned>(R), post);
  return R;
}

int pre_nms_roi(frcnn_context* ctx, half_float::half* rpn_cls, half_float::half* rpn_bbox,
                unsigned short* fmap, unsigned short* roi_result, half_float::half* nms_out) {
  if (ctx == nullptr) {
    puts("frcnn handle is NULL for pre_nms_roi");
    return -1;
  }
  const int R = prenms_nms(ctx, rpn_cls, rpn_bbox, nms_out);
  if (R < 0) {
    puts("frcnn nms err");
    return -1;
  }
  const frcnn_desc& d = ctx->desc;
  pthread_mutex_lock(&ctx->lock);
  frcnn_roi_pool(ctx->pool, half_bits_ptr(nms_out), fmap, roi_result, static_cast<uint32_t>(R), d.fmap_d, d.fmap_h, d.fmap_w,
                 d.fmap_pitch, d.fmap_scale, d.fmap_sign, d.pool_h, d.pool_w, d.pool_pitch);
  pthread_mutex_unlock(&ctx->lock);
  return R;
}

int post_nms(frcnn_context* ctx, half_float::half* rcnn_cls, half_float::half* rcnn_bbox,
             half_float::half* nms_out, half_float::half* rcnn_result, unsigned int roi_num) {
  if (ctx == nullptr) {
    puts("frcnn handle is NULL for post_nms");
    return -1;
  }
  if (nms_out == nullptr || rcnn_bbox == nullptr || rcnn_cls == nullptr || rcnn_result == nullptr) {
    puts("frcnn_post_nms input pointer is NULL");
    return -1;
  }
  const frcnn_desc& d = ctx->desc;
  if (roi_num > d.post_nms_num) {
    printf("Abnormal frcnn post nms rois num: %u > %u\n", roi_num, d.post_nms_num);
    roi_num = d.post_nms_num;
  }
  if (!(ctx->flags & k_flag_inited)) {
    puts("opt_layers library is not inited");
    return -1;
  }
  pthread_mutex_lock(&ctx->lock);
  frcnn_rcnn_decode(ctx->pool, half_bits_ptr(nms_out), half_bits_ptr(rcnn_bbox), ctx->rcnn_boxes, d.img_h,
                    d.img_w, d.class_num, d.rcnn_bbox_pitch, roi_num, d.rcnn_bbox_share_location,
                    d.bbox_type, d.is_apply_bbox_scale_factor, &d.bbox_scale_factor.center_x,
                    d.is_no_rcnn_bg_bbox, ctx->exp_w, ctx->exp_h);
  frcnn_rcnn_nms(ctx->pool, half_bits_ptr(rcnn_result), ctx->rcnn_boxes, half_bits_ptr(rcnn_cls),
                 d.class_num, roi_num, d.rcnn_cls_pitch, d.post_nms_num, d.is_no_rcnn_bg_bbox,
                 d.post_nms_iou, d.cls_prob, ctx->class_nms_scratch, ctx->class_nms_block);
  pthread_mutex_unlock(&ctx->lock);
  return 0;
}

frcnn_context* from_handle(void* handle) { return static_cast<frcnn_context*>(handle); }

}  // namespace

}  // namespace ol

using ol::from_handle;
using ol::global_context;

int opt_layers_frcnn_prenms(half_float::half* rpn_cls, half_float::half* rpn_bbox,
                            half_float::half** proposals) {
  return ol::prenms(global_context(), rpn_cls, rpn_bbox, proposals);
}
int opt_layers_instance_frcnn_prenms(void* handle, half_float::half* rpn_cls,
                                     half_float::half* rpn_bbox, half_float::half** proposals) {
  return ol::prenms(from_handle(handle), rpn_cls, rpn_bbox, proposals);
}

int opt_layers_frcnn_prenms_nms(half_float::half* rpn_cls, half_float::half* rpn_bbox,
                                half_float::half* nms_out) {
  return ol::prenms_nms(global_context(), rpn_cls, rpn_bbox, nms_out);
}
int opt_layers_instance_frcnn_prenms_nms(void* handle, half_float::half* rpn_cls,
                                         half_float::half* rpn_bbox, half_float::half* nms_out) {
  return ol::prenms_nms(from_handle(handle), rpn_cls, rpn_bbox, nms_out);
}

int opt_layers_frcnn_pre_nms_roi(half_float::half* rpn_cls, half_float::half* rpn_bbox,
                                 unsigned short* fmap, unsigned short* roi_result,
                                 half_float::half* nms_out) {
  return ol::pre_nms_roi(global_context(), rpn_cls, rpn_bbox, fmap, roi_result, nms_out);
}
int opt_layers_instance_frcnn_pre_nms_roi(void* handle, half_float::half* rpn_cls,
                                          half_float::half* rpn_bbox, unsigned short* fmap,
                                          unsigned short* roi_result, half_float::half* nms_out) {
  return ol::pre_nms_roi(from_handle(handle), rpn_cls, rpn_bbox, fmap, roi_result, nms_out);
}

int opt_layers_frcnn_post_nms(half_float::half* rcnn_cls, half_float::half* rcnn_bbox,
                              half_float::half* nms_out, half_float::half* rcnn_result,
                              unsigned int roi_num) {
  return ol::post_nms(global_context(), rcnn_cls, rcnn_bbox, nms_out, rcnn_result, roi_num);
}
int opt_layers_instance_frcnn_post_nms(void* handle, half_float::half* rcnn_cls,
                                       half_float::half* rcnn_bbox, half_float::half* nms_out,
                                       half_float::half* rcnn_result, unsigned int roi_num) {
  return ol::post_nms(from_handle(handle), rcnn_cls, rcnn_bbox, nms_out, rcnn_result, roi_num);
}
