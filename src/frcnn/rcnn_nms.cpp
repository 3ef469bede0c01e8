// Class suppression: per foreground class, order the proposals by descending
// probability (selection sort), suppress overlapping boxes greedily and write
// the kept detections and the per-class counts into the detection table.
//
// The kernel produces exactly the result of this plain procedure, per class:
//   1. round every proposal's box of the class to half, take its score;
//   2. selection-sort all proposals by descending score (strictly higher
//      moves, so equal scores keep the one met first in the current order);
//   3. walk the sorted positions; a candidate not above cls_prob ends the
//      class; a kept one suppresses every later candidate whose IoU with it
//      is above post_nms_iou.
// It gets there with less work, without changing a single output bit:
//   * a class whose scores are all at or below cls_prob is finished after one
//     scan of the scores (the first sorted candidate would end it);
//   * the sort runs lazily: pass p is made only when the walk reaches
//     position p. A pass only permutes positions >= p, so the walk sees the
//     same entries at the same positions as after a full sort, and the set of
//     entries after position p is the same either way;
//   * a pass is a first-maximum search over 16-bit keys that order the half
//     scores like floats, eight at a time; the test against cls_prob compares
//     keys with the largest key at or below it, found once per call;
//   * the suppression tests the kept box against a compact list of the
//     entries still in play instead of scanning positions. When no score is
//     NaN the sorted order is descending, so the candidates not above
//     cls_prob form a suffix: the walk stops at the first of them whether or
//     not it was suppressed, and they are left out of the list (their boxes
//     are not even rounded). A NaN score stays wherever it stands in the
//     sort, so with one present every proposal stays in the list. The list
//     keeps its boxes in columns, and the IoU runs on four of them at a time.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "brennik_opt_layers.h"
#include "frcnn/head_stage.h"

