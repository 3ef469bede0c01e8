// Greedy non-maximum suppression kernel shared by the exported nms and the
// pipeline (which runs it on scratch owned by the context).
#ifndef OL_FRCNN_NMS_H
#define OL_FRCNN_NMS_H

#include <stddef.h>
#include <stdint.h>

namespace ol {

constexpr int k_nms_max_count = 32767;

// Scratch bytes nms_kernel needs for `count` boxes.
size_t nms_scratch_bytes(uint32_t count);

// in: count records of 5 halves; out: up to max_out records of 4 halves.
// scratch: nms_scratch_bytes(count) bytes, 16-byte aligned. count must be
// within 0..32767. Returns the number of boxes written.
int nms_kernel(uint16_t* out, const uint16_t* in, int count, float iou_threshold, int max_out,
               void* scratch);

// The kernel in steps, for boxes that arrive in order: suppresses boxes
// [begin, end) of `in`, `kept` boxes (from earlier steps over boxes [0,
// begin)) being already kept and written, and returns the new count. Steps
// over [0, a), [a, b), ... give exactly nms_kernel's result on the boxes
// [0, last end) whenever that count is at most 32767. scratch:
// nms_scratch_bytes(capacity) bytes, the same block and capacity for all the
// steps of one suppression; the boxes stay below capacity (and 32767).
int nms_resume(uint16_t* out, const uint16_t* in, int begin, int end, float iou_threshold,
               int max_out, void* scratch, uint32_t capacity, int kept);

}  // namespace ol

#endif
