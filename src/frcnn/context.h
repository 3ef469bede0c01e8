// The pipeline context: a copy of the descriptor, the worker pool, the lock
// and every work buffer, all allocated once by init.
#ifndef OL_FRCNN_CONTEXT_H
#define OL_FRCNN_CONTEXT_H

#include <pthread.h>
#include <stdint.h>

#include "brennik_opt_layers.h"
#include "frcnn/head_stage.h"
#include "frcnn/hist_sort.h"
#include "thread_pool/thread_pool.h"

namespace ol {

constexpr uint8_t k_flag_inited = 1;

struct frcnn_context {
  uint8_t flags;  // bit 0: inited
  thread_pool* pool;
  pthread_mutex_t lock;
  frcnn_desc desc;

  float* anchors;              // N records of 4 floats, cell-major
  uint16_t* rpn_cls_nopitch;   // candidate scores (half patterns)
  uint16_t* detections;        // pre_nms_num proposal records of 5 halves
  uint32_t* order_buf;         // sorted candidate numbers
  uint32_t* sort_scratch;      // N, merge space of the comparison sort (is_use_qsort only)
  uint32_t* order_rpn_index;   // position index of each candidate
  float* rcnn_boxes;           // post_nms_num * class_num boxes of 4 floats
  // expf of every width and height delta pattern, as the proposal and the
  // head box decodes compute it (scale factors applied): 65,536 floats for
  // the widths, then the heights' own 65,536 when their factor differs.
  // NULL: the decodes call expf per box.
  float* exp_w;
  const float* exp_h;

  hist_tables hist;  // only allocated when is_use_qsort is 0

  // Per-frame scratch that would not fit a small thread stack.
  void* nms_scratch;            // nms_scratch_bytes(pre_nms_num)
  void* class_nms_scratch;      // ten blocks of class_nms_block bytes
  uint32_t class_nms_block;
};

// Shared by both init functions and both exit functions.
frcnn_context* frcnn_init(const frcnn_desc* desc, const float* base_anchors);
void frcnn_release(frcnn_context* ctx);

// The process-wide context of the opt_layers_frcnn_* functions (NULL before
// a successful opt_layers_frcnn_init).
frcnn_context* global_context();

// Prints the configuration (used by init when is_debug is set).
void frcnn_desc_dump(const frcnn_desc* desc);

inline bool context_ready(const frcnn_context* ctx) {
  return ctx != nullptr && (ctx->flags & k_flag_inited) != 0;
}

}  // namespace ol

#endif
