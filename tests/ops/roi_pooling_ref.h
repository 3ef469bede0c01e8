// Plain scalar twin of roi_pooling / roi_pooling_sign: the test oracle (and
// the scalar baseline of the benchmark). One element at a time, indices
// written out as in the layout description.
#ifndef OL_TESTS_OPS_ROI_POOLING_REF_H
#define OL_TESTS_OPS_ROI_POOLING_REF_H

#include <stddef.h>
#include <stdint.h>

#include <algorithm>

#include "brennik_opt_layers.h"

namespace ol_ref {

// Half -> float -> integer truncated toward zero (NaN 0, infinities
// saturated to 32 bits) -> low 16 bits as a signed value.
inline int16_t roi_coord(uint16_t half_bits) {
  const float v = opt_layers_half::to_float(half_bits);
  if (v != v) return 0;
  if (v >= 2147483648.0f) return static_cast<int16_t>(INT32_MAX);
  if (v < -2147483648.0f) return static_cast<int16_t>(INT32_MIN);
  return static_cast<int16_t>(static_cast<int64_t>(v));
}

// A bin bound: 16-bit start + offset, clamped to [0, n].
inline int roi_bound(int16_t start, int offset, int n) {
  return std::min(std::max<int>(static_cast<int16_t>(start + offset), 0), n);
}

inline void roi_pooling_ref(bool is_signed, const uint16_t* proposal, const uint16_t* fmap,
                            uint16_t* roi_result, int roi_num, int pool_w, int pool_h,
                            int fmap_scale, int fmap_h, int fmap_w, int fmap_d) {
  const int G = fmap_d / 16;
  if (roi_num < 1 || G < 1 || pool_h < 1 || pool_w < 1 || fmap_scale < 1) return;
  for (int r = 0; r < roi_num; ++r) {
    int16_t cell[4];  // start_w, start_h, end_w, end_h
    for (int k = 0; k < 4; ++k)
      cell[k] = static_cast<int16_t>((roi_coord(proposal[4 * r + k]) + 8) / fmap_scale);
    const int16_t roi_w = std::max<int16_t>(static_cast<int16_t>(cell[2] - cell[0] + 1), 1);
    const int16_t roi_h = std::max<int16_t>(static_cast<int16_t>(cell[3] - cell[1] + 1), 1);
    const int bin_w = (roi_w * 128) / pool_w, bin_h = (roi_h * 128) / pool_h;
    for (int c = 0; c < G * 16; ++c) {
      for (int ph = 0; ph < pool_h; ++ph) {
        const int hstart = roi_bound(cell[1], (ph * bin_h) >> 7, fmap_h);
        const int hend = roi_bound(cell[1], (ph * bin_h + bin_h + 127) >> 7, fmap_h);
        for (int pw = 0; pw < pool_w; ++pw) {
          const int wstart = roi_bound(cell[0], (pw * bin_w) >> 7, fmap_w);
          const int wend = roi_bound(cell[0], (pw * bin_w + bin_w + 127) >> 7, fmap_w);
          int best = is_signed ? -32768 : 0;
          for (int y = hstart; y < hend; ++y) {
            for (int x = wstart; x < wend; ++x) {
              const uint16_t e = fmap[((size_t(c / 16) * fmap_h + y) * fmap_w + x) * 16 + c % 16];
              best = std::max(best, is_signed ? int(int16_t(e)) : int(e));
            }
          }
          roi_result[(((size_t(r) * G + c / 16) * pool_h + ph) * pool_w + pw) * 16 + c % 16] =
              uint16_t(best);
        }
      }
    }
  }
}

}  // namespace ol_ref

#endif
