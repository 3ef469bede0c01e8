// Box decode of the proposal stage: anchors + RPN deltas -> clipped
// proposal records, with refill of candidates dropped for their size.
//
// The kernel decodes four candidates at a time: their anchors and deltas
// are gathered into lanes, the arithmetic runs on 4-lane vectors (the same
// single and double precision operations, in the same order, as the plain
// formulation kept with the tests). The two exponentials of a candidate are
// looked up by delta pattern in tables the context fills once with expf
// (a delta is a half, so there are 65,536 possible arguments); without
// tables expf is called per lane. Records are written branch-free: every
// lane is stored at the write position, which advances only for a kept
// candidate.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include "common/box.h"
#include "common/cpu.h"
#include "frcnn/nms.h"
#include "frcnn/rpn_stage.h"

#if defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace ol {

namespace {

typedef float f32x4 __attribute__((vector_size(16)));
typedef double f64x4 __attribute__((vector_size(32)));
typedef uint32_t u32x4 __attribute__((vector_size(16)));
typedef int32_t i32x4 __attribute__((vector_size(16)));

constexpr uint32_t k_lanes = 4;

inline f32x4 splat(float v) { return f32x4{v, v, v, v}; }

inline f32x4 as_f32(u32x4 v) {
  f32x4 f;
  memcpy(&f, &v, sizeof f);
  return f;
}

inline u32x4 as_u32(f32x4 v) {
  u32x4 u;
  memcpy(&u, &v, sizeof u);
  return u;
}

// Exact half -> float of four patterns (as opt_layers_half::to_float; a NaN
// stays a NaN, which is all the decode needs of it).
inline f32x4 half_to_float4(u32x4 h) {
#if defined(__aarch64__)
  const uint16x4_t n = vmovn_u32(vreinterpretq_u32_u8(vreinterpretq_u8_u32((uint32x4_t)h)));
  return (f32x4)vcvt_f32_f16(vreinterpret_f16_u16(n));
#else
  const u32x4 sign = (h & 0x8000u) << 16;
  const u32x4 e = (h >> 10) & 0x1Fu;
  const u32x4 m = h & 0x3FFu;
  const u32x4 normal = sign | ((e + 112u) << 23) | (m << 13);
  const u32x4 special = sign | 0x7F800000u | (m << 13);
  // Zero or subnormal: m * 2^-24 is exact.
  const f32x4 small = __builtin_convertvector((i32x4)m, f32x4) * splat(5.9604644775390625e-8f);
  const u32x4 sub = as_u32(small) | sign;
  const u32x4 bits = (u32x4)(e == 0x1Fu ? special : (e != 0u ? normal : sub));
  return as_f32(bits);
#endif
}

// clamp_to_image on four lanes: min(v, limit - 1), then max(., 0); a NaN v
// takes limit - 1.
inline f32x4 clamp4(f32x4 v, float limit) {
  const f32x4 hi = splat(limit - 1.0f);
  const f32x4 m = v < hi ? v : hi;
  const f32x4 zero = splat(0.0f);
  return m > zero ? m : zero;
}

// opt_layers_half::from_float_round for clamped coordinates: v lies in
// [0, 32766] (non-negative, finite; the image sizes are 16-bit). Normal
// halves round by adding the first discarded bit; below 2^-14 the half is
// subnormal: floor(v * 2^24) plus 1 when the fraction of v * 2^24 (exact)
// is at least one half.
inline u32x4 coord_to_half4(f32x4 v) {
  const u32x4 a = as_u32(v);
  const u32x4 normal = (a - 0x38000000u + 0x1000u) >> 13;
  f32x4 x = v * splat(16777216.0f);
  x = x < splat(1024.0f) ? x : splat(1024.0f);  // the normal lanes are not used
  const i32x4 t = __builtin_convertvector(x, i32x4);
  const f32x4 frac = x - __builtin_convertvector(t, f32x4);
  const u32x4 sub = (u32x4)t - (u32x4)(frac >= splat(0.5f));  // true lanes are -1
  return (u32x4)(a >= 0x38800000u ? normal : sub);
}

// Conversions between float and double lanes (macros: a 32-byte vector as
// argument or result would change the x86-64 calling convention).
#define OL_F64(v) __builtin_convertvector((v), f64x4)
#define OL_F32(v) __builtin_convertvector((v), f32x4)

// a * b + c with one rounding, lane by lane (fmaf's result).
#if defined(__aarch64__)
inline f32x4 fma4(f32x4 a, f32x4 b, f32x4 c) {
  return (f32x4)vfmaq_f32((float32x4_t)c, (float32x4_t)a, (float32x4_t)b);
}
#else
inline f32x4 fma4(f32x4 a, f32x4 b, f32x4 c) {
  f32x4 r;
  for (uint32_t j = 0; j < k_lanes; ++j) r[j] = __builtin_fmaf(a[j], b[j], c[j]);
  return r;
}
#endif

// n / d and n % d for one divisor and many n. On x86-64 a multiply by
// floor(2^32 / d) gives the quotient or one less (the error of the
// reciprocal times n is below 1), and one compare corrects it; there a
// 32-bit div costs tens of cycles. aarch64 keeps udiv: one instruction.
struct divider {
  uint32_t d;
  uint64_t m;
  explicit divider(uint32_t divisor)
      : d(divisor), m(divisor == 0 ? 0 : (uint64_t{1} << 32) / divisor) {}
  void divide(uint32_t n, uint32_t* q, uint32_t* r) const {
#if defined(__aarch64__)
    *q = n / d;
    *r = n - *q * d;
#else
    uint32_t qq = static_cast<uint32_t>((n * m) >> 32);
    uint32_t rr = n - qq * d;
    if (rr >= d) {
      ++qq;
      rr -= d;
    }
    *q = qq;
    *r = rr;
#endif
  }
};

// Decodes order[0..count) (count > 0), writes the kept records from out on
// and returns the number dropped.
__attribute__((always_inline)) inline uint32_t decode_body(const rpn_decode_params& p,
                                                           uint16_t* out, const uint32_t* order,
                                                           uint32_t count) {
  const divider HW(p.H * p.W), W(p.W);
  const size_t plane = static_cast<size_t>(p.H) * p.Pb;
  const f32x4 min_size = splat(static_cast<float>(p.min_size));
  const float limit_w = static_cast<float>(p.img_w);
  const float limit_h = static_cast<float>(p.img_h);
  // Plane k of the anchor's four holds dx, dy, dw, dh (type 0) or dy, dx,
  // dh, dw (type 1).
  const size_t ox = p.bbox_type == 0 ? 0 : plane, oy = plane - ox;
  const size_t ow = p.bbox_type == 0 ? 2 * plane : 3 * plane, oh = 5 * plane - ow;
  const f32x4 one = splat(1.0f);
  const float* const exp_w = p.exp_w;
  const float* const exp_h = p.exp_h;
  uint32_t kept = 0;
  for (uint32_t k = 0; k < count; k += k_lanes) {
    const uint32_t lanes = count - k < k_lanes ? count - k : k_lanes;
    f32x4 anchor[k_lanes] = {};
    u32x4 hx = {}, hy = {}, hw = {}, hh = {};
    uint16_t score[k_lanes];
    for (uint32_t j = 0; j < lanes; ++j) {
      const uint32_t i = order[k + j];
      const uint32_t pos = p.order_rpn_index[i];
      uint32_t a, r, y, x;
      HW.divide(pos, &a, &r);
      W.divide(r, &y, &x);
      memcpy(&anchor[j], p.anchors + (static_cast<size_t>(r) * p.A + a) * 4, sizeof anchor[j]);
      const uint16_t* delta = p.rpn_bbox + 4 * a * plane + static_cast<size_t>(y) * p.Pb + x;
      hx[j] = delta[ox];
      hy[j] = delta[oy];
      hw[j] = delta[ow];
      hh[j] = delta[oh];
      score[j] = p.scores[i];
    }
    // Records x1 y1 x2 y2 of the four anchors -> one vector per field.
    const f32x4 t0 = __builtin_shufflevector(anchor[0], anchor[1], 0, 4, 1, 5);
    const f32x4 t1 = __builtin_shufflevector(anchor[2], anchor[3], 0, 4, 1, 5);
    const f32x4 t2 = __builtin_shufflevector(anchor[0], anchor[1], 2, 6, 3, 7);
    const f32x4 t3 = __builtin_shufflevector(anchor[2], anchor[3], 2, 6, 3, 7);
    const f32x4 ax1 = __builtin_shufflevector(t0, t1, 0, 1, 4, 5);
    const f32x4 ay1 = __builtin_shufflevector(t0, t1, 2, 3, 6, 7);
    const f32x4 ax2 = __builtin_shufflevector(t2, t3, 0, 1, 4, 5);
    const f32x4 ay2 = __builtin_shufflevector(t2, t3, 2, 3, 6, 7);
    const f32x4 wa = ax2 - ax1 + one;  // inclusive sizes
    const f32x4 ha = ay2 - ay1 + one;

    f32x4 dx = half_to_float4(hx), dy = half_to_float4(hy);
    if (p.apply_scale) {
      dx = dx * splat(p.bbox_scale_factor[0]);
      dy = dy * splat(p.bbox_scale_factor[1]);
    }
    f32x4 ew, eh;
    if (exp_w != nullptr) {
      // Unused lanes hold pattern 0, which is in the table as well.
      for (uint32_t j = 0; j < k_lanes; ++j) {
        ew[j] = exp_w[hw[j]];
        eh[j] = exp_h[hh[j]];
      }
    } else {
      f32x4 dw = half_to_float4(hw), dh = half_to_float4(hh);
      if (p.apply_scale) {
        dw = dw * splat(p.bbox_scale_factor[2]);
        dh = dh * splat(p.bbox_scale_factor[3]);
      }
      ew = eh = f32x4{};
      for (uint32_t j = 0; j < lanes; ++j) {
        ew[j] = expf(dw[j]);
        eh[j] = expf(dh[j]);
      }
    }
    const f32x4 pw = wa * ew;
    const f32x4 ph = ha * eh;
    // The size test uses the unclipped size; a NaN size is kept.
    const i32x4 drop = (pw + one < min_size) | (ph + one < min_size);

    const f64x4 half = {0.5, 0.5, 0.5, 0.5};
    const f32x4 cx = OL_F32(OL_F64(ax1) + half * OL_F64(wa));
    const f32x4 cy = OL_F32(OL_F64(ay1) + half * OL_F64(ha));
    const f32x4 pcx = fma4(dx, wa, cx);
    const f32x4 pcy = fma4(dy, ha, cy);
    const f64x4 hwd = half * OL_F64(pw), hhd = half * OL_F64(ph);
    const f64x4 pcxd = OL_F64(pcx), pcyd = OL_F64(pcy);
    const u32x4 x1 = coord_to_half4(clamp4(OL_F32(pcxd - hwd), limit_w));
    const u32x4 y1 = coord_to_half4(clamp4(OL_F32(pcyd - hhd), limit_h));
    const u32x4 x2 = coord_to_half4(clamp4(OL_F32(pcxd + hwd), limit_w));
    const u32x4 y2 = coord_to_half4(clamp4(OL_F32(pcyd + hhd), limit_h));
    for (uint32_t j = 0; j < lanes; ++j) {
      uint16_t* rec = out + static_cast<size_t>(kept) * 5;
      rec[0] = static_cast<uint16_t>(x1[j]);
      rec[1] = static_cast<uint16_t>(y1[j]);
      rec[2] = static_cast<uint16_t>(x2[j]);
      rec[3] = static_cast<uint16_t>(y2[j]);
      rec[4] = score[j];
      kept += 1 + drop[j];  // drop lanes are -1
    }
  }
  return count - kept;
}

// The x86-64 build keeps a baseline without FMA; where the processor has it
// the kernel runs a version that uses the instruction instead of the library
// call (fmaf is correctly rounded, so both give the same bits).
#if defined(OL_X86_DISPATCH) && !defined(__FMA__)
__attribute__((target("fma"))) uint32_t decode_run_fma(const rpn_decode_params& p, uint16_t* out,
                                                       const uint32_t* order, uint32_t count) {
  return decode_body(p, out, order, count);
}

uint32_t decode_run(const rpn_decode_params& p, uint16_t* out, const uint32_t* order,
                    uint32_t count) {
  if (cpu_has_fma()) return decode_run_fma(p, out, order, count);
  return decode_body(p, out, order, count);
}
#else
uint32_t decode_run(const rpn_decode_params& p, uint16_t* out, const uint32_t* order,
                    uint32_t count) {
  return decode_body(p, out, order, count);
}
#endif

struct decode_task {
  const rpn_decode_params* params;
  uint16_t* out;
  const uint32_t* order;
  uint32_t count;
  uint32_t dropped;
  thread_task task;
};

int32_t decode_task_func(void* arg) {
  decode_task* t = static_cast<decode_task*>(arg);
  t->dropped = t->count == 0 ? 0 : decode_run(*t->params, t->out, t->order, t->count);
  return 0;
}

// Prints the message of an unsupported bbox_type (checked once per batch,
// before any candidate is decoded).
bool bbox_type_supported(uint32_t bbox_type) {
  if (bbox_type <= 1) return true;
  printf("Unsupport bbox type: %u\n", bbox_type);
  return false;
}

// A part of the first batch is cut into runs of at least k_decode_run
// candidates, at most k_decode_tasks of them (the count depends on the part
// alone).
constexpr uint32_t k_decode_tasks = 4;
constexpr uint32_t k_decode_run = 64;

// Candidates of the first part when the decode feeds a suppression of
// max_out boxes: k_nms_head_per_box per box wanted, at least k_nms_head_min.
// (On the VGG16 frame the suppression keeps its 300 boxes among the first
// 1,000 proposals.)
constexpr uint32_t k_nms_head_per_box = 4;
constexpr uint32_t k_nms_head_min = 1024;

// Decodes order_buf[begin, end) of the first batch as up to max_parts
// (<= k_decode_tasks) runs on the pool (a
// refused run is decoded here; the first refusal of the batch prints the
// one line, *reported), each run writing its kept records from the start of
// its own span of detections; the spans are then closed up after the *K
// records already there, so the records are those of one serial pass.
void decode_on_pool(frcnn_context* ctx, const rpn_decode_params& p, uint32_t begin, uint32_t end,
                    uint32_t max_parts, uint32_t* K, bool* reported) {
  const uint32_t n = end - begin;
  uint32_t parts = (n + k_decode_run - 1) / k_decode_run;
  parts = parts < 1 ? 1 : parts > max_parts ? max_parts : parts;
  decode_task runs[k_decode_tasks];
  for (uint32_t k = 0; k < parts; ++k) {
    uint32_t b, e;
    split_range(n, parts, k, &b, &e);
    decode_task& t = runs[k];
    t.params = &p;
    t.out = ctx->detections + static_cast<size_t>(begin + b) * 5;
    t.order = ctx->order_buf + begin + b;
    t.count = e - b;
    t.dropped = 0;
    t.task.func = decode_task_func;
    t.task.arg = &t;
    t.task.retval = 0;
  }
  dispatch_tasks(ctx->pool, runs, parts, on_refused::run_inline_report_once, reported,
                 while_waiting::run_queued);
  for (uint32_t k = 0; k < parts; ++k) {
    const uint32_t kept = runs[k].count - runs[k].dropped;
    uint16_t* to = ctx->detections + static_cast<size_t>(*K) * 5;
    if (to != runs[k].out) memmove(to, runs[k].out, size_t{kept} * 5 * sizeof(uint16_t));
    *K += kept;
  }
}

// Hands the proposals to the suppression as they are completed, in order.
class proposal_feed {
 public:
  proposal_feed(frcnn_context* ctx, rpn_nms_request* nms) : ctx_(ctx), nms_(nms) {
    if (nms_ != nullptr) nms_->kept = 0;
  }
  // Suppresses the records [fed, K); true when the suppression has all the
  // boxes it can keep, so that the decode may stop.
  bool done(uint32_t K) {
    if (nms_ == nullptr) return false;
    const uint32_t cap = ctx_->desc.pre_nms_num;
    nms_->kept = nms_resume(nms_->out, ctx_->detections, static_cast<int>(fed_),
                            static_cast<int>(K), nms_->iou, nms_->max_out, ctx_->nms_scratch,
                            cap, nms_->kept);
    fed_ = K;
    return nms_->kept >= nms_->max_out;
  }

