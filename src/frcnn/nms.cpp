// Greedy non-maximum suppression over proposal records (x1 y1 x2 y2 score,
// halves), boxes taken in input order.
//
// The kernel keeps the boxes in structure-of-arrays form (x1, y1, x2, y2,
// area as floats, input index as u32) and tests a kept box against the rest
// of the list four boxes at a time. A suppressed box is flagged in the top
// bit of its index (indices are below 2^15); once enough flagged boxes have
// piled up behind the current box, the next sweep also packs the list,
// moving the unflagged boxes down in place. Most sweeps thus only read, and
// suppressed boxes stop costing anything at the next packing.
//
// Arithmetic of the overlap test, all single precision, identical in the
// vector sweep and the scalar fallback:
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
typedef uint8_t u8x16 __attribute__((vector_size(16)));

// The box count is a signed 16-bit number: larger ints are reduced to their
// low 16 bits, so 40000 examines nothing and 70000 examines 4464 boxes.
inline int count16(int count) {
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(count)));
}

// Entries per scratch array: the sweep loads and stores four entries from
// any list position below the box count, so three entries of slack follow
// the boxes; rounding to four keeps every array 16-byte aligned.
inline size_t list_capacity(uint32_t n) { return (static_cast<size_t>(n) + 3 + 3) & ~size_t{3}; }

constexpr int k_arrays = 6;  // x1, y1, x2, y2, area, index

// The compact list of live boxes.
struct box_list {
  float* x1;
  float* y1;
  float* x2;
  float* y2;
  float* area;
  uint32_t* index;
};

box_list carve(void* scratch, size_t cap) {
  float* f = static_cast<float*>(scratch);
  return box_list{f, f + cap, f + 2 * cap, f + 3 * cap, f + 4 * cap,
                  reinterpret_cast<uint32_t*>(f + 5 * cap)};
}

inline f32x4 loadf(const float* p) {
  f32x4 v;
  memcpy(&v, p, sizeof v);
  return v;
}
inline u8x16 loadb(const void* p) {
  u8x16 v;
  memcpy(&v, p, sizeof v);
  return v;
}
inline void storeb(void* p, u8x16 v) { memcpy(p, &v, sizeof v); }

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

// Byte shuffles that move the lanes selected by a 4-bit mask to the front,
// in order (the remaining lanes are don't-care).
struct pack_table {
  alignas(16) uint8_t shuffle[16][16];
  uint8_t count[16];
};

constexpr pack_table make_pack_table() {
  pack_table t{};
  for (int m = 0; m < 16; ++m) {
    int k = 0;
    for (int lane = 0; lane < 4; ++lane) {
      if (m & (1 << lane)) {
        for (int b = 0; b < 4; ++b) t.shuffle[m][k * 4 + b] = static_cast<uint8_t>(lane * 4 + b);
        ++k;
      }
    }
    for (int b = k * 4; b < 16; ++b) t.shuffle[m][b] = static_cast<uint8_t>(b);
    t.count[m] = static_cast<uint8_t>(k);
  }
  return t;
}

constexpr pack_table k_pack = make_pack_table();

inline void pack_store(void* dst, const void* src, u8x16 shuffle) {
#if defined(__clang__)
  // clang has no variable-index __builtin_shuffle (only the sanitizer and
  // fuzzing builds use clang): the same byte gather, lane by lane.
  const u8x16 v = loadb(src);
  u8x16 r;
  for (int i = 0; i < 16; ++i) r[i] = v[shuffle[i] & 15];
  storeb(dst, r);
#else
  storeb(dst, __builtin_shuffle(loadb(src), shuffle));
#endif
}

constexpr uint32_t k_flag = 0x80000000u;  // index bit: suppressed

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

inline i32x4 load_index(const box_list& l, int r) {
  i32x4 v;
  memcpy(&v, l.index + r, sizeof v);
  return v;
}

