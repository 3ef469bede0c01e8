// Context lifecycle: init allocates everything a frame needs, release frees
// it. Both the process-wide and the handle-based API go through here.
#include "frcnn/context.h"

#include <stdio.h>
#include <string.h>

#include "common/alloc.h"
#include "frcnn/anchors.h"
#include "frcnn/nms.h"
#include "frcnn/rpn_stage.h"

namespace ol {

namespace {

constexpr uint64_t k_max_buffer = 0xFFFFFFFFull;  // buffers must stay below 4 GiB

// a * b, saturating at UINT64_MAX (which no allocation accepts).
uint64_t sat_mul(uint64_t a, uint64_t b) {
  uint64_t r;
  return __builtin_mul_overflow(a, b, &r) ? UINT64_MAX : r;
}

// Allocates `bytes` zero-filled, or prints `message` and returns NULL. A size
// of 4 GiB or more is refused the same way: 32-bit size products would wrap.
void* alloc_buffer(uint64_t bytes, const char* message) {
  void* p = bytes <= k_max_buffer ? ol_calloc(1, bytes ? static_cast<size_t>(bytes) : 1) : nullptr;
  if (p == nullptr) puts(message);
  return p;
}

template <class T>
bool alloc_into(T*& field, uint64_t bytes, const char* message) {
  field = static_cast<T*>(alloc_buffer(bytes, message));
  return field != nullptr;
}

// Carves the histogram tables; any failure prints the table's message.
// The 16 MiB slot map is left uninitialised: a slot is only read after the
// frame that uses it wrote it, so its pages are touched only as buckets
// fill, and init does not clear 16 MiB.
bool alloc_hist(frcnn_context* ctx, uint64_t N) {
  hist_tables& t = ctx->hist;
  t.map = static_cast<uint32_t*>(ol_malloc(static_cast<size_t>(k_hist_buckets) * k_hist_inline *
                                           sizeof(uint32_t)));
  if (t.map == nullptr) {
    puts("malloc for histgram map err");
    return false;
  }
  if (!alloc_into(t.list, static_cast<uint64_t>(k_hist_buckets) * sizeof(hist_bucket),
                  "malloc for histgram list err"))
    return false;
  // Row nodes kept in advance so that the first frames need not allocate.
  const uint64_t K = sat_mul(N, 20) / k_hist_node_bytes;
  for (uint64_t i = 0; i < K; ++i) {
    hist_row_node* node = static_cast<hist_row_node*>(ol_malloc(sizeof(hist_row_node)));
    if (node == nullptr) {
      perror("malloc histmap row node");
      break;
    }
    node->next = t.free_nodes;
    t.free_nodes = node;
  }
  if (!alloc_into(t.num, static_cast<uint64_t>(k_hist_buckets) * sizeof(uint32_t),
                  "malloc for histgram num err") ||
      !alloc_into(t.occupied, k_hist_buckets / 8, "malloc for histgram num err") ||
      !alloc_into(t.sort, static_cast<uint64_t>(k_hist_buckets) * sizeof(uint16_t),
                  "malloc for histgram sort err"))
    return false;
  hist_build_order(t.sort, k_hist_buckets);
  hist_reset(&t);
  return true;
}

// The decode's exponentials, one per 16-bit delta pattern. A refused
// allocation is tolerated: the decode then calls expf itself.
void alloc_exp_tables(frcnn_context* ctx) {
  const frcnn_desc& d = ctx->desc;
  const bool apply = d.is_apply_bbox_scale_factor;
  const float sw = d.bbox_scale_factor.width, sh = d.bbox_scale_factor.height;
  const bool shared = !apply || memcmp(&sw, &sh, sizeof sw) == 0;
  const size_t entries = size_t{k_rpn_exp_entries} * (shared ? 1 : 2);
  ctx->exp_w = static_cast<float*>(ol_malloc(entries * sizeof(float)));
  if (ctx->exp_w == nullptr) return;
  rpn_exp_table_fill(ctx->exp_w, apply, sw);
  if (shared) {
    ctx->exp_h = ctx->exp_w;
  } else {
    rpn_exp_table_fill(ctx->exp_w + k_rpn_exp_entries, apply, sh);
    ctx->exp_h = ctx->exp_w + k_rpn_exp_entries;
  }
}

bool alloc_buffers(frcnn_context* ctx, const float* base_anchors) {
  const frcnn_desc& d = ctx->desc;
  const uint64_t N = sat_mul(sat_mul(d.anchor_num, d.fmap_h), d.fmap_w);
  const uint64_t pre = d.pre_nms_num, post = d.post_nms_num, classes = d.class_num;
  if (!alloc_into(ctx->anchors, sat_mul(N, 16), "malloc for anchors err")) return false;
  anchors_generate(ctx->pool, base_anchors, ctx->anchors, d.anchor_num, d.fmap_scale, d.fmap_h,
                   d.fmap_w, d.is_anchor_bbox_suppress, d.img_h, d.img_w);

  // rpn_cls_nopitch holds N candidate scores in its lower half; the parallel
  // filter uses the upper half for the slices of its runs of anchors.
  if (!alloc_into(ctx->rpn_cls_nopitch, sat_mul(N, 4), "malloc for rpn cls nopitch err")) return false;
  // detections, and beside it the scratch of the suppression that reads it.
  if (!alloc_into(ctx->detections, pre * 10, "malloc for detections err") ||
      !alloc_into(ctx->nms_scratch, nms_scratch_bytes(static_cast<uint32_t>(pre < 32767 ? pre : 32767)),
                  "malloc for detections err"))
    return false;
  if (!alloc_into(ctx->order_buf, sat_mul(N, 4), "malloc for order_buf err")) return false;
  if (d.is_use_qsort &&
      !alloc_into(ctx->sort_scratch, sat_mul(N, 4), "malloc for order_buf err"))
    return false;
  if (!alloc_into(ctx->order_rpn_index, sat_mul(N, 4), "malloc for order_rpn_index ")) return false;
  // rcnn_boxes, and the working arrays of the class suppression.
  const uint64_t head_rois = post < 32767 ? post : 32767;
  ctx->class_nms_block = class_nms_scratch_bytes(static_cast<uint32_t>(head_rois));
  if (!alloc_into(ctx->rcnn_boxes, sat_mul(post * classes, 16), "malloc for anchors err") ||
      !alloc_into(ctx->class_nms_scratch,
                  static_cast<uint64_t>(ctx->class_nms_block) * k_class_nms_tasks,
                  "malloc for anchors err"))
    return false;

  // Queue nodes for the largest batch a frame submits, so that frames never
  // allocate them. A failure here is tolerated: batches then grow the queues
  // on demand.
  thread_pool_prepare(ctx->pool, k_stage_tasks > k_class_nms_tasks ? k_stage_tasks : k_class_nms_tasks);

  alloc_exp_tables(ctx);
  if (d.is_use_qsort) return true;
  return alloc_hist(ctx, N);
}

}  // namespace

frcnn_context* frcnn_init(const frcnn_desc* desc, const float* base_anchors) {
  if (desc == nullptr) {
    puts("Invalid frcnn desc pointer NULL");
    return nullptr;
  }
  if (desc->is_debug) frcnn_desc_dump(desc);
  frcnn_context* ctx = static_cast<frcnn_context*>(ol_calloc(1, sizeof(frcnn_context)));
  if (ctx == nullptr) {
    puts("malloc frcnn err");
    return nullptr;
  }
  memcpy(&ctx->desc, desc, sizeof(frcnn_desc));
  if (pthread_mutex_init(&ctx->lock, nullptr) != 0) {
    perror("frcnn_init lock init");
    ol_free(ctx);
    return nullptr;
  }
  ctx->pool = thread_pool_create(ctx->desc.thread_num);
  bool ok = ctx->pool != nullptr;
  if (!ok) puts("create thread pool err");
  ok = ok && alloc_buffers(ctx, base_anchors);
  if (!ok) {
    // Release what exists; mark the context as built so release frees it.
    ctx->flags |= k_flag_inited;
    frcnn_release(ctx);
    return nullptr;
  }
  ctx->flags |= k_flag_inited;
  return ctx;
}

void frcnn_release(frcnn_context* ctx) {
  if (ctx == nullptr) {
    puts("frcnn handle is NULL for exit");
    return;
  }
  if (!(ctx->flags & k_flag_inited)) {
    puts("opt_layers library is not inited");
    return;
  }
  hist_tables& t = ctx->hist;
  if (t.list != nullptr) {
    hist_release(&t);
    ol_free(t.list);
    t.list = nullptr;
  } else {
    // Nodes kept in advance before the list could be allocated.
    while (t.free_nodes != nullptr) {
      hist_row_node* next = t.free_nodes->next;
      ol_free(t.free_nodes);
      t.free_nodes = next;
    }
  }
  void** buffers[] = {
      reinterpret_cast<void**>(&t.sort),          reinterpret_cast<void**>(&t.occupied),
      reinterpret_cast<void**>(&t.num),           reinterpret_cast<void**>(&t.map),
      reinterpret_cast<void**>(&ctx->class_nms_scratch), reinterpret_cast<void**>(&ctx->rcnn_boxes),
      reinterpret_cast<void**>(&ctx->order_rpn_index),   reinterpret_cast<void**>(&ctx->order_buf),
      reinterpret_cast<void**>(&ctx->sort_scratch),      reinterpret_cast<void**>(&ctx->nms_scratch),
      reinterpret_cast<void**>(&ctx->detections),        reinterpret_cast<void**>(&ctx->rpn_cls_nopitch),
      reinterpret_cast<void**>(&ctx->anchors),           reinterpret_cast<void**>(&ctx->exp_w),
  };
  for (void** b : buffers) {
    ol_free(*b);
    *b = nullptr;
  }
  ctx->exp_h = nullptr;
  thread_pool_destroy(ctx->pool);
  ctx->pool = nullptr;
  pthread_mutex_destroy(&ctx->lock);
  ol_free(ctx);
}

}  // namespace ol

namespace {
ol::frcnn_context* g_context = nullptr;
}

namespace ol {
frcnn_context* global_context() { return g_context; }
}  // namespace ol

int opt_layers_frcnn_init(frcnn_desc* desc, float* base_anchors) {
  if (g_context != nullptr) {
    puts("opt_layers_frcnn_init call already, do not init agarin");
    return -1;
  }
  g_context = ol::frcnn_init(desc, base_anchors);
  if (g_context == nullptr) {
    puts("frcnn_init err");
    return -1;
  }
  return 0;
}

void opt_layers_frcnn_exit() {
  ol::frcnn_release(g_context);
  g_context = nullptr;
}

void* opt_layers_instance_frcnn_init(frcnn_desc* desc, float* base_anchors) {
  return ol::frcnn_init(desc, base_anchors);
}

void opt_layers_instance_frcnn_exit(void* handle) {
  ol::frcnn_release(static_cast<ol::frcnn_context*>(handle));
}