namespace ol {

namespace {

using opt_layers_half::from_float_round;
using opt_layers_half::to_float;

typedef int16_t i16x8 __attribute__((vector_size(16)));
typedef uint64_t u64x2 __attribute__((vector_size(16)));
typedef float f32x4 __attribute__((vector_size(16)));
typedef int32_t i32x4 __attribute__((vector_size(16)));

// Key of a NaN score: below every other key, so a NaN never wins a search.
constexpr int16_t k_nan_key = INT16_MIN;

// Maps a half score to a 16-bit integer with the same order as the float
// value (+0 and -0 are equal); NaN maps to k_nan_key.
inline int16_t score_key(uint16_t s) {
  const int16_t mag = static_cast<int16_t>(s & 0x7FFFu);
  if (mag > 0x7C00) return k_nan_key;
  return (s & 0x8000u) ? static_cast<int16_t>(-mag) : mag;
}

// Inverse of score_key for keys other than k_nan_key.
inline float key_value(int16_t key) {
  return to_float(key >= 0 ? static_cast<uint16_t>(key)
                           : static_cast<uint16_t>(0x8000 | -static_cast<int32_t>(key)));
}

// The largest key whose score is at or below cls_prob: a score can be kept
// exactly when its key is above it or it is NaN. A NaN cls_prob has no score
// at or below it, so every key is above the result then.
inline int16_t live_key_limit(float cls_prob) {
  if (cls_prob != cls_prob) return k_nan_key;
  int32_t lo = -0x7C00, hi = 0x7C00;  // key_value(lo) = -inf <= cls_prob
  while (lo < hi) {
    const int32_t mid = lo + (hi - lo + 1) / 2;
    if (key_value(static_cast<int16_t>(mid)) <= cls_prob) {
      lo = mid;
    } else {
      hi = mid - 1;
    }
  }
  return static_cast<int16_t>(lo);
}

inline bool key_live(int16_t key, int16_t limit) { return key > limit || key == k_nan_key; }

inline i16x8 load8(const int16_t* p) {
  i16x8 v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline i16x8 max8(i16x8 a, i16x8 b) { return a > b ? a : b; }

#if defined(__clang__)
#define OL_SHUFFLE16(v, ...) __builtin_shufflevector(v, v, __VA_ARGS__)
#else
#define OL_SHUFFLE16(v, ...) __builtin_shuffle(v, i16x8{__VA_ARGS__})
#endif

// Largest lane, folded in registers.
inline int16_t hmax8(i16x8 v) {
  v = max8(v, OL_SHUFFLE16(v, 4, 5, 6, 7, 0, 1, 2, 3));
  v = max8(v, OL_SHUFFLE16(v, 2, 3, 0, 1, 6, 7, 4, 5));
  v = max8(v, OL_SHUFFLE16(v, 1, 0, 3, 2, 5, 4, 7, 6));
  return v[0];
}

inline f32x4 load4(const float* p) {
  f32x4 v;
  memcpy(&v, p, sizeof v);
  return v;
}

// Keys per block of the selection sort's block maxima.
constexpr uint32_t k_key_block = 16;

inline uint32_t key_blocks(uint32_t n) { return (n + k_key_block - 1) / k_key_block; }

// Largest key of block b (16 keys).
inline int16_t block_max(const int16_t* keys, uint32_t b) {
  const int16_t* k = keys + b * k_key_block;
  return hmax8(max8(load8(k), load8(k + 8)));
}

// Pass p of the selection sort over positions p .. n-1. The scalar form is
//   q = p; for j in p+1 .. n-1: if score(order[q]) < score(order[j]) q = j;
//   swap order[p], order[q]
// which picks the first position holding the maximum of positions p+1 ..
// n-1 when that maximum is above the key at p, and p otherwise. A NaN at p
// compares false with everything, so it stays; a NaN elsewhere never wins.
//
// bmax[b] holds the largest key of block b (keys 16b .. 16b+15) for every
// block after the one holding p+1, which is searched key by key: positions
// up to p are never searched again, so the blocks before stay as they are.
// keys are k_nan_key from n to the end of the last block and bmax from the
// last block on for 8 more entries, so the loads may run past n.
void selection_pass(int16_t* keys, int16_t* bmax, int32_t* order, uint32_t p, uint32_t n) {
  const int16_t cur = keys[p];
  if (cur == k_nan_key || p + 1 >= n) return;
  const uint32_t bp = (p + 1) / k_key_block, nb = key_blocks(n);
  // The block of p+1 from p+1 on.
  const int16_t* kb = keys + bp * k_key_block;
  const int16_t first = static_cast<int16_t>(p + 1 - bp * k_key_block);
  const i16x8 lane = {0, 1, 2, 3, 4, 5, 6, 7};
  const i16x8 nan8 = i16x8{} + k_nan_key;
  const i16x8 lo = load8(kb), hi = load8(kb + 8);
  const i16x8 from = i16x8{} + first;
  const int16_t m1 = hmax8(max8(lane >= from ? lo : nan8, lane + 8 >= from ? hi : nan8));
  // The whole blocks after it.
  i16x8 vmax = nan8;
  for (uint32_t b = bp + 1; b < nb; b += 8) vmax = max8(vmax, load8(bmax + b));
  const int16_t m2 = hmax8(vmax);
  const int16_t m = m1 > m2 ? m1 : m2;
  if (m <= cur) return;
  uint32_t q;
  if (m1 == m) {
    q = p + 1;
    while (keys[q] != m) ++q;
  } else {
    uint32_t b = bp + 1;
    while (bmax[b] != m) ++b;
    q = b * k_key_block;
    while (keys[q] != m) ++q;
  }
  keys[q] = cur;
  keys[p] = m;
  if (q / k_key_block > bp) bmax[q / k_key_block] = block_max(keys, q / k_key_block);
  const int32_t t = order[p];
  order[p] = order[q];
  order[q] = t;
}

// (x2 - x1 + 1) * (y2 - y1 + 1): differences in single precision, the rest
// in double, rounded to float once.
inline float box_area(const float* b) {
  const double w = static_cast<double>(b[2] - b[0]) + 1.0;
  const double h = static_cast<double>(b[3] - b[1]) + 1.0;
  return static_cast<float>(w * h);
}

// IoU(a, b) > threshold on inclusive boxes, in single precision. max and min
// return their first operand (from a) unless the other is strictly beyond
// it, so a NaN coordinate of b is passed over and one of a is kept. A NaN
// IoU suppresses nothing.
inline bool iou_above(const float* a, float area_a, const float* b, float area_b,
                      float threshold) {
  const float xx1 = a[0] > b[0] ? a[0] : b[0];
  const float yy1 = a[1] > b[1] ? a[1] : b[1];
  const float xx2 = a[2] < b[2] ? a[2] : b[2];
  const float yy2 = a[3] < b[3] ? a[3] : b[3];
  const float w = (xx2 - xx1) + 1.0f;
  const float h = (yy2 - yy1) + 1.0f;
  const float iw = 0.0f > w ? 0.0f : w;
  const float ih = 0.0f > h ? 0.0f : h;
  const float inter = iw * ih;
  const float iou = inter / ((area_a + area_b) - inter);
  return iou > threshold;
}

// iou_above on four boxes b at once, the same operations lane by lane;
// lanes are all ones where the IoU is above the threshold.
inline i32x4 iou_above4(const float* a, float area_a, f32x4 bx1, f32x4 by1, f32x4 bx2,
                        f32x4 by2, f32x4 area_b, float threshold) {
  const f32x4 ax1 = {a[0], a[0], a[0], a[0]}, ay1 = {a[1], a[1], a[1], a[1]};
  const f32x4 ax2 = {a[2], a[2], a[2], a[2]}, ay2 = {a[3], a[3], a[3], a[3]};
  const f32x4 aa = {area_a, area_a, area_a, area_a};
  const f32x4 one = {1.0f, 1.0f, 1.0f, 1.0f}, zero = {0.0f, 0.0f, 0.0f, 0.0f};
  const f32x4 thr = {threshold, threshold, threshold, threshold};
  const f32x4 xx1 = ax1 > bx1 ? ax1 : bx1;
  const f32x4 yy1 = ay1 > by1 ? ay1 : by1;
  const f32x4 xx2 = ax2 < bx2 ? ax2 : bx2;
  const f32x4 yy2 = ay2 < by2 ? ay2 : by2;
  const f32x4 w = (xx2 - xx1) + one;
  const f32x4 h = (yy2 - yy1) + one;
  const f32x4 iw = zero > w ? zero : w;
  const f32x4 ih = zero > h ? zero : h;
  const f32x4 inter = iw * ih;
  const f32x4 iou = inter / ((aa + area_b) - inter);
  return iou > thr;
}

inline size_t align16(size_t bytes) { return (bytes + 15) & ~static_cast<size_t>(15); }

// One class: returns the number of detections written to `dets`.
uint32_t suppress_class(uint16_t* dets, const float* rcnn_boxes, const uint16_t* rcnn_cls,
                        uint32_t c, uint32_t slot, uint32_t class_num, uint32_t rcnn_cls_pitch,
                        uint32_t n, uint32_t post_nms_num, float post_nms_iou, int16_t live_limit,
                        const class_nms_scratch& s) {
  // Scores, keys and the identity order. "Live" scores can be kept: they
  // are not at or below cls_prob (NaN included).
  uint32_t live = 0;
  bool any_nan = false;
  for (uint32_t i = 0; i < n; ++i) {
    const uint16_t score = rcnn_cls[static_cast<size_t>(i) * rcnn_cls_pitch + c];
    s.scores[i] = score;
    const int16_t key = score_key(score);
    s.keys[i] = key;
    s.order[i] = static_cast<int32_t>(i);
    any_nan |= key == k_nan_key;
    live += key_live(key, live_limit);
  }
  if (live == 0) return 0;
  const uint32_t nb = key_blocks(n);
  for (uint32_t i = n; i < nb * k_key_block; ++i) s.keys[i] = k_nan_key;
  for (uint32_t b = 0; b < nb; ++b) s.block_max[b] = block_max(s.keys, b);
  for (uint32_t b = nb; b < nb + 8; ++b) s.block_max[b] = k_nan_key;

  // Candidates of the entries that take part in the suppression, by
  // proposal and, as the alive list, in columns.
  float* const lx1 = s.alive_box;
  float* const ly1 = lx1 + s.alive_stride;
  float* const lx2 = ly1 + s.alive_stride;
  float* const ly2 = lx2 + s.alive_stride;
  float* const larea = ly2 + s.alive_stride;
  uint32_t alive = 0;
  for (uint32_t i = 0; i < n; ++i) {
    s.dead[i] = 0;
    if (!any_nan && !key_live(s.keys[i], live_limit)) continue;
    const float* box = rcnn_boxes + 4 * (static_cast<size_t>(i) * class_num + slot);
    uint16_t* cand = s.candidates + 5 * static_cast<size_t>(i);
    float* xy = s.coords + 4 * static_cast<size_t>(i);
    for (int k = 0; k < 4; ++k) {
      cand[k] = from_float_round(box[k]);
      xy[k] = to_float(cand[k]);
    }
    cand[4] = s.scores[i];
    s.areas[i] = box_area(xy);
    s.alive[alive] = static_cast<int32_t>(i);
    lx1[alive] = xy[0];
    ly1[alive] = xy[1];
    lx2[alive] = xy[2];
    ly2[alive] = xy[3];
    larea[alive] = s.areas[i];
    ++alive;
  }

  // Greedy walk over the sorted positions.
  uint32_t pos = 0;
  int16_t remaining = static_cast<int16_t>(n);
  uint32_t count = 0;
  selection_pass(s.keys, s.block_max, s.order, 0, n);
  while (remaining > 0 && count < post_nms_num) {
    const int32_t h = s.order[pos];
    if (!key_live(s.keys[pos], live_limit)) break;
    memcpy(dets + 5 * static_cast<size_t>(count), s.candidates + 5 * static_cast<size_t>(h),
           5 * sizeof(uint16_t));
    ++count;

    // Drop h from the list; when positions remain after it, also drop (and
    // mark) every entry that overlaps it too much.
    // The list is compacted in place: entry a moves to position kept <= a,
    // after every entry up to a has been read.
    const float* hb = s.coords + 4 * static_cast<size_t>(h);
    const float ha = s.areas[h];
    const bool test = remaining > 1;
    const i32x4 hv = {h, h, h, h};
    uint32_t kept = 0;
    auto move = [&](uint32_t from) {
      s.alive[kept] = s.alive[from];
      lx1[kept] = lx1[from];
      ly1[kept] = ly1[from];
      lx2[kept] = lx2[from];
      ly2[kept] = ly2[from];
      larea[kept] = larea[from];
      ++kept;
    };
    uint32_t a = 0;
    for (; a + 4 <= alive; a += 4) {
      i32x4 ids;
      memcpy(&ids, s.alive + a, sizeof ids);
      i32x4 gone = ids == hv;
      if (test)
        gone |= iou_above4(hb, ha, load4(lx1 + a), load4(ly1 + a), load4(lx2 + a),
                           load4(ly2 + a), load4(larea + a), post_nms_iou);
      const u64x2 g = (u64x2)gone;
      if ((g[0] | g[1]) == 0) {
        if (kept == a) {
          kept += 4;
        } else {
          for (uint32_t l = 0; l < 4; ++l) move(a + l);
        }
        continue;
      }
      for (uint32_t l = 0; l < 4; ++l) {
        if (!gone[l]) {
          move(a + l);
        } else if (ids[l] != h) {
          s.dead[ids[l]] = 1;
        }
      }
    }
    for (; a < alive; ++a) {
      const int32_t e = s.alive[a];
      if (e == h) continue;
      if (test && iou_above(hb, ha, s.coords + 4 * static_cast<size_t>(e), s.areas[e],
                            post_nms_iou)) {
        s.dead[e] = 1;
        continue;
      }
      move(a);
    }
    alive = kept;

    // Next position whose entry is not suppressed.
    ++pos;
    --remaining;
    while (remaining > 0) {
      selection_pass(s.keys, s.block_max, s.order, pos, n);
      if (!s.dead[s.order[pos]]) break;
      ++pos;
      --remaining;
    }
  }
  return count;
}

}  // namespace

uint32_t class_nms_scratch_bytes(uint32_t n) {
  const size_t m = n < k_class_nms_max_rois ? n : k_class_nms_max_rois;
  const size_t m4 = (m + 3) & ~static_cast<size_t>(3);
  const size_t bytes = 16 + align16(m * 5 * sizeof(uint16_t)) + align16(m * sizeof(uint16_t)) +
                       align16(m * sizeof(float)) + align16(m * sizeof(int32_t)) +
                       align16(key_blocks(m) * k_key_block * sizeof(int16_t)) +
                       align16((key_blocks(m) + 8) * sizeof(int16_t)) +
                       align16(m * 4 * sizeof(float)) + align16(m * sizeof(int32_t)) +
                       align16(5 * m4 * sizeof(float)) + align16(m);
  return static_cast<uint32_t>(bytes);
}

class_nms_scratch class_nms_scratch_at(void* block, uint32_t n) {
  const size_t m = n < k_class_nms_max_rois ? n : k_class_nms_max_rois;
  uintptr_t p = (reinterpret_cast<uintptr_t>(block) + 15) & ~static_cast<uintptr_t>(15);
  auto take = [&p](size_t bytes) {
    void* r = reinterpret_cast<void*>(p);
    p += align16(bytes);
    return r;
  };
  class_nms_scratch s;
  s.candidates = static_cast<uint16_t*>(take(m * 5 * sizeof(uint16_t)));
  s.scores = static_cast<uint16_t*>(take(m * sizeof(uint16_t)));
  s.areas = static_cast<float*>(take(m * sizeof(float)));
  s.order = static_cast<int32_t*>(take(m * sizeof(int32_t)));
  s.keys = static_cast<int16_t*>(take(key_blocks(m) * k_key_block * sizeof(int16_t)));
  s.block_max = static_cast<int16_t*>(take((key_blocks(m) + 8) * sizeof(int16_t)));
  s.coords = static_cast<float*>(take(m * 4 * sizeof(float)));
  s.alive = static_cast<int32_t*>(take(m * sizeof(int32_t)));
  s.alive_stride = static_cast<uint32_t>((m + 3) & ~static_cast<size_t>(3));
  s.alive_box = static_cast<float*>(take(5 * static_cast<size_t>(s.alive_stride) * sizeof(float)));
  s.dead = static_cast<uint8_t*>(take(m));
  return s;
}

int rcnn_class_nms(uint16_t* rcnn_result, uint16_t* class_dets, const float* rcnn_boxes,
                   const uint16_t* rcnn_cls, uint32_t class_start, uint32_t class_end,
                   uint32_t class_num, uint32_t rcnn_cls_pitch, uint32_t n,
                   uint32_t post_nms_num, uint32_t no_bg_bbox, float post_nms_iou,
                   float cls_prob, const class_nms_scratch& scratch) {
  if (n > k_class_nms_max_rois) n = k_class_nms_max_rois;
  const int16_t live_limit = live_key_limit(cls_prob);
  for (uint32_t c = class_start; c < class_end; ++c) {
    const uint32_t slot = no_bg_bbox ? c - 1 : c;
    uint16_t* dets = class_dets + 5 * (static_cast<size_t>(post_nms_num) * c);
    const uint32_t count =
        suppress_class(dets, rcnn_boxes, rcnn_cls, c, slot, class_num, rcnn_cls_pitch, n,
                       post_nms_num, post_nms_iou, live_limit, scratch);
    // The library's default (truncating) conversion: counts above 2048
    // round down to a representable half.
    rcnn_result[c] = opt_layers_half::from_float_trunc(static_cast<float>(count));
  }
  return 0;
}

int32_t rcnn_nms_task_func(void* record) {
  const rcnn_nms_task* t = static_cast<const rcnn_nms_task*>(record);
  return rcnn_class_nms(t->rcnn_result, t->class_dets, t->rcnn_boxes, t->rcnn_cls,
                        t->class_start, t->class_end, t->class_num, t->rcnn_cls_pitch,
                        t->roi_num, t->post_nms_num, t->no_bg_bbox, t->post_nms_iou,
                        t->cls_prob, t->scratch);
}

void class_nms_task_range(uint32_t class_num, uint32_t t, uint32_t* start, uint32_t* end) {
  const uint32_t step = (class_num - 1) / k_class_nms_tasks;
  const uint32_t rem = (class_num - 1) % k_class_nms_tasks;
  *start = 1 + t * step;
  *end = *start + step + (t == k_class_nms_tasks - 1 ? rem : 0);
}

void frcnn_rcnn_nms(thread_pool* pool, uint16_t* rcnn_result, const float* rcnn_boxes,
                    const uint16_t* rcnn_cls, uint32_t class_num, uint32_t n,
                    uint32_t rcnn_cls_pitch, uint32_t post_nms_num, bool no_bg_bbox,
                    float post_nms_iou, float cls_prob, void* scratch, uint32_t block_bytes) {
  // With no class there is not even a count slot: nothing is written and no
  // task is made.
  if (class_num == 0) return;
  // The scratch blocks hold post_nms_num proposals, and a class handles at
  // most k_class_nms_max_rois: proposals beyond either are ignored.
  if (n > post_nms_num) n = post_nms_num;
  if (n > k_class_nms_max_rois) n = k_class_nms_max_rois;

  rcnn_result[0] = 0;  // the background class has no detections
  rcnn_nms_task records[k_class_nms_tasks];
  for (uint32_t t = 0; t < k_class_nms_tasks; ++t) {
    rcnn_nms_task& r = records[t];
    r.rcnn_result = rcnn_result;
    r.class_dets = rcnn_result + class_num;
    r.rcnn_boxes = rcnn_boxes;
    r.rcnn_cls = rcnn_cls;
    class_nms_task_range(class_num, t, &r.class_start, &r.class_end);
    r.class_num = class_num;
    r.rcnn_cls_pitch = rcnn_cls_pitch;
    r.roi_num = n;
    r.post_nms_num = post_nms_num;
    r.post_nms_iou = post_nms_iou;
    r.cls_prob = cls_prob;
    r.no_bg_bbox = no_bg_bbox ? 1 : 0;
    char* block = static_cast<char*>(scratch) + static_cast<size_t>(t) * block_bytes;
    r.scratch = class_nms_scratch_at(block, n);
    r.task.func = rcnn_nms_task_func;
    r.task.arg = &r;
    r.task.retval = 0;
    r.index = t;
  }
  dispatch_tasks(pool, records, k_class_nms_tasks, on_refused::skip, nullptr,
                 while_waiting::run_queued);
}

}  // namespace ol
