// Max ROI pooling on 16-bit maps stored in 16-channel blocks.
//
// Per box: the four half coordinates become signed 16-bit map cells, the box
// is cut into pool_h x pool_w bins with 7-bit fixed-point edges, and every
// bin of every whole channel block gets the lane-wise maximum of the 16
// channels over its cells. roi_pooling compares elements as unsigned 16-bit
// integers (empty bin 0), roi_pooling_sign as signed ones (empty bin 0x8000).
//
// Bin bounds are 16-bit values clamped to the map, so every read lies inside
// the map whatever the coordinates (NaN and infinities included). A map of
// more than 32767 rows or columns is read only in its first 32767 of them,
// which the 16-bit box arithmetic can reach.
//
// The 16 channels of one map position are two 128-bit vectors, so a cell
// visit is two loads and two lane-wise maxima (pmaxuw / pmaxsw on x86-64,
// umax / smax on aarch64), written once with GCC vector extensions.
#include <stddef.h>
#include <stdint.h>

#include "brennik_opt_layers.h"
#include "common/box.h"

namespace ol {
namespace {

typedef uint16_t u16x8 __attribute__((vector_size(16)));
typedef int16_t i16x8 __attribute__((vector_size(16)));

// Lanes per map position (one channel block).
constexpr int k_block = 16;

// Unaligned, aliasing views of the map and the output as vectors. (A
// memcpy store of a vector makes aarch64 GCC go through general registers.)
typedef uint16_t u16x8_mem __attribute__((vector_size(16), aligned(2), may_alias));
typedef int16_t i16x8_mem __attribute__((vector_size(16), aligned(2), may_alias));

template <typename V>
inline V load8(const uint16_t* p);
template <>
inline u16x8 load8<u16x8>(const uint16_t* p) {
  return *reinterpret_cast<const u16x8_mem*>(p);
}
template <>
inline i16x8 load8<i16x8>(const uint16_t* p) {
  return *reinterpret_cast<const i16x8_mem*>(p);
}
inline void store8(uint16_t* p, u16x8 v) { *reinterpret_cast<u16x8_mem*>(p) = v; }
inline void store8(uint16_t* p, i16x8 v) { *reinterpret_cast<i16x8_mem*>(p) = v; }

// Lane-wise maximum; the lane type (unsigned or signed 16-bit) chooses the
// comparison.
template <typename V>
inline V vmax(V a, V b) {
  return a > b ? a : b;
}

// Reduces a 32-bit value to its low 16 bits as a signed 16-bit value: the
// wrapping of the 16-bit box arithmetic.
inline int16_t wrap16(int32_t v) {
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(v)));
}

// Box coordinate (half bits) -> signed 16-bit integer: converted to float,
// truncated toward zero, reduced to 16 bits. The truncation saturates to the
// 32-bit range before the reduction and takes NaN to 0, as the aarch64
// float-to-int conversion does: every finite half has an integer part well
// inside 32 bits and is unaffected, +inf gives 0x7FFFFFFF (-1 after the
// reduction) and -inf gives 0x80000000 (0).
inline int16_t coord_to_s16(uint16_t half_bits) {
  const float v = opt_layers_half::to_float(half_bits);
  int32_t i;
  if (v != v) {
    i = 0;
  } else if (v >= 2147483648.0f) {
    i = INT32_MAX;
  } else if (v < -2147483648.0f) {
    i = INT32_MIN;
  } else {
    i = static_cast<int32_t>(v);
  }
  return wrap16(i);
}

// min(max(v, 0), n): a bin bound inside the map, ends exclusive.
inline int clamp_bound(int v, int n) {
  const int m = v > 0 ? v : 0;
  return m < n ? m : n;
}

