// Pooling stage: max-pools the feature map over every ROI. The ROIs are cut
// into up to k_stage_tasks runs, one pool task each; a task runs the ROI
// pooling operator on each box of its run, one box at a time.
#include <stdio.h>

#include "brennik_opt_layers.h"
#include "frcnn/head_stage.h"

namespace ol {

int32_t roi_pool_task_func(void* record) {
  const roi_pool_task* t = static_cast<const roi_pool_task*>(record);
  for (uint32_t i = t->begin; i < t->end; ++i) {
    // The operator takes non-const boxes; it only reads them. Each ROI owns
    // `stride` output elements; the offset is a 32-bit product, like the
    // buffer sizes the descriptor allows.
    half_float::half* box =
        reinterpret_cast<half_float::half*>(const_cast<uint16_t*>(t->nms_out + 4 * static_cast<size_t>(i)));
    uint16_t* out = t->roi_result + static_cast<uint32_t>(i * t->stride);
    if (t->fmap_sign) {
      roi_pooling_sign(box, t->fmap, out, 1, t->pool_w, t->pool_h, t->pool_pitch, t->fmap_scale,
                       t->fmap_pitch, t->fmap_h, t->fmap_w, t->fmap_d);
    } else {
      roi_pooling(box, t->fmap, out, 1, t->pool_w, t->pool_h, t->pool_pitch, t->fmap_scale,
                  t->fmap_pitch, t->fmap_h, t->fmap_w, t->fmap_d);
    }
  }
  return 0;
}

void frcnn_roi_pool(thread_pool* pool, const uint16_t* nms_out,
                    uint16_t* fmap, uint16_t* roi_result, uint32_t n, uint32_t fmap_d,
                    uint32_t fmap_h, uint32_t fmap_w, uint32_t fmap_pitch, uint32_t fmap_scale,
                    bool fmap_sign, uint32_t pool_h, uint32_t pool_w, uint32_t pool_pitch) {
  if (n == 0) return;
  const uint32_t parts = n < k_stage_tasks ? n : k_stage_tasks;
  roi_pool_task records[k_stage_tasks];
  for (uint32_t k = 0; k < parts; ++k) {
    roi_pool_task& r = records[k];
    split_range(n, parts, k, &r.begin, &r.end);
    r.nms_out = nms_out;
    r.roi_result = roi_result;
    r.stride = pool_h * fmap_d * pool_w;
    r.fmap = fmap;
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
    r.index = k;
  }
  dispatch_tasks(pool, records, parts, on_refused::skip);
}

}  // namespace ol
