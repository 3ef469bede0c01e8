// Pooling stage: max-pools the feature map over every ROI, one pool task per
// ROI, each running the ROI pooling operator on that single box.
#include <stdio.h>

#include "brennik_opt_layers.h"
#include "frcnn/head_stage.h"

namespace ol {

int32_t roi_pool_task_func(void* record) {
  const roi_pool_task* t = static_cast<const roi_pool_task*>(record);
  // The operator takes non-const boxes; it only reads them.
  half_float::half* box =
      reinterpret_cast<half_float::half*>(const_cast<uint16_t*>(t->proposal));
  if (t->fmap_sign) {
    roi_pooling_sign(box, t->fmap, t->roi_result, t->roi_num, t->pool_w, t->pool_h,
                     t->pool_pitch, t->fmap_scale, t->fmap_pitch, t->fmap_h, t->fmap_w,
                     t->fmap_d);
  } else {
    roi_pooling(box, t->fmap, t->roi_result, t->roi_num, t->pool_w, t->pool_h, t->pool_pitch,
                t->fmap_scale, t->fmap_pitch, t->fmap_h, t->fmap_w, t->fmap_d);
  }
  return 0;
}

void frcnn_roi_pool(thread_pool* pool, roi_pool_task* records, const uint16_t* nms_out,
                    uint16_t* fmap, uint16_t* roi_result, uint32_t n, uint32_t fmap_d,
                    uint32_t fmap_h, uint32_t fmap_w, uint32_t fmap_pitch, uint32_t fmap_scale,
                    bool fmap_sign, uint32_t pool_h, uint32_t pool_w, uint32_t pool_pitch) {
  if (n == 0) return;
  // Each ROI owns pool_h * fmap_d * pool_w output elements; the offset is a
  // 32-bit product, like the buffer sizes the descriptor allows.
  const uint32_t stride = pool_h * fmap_d * pool_w;
  for (uint32_t i = 0; i < n; ++i) {
    roi_pool_task& r = records[i];
    r.proposal = nms_out + 4 * static_cast<size_t>(i);
    r.roi_result = roi_result + static_cast<uint32_t>(i * stride);
    r.fmap = fmap;
    r.roi_num = 1;
    r.pool_w = static_cast<int>(pool_w);
    r.pool_h = static_cast<int>(pool_h);
    r.pool_pitch = static_cast<int>(pool_pitch);
    r.fmap_pitch = static_cast<int>(fmap_pitch);
    r.fmap_h = static_cast<int>(fmap_h);
    r.fmap_w = static_cast<int>(fmap_w);
    r.fmap_d = static_cast<int>(fmap_d);
    r.fmap_scale = static_cast<int>(fmap_scale);
    r.fmap_sign = fmap_sign ? 1 : 0;
    r.task.func = roi_pool_task_func;
    r.task.arg = &r;
    r.task.retval = 0;
    r.index = i;
  }
  dispatch_tasks(pool, records, n, on_refused::skip);
}

}  // namespace ol