// One bin of one channel block: the lane-wise maximum over rows hs..he-1 and
// columns ws..we-1, starting from `init` (the empty-bin value), stored as 16
// output elements.
template <typename V>
inline void pool_cell(const uint16_t* block, int fmap_w, int hs, int he, int ws, int we, V init,
                      uint16_t* out) {
  V lo = init;
  V hi = init;
  if (hs < he && ws < we) {
    const size_t row_elems = static_cast<size_t>(fmap_w) * k_block;
    const uint16_t* row = block + static_cast<size_t>(hs) * row_elems +
                          static_cast<size_t>(ws) * k_block;
    const size_t row_span = static_cast<size_t>(we - ws) * k_block;
    for (int y = hs; y < he; ++y, row += row_elems) {
      for (size_t i = 0; i < row_span; i += k_block) {
        lo = vmax(lo, load8<V>(row + i));
        hi = vmax(hi, load8<V>(row + i + 8));
      }
    }
  }
  store8(out, lo);
  store8(out + 8, hi);
}

// Where a box lies on the map: its first cell and its bin sizes in 1/128
// cell.
struct box_bins {
  int16_t start_w;
  int16_t start_h;
  int32_t bin_w;
  int32_t bin_h;
};

inline box_bins box_to_bins(const uint16_t* b, int fmap_scale, int pool_w, int pool_h) {
  // Map cells of the box edges: (s + 8) / fmap_scale, truncating; s + 8
  // always fits in 32 bits and the quotient is reduced to 16 bits.
  const int16_t start_w = wrap16((coord_to_s16(b[0]) + 8) / fmap_scale);
  const int16_t start_h = wrap16((coord_to_s16(b[1]) + 8) / fmap_scale);
  const int16_t end_w = wrap16((coord_to_s16(b[2]) + 8) / fmap_scale);
  const int16_t end_h = wrap16((coord_to_s16(b[3]) + 8) / fmap_scale);

  // Inclusive sizes in 16-bit arithmetic, at least one cell.
  int16_t roi_w = wrap16(end_w - start_w + 1);
  int16_t roi_h = wrap16(end_h - start_h + 1);
  if (roi_w < 1) roi_w = 1;
  if (roi_h < 1) roi_h = 1;

  // Bin sizes in 1/128 cell. p * bin + bin + 127 stays below
  // roi * 128 + 128 for every bin p, well inside 32 bits.
  return box_bins{start_w, start_h, (static_cast<int32_t>(roi_w) * 128) / pool_w,
                  (static_cast<int32_t>(roi_h) * 128) / pool_h};
}

// Bounds [first, end) of bin p along one axis: floor of the bin's start,
// ceiling of its end, in 16-bit arithmetic, clamped to 0..n.
inline void bin_bounds(int16_t start, int32_t bin, int p, int n, int* first, int* end) {
  const int32_t edge = p * bin;
  *first = clamp_bound(wrap16(start + (edge >> 7)), n);
  *end = clamp_bound(wrap16(start + ((edge + bin + 127) >> 7)), n);
}

// Bin columns handled per pass: their bounds are computed once and reused by
// every bin row.
constexpr int k_col_chunk = 16;

// The pool_h x pool_w cells of one box in one channel block.
template <typename V>
void pool_block(const box_bins& bb, const uint16_t* block, uint16_t* out, int pool_w, int pool_h,
                int fmap_h, int fmap_w, V init) {
  int ws[k_col_chunk], we[k_col_chunk];
  for (int pw0 = 0; pw0 < pool_w; pw0 += k_col_chunk) {
    const int n = pool_w - pw0 < k_col_chunk ? pool_w - pw0 : k_col_chunk;
    for (int k = 0; k < n; ++k) bin_bounds(bb.start_w, bb.bin_w, pw0 + k, fmap_w, &ws[k], &we[k]);
    for (int ph = 0; ph < pool_h; ++ph) {
      int hs, he;
      bin_bounds(bb.start_h, bb.bin_h, ph, fmap_h, &hs, &he);
      uint16_t* o = out + (static_cast<size_t>(ph) * pool_w + pw0) * k_block;
      for (int k = 0; k < n; ++k, o += k_block)
        pool_cell<V>(block, fmap_w, hs, he, ws[k], we[k], init, o);
    }
  }
}

