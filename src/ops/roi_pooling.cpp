// Max ROI pooling on 16-bit maps stored in 16-channel blocks.
//
// Per box: the four half coordinates become signed 16-bit map cells, the box
// is cut into pool_h x pool_w bins with 7-bit fixed-point edges, and every
// bin of every whole channel block gets the lane-wise maximum of the 16
// channels over its cells. roi_pooling compares elements as unsigned 16-bit
// integers (empty bin 0), roi_pooling_sign as signed ones (empty bin 0x8000).
//
// The 16 channels of one map position are two 128-bit vectors, so a cell
// visit is two loads and two lane-wise maxima (pmaxuw / pmaxsw on x86-64,
// umax / smax on aarch64), written once with GCC vector extensions.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "brennik_opt_layers.h"
#include "common/box.h"

namespace ol {
namespace {

typedef uint16_t u16x8 __attribute__((vector_size(16)));
typedef int16_t i16x8 __attribute__((vector_size(16)));

// Lanes per map position (one channel block).
constexpr int k_block = 16;

template <typename V>
inline V load8(const uint16_t* p) {
  V v;
  memcpy(&v, p, sizeof v);
  return v;
}

template <typename V>
inline void store8(uint16_t* p, V v) {
  memcpy(p, &v, sizeof v);
}

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
    const int cols = we - ws;
    for (int y = hs; y < he; ++y, row += row_elems) {
      const uint16_t* p = row;
      for (int x = 0; x < cols; ++x, p += k_block) {
        lo = vmax(lo, load8<V>(p));
        hi = vmax(hi, load8<V>(p + 8));
      }
    }
  }
  store8(out, lo);
  store8(out + 8, hi);
}

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
  const size_t box_elems =
      static_cast<size_t>(blocks) * static_cast<size_t>(pool_h) * static_cast<size_t>(pool_w) *
      k_block;

  for (int r = 0; r < roi_num; ++r) {
    const uint16_t* b = proposal + static_cast<size_t>(r) * 4;
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

    // Bin sizes in 1/128 cell. ph * bin_h + bin_h + 127 stays below
    // roi_h * 128 + 128, well inside 32 bits.
    const int32_t bin_w = (static_cast<int32_t>(roi_w) * 128) / pool_w;
    const int32_t bin_h = (static_cast<int32_t>(roi_h) * 128) / pool_h;

    uint16_t* out = roi_result + static_cast<size_t>(r) * box_elems;
    for (int g = 0; g < blocks; ++g) {
      const uint16_t* block = fmap + static_cast<size_t>(g) * block_elems;
      for (int ph = 0; ph < pool_h; ++ph) {
        const int32_t h0 = ph * bin_h;
        const int hs = clamp_bound(wrap16(start_h + (h0 >> 7)), fmap_h);
        const int he = clamp_bound(wrap16(start_h + ((h0 + bin_h + 127) >> 7)), fmap_h);
        for (int pw = 0; pw < pool_w; ++pw, out += k_block) {
          const int32_t w0 = pw * bin_w;
          const int ws = clamp_bound(wrap16(start_w + (w0 >> 7)), fmap_w);
          const int we = clamp_bound(wrap16(start_w + ((w0 + bin_w + 127) >> 7)), fmap_w);
          pool_cell<V>(block, fmap_w, hs, he, ws, we, init, out);
        }
      }
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
