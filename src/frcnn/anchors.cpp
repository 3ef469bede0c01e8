#include "frcnn/anchors.h"

#include <stddef.h>

namespace ol {

namespace {

// One row band of the anchor buffer; lives in anchors_generate's frame until
// every accepted task has come back.
struct anchor_band_task {
  thread_task task;
  const float* base_anchors;
  float* out;  // first record of the band
  int rows;
  int first_row;
  int W;
  int S;
  int A;
  bool suppress;
  int img_h;
  int img_w;
};

int32_t anchor_band_run(void* arg) {
  const anchor_band_task* b = static_cast<const anchor_band_task*>(arg);
  anchors_generate_rows(b->base_anchors, b->out, b->rows, b->first_row, b->W, b->S, b->A,
                        b->suppress, b->img_h, b->img_w);
  return 0;
}

// At most `hi`, then at least 0. Written so that a NaN coordinate (only
// possible from a NaN base anchor) ends at `hi` rather than staying NaN.
inline float limit_coord(float v, float hi) {
  const float m = v < hi ? v : hi;
  return m > 0.0f ? m : 0.0f;
}

}  // namespace

void anchors_generate_rows(const float* base_anchors, float* out, int rows, int first_row, int W,
                           int S, int A, bool suppress, int img_h, int img_w) {
  if (rows < 1 || W < 1 || A < 1) return;
  const float lim_x = static_cast<float>(img_w);
  const float lim_y = static_cast<float>(img_h);
  // The shifts y * S and x * S are formed in 64 bits: a stride from a
  // hostile descriptor would overflow int (identical results otherwise).
  for (int y = first_row; y < first_row + rows; ++y) {
    const float sy = static_cast<float>(static_cast<int64_t>(y) * S);
    for (int x = 0; x < W; ++x) {
      const float sx = static_cast<float>(static_cast<int64_t>(x) * S);
      for (int a = 0; a < A; ++a, out += 4) {
        const float* b = base_anchors + 4 * static_cast<size_t>(a);
        float x1 = b[0] + sx;
        float y1 = b[1] + sy;
        float x2 = b[2] + sx;
        float y2 = b[3] + sy;
        if (suppress) {
          // The upper limit is the image size itself (not size - 1).
          x1 = limit_coord(x1, lim_x);
          y1 = limit_coord(y1, lim_y);
          x2 = limit_coord(x2, lim_x);
          y2 = limit_coord(y2, lim_y);
        }
        out[0] = x1;
        out[1] = y1;
        out[2] = x2;
        out[3] = y2;
      }
    }
  }
}

void anchors_generate(thread_pool* pool, const float* base_anchors, float* anchors, unsigned A,
                      unsigned S, unsigned H, unsigned W, bool suppress, unsigned img_h,
                      unsigned img_w) {
  // Exactly ten bands whatever the number of workers.
  anchor_band_task bands[k_anchor_bands];
  const size_t floats_per_row = static_cast<size_t>(W) * A * 4;
  for (unsigned k = 0; k < k_anchor_bands; ++k) {
    anchor_band_task& b = bands[k];
    unsigned first_row, rows;
    anchor_band_rows(k, H, &first_row, &rows);
    b.task.func = anchor_band_run;
    b.task.arg = &b;
    b.task.retval = 0;
    b.base_anchors = base_anchors;
    b.out = anchors + first_row * floats_per_row;
    b.rows = static_cast<int>(rows);
    b.first_row = static_cast<int>(first_row);
    b.W = static_cast<int>(W);
    b.S = static_cast<int>(S);
    b.A = static_cast<int>(A);
    b.suppress = suppress;
    b.img_h = static_cast<int>(img_h);
    b.img_w = static_cast<int>(img_w);
  }
  // A refused band stays as it was (zero after init's allocation).
  dispatch_tasks(pool, bands, k_anchor_bands, on_refused::skip, nullptr,
                 while_waiting::run_queued);
}

}  // namespace ol
