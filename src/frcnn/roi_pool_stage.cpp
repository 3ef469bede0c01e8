// Pooling stage: max-pools the feature map over every ROI. The work is cut
// into at most k_pool_tasks units, one pool task each: runs of consecutive
// ROIs with about equal estimated work, times runs of channel blocks. A unit
// pools its ROIs with the ROI pooling kernel over its channel blocks, so one
// part of the map serves a whole group of ROIs while it is in cache. The cut
// depends only on the ROIs and the configuration, never on the number of
// workers.
#include <stdio.h>

#include "brennik_opt_layers.h"
#include "frcnn/head_stage.h"
#include "ops/roi_pooling_kernels.h"

namespace ol {

int32_t roi_pool_task_func(void* record) {
  const roi_pool_task* t = static_cast<const roi_pool_task*>(record);
  // Each ROI owns `stride` output elements; the offset of the unit's first
  // ROI is a 32-bit product, like the buffer sizes the descriptor allows.
  roi_pool_boxes(t->fmap_sign != 0, t->nms_out + 4 * static_cast<size_t>(t->begin), t->fmap,
                 t->roi_result + static_cast<uint32_t>(t->begin * t->stride), t->stride,
                 static_cast<int>(t->end - t->begin), t->pool_w, t->pool_h, t->fmap_scale,
                 t->fmap_h, t->fmap_w, t->fmap_d, static_cast<int>(t->first_run),
                 static_cast<int>(t->end_run));
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

  // Runs of channel blocks first (a map with no whole block still gets its
  // units, which write nothing), then as many runs of ROIs as fit.
  const int runs = roi_pool_runs(proto.fmap_d);
  const uint32_t run_parts =
      runs < 1 ? 1 : (static_cast<uint32_t>(runs) < k_pool_tasks ? runs : k_pool_tasks);
  const uint32_t fit = k_pool_tasks / run_parts;
  const uint32_t roi_parts = n < fit ? n : fit;

  // ROI i goes to run floor((work before i + half its own) * roi_parts /
  // total): runs of about equal work, in order (some may be empty).
  uint32_t first_roi[k_pool_tasks + 1];
  uint64_t total = 0;
  for (uint32_t i = 0; i < n; ++i) total += box_work(nms_out, i, proto);
  uint64_t before = 0;
  uint32_t part = 0;
  first_roi[0] = 0;
  for (uint32_t i = 0; i < n; ++i) {
    const uint64_t w = box_work(nms_out, i, proto);
    const uint64_t p = (before + w / 2) * roi_parts / total;
    while (part < p) first_roi[++part] = i;
    before += w;
  }
  while (part < roi_parts) first_roi[++part] = n;

  roi_pool_task records[k_pool_tasks];
  uint32_t count = 0;
  for (uint32_t r = 0; r < run_parts; ++r) {
    uint32_t run0, run1;
    split_range(runs < 1 ? 1 : static_cast<uint32_t>(runs), run_parts, r, &run0, &run1);
    for (uint32_t b = 0; b < roi_parts; ++b) {
      if (first_roi[b] == first_roi[b + 1]) continue;
      roi_pool_task& t = records[count];
      t = proto;
      t.begin = first_roi[b];
      t.end = first_roi[b + 1];
      t.first_run = run0;
      t.end_run = run1;
      t.task.arg = &t;
      t.index = count++;
    }
  }

  // A refused unit is reported once per ROI it held; its blocks stay as they
  // were.
  uint32_t accepted = 0;
  for (uint32_t k = 0; k < count; ++k) {
    if (thread_pool_add_task(pool, &records[k].task, false) == 0) {
      ++accepted;
    } else {
      for (uint32_t i = records[k].begin; i < records[k].end; ++i) puts("fatal: add task fail");
    }
  }
  thread_pool_wake(pool, accepted);
  thread_pool_wait_many(pool, accepted);
}

}  // namespace ol
