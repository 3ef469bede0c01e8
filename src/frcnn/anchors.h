// Anchor generation: the base anchors of cell (0, 0) shifted to every cell.
#ifndef OL_FRCNN_ANCHORS_H
#define OL_FRCNN_ANCHORS_H

#include "thread_pool/thread_pool.h"

namespace ol {

constexpr unsigned k_anchor_bands = 10;

// Rows of band k (0..9) for H rows: q = H / 10, band k starts at row k*q;
// bands 0..8 have q rows, band 9 has q + H % 10 (all rows when H < 10).
inline void anchor_band_rows(unsigned k, unsigned H, unsigned* first_row, unsigned* rows) {
  const unsigned q = H / k_anchor_bands;
  *first_row = k * q;
  *rows = k + 1 < k_anchor_bands ? q : q + H % k_anchor_bands;
}

// Fills the cell-major anchor buffer (record (y*W + x)*A + a) in exactly ten
// row bands on the pool; returns when every accepted band has finished.
void anchors_generate(thread_pool* pool, const float* base_anchors, float* anchors, unsigned A,
                      unsigned S, unsigned H, unsigned W, bool suppress, unsigned img_h,
                      unsigned img_w);

// One band: rows first_row .. first_row + rows - 1, written from out on.
// Record (x, a) of row y is base anchor a shifted by (x*S, y*S), summed in
// single precision; with suppress each x is limited to [0, img_w] and each y
// to [0, img_h] (upper limit first; a NaN coordinate ends at the upper
// limit). Writes nothing when rows, W or A is below 1.
void anchors_generate_rows(const float* base_anchors, float* out, int rows, int first_row, int W,
                           int S, int A, bool suppress, int img_h, int img_w);

}  // namespace ol

#endif
