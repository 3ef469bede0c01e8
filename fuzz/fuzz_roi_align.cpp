// Fuzz target of roi_align_fmap_int16 and roi_align_four_fmap_int16: any
// float box values (NaN, infinities, far outside the map), map sides from 0,
// strides from 0 (rejected), channel counts valid or not. Arrays are sized
// exactly; a rejected call must leave the output untouched, and a second
// identical call must give the same output.
#include <algorithm>

#include "fuzz_util.h"

using namespace ol_fuzz;

OL_FUZZ_SILENT_INIT()

namespace {

unsigned draw_channel(FuzzedDataProvider& in) {
  const uint8_t k = in.ConsumeIntegral<uint8_t>();
  if (k < 200) return 16u * (1 + k % 3);
  return in.ConsumeIntegralInRange<unsigned>(0, 40);  // mostly not a multiple of 16
}

bool valid_channel(unsigned c) { return c != 0 && c % 16 == 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const bool four = in.ConsumeBool();
  const unsigned channel = draw_channel(in);
  const unsigned pool_w = in.ConsumeIntegralInRange<unsigned>(0, 9);
  const unsigned pool_h = in.ConsumeIntegralInRange<unsigned>(0, 9);
  const unsigned roi_num = in.ConsumeIntegralInRange<unsigned>(0, 8);
  const size_t cstore = std::max(channel, 1u);
  filler f(size);
  buffer<float> boxes(4ull * roi_num);
  buffer<int16_t> out(static_cast<size_t>(roi_num) * pool_w * pool_h * channel);
  buffer<int16_t> again(out.size());
  out.fill_bytes(0xA5);
  again.fill_bytes(0xA5);
  int r;
  if (!four) {
    const unsigned W = in.ConsumeIntegralInRange<unsigned>(0, 40);
    const unsigned H = in.ConsumeIntegralInRange<unsigned>(0, 40);
    const uint8_t sk = in.ConsumeIntegral<uint8_t>();
    const unsigned scale = sk < 240 ? 1 + sk % 32 : (sk & 1 ? 0 : in.ConsumeIntegral<unsigned>());
    fill_floats(boxes, in, 32, f, 1.2f * std::max(W, H) * std::max(scale, 1u) + 4.0f);
    buffer<int16_t> fmap(static_cast<size_t>(W) * H * cstore);
    for (size_t i = 0; i < fmap.size(); ++i) fmap[i] = static_cast<int16_t>(f.next());
    const bool null_map = in.ConsumeIntegral<uint8_t>() >= 250;
    short* m = null_map ? nullptr : fmap.data();
    r = roi_align_fmap_int16(m, scale, boxes.data(), roi_num, W, H, pool_w, pool_h, channel,
                             out.data());
    const int r2 = roi_align_fmap_int16(m, scale, boxes.data(), roi_num, W, H, pool_w, pool_h,
                                        channel, again.data());
    OL_FUZZ_CHECK(r == r2);
    OL_FUZZ_CHECK(r == ((null_map || scale == 0 || !valid_channel(channel)) ? -1 : 0));
  } else {
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
    buffer<int16_t> m0(static_cast<size_t>(scales[0] ? img_w / scales[0] * (img_h / scales[0]) : 0) * cstore);
    buffer<int16_t> m1(static_cast<size_t>(scales[1] ? img_w / scales[1] * (img_h / scales[1]) : 0) * cstore);
    buffer<int16_t> m2(static_cast<size_t>(scales[2] ? img_w / scales[2] * (img_h / scales[2]) : 0) * cstore);
    for (buffer<int16_t>* m : {&m0, &m1, &m2})
      for (size_t i = 0; i < m->size(); ++i) (*m)[i] = static_cast<int16_t>(f.next());
    short* maps[3] = {m0.data(), m1.data(), m2.data()};
    const uint8_t nk = in.ConsumeIntegral<uint8_t>();
    const bool null_map = nk >= 250;
    if (null_map) maps[nk % 3] = nullptr;
    r = roi_align_four_fmap_int16(maps, scales, boxes.data(), roi_num, img_w, img_h, pool_w,
                                  pool_h, channel, out.data());
    const int r2 = roi_align_four_fmap_int16(maps, scales, boxes.data(), roi_num, img_w, img_h,
                                             pool_w, pool_h, channel, again.data());
    OL_FUZZ_CHECK(r == r2);
    OL_FUZZ_CHECK(r == ((null_map || bad_scale || !valid_channel(channel)) ? -1 : 0));
  }
  OL_FUZZ_CHECK(out.equals(again));
  if (r != 0)
    for (size_t i = 0; i < out.size(); ++i) OL_FUZZ_CHECK(static_cast<uint16_t>(out[i]) == 0xA5A5);
  return 0;
}
