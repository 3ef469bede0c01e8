// Candidate extraction from the RPN score tensor.
#include <string.h>

#include "frcnn/rpn_stage.h"

namespace ol {

namespace {

typedef int16_t i16x8 __attribute__((vector_size(16)));

// Appends the values of one row that lie above T; returns the new length.
// Eight values at a time are compared on their order keys in one vector
// (NaN lanes never pass); a group where none passes is skipped, the others
// are appended lane by lane.
inline uint32_t filter_row(uint16_t T, const uint16_t* row, uint32_t W, uint32_t position,
                           uint16_t* scores, uint32_t* positions, uint32_t m) {
  uint32_t x = 0;
  if (!half_is_nan(T)) {
    const int16_t t = static_cast<int16_t>(half_order_key(T));
    const i16x8 key_t = {t, t, t, t, t, t, t, t};
    for (; x + 8 <= W; x += 8) {
      i16x8 h;
      memcpy(&h, row + x, sizeof h);
      const i16x8 mag = h & 0x7FFF;
      const i16x8 sign = h >> 15;  // 0 or -1
      const i16x8 keep = (((mag ^ sign) - sign) > key_t) & (mag <= 0x7C00);
      uint64_t words[2];
      memcpy(words, &keep, sizeof words);
      if ((words[0] | words[1]) == 0) continue;
      for (uint32_t j = 0; j < 8; ++j) {
        scores[m] = row[x + j];
        positions[m] = position + x + j;
        m -= static_cast<uint32_t>(static_cast<int32_t>(keep[j]));  // keep lanes are -1
      }
    }
  }
  for (; x < W; ++x) {
    const uint16_t s = row[x];
    // Branch-free append: always store, advance only when kept.
    scores[m] = s;
    positions[m] = position + x;
    m += half_above(s, T) ? 1u : 0u;
  }
  return m;
}

inline uint32_t copy_row(const uint16_t* row, uint32_t W, uint32_t position, uint16_t* scores,
                         uint32_t* positions, uint32_t m) {
  memcpy(scores + m, row, W * sizeof(uint16_t));
  for (uint32_t x = 0; x < W; ++x) positions[m + x] = position + x;
  return m + W;
}

// fg - bg in single precision, truncated back to half.
inline uint16_t score_difference(uint16_t fg, uint16_t bg) {
  return opt_layers_half::from_float_trunc(opt_layers_half::to_float(fg) -
                                           opt_layers_half::to_float(bg));
}

int32_t score_filter_task_func(void* arg) {
  score_filter_task* t = static_cast<score_filter_task*>(arg);
  score_filter_slice(t->threshold, t->src, t->scores, t->positions, t->count, t->pitch, t->W,
                     t->H, t->planes, t->first_position);
  return 0;
}

// Foreground-only scores with the threshold: the anchor planes are cut into
// up to k_stage_tasks runs of consecutive planes, one task each, each
// filling its own slice of the scratch; the slices are then merged in anchor
// order, which gives exactly the serial order. The scratch lives in the
// context: the scores in the unused upper half of rpn_cls_nopitch, the
// positions in order_buf (not used before the sort).
uint32_t parallel_filter(frcnn_context* ctx, const uint16_t* rpn_cls, uint16_t T) {
  const frcnn_desc& d = ctx->desc;
  const uint32_t A = d.anchor_num, H = d.fmap_h, W = d.fmap_w, Pc = d.rpn_cls_pitch;
  const uint32_t HW = H * W;
  if (A == 0) return 0;
  uint16_t* slice_scores = ctx->rpn_cls_nopitch + static_cast<size_t>(A) * HW;
  uint32_t* slice_positions = ctx->order_buf;
  const uint32_t parts = A < k_stage_tasks ? A : k_stage_tasks;
  score_filter_task tasks[k_stage_tasks];
  uint32_t counts[k_stage_tasks];
  for (uint32_t k = 0; k < parts; ++k) {
    uint32_t a0, a1;
    split_range(A, parts, k, &a0, &a1);
    score_filter_task& t = tasks[k];
    t.threshold = T;
    t.src = rpn_cls + static_cast<size_t>(a0) * H * Pc;
    t.scores = slice_scores + static_cast<size_t>(a0) * HW;
    t.positions = slice_positions + static_cast<size_t>(a0) * HW;
    t.count = &counts[k];
    t.pitch = Pc;
    t.W = W;
    t.H = H;
    t.planes = a1 - a0;
    t.first_position = a0 * HW;
    t.index = k;
    t.task.func = score_filter_task_func;
    t.task.arg = &t;
    t.task.retval = 0;
  }
  // A refused run is scanned on this thread, so the list is always the
  // serial one.
  dispatch_tasks(ctx->pool, tasks, parts, on_refused::run_inline, nullptr,
                 while_waiting::run_queued);
  uint32_t m = 0;
  for (uint32_t k = 0; k < parts; ++k) {
    const uint32_t c = counts[k];
    memmove(ctx->rpn_cls_nopitch + m, tasks[k].scores, c * sizeof(uint16_t));
    memcpy(ctx->order_rpn_index + m, tasks[k].positions, c * sizeof(uint32_t));
    m += c;
  }
  return m;
}

}  // namespace

void score_filter_slice(uint16_t T, const uint16_t* src, uint16_t* scores, uint32_t* positions,
                        uint32_t* count, uint32_t pitch, uint32_t W, uint32_t H, uint32_t planes,
                        uint32_t first_position) {
  uint32_t m = 0;
  const uint32_t rows = planes * H;
  for (uint32_t r = 0; r < rows; ++r)
    m = filter_row(T, src + static_cast<size_t>(r) * pitch, W, first_position + r * W, scores,
                   positions, m);
  *count = m;
}

uint32_t rpn_score_filter(frcnn_context* ctx, const uint16_t* rpn_cls, uint16_t T) {
  const frcnn_desc& d = ctx->desc;
  const uint32_t A = d.anchor_num, H = d.fmap_h, W = d.fmap_w, Pc = d.rpn_cls_pitch;
  const bool filter = d.is_filter_rpn_cls;
  const size_t plane = static_cast<size_t>(H) * Pc;
  uint16_t* scores = ctx->rpn_cls_nopitch;
  uint32_t* positions = ctx->order_rpn_index;

  if (d.is_rpn_cls_fg_minus_bg) {
    uint32_t m = 0;
    for (uint32_t a = 0; a < A; ++a) {
      const uint16_t* bg = rpn_cls + 2 * a * plane;
      const uint16_t* fg = bg + plane;
      for (uint32_t y = 0; y < H; ++y) {
        const uint32_t position = (a * H + y) * W;
        const size_t row = static_cast<size_t>(y) * Pc;
        for (uint32_t x = 0; x < W; ++x) {
          const uint16_t s = score_difference(fg[row + x], bg[row + x]);
          scores[m] = s;
          positions[m] = position + x;
          m += (!filter || half_above(s, T)) ? 1u : 0u;
        }
      }
    }
    return m;
  }

  if (d.is_rpn_cls_fg_only && filter) return parallel_filter(ctx, rpn_cls, T);

  // Foreground planes: plane a (foreground only) or plane A + a (two-class).
  const uint16_t* fg_base = d.is_rpn_cls_fg_only ? rpn_cls : rpn_cls + A * plane;
  uint32_t m = 0;
  for (uint32_t a = 0; a < A; ++a) {
    const uint16_t* fg = fg_base + a * plane;
    for (uint32_t y = 0; y < H; ++y) {
      const uint16_t* row = fg + static_cast<size_t>(y) * Pc;
      const uint32_t position = (a * H + y) * W;
      m = filter ? filter_row(T, row, W, position, scores, positions, m)
                 : copy_row(row, W, position, scores, positions, m);
    }
  }
  return m;
}

}  // namespace ol