// Boxes are taken in groups; within a group the channel block is the outer
// loop, so one block of the map (fmap_h * fmap_w * 32 bytes) serves every
// box of the group while it is in cache. Cells are independent, so the
// order does not change any result.
constexpr int k_box_group = 64;

// The shared algorithm; V is u16x8 for roi_pooling and i16x8 for
// roi_pooling_sign, `init` the matching empty-bin value in every lane.
template <typename V>
int roi_pool(const uint16_t* proposal, const uint16_t* fmap, uint16_t* roi_result, int roi_num,
             int pool_w, int pool_h, int fmap_scale, int fmap_h, int fmap_w, int fmap_d,
             V init) {
  if (roi_num < 1) return 0;
  const int blocks = fmap_d / k_block;  // whole channel blocks only
  // fmap_scale < 1 would divide by zero or mirror the box: nothing is written.
  if (blocks < 1 || pool_h < 1 || pool_w < 1 || fmap_scale < 1) return 0;
  // A map without rows or columns makes every bin empty (the clamp gives
  // start = end); taking it as 0 keeps the block stride below meaningful.
  if (fmap_h < 0) fmap_h = 0;
  if (fmap_w < 0) fmap_w = 0;

  const size_t block_elems = static_cast<size_t>(fmap_h) * static_cast<size_t>(fmap_w) * k_block;
  const size_t cell_elems = static_cast<size_t>(pool_h) * static_cast<size_t>(pool_w) * k_block;
  const size_t box_elems = static_cast<size_t>(blocks) * cell_elems;

  box_bins bins[k_box_group];
  for (int first = 0; first < roi_num; first += k_box_group) {
    const int n = roi_num - first < k_box_group ? roi_num - first : k_box_group;
    for (int i = 0; i < n; ++i)
      bins[i] = box_to_bins(proposal + static_cast<size_t>(first + i) * 4, fmap_scale, pool_w,
                            pool_h);
    for (int g = 0; g < blocks; ++g) {
      const uint16_t* block = fmap + static_cast<size_t>(g) * block_elems;
      uint16_t* out = roi_result + static_cast<size_t>(first) * box_elems +
                      static_cast<size_t>(g) * cell_elems;
      for (int i = 0; i < n; ++i, out += box_elems)
        pool_block(bins[i], block, out, pool_w, pool_h, fmap_h, fmap_w, init);
    }
  }
  return 0;
}

}  // namespace
}  // namespace ol

// pool_pitch and fmap_pitch are accepted and unused: the map and the output
// are always read and written densely.
int roi_pooling(half_float::half* proposal, unsigned short* fmap, unsigned short* roi_result,
                int roi_num, int pool_w, int pool_h, int /*pool_pitch*/, int fmap_scale,
                int /*fmap_pitch*/, int fmap_h, int fmap_w, int fmap_d) {
  const ol::u16x8 empty = {0, 0, 0, 0, 0, 0, 0, 0};
  return ol::roi_pool(ol::half_bits_ptr(proposal), fmap, roi_result, roi_num, pool_w, pool_h,
                      fmap_scale, fmap_h, fmap_w, fmap_d, empty);
}

int roi_pooling_sign(half_float::half* proposal, unsigned short* fmap, unsigned short* roi_result,
                     int roi_num, int pool_w, int pool_h, int /*pool_pitch*/, int fmap_scale,
                     int /*fmap_pitch*/, int fmap_h, int fmap_w, int fmap_d) {
  const int16_t m = INT16_MIN;
  const ol::i16x8 empty = {m, m, m, m, m, m, m, m};
  return ol::roi_pool(ol::half_bits_ptr(proposal), fmap, roi_result, roi_num, pool_w, pool_h,
                      fmap_scale, fmap_h, fmap_w, fmap_d, empty);
}
