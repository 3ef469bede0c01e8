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
  std::vector<float> box(4 * static_cast<size_t>(n)), area(n);
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < 4; ++k) box[4 * i + k] = opt_layers_half::to_float(in[5 * i + k]);
    area[i] = (box[4 * i + 2] - box[4 * i] + 1) * (box[4 * i + 3] - box[4 * i + 1] + 1);
  }
  auto corner = [&](int i, int k) { return box[4 * i + k]; };
  std::vector<uint8_t> marked(n, 0);
  int kept = 0;
  for (int c = 0; c < n && kept < max_out; ++c) {
    if (marked[c]) continue;
    memcpy(out + 4 * kept, in + 5 * c, 8);
    ++kept;
    for (int j = c + 1; j < n; ++j) {
      if (marked[j]) continue;
      const float w = std::min(corner(c, 2), corner(j, 2)) - std::max(corner(c, 0), corner(j, 0)) + 1;
      if (w <= 0) continue;
      const float h = std::min(corner(c, 3), corner(j, 3)) - std::max(corner(c, 1), corner(j, 1)) + 1;
      if (h <= 0) continue;
      const float inter = w * h;
      if ((area[c] + area[j] - inter) * iou_threshold < inter) marked[j] = 1;
    }
  }
  return kept;
}

}  // namespace ol_ref

#endif
