// The proposal stage driver: filter, order and decode one frame's RPN
// outputs under the context lock.
#include <stdio.h>

#include "frcnn/rpn_stage.h"

namespace ol {

int frcnn_prenms(frcnn_context* ctx, const uint16_t* rpn_cls, const uint16_t* rpn_bbox,
                 half_float::half** proposals, rpn_nms_request* nms) {
  if (!context_ready(ctx)) {
    puts("opt_layers library is not inited");
    return -1;
  }
  if (rpn_cls == nullptr || rpn_bbox == nullptr) {
    printf("RPN Output (cls or bbox) is NULL: %p %p\n", static_cast<const void*>(rpn_cls),
           static_cast<const void*>(rpn_bbox));
    return -1;
  }
  const frcnn_desc& d = ctx->desc;
  const uint16_t T = opt_layers_half::from_float_trunc(d.rpn_cls_threshold);

  pthread_mutex_lock(&ctx->lock);
  const uint32_t M = rpn_score_filter(ctx, rpn_cls, T);
  if (d.is_debug) printf("Total_RPN_Score Num: %u before sorting\n", M);
  const uint32_t n = M < d.pre_nms_num ? M : d.pre_nms_num;
  int K = 0;
  if (n > 0) {
    // Only the numbers the sort wrote are decoded: the histogram walk can
    // give fewer than n, and order_buf past them holds older entries. The
    // walk is asked for the numbers the decode needs first; it resumes the
    // walk for the others when it needs them.
    const uint32_t sorted = rpn_sort(&ctx->hist, ctx->rpn_cls_nopitch, rpn_decode_head(n, nms),
                                     ctx->order_buf, M, d.is_use_qsort, ctx->sort_scratch);
    K = rpn_decode(ctx, rpn_bbox, sorted, n, M, nms);
  }
  pthread_mutex_unlock(&ctx->lock);
  // An unsupported bbox_type fails the stage (after the lock is released).
  if (K < 0) return -1;

  if (d.is_debug) printf("Total_RoI Num: %u before nms\n", static_cast<unsigned>(K));
  if (proposals != nullptr)
    *proposals = reinterpret_cast<half_float::half*>(ctx->detections);
  return K;
}

}  // namespace ol