// Tests entries from..alive-1 against c and flags the ones it suppresses.
// Returns how many were newly flagged.
int sweep_flag(const box_list& l, int from, int alive, const kept_box& c) {
  const i32x4 flag = {INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN};
  int flagged = 0;
  for (int r = from; r < alive; r += 4) {
    const i32x4 idx = load_index(l, r);
    const i32x4 fresh = suppressed_lanes(l, r, c) & ~(idx & flag);
    const unsigned bits = lane_bits(fresh) & tail_bits(r, alive);
    if (bits == 0) continue;
    // Flags may also land on slack lanes past the list: never read as boxes.
    const i32x4 marked = idx | (fresh & flag);
    memcpy(l.index + r, &marked, sizeof marked);
    flagged += k_pack.count[bits];
  }
  return flagged;
}

// Tests entries from..alive-1 against c and moves the entries that are
// neither flagged nor suppressed by c down to start at `from`, in order.
// Returns the new list length.
int sweep_pack(const box_list& l, int from, int alive, const kept_box& c) {
  int w = from;
  for (int r = from; r < alive; r += 4) {
    // A flagged index is negative as a signed lane.
    const i32x4 keep = ~suppressed_lanes(l, r, c) & (load_index(l, r) >= 0);
    const unsigned bits = lane_bits(keep) & tail_bits(r, alive);
    if (bits == 0xF && w == r) {  // nothing moved yet and nothing to drop
      w += 4;
      continue;
    }
    const u8x16 s = loadb(k_pack.shuffle[bits]);
    pack_store(l.x1 + w, l.x1 + r, s);
    pack_store(l.y1 + w, l.y1 + r, s);
    pack_store(l.x2 + w, l.x2 + r, s);
    pack_store(l.y2 + w, l.y2 + r, s);
    pack_store(l.area + w, l.area + r, s);
    pack_store(l.index + w, l.index + r, s);
    w += k_pack.count[bits];
  }
  return w;
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
  for (int i = 0; i < n; ++i) {
    const uint16_t* b = in + static_cast<size_t>(i) * 5;
    const float x1 = opt_layers_half::to_float(b[0]);
    const float y1 = opt_layers_half::to_float(b[1]);
    const float x2 = opt_layers_half::to_float(b[2]);
    const float y2 = opt_layers_half::to_float(b[3]);
    l.x1[i] = x1;
    l.y1[i] = y1;
    l.x2[i] = x2;
    l.y2[i] = y2;
    l.area[i] = inclusive_size(x1, x2) * inclusive_size(y1, y2);
    l.index[i] = static_cast<uint32_t>(i);
  }
  // The slack after the boxes is read by the last vector of a sweep (and its
  // lanes ignored): give it defined contents.
  for (size_t i = static_cast<size_t>(n); i < cap; ++i) {
    l.x1[i] = l.y1[i] = l.x2[i] = l.y2[i] = l.area[i] = 0.0f;
    l.index[i] = 0;
  }

  const f32x4 thr = {iou_threshold, iou_threshold, iou_threshold, iou_threshold};
  int kept = 0;
  int alive = n;    // list length
  int flagged = 0;  // flagged entries after p
  for (int p = 0; p < alive;) {
    copy_box(out + static_cast<size_t>(kept) * 4, in + static_cast<size_t>(l.index[p]) * 5);
    if (++kept == max_out) break;
    const float x1 = l.x1[p], y1 = l.y1[p], x2 = l.x2[p], y2 = l.y2[p], a = l.area[p];
    const kept_box c = {f32x4{x1, x1, x1, x1}, f32x4{y1, y1, y1, y1}, f32x4{x2, x2, x2, x2},
                        f32x4{y2, y2, y2, y2}, f32x4{a, a, a, a},   thr};
    // Pack once the flagged entries make up a sixteenth of the rest.
    if (flagged * 16 > alive - p) {
      alive = sweep_pack(l, p + 1, alive, c);
      flagged = 0;
    } else {
      flagged += sweep_flag(l, p + 1, alive, c);
    }
    // Next unflagged entry.
    for (++p; p < alive && (l.index[p] & k_flag) != 0; ++p) --flagged;
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