 private:
  frcnn_context* ctx_;
  rpn_nms_request* nms_;
  uint32_t fed_ = 0;
};

}  // namespace

void rpn_exp_table_fill(float* t, bool apply_scale, float scale) {
  for (uint32_t h = 0; h < k_rpn_exp_entries; ++h) {
    float v = opt_layers_half::to_float(static_cast<uint16_t>(h));
    if (apply_scale) v = v * scale;
    t[h] = expf(v);
  }
}

int rpn_decode_batch(const rpn_decode_params& p, uint16_t* out, const uint32_t* order,
                     uint32_t count, uint32_t* dropped) {
  if (count == 0) {
    *dropped = 0;
    return 0;
  }
  if (!bbox_type_supported(p.bbox_type)) return -1;
  *dropped = decode_run(p, out, order, count);
  return 0;
}

uint32_t rpn_decode_head(uint32_t n, const rpn_nms_request* nms) {
  if (nms == nullptr) return n;
  const uint64_t head = uint64_t{k_nms_head_per_box} * static_cast<uint32_t>(nms->max_out);
  const uint64_t first = head < k_nms_head_min ? k_nms_head_min : head;
  return first < n ? static_cast<uint32_t>(first) : n;
}

int rpn_decode(frcnn_context* ctx, const uint16_t* rpn_bbox, uint32_t ready, uint32_t n,
               uint32_t M, rpn_nms_request* nms) {
  const frcnn_desc& d = ctx->desc;
  rpn_decode_params p;
  p.anchors = ctx->anchors;
  p.rpn_bbox = rpn_bbox;
  p.scores = ctx->rpn_cls_nopitch;
  p.order_rpn_index = ctx->order_rpn_index;
  p.img_h = static_cast<int16_t>(d.img_h);
  p.img_w = static_cast<int16_t>(d.img_w);
  p.H = d.fmap_h;
  p.W = d.fmap_w;
  p.Pb = d.fmap_pitch;
  p.min_size = d.min_size;
  p.A = d.anchor_num;
  p.bbox_type = d.bbox_type;
  p.apply_scale = d.is_apply_bbox_scale_factor;
  p.bbox_scale_factor = &d.bbox_scale_factor.center_x;
  p.exp_w = ctx->exp_w;
  p.exp_h = ctx->exp_h;
  const bool use_qsort = d.is_use_qsort;
  if (n > 0 && !bbox_type_supported(p.bbox_type)) return -1;

  // The first batch [0, n) is decoded on the pool. With a suppression to
  // feed, its first part goes alone, and the rest only when the suppression
  // needs more boxes.
  uint32_t K = 0;
  bool reported = false;
  proposal_feed feed(ctx, nms);
  if (ready > n) ready = n;
  const uint32_t head = rpn_decode_head(n, nms);
  const uint32_t first = head < ready ? head : ready;
  // The first part of a decode that feeds the suppression is small (about
  // 20 us of work on the VGG16 frame): it goes as one task, since waking a
  // second worker would cost the caller more than the worker saves.
  decode_on_pool(ctx, p, 0, first, head < n ? 1 : k_decode_tasks, &K, &reported);
  if (feed.done(K)) return static_cast<int>(K);
  // The histogram walk resumes for the numbers not sorted yet (and gives
  // fewer when the candidates run out).
  if (ready < n && !use_qsort)
    ready += hist_walk(ctx->order_buf + ready, n - ready, &ctx->hist, false);
  n = ready;
  if (first < n) {
    decode_on_pool(ctx, p, first, n, k_decode_tasks, &K, &reported);
    if (feed.done(K)) return static_cast<int>(K);
  }

  uint32_t d_count = n - K;
  if (n >= M) return static_cast<int>(K);
  uint32_t remaining = M - n, next = n;
  while (d_count > 0 && remaining > 0) {
    uint32_t b = d_count < remaining ? d_count : remaining;
    if (!use_qsort) {
      // The walk never yields more than was inserted; decode only what it gave.
      b = hist_walk(ctx->order_buf + next, b, &ctx->hist, false);
      if (b == 0) break;
    }
    const uint32_t dropped =
        decode_run(p, ctx->detections + static_cast<size_t>(K) * 5, ctx->order_buf + next, b);
    K += b - dropped;
    next += b;
    remaining -= b;
    d_count = dropped;
    if (feed.done(K)) break;
  }
  return static_cast<int>(K);
}

}  // namespace ol
