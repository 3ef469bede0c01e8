// Pooling stage: max-pools the feature map over every ROI. The ROIs are cut
// into at most k_pool_tasks runs of consecutive ROIs with about equal
// estimated work, one pool task each; a task pools its run with the ROI
// pooling kernel, channel blocks outermost within groups of ROIs, so one
// part of the map serves many ROIs while it is in cache. The cut depends
// only on the ROIs and the configuration, never on the number of workers.
#include <stdio.h>

#include "brennik_opt_layers.h"
#include "frcnn/head_stage.h"
#include "ops/roi_pooling_kernels.h"

namespace ol {

int32_t roi_pool_task_func(void* record) {
  const roi_pool_task* t = static_cast<const roi_pool_task*>(record);
  // Each ROI owns `stride` output elements; the offset of the run's first
  // ROI is a 32-bit product, like the buffer sizes the descriptor allows.
  roi_pool_boxes(t->fmap_sign != 0, t->nms_out + 4 * static_cast<size_t>(t->begin), t->fmap,
                 t->roi_result + static_cast<uint32_t>(t->begin * t->stride), t->stride,
                 static_cast<int>(t->end - t->begin), t->pool_w, t->pool_h, t->fmap_scale,
                 t->fmap_h, t->fmap_w, t->fmap_d);
  return 0;
}

namespace {

uint64_t box_work(const uint16_t* nms_out, uint32_t i, const roi_pool_task& r) {
  return roi_pool_box_work(nms_out + 4 * static_cast<size_t>(i), r.pool_w, r.pool_h, r.fmap_scale,
                           r.fmap_h, r.fmap_w);
}

}  // namespace

void frcnn_roi_pool(thread_pool* pool, const uint16_t* nms_out,
                    uint16_t* fmap, uint16_t* roi_result, uint32_t n, uint32_t fmap_d,
                    uint32_t fmap_h, uint32_t fmap_w, uint32_t /*fmap_pitch*/, uint32_t fmap_scale,
                    bool fmap_sign, uint32_t pool_h, uint32_t pool_w, uint32_t /*pool_pitch*/) {
  if (n == 0) return;
  roi_pool_task proto;
  proto.nms_out = nms_out;
  proto.roi_result = roi_result;
  proto.stride = pool_h * fmap_d * pool_w;
  proto.fmap = fmap;
  proto.pool_w = static_cast<int>(pool_w);
  proto.pool_h = static_cast<int>(pool_h);
  proto.fmap_h = static_cast<int>(fmap_h);
  proto.fmap_w = static_cast<int>(fmap_w);
  proto.fmap_d = static_cast<int>(fmap_d);
  proto.fmap_scale = static_cast<int>(fmap_scale);
  proto.fmap_sign = fmap_sign ? 1 : 0;
  proto.task.func = roi_pool_task_func;
  proto.task.retval = 0;

  // ROI i goes to run floor((work before i + half its own) * parts / total):
  // runs of about equal work, in order, none empty.
  const uint32_t parts = n < k_pool_tasks ? n : k_pool_tasks;
  uint64_t total = 0;
  for (uint32_t i = 0; i < n; ++i) total += box_work(nms_out, i, proto);
  roi_pool_task records[k_pool_tasks];
  uint32_t count = 0;
  uint64_t before = 0;
  for (uint32_t i = 0; i < n; ++i) {
    const uint64_t w = box_work(nms_out, i, proto);
    const uint64_t part = (before + w / 2) * parts / total;
    before += w;
    if (count == 0 || part != records[count - 1].index) {
      records[count] = proto;
      records[count].begin = i;
      records[count].index = static_cast<uint32_t>(part);
      records[count].task.arg = &records[count];
      ++count;
    }
    records[count - 1].end = i + 1;
  }

  // A refused run is reported once per ROI it held; its blocks stay as they
  // were.
  uint32_t accepted = 0;
  for (uint32_t k = 0; k < count; ++k) {
    if (thread_pool_add_task(pool, &records[k].task) == 0) {
      ++accepted;
    } else {
      for (uint32_t i = records[k].begin; i < records[k].end; ++i) puts("fatal: add task fail");
    }
  }
  for (uint32_t k = 0; k < accepted; ++k) thread_pool_wait(pool);
}

}  // namespace ol
