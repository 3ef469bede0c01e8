// Anchor generation: the base anchors of cell (0, 0) shifted to every cell.
#ifndef OL_FRCNN_ANCHORS_H
#define OL_FRCNN_ANCHORS_H

#include "thread_pool/thread_pool.h"

namespace ol {

constexpr unsigned k_anchor_bands = 10;

// Fills the cell-major anchor buffer (record (y*W + x)*A + a) in exactly ten
// row bands on the pool; returns when every accepted band has finished.
void anchors_generate(thread_pool* pool, const float* base_anchors, float* anchors, unsigned A,
                      unsigned S, unsigned H, unsigned W, bool suppress, unsigned img_h,
                      unsigned img_w);

// One band: rows first_row .. first_row + rows - 1, written from out on.
void anchors_generate_rows(const float* base_anchors, float* out, int rows, int first_row, int W,
                           int S, int A, bool suppress, int img_h, int img_w);

}  // namespace ol

#endif
