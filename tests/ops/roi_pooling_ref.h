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
  int64_t i;
  if (v != v)
    i = 0;
  else if (v >= 2147483648.0f)
    i = INT32_MAX;
  else if (v < -2147483648.0f)
    i = INT32_MIN;
  else
    i = static_cast<int64_t>(v);
  return static_cast<int16_t>(i);
}

inline int roi_clamp(int16_t v, int n) { return std::min(std::max(static_cast<int>(v), 0), n); }

inline void roi_pooling_ref(bool is_signed, const uint16_t* proposal, const uint16_t* fmap,
                            uint16_t* roi_result, int roi_num, int pool_w, int pool_h,
                            int fmap_scale, int fmap_h, int fmap_w, int fmap_d) {
  const int G = fmap_d / 16;
  if (roi_num < 1 || G < 1 || pool_h < 1 || pool_w < 1 || fmap_scale < 1) return;
  for (int r = 0; r < roi_num; ++r) {
    const uint16_t* box = proposal + 4 * r;
    const int16_t roi_start_w = static_cast<int16_t>((roi_coord(box[0]) + 8) / fmap_scale);
    const int16_t roi_start_h = static_cast<int16_t>((roi_coord(box[1]) + 8) / fmap_scale);
    const int16_t roi_end_w = static_cast<int16_t>((roi_coord(box[2]) + 8) / fmap_scale);
    const int16_t roi_end_h = static_cast<int16_t>((roi_coord(box[3]) + 8) / fmap_scale);
    const int16_t roi_h = std::max<int16_t>(static_cast<int16_t>(roi_end_h - roi_start_h + 1), 1);
    const int16_t roi_w = std::max<int16_t>(static_cast<int16_t>(roi_end_w - roi_start_w + 1), 1);
    const int bin_h = (roi_h * 128) / pool_h;
    const int bin_w = (roi_w * 128) / pool_w;
    for (int c = 0; c < G * 16; ++c) {
      for (int ph = 0; ph < pool_h; ++ph) {
        for (int pw = 0; pw < pool_w; ++pw) {
          const int hstart = roi_clamp(static_cast<int16_t>(roi_start_h + ((ph * bin_h) >> 7)), fmap_h);
          const int hend =
              roi_clamp(static_cast<int16_t>(roi_start_h + ((ph * bin_h + bin_h + 127) >> 7)), fmap_h);
          const int wstart = roi_clamp(static_cast<int16_t>(roi_start_w + ((pw * bin_w) >> 7)), fmap_w);
          const int wend =
              roi_clamp(static_cast<int16_t>(roi_start_w + ((pw * bin_w + bin_w + 127) >> 7)), fmap_w);
          int best = is_signed ? -32768 : 0;
          for (int y = hstart; y < hend; ++y) {
            for (int x = wstart; x < wend; ++x) {
              const uint16_t e =
                  fmap[((static_cast<size_t>(c / 16) * fmap_h + y) * fmap_w + x) * 16 + c % 16];
              best = std::max(best, is_signed ? static_cast<int>(static_cast<int16_t>(e)) : e);
            }
          }
          roi_result[((((static_cast<size_t>(r) * G + c / 16) * pool_h + ph) * pool_w + pw) * 16) +
                     c % 16] = static_cast<uint16_t>(best);
        }
      }
    }
  }
}

}  // namespace ol_ref

#endif
