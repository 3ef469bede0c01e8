// Greedy non-maximum suppression over proposal records (x1 y1 x2 y2 score,
// halves), boxes taken in input order.
//
// The kernel takes the boxes in input order, converting each to floats when
// it reaches it: a box is kept when no kept box suppresses it, tested four
// (eight with AVX2) kept boxes at a time (kept boxes in structure-of-arrays
// floats x1, y1, x2, y2, area) and stopping at the first hit. Only kept boxes ever suppress, so
// this is the greedy result; it stops as soon as max_out boxes are kept, and
// a suppressed box usually costs a few tests.
//
// Arithmetic of the overlap test, all single precision, identical in the
// vector test and the scalar fallback:
//   w = min(x2c, x2j) - max(x1c, x1j) + 1;  j stays if w <= 0
//   h = min(y2c, y2j) - max(y1c, y1j) + 1;  j stays if h <= 0
//   inter = w * h;  j is suppressed if (area_c + area_j - inter) * thr < inter
// A NaN anywhere never suppresses: a NaN coordinate makes its box's area
// NaN, and a NaN area makes the final comparison false whatever min and max
// returned for the NaN, so the vector min/max (which pick an operand when
// one is NaN) and any other choice give the same outcome.
#include "frcnn/nms.h"

#include <string.h>

#if defined(__aarch64__)
#include <arm_neon.h>
#endif

#include "brennik_opt_layers.h"
#include "common/alloc.h"
#include "common/box.h"
#include "common/cpu.h"

namespace ol {
namespace {

typedef float f32x4 __attribute__((vector_size(16)));
typedef int32_t i32x4 __attribute__((vector_size(16)));
typedef float f32x8 __attribute__((vector_size(32)));
typedef int32_t i32x8 __attribute__((vector_size(32)));

// Entries per scratch array: a test loads k_max_lanes entries from any
// multiple of its width below the box count, so seven entries of slack
// follow the boxes; rounding to eight keeps every array 32-byte aligned
// relative to the scratch.
constexpr size_t k_max_lanes = 8;
inline size_t list_capacity(uint32_t n) {
  return (static_cast<size_t>(n) + 2 * (k_max_lanes - 1)) & ~(k_max_lanes - 1);
}

constexpr int k_arrays = 5;  // x1, y1, x2, y2, area

// The boxes, and at the front the kept ones.
struct box_list {
  float* x1;
  float* y1;
  float* x2;
  float* y2;
  float* area;
};

// The box count is a signed 16-bit number: larger ints are reduced to their
// low 16 bits, so 40000 examines nothing and 70000 examines 4464 boxes.
inline int count16(int count) {
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(count)));
}

box_list carve(void* scratch, size_t cap) {
  float* f = static_cast<float*>(scratch);
  return box_list{f, f + cap, f + 2 * cap, f + 3 * cap, f + 4 * cap};
}

inline void copy_box(uint16_t* out, const uint16_t* in) { memcpy(out, in, 4 * sizeof(uint16_t)); }

// True when any lane of a comparison mask is set.
inline bool any_lane(const i32x4& m) {
#if defined(__SSE2__)
  return __builtin_ia32_movmskps(reinterpret_cast<f32x4>(m)) != 0;
#elif defined(__aarch64__)
  return vmaxvq_u32(reinterpret_cast<uint32x4_t>(m)) != 0;
#else
  uint64_t w[2];
  memcpy(w, &m, sizeof w);
  return (w[0] | w[1]) != 0;
#endif
}
inline bool any_lane(const i32x8& m) {
  return any_lane(i32x4{__builtin_shufflevector(m, m, 0, 1, 2, 3) |
                        __builtin_shufflevector(m, m, 4, 5, 6, 7)});
}

