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

}  // namespace ol

#endif
