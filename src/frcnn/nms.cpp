// Greedy non-maximum suppression over proposal records (x1 y1 x2 y2 score,
// halves), boxes taken in input order.
//
// The kernel takes the boxes in input order, converting each to floats when
// it reaches it: a box is kept when no kept box suppresses it, tested four
// kept boxes at a time (kept boxes in structure-of-arrays floats x1, y1, x2,
// y2, area) and stopping at the first hit. Only kept boxes ever suppress, so
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

namespace ol {
namespace {

typedef float f32x4 __attribute__((vector_size(16)));
typedef int32_t i32x4 __attribute__((vector_size(16)));
typedef uint32_t u32x4 __attribute__((vector_size(16)));

// The box count is a signed 16-bit number: larger ints are reduced to their
// low 16 bits, so 40000 examines nothing and 70000 examines 4464 boxes.
inline int count16(int count) {
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(count)));
}

// Entries per scratch array: the test loads four entries from
// any list position below the box count, so three entries of slack follow
// the boxes; rounding to four keeps every array 16-byte aligned.
inline size_t list_capacity(uint32_t n) { return (static_cast<size_t>(n) + 3 + 3) & ~size_t{3}; }

constexpr int k_arrays = 5;  // x1, y1, x2, y2, area

// The boxes, and at the front the kept ones.
struct box_list {
  float* x1;
  float* y1;
  float* x2;
  float* y2;
  float* area;
};

box_list carve(void* scratch, size_t cap) {
  float* f = static_cast<float*>(scratch);
  return box_list{f, f + cap, f + 2 * cap, f + 3 * cap, f + 4 * cap};
}

inline f32x4 loadf(const float* p) {
  f32x4 v;
  memcpy(&v, p, sizeof v);
  return v;
}
inline f32x4 vmin(f32x4 a, f32x4 b) { return a < b ? a : b; }
inline f32x4 vmax(f32x4 a, f32x4 b) { return a > b ? a : b; }

// Bit l set when lane l of the comparison mask is set.
inline unsigned lane_bits(i32x4 m) {
#if defined(__SSE2__)
  return static_cast<unsigned>(__builtin_ia32_movmskps(reinterpret_cast<f32x4>(m)));
#elif defined(__aarch64__)
  return vaddvq_u32(vandq_u32(reinterpret_cast<uint32x4_t>(m), uint32x4_t{1, 2, 4, 8}));
#else
  const u32x4 b = reinterpret_cast<u32x4>(m) & u32x4{1, 2, 4, 8};
  return b[0] | b[1] | b[2] | b[3];
#endif
}

// The kept box, broadcast to all lanes, and the threshold.
struct kept_box {
  f32x4 x1, y1, x2, y2, area, thr;
};

// Lanes of list entries r..r+3 that box c suppresses (all ones), from the
// overlap test above. Lanes past the end of the list read the slack and are
// discarded by the callers (see tail_bits).
inline i32x4 suppressed_lanes(const box_list& l, int r, const kept_box& c) {
  const f32x4 zero = {0.0f, 0.0f, 0.0f, 0.0f};
  const f32x4 one = {1.0f, 1.0f, 1.0f, 1.0f};
  const f32x4 w = vmin(c.x2, loadf(l.x2 + r)) - vmax(c.x1, loadf(l.x1 + r)) + one;
  const f32x4 h = vmin(c.y2, loadf(l.y2 + r)) - vmax(c.y1, loadf(l.y1 + r)) + one;
  const f32x4 inter = w * h;
  return ~(w <= zero) & ~(h <= zero) & ((c.area + loadf(l.area + r) - inter) * c.thr < inter);
}

// Lane bits of the entries r..r+3 that lie inside a list of `alive`.
inline unsigned tail_bits(int r, int alive) {
  return alive - r >= 4 ? 0xFu : (1u << (alive - r)) - 1;
}

inline void copy_box(uint16_t* out, const uint16_t* in) { memcpy(out, in, 4 * sizeof(uint16_t)); }

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
  const box_list l = carve(scratch, cap);

  // A box is kept exactly when no earlier kept box suppresses it (only kept
  // boxes suppress), so each box in input order is tested against the kept
  // boxes, four at a time, stopping at the first that suppresses it. The
  // overlap test is symmetric in its two boxes (min, max, the area sum), so
  // this gives the greedy result, and the scan stops as soon as max_out boxes
  // are kept instead of testing every kept box against every later one. A
  // box is converted to float when the scan reaches it (the scan usually
  // stops long before the end of the list), and only kept boxes are stored
  // in the arrays. The last vector of a test also reads up to three entries
  // past the kept ones (its lanes ignored): each group of four entries is
  // zeroed when its first entry is written, so that they have defined
  // contents.
  const f32x4 thr = {iou_threshold, iou_threshold, iou_threshold, iou_threshold};
  int kept = 0;
  for (int j = 0; j < n; ++j) {
    const uint16_t* b = in + static_cast<size_t>(j) * 5;
    const float x1 = opt_layers_half::to_float(b[0]);
    const float y1 = opt_layers_half::to_float(b[1]);
    const float x2 = opt_layers_half::to_float(b[2]);
    const float y2 = opt_layers_half::to_float(b[3]);
    const float a = inclusive_size(x1, x2) * inclusive_size(y1, y2);
    const kept_box c = {f32x4{x1, x1, x1, x1}, f32x4{y1, y1, y1, y1}, f32x4{x2, x2, x2, x2},
                        f32x4{y2, y2, y2, y2}, f32x4{a, a, a, a},   thr};
    bool suppressed = false;
    for (int r = 0; r < kept; r += 4) {
      if (lane_bits(suppressed_lanes(l, r, c)) & tail_bits(r, kept)) {
        suppressed = true;
        break;
      }
    }
    if (suppressed) continue;
    copy_box(out + static_cast<size_t>(kept) * 4, b);
    if (kept % 4 == 0) {
      float* const arrays[k_arrays] = {l.x1, l.y1, l.x2, l.y2, l.area};
      for (float* arr : arrays) memset(arr + kept, 0, 4 * sizeof(float));
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