// The greedy scan on vectors of F (float lanes) with masks of I.
//
// A box is kept exactly when no earlier kept box suppresses it (only kept
// boxes suppress), so each box in input order is tested against the kept
// boxes, a vector of them at a time, stopping at the first that suppresses
// it. The overlap test is symmetric in its two boxes (min, max, the area
// sum), so this gives the greedy result, and the scan stops as soon as
// max_out boxes are kept instead of testing every kept box against every
// later one. A box is converted to float when the scan reaches it (the scan
// usually stops long before the end of the list), and only kept boxes are
// stored in the arrays. The last vector of a test also reads entries past
// the kept ones: whenever a new vector's worth of entries is started, its
// entries get zero corners and a NaN area, which never suppresses, so no
// lane needs masking.
//
// The scan takes boxes [begin, end) with `kept` boxes already kept (a later
// call goes on where an earlier one stopped) and returns the new count.
template <typename F, typename I>
__attribute__((always_inline)) inline int nms_scan(uint16_t* out, const uint16_t* in, int begin,
                                                   int end, float iou_threshold, int max_out,
                                                   const box_list& l, int kept) {
  constexpr int L = sizeof(F) / sizeof(float);
  const F zero = F{} + 0.0f, one = F{} + 1.0f, thr = F{} + iou_threshold;
  if (kept >= max_out) return kept;
  for (int j = begin; j < end; ++j) {
    const uint16_t* b = in + static_cast<size_t>(j) * 5;
    const float x1 = opt_layers_half::to_float(b[0]);
    const float y1 = opt_layers_half::to_float(b[1]);
    const float x2 = opt_layers_half::to_float(b[2]);
    const float y2 = opt_layers_half::to_float(b[3]);
    const float a = inclusive_size(x1, x2) * inclusive_size(y1, y2);
    const F cx1 = F{} + x1, cy1 = F{} + y1, cx2 = F{} + x2, cy2 = F{} + y2, ca = F{} + a;
    bool suppressed = false;
    for (int r = 0; r < kept; r += L) {
      F jx1, jy1, jx2, jy2, ja;
      memcpy(&jx1, l.x1 + r, sizeof(F));
      memcpy(&jy1, l.y1 + r, sizeof(F));
      memcpy(&jx2, l.x2 + r, sizeof(F));
      memcpy(&jy2, l.y2 + r, sizeof(F));
      memcpy(&ja, l.area + r, sizeof(F));
      // min and max as the comparisons the scalar test makes
      const F w = (cx2 < jx2 ? cx2 : jx2) - (cx1 > jx1 ? cx1 : jx1) + one;
      const F h = (cy2 < jy2 ? cy2 : jy2) - (cy1 > jy1 ? cy1 : jy1) + one;
      const F inter = w * h;
      const I hit = ~(w <= zero) & ~(h <= zero) & ((ca + ja - inter) * thr < inter);
      if (any_lane(hit)) {
        suppressed = true;
        break;
      }
    }
    if (suppressed) continue;
    copy_box(out + static_cast<size_t>(kept) * 4, b);
    if (kept % L == 0) {
      float* const corners[4] = {l.x1, l.y1, l.x2, l.y2};
      for (float* arr : corners) memset(arr + kept, 0, L * sizeof(float));
      for (int k = 0; k < L; ++k) l.area[kept + k] = __builtin_nanf("");
    }
    l.x1[kept] = x1;
    l.y1[kept] = y1;
    l.x2[kept] = x2;
    l.y2[kept] = y2;
    l.area[kept] = a;
    if (++kept == max_out) break;
  }
  return kept;
}

// Processors with AVX2 test eight kept boxes at a time (the same operations
// per lane, so the same result).
#if defined(OL_X86_DISPATCH)
__attribute__((target("avx2"))) int nms_run_avx2(uint16_t* out, const uint16_t* in, int begin,
                                                 int end, float thr, int max_out,
                                                 const box_list& l, int kept) {
  return nms_scan<f32x8, i32x8>(out, in, begin, end, thr, max_out, l, kept);
}
#endif

int nms_run(uint16_t* out, const uint16_t* in, int begin, int end, float thr, int max_out,
            const box_list& l, int kept) {
#if defined(OL_X86_DISPATCH)
  if (cpu_has_avx2()) return nms_run_avx2(out, in, begin, end, thr, max_out, l, kept);
#endif
  return nms_scan<f32x4, i32x4>(out, in, begin, end, thr, max_out, l, kept);
}


// Stack budget of the exported nms: list scratch up to this size lives in
// its frame, larger lists go to the heap.
constexpr size_t k_stack_scratch = 12 * 1024;

