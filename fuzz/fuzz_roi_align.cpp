// Fuzz target of roi_align_fmap_int16 and roi_align_four_fmap_int16: any
// float box values (NaN, infinities, far outside the map), map sides from 0,
// strides from 0 (rejected), channel counts valid or not. Arrays are sized
// exactly; a rejected call must leave the output untouched, and a second
// identical call must give the same output.
#include <algorithm>

#include "fuzz_util.h"

using namespace ol_fuzz;

OL_FUZZ_TARGET(in, size) {
  const bool four = in.ConsumeBool();
  const unsigned channel = draw_channel(in, 3);
  const unsigned pool_w = in.ConsumeIntegralInRange<unsigned>(0, 9);
  const unsigned pool_h = in.ConsumeIntegralInRange<unsigned>(0, 9);
  const unsigned roi_num = in.ConsumeIntegralInRange<unsigned>(0, 8);
  const size_t cstore = std::max(channel, 1u);
  const size_t out_n = static_cast<size_t>(roi_num) * pool_w * pool_h * channel;
  filler f(size);
  buffer<float> boxes(4ull * roi_num);
  if (!four) {
    const unsigned W = in.ConsumeIntegralInRange<unsigned>(0, 40);
    const unsigned H = in.ConsumeIntegralInRange<unsigned>(0, 40);
    const uint8_t sk = in.ConsumeIntegral<uint8_t>();
    const unsigned scale = sk < 240 ? 1 + sk % 32 : (sk & 1 ? 0 : in.ConsumeIntegral<unsigned>());
    fill_floats(boxes, in, 32, f, 1.2f * std::max(W, H) * std::max(scale, 1u) + 4.0f);
    buffer<int16_t> fmap(static_cast<size_t>(W) * H * cstore);
    fill_bits(fmap, f);
    const bool null_map = in.ConsumeIntegral<uint8_t>() >= 250;
    short* m = null_map ? nullptr : fmap.data();
    const int expect = null_map || scale == 0 || !valid_channel(channel) ? -1 : 0;
    check_call<int16_t>(out_n, expect, true, [&](int16_t* out) {
      return roi_align_fmap_int16(m, scale, boxes.data(), roi_num, W, H, pool_w, pool_h, channel, out);
    });
    return;
  }
  const unsigned img_w = in.ConsumeIntegralInRange<unsigned>(0, 300);
  const unsigned img_h = in.ConsumeIntegralInRange<unsigned>(0, 300);
  unsigned scales[3];
  bool bad_scale = false;
  for (unsigned& s : scales) {
    const uint8_t sk = in.ConsumeIntegral<uint8_t>();
    s = sk < 245 ? 4 + sk % 60 : (sk & 1 ? 0 : in.ConsumeIntegral<unsigned>());
    bad_scale = bad_scale || s == 0;
  }
  fill_floats(boxes, in, 32, f, 1.2f * std::max(img_w, img_h) + 4.0f);
  auto level = [&](unsigned s) { return static_cast<size_t>(s ? img_w / s * (img_h / s) : 0) * cstore; };
  buffer<int16_t> m0(level(scales[0])), m1(level(scales[1])), m2(level(scales[2]));
  for (buffer<int16_t>* m : {&m0, &m1, &m2}) fill_bits(*m, f);
  short* maps[3] = {m0.data(), m1.data(), m2.data()};
  const uint8_t nk = in.ConsumeIntegral<uint8_t>();
  const bool null_map = nk >= 250;
  if (null_map) maps[nk % 3] = nullptr;
  const int expect = null_map || bad_scale || !valid_channel(channel) ? -1 : 0;
  check_call<int16_t>(out_n, expect, true, [&](int16_t* out) {
    return roi_align_four_fmap_int16(maps, scales, boxes.data(), roi_num, img_w, img_h, pool_w, pool_h,
                                     channel, out);
  });
}
