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
#include <limits.h>
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <utility>

#include "brennik_opt_layers.h"
#include "common/box.h"
#include "ops/roi_pooling_kernels.h"

namespace ol {
namespace {

// 128-bit vectors of 16-bit lanes: two per map position.
typedef uint16_t u16x8 __attribute__((vector_size(16)));
typedef int16_t i16x8 __attribute__((vector_size(16)));

// Lanes per map position (one channel block).
constexpr int k_block = 16;

// Unaligned, aliasing loads and stores of a vector. (A memcpy store of a
// vector makes aarch64 GCC go through general registers.)
template <typename V>
inline V load_vec(const uint16_t* p) {
  typedef V mem __attribute__((aligned(2), may_alias));
  return *reinterpret_cast<const mem*>(p);
}
template <typename V>
inline void store_vec(uint16_t* p, V v) {
  typedef V mem __attribute__((aligned(2), may_alias));
  *reinterpret_cast<mem*>(p) = v;
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

// ---- cells ------------------------------------------------------------------
//
// A cell is the lane-wise maximum of the map positions of its bin. Max is
// idempotent, so the accumulators start from the bin's first position (no
// empty-bin value to merge) and a long row may be covered by overlapping
// pairs of positions. A bin has the same shape in every channel block, so
// each cell function pools one bin over a run of channel blocks: the
// switch on the bin's shape is paid once per run, not once per cell. Bins
// of up to k_max_rows x k_max_cols positions are unrolled completely, taller
// ones loop over rows of up to k_max_cols unrolled positions, wider rows run
// over pairs.
//
// Generated aarch64 code (GCC 12 -O3): a covered map position costs one
// `ldp q, q` and two `umax` / `smax` (the bin's first position only the
// `ldp`); a cell adds its `stp q, q`, one `add` per bin row after the first
// (the row pointer), two `add`s to step to the next block and output cell
// and the block loop's `cmp` + `b.ne`. A bin costs, once per run, about 14
// instructions of table call and 3 of loop set-up, and a box its bin bounds.
// On the roi_pooling workload of bench/arm_cost.cpp (6.2 positions per
// cell) that is about 29 instructions per 16-lane cell: 17.6 loads, maxima
// and the store, 5.6 of block and row stepping, about 4 per bin and box
// spread over the run's 8 blocks. x86-64 is the same with `movdqu` loads and
// `pmaxuw` / `pmaxsw`, rows addressed from the bin's first one.

// The running maximum of one cell: the 16 lanes of a map position in
// k_vecs vectors.
template <typename V>
struct acc {
  static constexpr int k_lanes = sizeof(V) / sizeof(uint16_t);
  static constexpr int k_vecs = k_block / k_lanes;
  V v[k_vecs];
  explicit acc(V fill) {
    for (int i = 0; i < k_vecs; ++i) v[i] = fill;
  }
  explicit acc(const uint16_t* p) {
    for (int i = 0; i < k_vecs; ++i) v[i] = load_vec<V>(p + i * k_lanes);
  }
  void add(const uint16_t* p) {
    for (int i = 0; i < k_vecs; ++i) v[i] = vmax(v[i], load_vec<V>(p + i * k_lanes));
  }
  // Positions [from, NC) of the row at q.
  template <int NC>
  void add_row(const uint16_t* q, int from = 0) {
    for (int c = from; c < NC; ++c) add(q + c * k_block);
  }
  void merge(const acc& b) {
    for (int i = 0; i < k_vecs; ++i) v[i] = vmax(v[i], b.v[i]);
  }
  void store(uint16_t* out) const {
    for (int i = 0; i < k_vecs; ++i) store_vec(out + i * k_lanes, v[i]);
  }
};

// p moved by `bytes` bytes.
inline const uint16_t* step(const uint16_t* p, ptrdiff_t bytes) {
  return reinterpret_cast<const uint16_t*>(reinterpret_cast<const char*>(p) + bytes);
}
inline uint16_t* step(uint16_t* p, ptrdiff_t bytes) {
  return reinterpret_cast<uint16_t*>(reinterpret_cast<char*>(p) + bytes);
}

// Steps a row pointer by `rs` bytes. On aarch64 the pointer is kept in a
// register of its own, so that a position is one `ldp q, q` from it: left
// alone, GCC folds the row offsets into pairs of register-offset `ldr q`.
inline const uint16_t* next_row(const uint16_t* q, ptrdiff_t rs) {
  q = step(q, rs);
#if defined(__aarch64__)
  __asm__("" : "+r"(q));
#endif
  return q;
}

// Where a run of one bin goes, in bytes: map rows `rs` apart, channel
// blocks `bs` apart on the map and `os` apart in the output, `len` = os
// times the run's number of blocks (at least one); `nr` rows per bin.
struct run {
  ptrdiff_t rs, bs, os, len;
  int nr;  // rows of the bins of the current bin row
};

// Calls cell(p, o) for the bin's first position p and output cell o in
// every channel block of the run.
template <typename F>
inline void for_blocks(const uint16_t* p, const run& u, uint16_t* o, F cell) {
  const ptrdiff_t bs = u.bs, os = u.os;  // in registers: the stores may alias u
  uint16_t* const end = step(o, u.len);
  do {
    cell(p, o);
    p = step(p, bs);
    o = step(o, os);
  } while (o != end);
}

// NR rows of NC positions, both known.
template <int NR, int NC, typename V>
void cells_fixed(const uint16_t* p, const run& u, int, uint16_t* o) {
  const ptrdiff_t rs = u.rs;
  for_blocks(p, u, o, [rs](const uint16_t* q, uint16_t* out) {
    acc<V> a(q);
    a.template add_row<NC>(q, 1);
    for (int r = 1; r < NR; ++r) {
      q = next_row(q, rs);
      a.template add_row<NC>(q);
    }
    a.store(out);
  });
}

// u.nr >= 1 rows of NC positions.
template <int NC, typename V>
void cells_rows(const uint16_t* p, const run& u, int, uint16_t* o) {
  const ptrdiff_t rs = u.rs, last = (u.nr - 1) * u.rs;
  for_blocks(p, u, o, [rs, last](const uint16_t* q, uint16_t* out) {
    acc<V> a(q);
    a.template add_row<NC>(q, 1);
    for (const uint16_t* const qe = step(q, last); q != qe;) {
      q = next_row(q, rs);
      a.template add_row<NC>(q);
    }
    a.store(out);
  });
}

// u.nr >= 1 rows of nc >= 2 positions: pairs of positions, the last pair
// ending at the row's last position (it may overlap the one before).
template <typename V>
void cells_pairs(const uint16_t* p, const run& u, int nc, uint16_t* o) {
  const ptrdiff_t rs = u.rs, last = static_cast<ptrdiff_t>(nc - 2) * k_block;
  const int nr = u.nr;
  for_blocks(p, u, o, [rs, last, nr](const uint16_t* q, uint16_t* out) {
    acc<V> a(q), b(q + k_block);
    for (int r = 0; r < nr; ++r, q = step(q, rs)) {
      for (ptrdiff_t i = r ? 0 : 2 * k_block; i < last; i += 2 * k_block) {
        a.add(q + i);
        b.add(q + i + k_block);
      }
      a.add(q + last);
      b.add(q + last + k_block);
    }
    a.merge(b);
    a.store(out);
  });
}

// The value of an empty bin: the least 16-bit value of the comparison.
inline u16x8 empty_value(u16x8) { return u16x8{}; }
inline i16x8 empty_value(i16x8) { return i16x8{} + INT16_MIN; }

template <typename V>
void cells_empty(const uint16_t* p, const run& u, int, uint16_t* o) {
  const acc<V> e(empty_value(V{}));
  for_blocks(p, u, o, [&e](const uint16_t*, uint16_t* out) { e.store(out); });
}

// Rows and columns up to which a bin is unrolled.
constexpr int k_max_rows = 5;
constexpr int k_max_cols = 8;

// Size classes of a bin: rows 0 to k_max_rows, or k_max_rows + 1 for more,
// times 10; columns 0 to k_max_cols, or k_max_cols + 1 for more. A bin's
// code is the sum of its two classes and picks its cell function.
inline int32_t row_class(int n) { return (n <= k_max_rows ? n : k_max_rows + 1) * 10; }
inline int32_t col_class(int n) { return n <= k_max_cols ? n : k_max_cols + 1; }

// Pools one bin (first position p, u.nr rows of nc positions) over a run.
using cell_fn = void (*)(const uint16_t* p, const run& u, int nc, uint16_t* o);

template <typename V, int R, int C>
constexpr cell_fn cell_for() {
  if constexpr (R == 0 || C == 0)
    return cells_empty<V>;
  else if constexpr (C > k_max_cols)
    return cells_pairs<V>;
  else if constexpr (R > k_max_rows)
    return cells_rows<C, V>;
  else
    return cells_fixed<R, C, V>;
}

// The cell function of every code: one indirect call per bin and run.
template <typename V, size_t... I>
constexpr std::array<cell_fn, sizeof...(I)> make_cell_table(std::index_sequence<I...>) {
  return {{cell_for<V, static_cast<int>(I / 10), static_cast<int>(I % 10)>()...}};
}
template <typename V>
constexpr std::array<cell_fn, (k_max_rows + 2) * 10> k_cells =
    make_cell_table<V>(std::make_index_sequence<(k_max_rows + 2) * 10>());

// ---- boxes --------------------------------------------------------------------

// Bins per axis whose bounds a box keeps at once; larger grids are pooled in
// tiles of k_tile x k_tile bins.
constexpr int k_tile = 8;

// One bin along one axis: the byte offset of its first map row (column)
// in a channel block, its number of rows (columns) and its size class
// (row_class, col_class). An empty bin has offset 0, so no pointer leaves
// the map.
struct bin_span {
  ptrdiff_t off;
  int32_t n;
  int32_t cls;
};

inline bin_span make_span(const box_bins& bb, bool rows, int p, int n_map, ptrdiff_t unit) {
  int s, e;
  bin_bounds(rows ? bb.start_h : bb.start_w, rows ? bb.bin_h : bb.bin_w, p, n_map, &s, &e);
  const int n = e > s ? e - s : 0;
  return bin_span{n ? s * unit : 0, n, rows ? row_class(n) : col_class(n)};
}

// Channel blocks per run. Runs are the outer loop: one run of the map
// (k_block_run * fmap_h * fmap_w * 32 bytes) serves every box while it is
// in cache. Cells are independent, so the order does not change any result.
constexpr int k_block_run = 8;

template <typename V>
void pool_boxes(const uint16_t* proposal, const uint16_t* fmap, uint16_t* roi_result,
                size_t box_stride, int roi_num, int pool_w, int pool_h, int fmap_scale,
                int fmap_h, int fmap_w, int fmap_d, int first_run, int end_run) {
  if (roi_num < 1) return;
  const int blocks = fmap_d / k_block;  // whole channel blocks only
  // fmap_scale < 1 would divide by zero or mirror the box: nothing is written.
  if (blocks < 1 || pool_h < 1 || pool_w < 1 || fmap_scale < 1) return;
  // A map without rows or columns makes every bin empty (the clamp gives
  // start = end); taking it as 0 keeps the block stride below meaningful.
  if (fmap_h < 0) fmap_h = 0;
  if (fmap_w < 0) fmap_w = 0;
  // The blocks of runs [first_run, end_run).
  const int runs = (blocks + k_block_run - 1) / k_block_run;
  if (first_run < 0) first_run = 0;
  if (end_run > runs) end_run = runs;
  if (first_run >= end_run) return;
  const int g_end = end_run * k_block_run < blocks ? end_run * k_block_run : blocks;

  // Strides in elements; the run's in bytes.
  const ptrdiff_t rs = static_cast<ptrdiff_t>(fmap_w) * k_block;
  const ptrdiff_t bs = static_cast<ptrdiff_t>(fmap_h) * rs;
  const ptrdiff_t os = static_cast<ptrdiff_t>(pool_h) * pool_w * k_block;
  run u;
  u.rs = rs * 2;
  u.bs = bs * 2;
  u.os = os * 2;

  bin_span rows[k_tile], cols[k_tile];
  for (int g0 = first_run * k_block_run; g0 < g_end; g0 += k_block_run) {
    u.len = (blocks - g0 < k_block_run ? blocks - g0 : k_block_run) * u.os;
    const uint16_t* map = fmap + static_cast<size_t>(g0) * static_cast<size_t>(bs);
    for (int i = 0; i < roi_num; ++i) {
      const box_bins bb =
          box_to_bins(proposal + static_cast<size_t>(i) * 4, fmap_scale, pool_w, pool_h);
      uint16_t* out = roi_result + static_cast<size_t>(i) * box_stride +
                      static_cast<size_t>(g0) * static_cast<size_t>(os);
      for (int ph0 = 0; ph0 < pool_h; ph0 += k_tile) {
        const int th = pool_h - ph0 < k_tile ? pool_h - ph0 : k_tile;
        for (int k = 0; k < th; ++k) rows[k] = make_span(bb, true, ph0 + k, fmap_h, u.rs);
        for (int pw0 = 0; pw0 < pool_w; pw0 += k_tile) {
          const int tw = pool_w - pw0 < k_tile ? pool_w - pw0 : k_tile;
          for (int k = 0; k < tw; ++k) cols[k] = make_span(bb, false, pw0 + k, fmap_w, 2 * k_block);
          for (int ph = 0; ph < th; ++ph) {
            const bin_span& r = rows[ph];
            const uint16_t* row = next_row(map, r.off);
            const cell_fn* cells = k_cells<V>.data() + r.cls;
            u.nr = r.n;
            uint16_t* o = out + (static_cast<size_t>(ph0 + ph) * pool_w + pw0) * k_block;
            for (const bin_span *c = cols, *ce = cols + tw; c != ce; ++c, o += k_block)
              cells[c->cls](step(row, c->off), u, c->n, o);
          }
        }
      }
    }
  }
}

}  // namespace

size_t roi_pool_box_elems(int pool_w, int pool_h, int fmap_d) {
  if (pool_w < 1 || pool_h < 1 || fmap_d < k_block) return 0;
  return static_cast<size_t>(fmap_d / k_block) * static_cast<size_t>(pool_h) *
         static_cast<size_t>(pool_w) * k_block;
}

uint64_t roi_pool_box_work(const uint16_t* box, int pool_w, int pool_h, int fmap_scale, int fmap_h,
                           int fmap_w) {
  // Grids beyond 2^20 bins per side count as that many (the estimate only
  // balances tasks), so the sums below stay far from 64 bits.
  const int limit = 1 << 20;
  if (pool_w < 1 || pool_h < 1 || fmap_scale < 1) return 1;
  if (pool_w > limit) pool_w = limit;
  if (pool_h > limit) pool_h = limit;
  const box_bins bb = box_to_bins(box, fmap_scale, pool_w, pool_h);
  uint64_t rows = 0, cols = 0;
  int s, e;
  for (int p = 0; p < pool_h; ++p) {
    bin_bounds(bb.start_h, bb.bin_h, p, fmap_h > 0 ? fmap_h : 0, &s, &e);
    rows += static_cast<uint64_t>(e > s ? e - s : 0);
  }
  for (int p = 0; p < pool_w; ++p) {
    bin_bounds(bb.start_w, bb.bin_w, p, fmap_w > 0 ? fmap_w : 0, &s, &e);
    cols += static_cast<uint64_t>(e > s ? e - s : 0);
  }
  // A cell costs about as much as four positions besides its positions.
  if (rows > uint64_t(limit)) rows = limit;
  if (cols > uint64_t(limit)) cols = limit;
  return rows * cols + 4 * static_cast<uint64_t>(pool_h) * static_cast<uint64_t>(pool_w);
}

int roi_pool_runs(int fmap_d) {
  return fmap_d < k_block ? 0 : (fmap_d / k_block + k_block_run - 1) / k_block_run;
}

void roi_pool_boxes(bool is_signed, const uint16_t* proposal, const uint16_t* fmap,
                    uint16_t* roi_result, size_t box_stride, int roi_num, int pool_w, int pool_h,
                    int fmap_scale, int fmap_h, int fmap_w, int fmap_d, int first_run,
                    int end_run) {
  if (is_signed)
    pool_boxes<i16x8>(proposal, fmap, roi_result, box_stride, roi_num, pool_w, pool_h, fmap_scale, fmap_h,
               fmap_w, fmap_d, first_run, end_run);
  else
    pool_boxes<u16x8>(proposal, fmap, roi_result, box_stride, roi_num, pool_w, pool_h, fmap_scale, fmap_h,
               fmap_w, fmap_d, first_run, end_run);
}

}  // namespace ol

// pool_pitch and fmap_pitch are accepted and unused: the map and the output
// are always read and written densely.
int roi_pooling(half_float::half* proposal, unsigned short* fmap, unsigned short* roi_result,
                int roi_num, int pool_w, int pool_h, int /*pool_pitch*/, int fmap_scale,
                int /*fmap_pitch*/, int fmap_h, int fmap_w, int fmap_d) {
  ol::roi_pool_boxes(false, ol::half_bits_ptr(proposal), fmap, roi_result,
                     ol::roi_pool_box_elems(pool_w, pool_h, fmap_d), roi_num, pool_w, pool_h,
                     fmap_scale, fmap_h, fmap_w, fmap_d, 0, INT_MAX);
  return 0;
}

int roi_pooling_sign(half_float::half* proposal, unsigned short* fmap, unsigned short* roi_result,
                     int roi_num, int pool_w, int pool_h, int /*pool_pitch*/, int fmap_scale,
                     int /*fmap_pitch*/, int fmap_h, int fmap_w, int fmap_d) {
  ol::roi_pool_boxes(true, ol::half_bits_ptr(proposal), fmap, roi_result,
                     ol::roi_pool_box_elems(pool_w, pool_h, fmap_d), roi_num, pool_w, pool_h,
                     fmap_scale, fmap_h, fmap_w, fmap_d, 0, INT_MAX);
  return 0;
}
