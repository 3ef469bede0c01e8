// Fuzz target of roi_pooling and roi_pooling_sign: any half box values
// (NaN, infinities, huge, reversed), map and pool sizes within the contract
// (map sides up to 32767, fmap_scale >= 1; occasionally below 1, which must
// write nothing), any channel count. The output array has exactly the room
// for roi_num boxes; the result must equal the plain scalar twin's.
#include <algorithm>

#include "../tests/ops/roi_pooling_ref.h"
#include "fuzz_util.h"

using namespace ol_fuzz;

OL_FUZZ_TARGET(in, size) {
  const bool is_signed = in.ConsumeBool();
  int fmap_h = in.ConsumeIntegralInRange<int>(0, 24);
  int fmap_w = in.ConsumeIntegralInRange<int>(0, 24);
  const uint8_t big = in.ConsumeIntegral<uint8_t>();
  if (big >= 248) (big & 1 ? fmap_h : fmap_w) = in.ConsumeIntegralInRange<int>(24, 32767);
  int fmap_d = in.ConsumeIntegralInRange<int>(-16, 64);
  if (static_cast<int64_t>(std::max(fmap_d, 0)) * fmap_h * fmap_w > (1 << 20)) fmap_d = 16;
  const int pool_h = in.ConsumeIntegralInRange<int>(-1, 9);
  const int pool_w = in.ConsumeIntegralInRange<int>(-1, 9);
  const uint8_t sk = in.ConsumeIntegral<uint8_t>();
  const int fmap_scale = sk < 240 ? 1 + sk % 32 : in.ConsumeIntegralInRange<int>(-3, 0);
  const int roi_num = in.ConsumeIntegralInRange<int>(-2, 12);
  const int pool_pitch = in.ConsumeIntegral<int>(), fmap_pitch = in.ConsumeIntegral<int>();

  const size_t G = fmap_d > 0 ? fmap_d / 16 : 0;
  const size_t R = roi_num > 0 ? roi_num : 0;
  buffer<uint16_t> boxes(4 * R);
  filler f(size);
  fill_halves(boxes, in, 48, f, 20.0f * std::max(fmap_h, fmap_w) * fmap_scale);
  buffer<uint16_t> fmap(G * fmap_h * fmap_w * 16);
  fill_bits(fmap, f);
  const size_t cells = pool_h > 0 && pool_w > 0 ? static_cast<size_t>(pool_h) * pool_w : 0;
  buffer<uint16_t> out(R * G * cells * 16), expect(out.size());
  out.fill_bytes(0xA5);
  expect.fill_bytes(0xA5);
  auto fn = is_signed ? roi_pooling_sign : roi_pooling;
  const int r = fn(boxes.half(), fmap.data(), out.data(), roi_num, pool_w, pool_h, pool_pitch,
                   fmap_scale, fmap_pitch, fmap_h, fmap_w, fmap_d);
  OL_FUZZ_CHECK(r == 0);
  ol_ref::roi_pooling_ref(is_signed, boxes.data(), fmap.data(), expect.data(), roi_num, pool_w,
                          pool_h, fmap_scale, fmap_h, fmap_w, fmap_d);
  OL_FUZZ_CHECK(out.equals(expect));
}
