// Fuzz target of nms: any box values (NaN, infinities, reversed boxes), any
// threshold, counts within the contract (0..32767, negative too) and any
// max_out. The output array has exactly the room for the boxes that may be
// kept; the result must equal the plain scalar twin's.
#include <math.h>

#include <algorithm>

#include "../tests/frcnn/nms_ref.h"
#include "fuzz_util.h"

using namespace ol_fuzz;

OL_FUZZ_TARGET(in, size) {
  const uint8_t kind = in.ConsumeIntegral<uint8_t>();
  int count, max_out;
  // Mostly small counts: the quadratic oracle dominates the run time of the
  // larger ones.
  if (kind < 248) {
    count = in.ConsumeIntegralInRange<int>(0, kind < 224 ? 64 : 300);
    max_out = in.ConsumeIntegralInRange<int>(-2, count + 2);
  } else if (kind < 252) {
    // Lists too long for the stack scratch (above about 600 boxes) take the
    // heap path; one in eight has the largest count. max_out keeps the
    // greedy loop short.
    count = (in.ConsumeIntegral<uint8_t>() & 7) == 0 ? 32767 : in.ConsumeIntegralInRange<int>(500, 2500);
    max_out = in.ConsumeIntegralInRange<int>(-1, count == 32767 ? 8 : 64);
  } else {
    count = in.ConsumeIntegralInRange<int>(-70000, 0);
    max_out = in.ConsumeIntegral<int>();
  }
  const float iou = draw_float(in, 0.0f, 1.0f);
  buffer<uint16_t> boxes(5ull * std::max(count, 0));
  filler f(size);
  const uint8_t spread = in.ConsumeIntegral<uint8_t>();
  fill_halves(boxes, in, 400, f, 10.0f + spread * 8.0f);
  // Corners ordered for most boxes so that they overlap like real ones.
  if (spread & 1)
    for (size_t i = 0; i + 5 <= boxes.size(); i += 5) {
      const float x = opt_layers_half::to_float(boxes[i]), y = opt_layers_half::to_float(boxes[i + 1]);
      boxes[i + 2] = opt_layers_half::from_float_round(x + fabsf(opt_layers_half::to_float(boxes[i + 2])));
      boxes[i + 3] = opt_layers_half::from_float_round(y + fabsf(opt_layers_half::to_float(boxes[i + 3])));
    }
  const size_t room = static_cast<size_t>(std::max(0, std::min(count, max_out)));
  buffer<uint16_t> out(4 * room), expect(4 * room);
  const int r = nms(out.half(), boxes.half(), count, iou, max_out);
  OL_FUZZ_CHECK(r >= 0 && static_cast<size_t>(r) <= room);
  const int e = ol_ref::nms_ref(expect.data(), boxes.data(), count, iou, max_out);
  OL_FUZZ_CHECK(r == e);
  OL_FUZZ_CHECK(memcmp(out.data(), expect.data(), 8ull * r) == 0);
}
