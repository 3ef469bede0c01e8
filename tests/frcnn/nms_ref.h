// Plain scalar twin of nms: the test oracle (and the scalar baseline of the
// benchmark). Marks in a flag array, corners and areas converted once, the
// overlap test written exactly as the kernel's contract states it.
#ifndef OL_TESTS_FRCNN_NMS_REF_H
#define OL_TESTS_FRCNN_NMS_REF_H

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "brennik_opt_layers.h"

namespace ol_ref {

inline int nms_ref(uint16_t* out, const uint16_t* in, int count, float iou_threshold, int max_out) {
  const int n = static_cast<int16_t>(count);  // the count is a signed 16-bit number
  if (count <= 0 || n <= 0 || max_out <= 0) return 0;
  std::vector<float> b(4 * static_cast<size_t>(n)), area(n);  // corners as floats
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < 4; ++k) b[4 * i + k] = opt_layers_half::to_float(in[5 * i + k]);
    area[i] = (b[4 * i + 2] - b[4 * i] + 1) * (b[4 * i + 3] - b[4 * i + 1] + 1);
  }
  std::vector<uint8_t> marked(n, 0);
  int kept = 0;
  for (int c = 0; c < n && kept < max_out; ++c) {
    if (marked[c]) continue;
    memcpy(out + 4 * kept++, in + 5 * c, 8);
    for (int j = c + 1; j < n; ++j) {
      const float w = std::min(b[4 * c + 2], b[4 * j + 2]) - std::max(b[4 * c], b[4 * j]) + 1;
      const float h = std::min(b[4 * c + 3], b[4 * j + 3]) - std::max(b[4 * c + 1], b[4 * j + 1]) + 1;
      if (marked[j] || w <= 0 || h <= 0) continue;
      if ((area[c] + area[j] - w * h) * iou_threshold < w * h) marked[j] = 1;
    }
  }
  return kept;
}

}  // namespace ol_ref

#endif
