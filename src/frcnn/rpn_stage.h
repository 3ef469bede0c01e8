// The proposal stage: score filter, ordering, box decode with refill, and
// the driver that runs them under the context lock.
#ifndef OL_FRCNN_RPN_STAGE_H
#define OL_FRCNN_RPN_STAGE_H

#include <stdint.h>

#include "frcnn/context.h"

namespace ol {

// ---- score filter ----------------------------------------------------------

// Order-preserving key of a half: magnitude, negated when the sign is set,
// so +0 and -0 are equal and the integer order is the value order.
inline int32_t half_order_key(uint16_t h) {
  const int32_t m = h & 0x7FFF;
  return (h & 0x8000) ? -m : m;
}
inline bool half_is_nan(uint16_t h) { return (h & 0x7FFFu) > 0x7C00u; }
// s strictly above t; a NaN on either side is never above.
inline bool half_above(uint16_t s, uint16_t t) {
  return !half_is_nan(s) && !half_is_nan(t) && half_order_key(s) > half_order_key(t);
}

// One anchor's share of the parallel filter (foreground-only scores with
// the threshold).
struct score_filter_task {
  uint16_t threshold;
  const uint16_t* src;  // the anchor's plane
  uint16_t* scores;     // its slice of the score scratch
  uint32_t* positions;  // its slice of the position scratch
  uint32_t* count;
  uint32_t pitch;
  uint32_t W;
  uint32_t H;
  uint32_t planes;
  uint32_t first_position;
  uint32_t index;
  thread_task task;
};

// Scans planes*H rows of W halves from src (row pitch `pitch`), keeps every
// value above T with its position first_position + row*W + x, and stores
// the number kept.
void score_filter_slice(uint16_t T, const uint16_t* src, uint16_t* scores, uint32_t* positions,
                        uint32_t* count, uint32_t pitch, uint32_t W, uint32_t H, uint32_t planes,
                        uint32_t first_position);

// Builds the candidate list (rpn_cls_nopitch, order_rpn_index) and returns
// its length M.
uint32_t rpn_score_filter(frcnn_context* ctx, const uint16_t* rpn_cls, uint16_t T);

// ---- box decode ------------------------------------------------------------

struct rpn_decode_params {
  const float* anchors;
  const uint16_t* rpn_bbox;
  const uint16_t* scores;
  const uint32_t* order_rpn_index;
  int16_t img_h;
  int16_t img_w;
  uint32_t H;
  uint32_t W;
  uint32_t Pb;
  uint32_t min_size;
  uint32_t A;
  uint32_t bbox_type;
  bool apply_scale;
  const float* bbox_scale_factor;
  // expf of the (scaled) width and height deltas by pattern, or NULL for
  // expf calls (see rpn_exp_table_fill).
  const float* exp_w;
  const float* exp_h;
};

// Entries of a table of exponentials: one per 16-bit half pattern.
constexpr uint32_t k_rpn_exp_entries = 65536;

// Fills t[h] with the decode's exponential of the delta pattern h:
// expf(half h), or expf(half h * scale) when apply_scale is set.
void rpn_exp_table_fill(float* t, bool apply_scale, float scale);

// Decodes order[0..count) into proposal records from out on, skipping the
// candidates smaller than min_size. Returns 0 and stores the number dropped,
// or -1 for an unsupported bbox_type (nothing written).
int rpn_decode_batch(const rpn_decode_params& p, uint16_t* out, const uint32_t* order,
                     uint32_t count, uint32_t* dropped);

// A suppression run on the proposals while they are decoded: nms_kernel of
// the proposals into out, at most max_out (> 0) boxes; kept is its result.
// The decode stops as soon as max_out boxes are kept, so only a caller that
// needs no more than the suppressed boxes asks for it (and the proposal
// count it then gets back counts only the proposals decoded).
struct rpn_nms_request {
  uint16_t* out;
  float iou;
  int max_out;
  int kept;
};

// Decodes the best n of M candidates, refilling dropped ones from the next
// in score order. Returns the number of proposals K, or -1 for an
// unsupported bbox_type. order_buf holds the first `ready` numbers of the
// order; on the histogram path the walk is resumed for the rest of the n
// when they are needed (a walk that ran out leaves ready below n, and the
// decode takes only those). With nms, also suppresses the proposals (see
// above); the context's pre_nms_num must then be at most 32767.
int rpn_decode(frcnn_context* ctx, const uint16_t* rpn_bbox, uint32_t ready, uint32_t n,
               uint32_t M, rpn_nms_request* nms = nullptr);

// How many of the first n sorted numbers rpn_decode needs before it knows
// whether it needs the others: n, or fewer when it feeds nms.
uint32_t rpn_decode_head(uint32_t n, const rpn_nms_request* nms);

// ---- driver ----------------------------------------------------------------

int frcnn_prenms(frcnn_context* ctx, const uint16_t* rpn_cls, const uint16_t* rpn_bbox,
                 half_float::half** proposals, rpn_nms_request* nms = nullptr);

}  // namespace ol

#endif