// Suppression without list scratch, for when the heap refuses it: marks in
// a bitmask of 32768 bits (4 KiB), coordinates and areas recomputed from the
// halves on every test. Same arithmetic and order as the kernel.
__attribute__((noinline)) int nms_without_scratch(uint16_t* out, const uint16_t* in, int n,
                                                  float thr, int max_out) {
  uint32_t marked[(k_nms_max_count + 32) / 32];
  memset(marked, 0, sizeof marked);
  int kept = 0;
  for (int c = 0; c < n; ++c) {
    if (marked[c >> 5] & (1u << (c & 31))) continue;
    const uint16_t* bc = in + static_cast<size_t>(c) * 5;
    copy_box(out + static_cast<size_t>(kept) * 4, bc);
    if (++kept == max_out) break;
    const float cx1 = opt_layers_half::to_float(bc[0]);
    const float cy1 = opt_layers_half::to_float(bc[1]);
    const float cx2 = opt_layers_half::to_float(bc[2]);
    const float cy2 = opt_layers_half::to_float(bc[3]);
    const float carea = inclusive_size(cx1, cx2) * inclusive_size(cy1, cy2);
    for (int j = c + 1; j < n; ++j) {
      if (marked[j >> 5] & (1u << (j & 31))) continue;
      const uint16_t* bj = in + static_cast<size_t>(j) * 5;
      const float x1 = opt_layers_half::to_float(bj[0]);
      const float y1 = opt_layers_half::to_float(bj[1]);
      const float x2 = opt_layers_half::to_float(bj[2]);
      const float y2 = opt_layers_half::to_float(bj[3]);
      const float w = (cx2 < x2 ? cx2 : x2) - (cx1 > x1 ? cx1 : x1) + 1.0f;
      if (w <= 0.0f) continue;
      const float h = (cy2 < y2 ? cy2 : y2) - (cy1 > y1 ? cy1 : y1) + 1.0f;
      if (h <= 0.0f) continue;
      const float inter = w * h;
      const float area = inclusive_size(x1, x2) * inclusive_size(y1, y2);
      if ((carea + area - inter) * thr < inter) marked[j >> 5] |= 1u << (j & 31);
    }
  }
  return kept;
}

__attribute__((noinline)) int nms_on_stack(uint16_t* out, const uint16_t* in, int n, float thr,
                                           int max_out) {
  alignas(16) unsigned char scratch[k_stack_scratch];
  return nms_kernel(out, in, n, thr, max_out, scratch);
}

}  // namespace

size_t nms_scratch_bytes(uint32_t count) {
  if (count == 0) return 0;
  // A count above the 16-bit range reduces to at most 32767 boxes.
  const uint32_t n = count < static_cast<uint32_t>(k_nms_max_count) ? count : k_nms_max_count;
  return k_arrays * sizeof(float) * list_capacity(n);
}

int nms_kernel(uint16_t* out, const uint16_t* in, int count, float iou_threshold, int max_out,
               void* scratch) {
  // A negative count has no boxes, also where its low 16 bits would read as
  // a positive count.
  const int n = count16(count);
  if (count <= 0 || n <= 0 || max_out <= 0) return 0;

  const size_t cap = list_capacity(static_cast<uint32_t>(n));
  return nms_run(out, in, 0, n, iou_threshold, max_out, carve(scratch, cap), 0);
}

int nms_resume(uint16_t* out, const uint16_t* in, int begin, int end, float iou_threshold,
               int max_out, void* scratch, uint32_t capacity, int kept) {
  if (begin >= end || max_out <= 0) return kept;
  const size_t cap = list_capacity(capacity < static_cast<uint32_t>(k_nms_max_count)
                                       ? capacity
                                       : static_cast<uint32_t>(k_nms_max_count));
  return nms_run(out, in, begin, end, iou_threshold, max_out, carve(scratch, cap), kept);
}

}  // namespace ol

// Small lists use scratch in this frame (at most 12 KiB), larger ones one
// heap block for the call; when the heap refuses it the result still comes
// out, from the scratch-free path.
int nms(half_float::half* out, half_float::half* in, int count, float iou_threshold, int max_out) {
  const int n = ol::count16(count);
  if (count <= 0 || n <= 0 || max_out <= 0) return 0;  // see nms_kernel
  uint16_t* o = ol::half_bits_ptr(out);
  const uint16_t* i = ol::half_bits_ptr(in);
  const size_t bytes = ol::nms_scratch_bytes(static_cast<uint32_t>(n));
  if (bytes <= ol::k_stack_scratch) return ol::nms_on_stack(o, i, n, iou_threshold, max_out);
  void* scratch = ol::ol_malloc(bytes);
  if (scratch == nullptr) return ol::nms_without_scratch(o, i, n, iou_threshold, max_out);
  const int kept = ol::nms_kernel(o, i, n, iou_threshold, max_out, scratch);
  ol::ol_free(scratch);
  return kept;
}
