// Fuzz target of crop_and_resize_fmap_int16: any box values, scales and
// extrapolation value (NaN, infinities), map sides from 0, crop sizes from
// 0, channel counts valid or not. Arrays are sized exactly; a rejected call
// must leave the output untouched, and a second identical call must give the
// same output.
#include <algorithm>

#include "fuzz_util.h"

using namespace ol_fuzz;

OL_FUZZ_TARGET(in, size) {
  const unsigned channel = draw_channel(in, 2);
  const unsigned crop_w = in.ConsumeIntegralInRange<unsigned>(0, 9);
  const unsigned crop_h = in.ConsumeIntegralInRange<unsigned>(0, 9);
  const unsigned roi_num = in.ConsumeIntegralInRange<unsigned>(0, 6);
  const unsigned W = in.ConsumeIntegralInRange<unsigned>(0, 40);
  const unsigned H = in.ConsumeIntegralInRange<unsigned>(0, 40);
  const float scale_x = draw_float(in, 0.0f, 4.0f);
  const float scale_y = draw_float(in, 0.0f, 4.0f);
  const float extrapolation = draw_float(in, -70000.0f, 70000.0f);
  filler f(size);
  buffer<float> boxes(4ull * roi_num);
  fill_floats(boxes, in, 24, f, 1.5f * std::max(W, H) + 2.0f);
  buffer<int16_t> fmap(static_cast<size_t>(W) * H * std::max(channel, 1u));
  fill_bits(fmap, f);
  const bool null_map = in.ConsumeIntegral<uint8_t>() >= 250;
  short* m = null_map ? nullptr : fmap.data();
  const int expect = null_map || !valid_channel(channel) ? -1 : 0;
  const size_t out_n = static_cast<size_t>(roi_num) * crop_w * crop_h * channel;
  check_call<int16_t>(out_n, expect, true, [&](int16_t* out) {
    return crop_and_resize_fmap_int16(m, scale_x, scale_y, extrapolation, boxes.data(), roi_num, W, H,
                                      crop_w, crop_h, channel, out);
  });
}
