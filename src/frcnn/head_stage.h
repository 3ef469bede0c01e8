// Detection head: pooling of the ROIs, decode of the second-stage box deltas
// and per-class suppression into the detection table. The stage functions
// plan tasks on the context's pool; the kernels they run are pure.
#ifndef OL_FRCNN_HEAD_STAGE_H
#define OL_FRCNN_HEAD_STAGE_H

#include <stdint.h>

#include "thread_pool/thread_pool.h"

namespace ol {

// ---- pooling stage: one task per run of ROIs and run of channel blocks ----
// Most units the pooling is cut into: enough to balance two workers or more,
// few enough that each unit pools a large group of ROIs over a part of the
// map (fewer, larger groups cost less in cache misses).
constexpr uint32_t k_pool_tasks = 16;

struct roi_pool_task {
  uint32_t begin, end;       // the ROIs [begin, end) of nms_out
  uint32_t first_run, end_run;  // the kernel's runs of channel blocks
  const uint16_t* nms_out;   // 4 halves per ROI
  uint16_t* roi_result;      // ROI i at element i * stride (32-bit product)
  uint32_t stride;
  uint16_t* fmap;
  int pool_w;
  int pool_h;
  int fmap_h;
  int fmap_w;
  int fmap_d;
  int fmap_scale;
  uint8_t fmap_sign;
  thread_task task;
  uint32_t index;
};

int32_t roi_pool_task_func(void* record);

// Task records live in this call's frame (at most k_pool_tasks). A refused
// task prints "fatal: add task fail" once per ROI it held and leaves those
// ROIs' blocks of its channels unwritten. The pitches are not used: the map
// and the output are dense.
void frcnn_roi_pool(thread_pool* pool, const uint16_t* nms_out,
                    uint16_t* fmap, uint16_t* roi_result, uint32_t n, uint32_t fmap_d,
                    uint32_t fmap_h, uint32_t fmap_w, uint32_t fmap_pitch, uint32_t fmap_scale,
                    bool fmap_sign, uint32_t pool_h, uint32_t pool_w, uint32_t pool_pitch);

// ---- head box decode: one task per run of consecutive ROIs -----------------
struct rcnn_decode_task {
  uint32_t begin, end;       // the ROIs [begin, end) of nms_out
  const uint16_t* nms_out;   // 4 halves per ROI
  const uint16_t* rcnn_bbox; // row i at i * rcnn_bbox_pitch
  float* rcnn_boxes;         // class_num boxes of 4 floats per ROI
  uint32_t img_h;
  uint32_t img_w;
  uint32_t class_num;
  uint32_t rcnn_bbox_pitch;
  uint32_t share_location;
  uint32_t bbox_type;
  uint32_t apply_scale_factor;
  const float* bbox_scale_factor;
  uint32_t no_bg_bbox;
  const float* exp_w;  // see rcnn_bbox_decode
  const float* exp_h;
  thread_task task;
  uint32_t index;
};

int32_t rcnn_decode_task_func(void* record);

// Decodes one proposal into its C slots (class_num, or class_num - 1 without
// a background delta set; none when class_num is 0); 0, or -1 for an
// unsupported bbox_type ("Unsupported bbox type: %u\n", nothing written).
// exp_w and exp_h, when given, hold expf of every width and height delta
// pattern as the decode computes it (scaled by the factors when they apply;
// the context's tables, see frcnn_context), and replace the expf calls.
int rcnn_bbox_decode(const uint16_t* proposal, const uint16_t* rcnn_bbox, float* boxes,
                     uint32_t img_h, uint32_t img_w, uint32_t class_num, uint32_t share_location,
                     uint32_t bbox_type, uint32_t apply_scale_factor,
                     const float* bbox_scale_factor, uint32_t no_bg_bbox,
                     const float* exp_w = nullptr, const float* exp_h = nullptr);

// Task records live in this call's frame (at most k_stage_tasks).
void frcnn_rcnn_decode(thread_pool* pool, const uint16_t* nms_out,
                       const uint16_t* rcnn_bbox, float* rcnn_boxes, uint32_t img_h,
                       uint32_t img_w, uint32_t class_num, uint32_t rcnn_bbox_pitch, uint32_t n,
                       bool share_location, uint32_t bbox_type, bool apply_scale_factor,
                       const float* bbox_scale_factor, bool no_bg_bbox,
                       const float* exp_w = nullptr, const float* exp_h = nullptr);

// ---- class suppression: exactly ten tasks over the classes ----------------
constexpr uint32_t k_class_nms_tasks = 10;

// Largest proposal count one class suppression handles: the count of
// candidates still in play is a signed 16-bit value. Larger counts are
// clamped to it (the proposals beyond are ignored).
constexpr uint32_t k_class_nms_max_rois = 32767;

// Working arrays of one class-suppression task for up to n proposals. Every
// array starts on a 16-byte boundary.
struct class_nms_scratch {
  uint16_t* candidates;  // n records of 5 halves (x1 y1 x2 y2 rounded, score)
  uint16_t* scores;      // n halves, by proposal
  float* areas;          // n, by proposal
  int32_t* order;        // n proposal numbers, by sorted position
  int16_t* keys;         // n ordered score keys, by sorted position (padded to 16)
  int16_t* block_max;    // the largest key of every 16, and 8 more entries
  float* coords;         // 4n: the rounded coordinates as floats
  int32_t* alive;        // n proposals still to be tested against kept boxes
  float* alive_box;      // 5 rows of alive_stride floats: x1 y1 x2 y2 area of
                         // the alive list, in list order
  uint8_t* dead;         // n suppression flags, by proposal
  uint32_t alive_stride;  // n rounded up to a multiple of 4
};
// Bytes of scratch one task needs for n proposals (the context keeps ten).
// A multiple of 16; n above k_class_nms_max_rois counts as that maximum.
uint32_t class_nms_scratch_bytes(uint32_t n);
// Carves a scratch block of class_nms_scratch_bytes(n) bytes into arrays.
// The block needs no particular alignment.
class_nms_scratch class_nms_scratch_at(void* block, uint32_t n);

struct rcnn_nms_task {
  uint16_t* rcnn_result;
  uint16_t* class_dets;
  const float* rcnn_boxes;
  const uint16_t* rcnn_cls;
  uint32_t class_start;
  uint32_t class_end;
  uint32_t class_num;
  uint32_t rcnn_cls_pitch;
  uint32_t roi_num;
  uint32_t post_nms_num;
  float post_nms_iou;
  float cls_prob;
  uint32_t no_bg_bbox;
  class_nms_scratch scratch;
  thread_task task;
  uint32_t index;
};

int32_t rcnn_nms_task_func(void* record);

// Classes [*start, *end) of task t (0 .. 9) for class_num >= 1: ten ranges of
// (class_num - 1) / 10 classes from class 1 on, the last one also taking the
// remainder.
void class_nms_task_range(uint32_t class_num, uint32_t t, uint32_t* start, uint32_t* end);

int rcnn_class_nms(uint16_t* rcnn_result, uint16_t* class_dets, const float* rcnn_boxes,
                   const uint16_t* rcnn_cls, uint32_t class_start, uint32_t class_end,
                   uint32_t class_num, uint32_t rcnn_cls_pitch, uint32_t n,
                   uint32_t post_nms_num, uint32_t no_bg_bbox, float post_nms_iou,
                   float cls_prob, const class_nms_scratch& scratch);

// scratch: ten blocks of class_nms_scratch_bytes(post_nms_num) bytes, one
// per task, block_bytes apart. Writes rcnn_result[0] = 0 and runs exactly ten
// tasks over classes 1 .. class_num-1. class_num 0 writes nothing and runs no
// task; n is limited to post_nms_num (and k_class_nms_max_rois).
void frcnn_rcnn_nms(thread_pool* pool, uint16_t* rcnn_result, const float* rcnn_boxes,
                    const uint16_t* rcnn_cls, uint32_t class_num, uint32_t n,
                    uint32_t rcnn_cls_pitch, uint32_t post_nms_num, bool no_bg_bbox,
                    float post_nms_iou, float cls_prob, void* scratch, uint32_t block_bytes);

}  // namespace ol

#endif
